// The volume sync: the kernel's periodic or explicit request to write
// everything of a mounted volume. The boot sector's percentInUse, the FAT
// and bitmap caches, every open file (its data and its entry) and finally
// the device's own dirty buffers are written, in that order.
//
// Locking: xm_fat_lock and xm_bitmap_lock are taken one after the other,
// never together; each file's node is locked around its fsync.

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/mount.h"

namespace {

// What the sync hands to each vnode it visits, and what comes back.
struct exfat_sync_args {
  vfs_context_t context;
  int waitfor;  // MNT_WAIT or MNT_NOWAIT
  int error;    // the last file's fsync error, 0 when all went well
};

}  // namespace

// Visits one vnode of the volume for exfat_vfs_sync: a file or directory
// (not a system file) is synced with exfat_fsync_internal under its node
// lock, without its directory blocks (the device's buffers are written at
// the end of the sync anyway). The vnode carries the iteration's I/O
// reference. Records an error in the argument record and always returns 0,
// so that the walk goes on.
int exfat_sync_callback(vnode_t vp, void* argument_record) {
  auto* args = static_cast<struct exfat_sync_args*>(argument_record);
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr || vnode_issystem(vp))
    return VNODE_RETURNED;

  exfat_node_lock(node);
  // Only MNT_WAIT waits: MNT_NOWAIT (2) starts the writes and goes on.
  int error = exfat_fsync_internal(vp, args->waitfor == MNT_WAIT, false, args->context);
  if (error)
    args->error = error;
  exfat_node_unlock(node);
  return VNODE_RETURNED;
}

// The file system's sync operation. Nothing on a read-only mount. Writes
// percentInUse (synchronously for MNT_WAIT), the bitmap cache and its pages,
// the FAT cache and the FAT vnode's pages, in the metadata flush's order
// (bitmap before FAT, see exfat_meta_flush_internal; cache write errors are
// printed and the cache is dropped as clean), every active file and
// directory, and then the device's buffers through its fsync; last the
// clusters given back whose owners' entries are on the disk now are freed
// (exfat_pending_finish). A metadata
// write that fails is recorded (exfat_note_write_error): the volume is not
// marked clean any more. The caller holds no driver lock. Returns the device
// fsync's error, else the caches', else the last file error, else the boot
// sector's.
int exfat_vfs_sync(mount_t mp, int waitfor, vfs_context_t context) {
  auto* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  if (mount->xm_flags & XM_RDONLY)
    return 0;

  int boot_error = exfat_sync_boot_sector(mount, waitfor, context);

  int cache_error = exfat_flush_alloc_caches(mount, "exfat_vfs_sync");

  struct exfat_sync_args args = {context, waitfor, 0};
  vnode_iterate(mp, VNODE_ITERATE_ACTIVE, exfat_sync_callback, &args);

  struct exfat_pending_free batch[EXFAT_PENDING_FREES];
  uint32_t n = exfat_pending_take(mount, batch);
  // The entries just written may name clusters allocated since the caches
  // were written: the caches go again, with the buffers, before the device
  // sync. Not after a cache write failed: the volume is not marked clean
  // any more, and the failing block is not retried.
  if (cache_error == 0)
    cache_error = exfat_flush_metadata(mount, waitfor == MNT_WAIT, "exfat_vfs_sync");
  int device_error = VNOP_FSYNC(mount->xm_devvp, waitfor, context);
  exfat_pending_finish(mount, batch, n, "exfat_vfs_sync");
  if (device_error)
    return exfat_note_write_error(mount, device_error);
  if (cache_error)
    return cache_error;
  if (args.error)
    return args.error;
  return boot_error;
}
