// Operation-table entries whose operations are not written yet.
//
// The registration tables name every operation the file system will have.
// Those below refuse with ENOTSUP, the same answer the kernel's default
// entry gives, so that a caller sees an honest "not supported" rather than
// a half-done operation. Each one is replaced, and removed from this file,
// when its operation is written.
//
// fsync is the exception that already does part of its work: unmount (and
// a failed mount's unwinding) fsyncs the allocation bitmap's vnode, and the
// bitmap's dirty cache block must reach the disk then. So fsync serves the
// bitmap vnode now and refuses for every other vnode.

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"

int exfat_vnop_open(struct vnop_open_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_close(struct vnop_close_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_getattr(struct vnop_getattr_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_setattr(struct vnop_setattr_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_read(struct vnop_read_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_write(struct vnop_write_args* ap) {
  return ENOTSUP;
}

// Writes the allocation bitmap's cache block and pushes the bitmap vnode's
// dirty pages (waiting for them with MNT_WAIT). Nothing is written on a
// read-only mount. The caller holds no driver lock; xm_bitmap_lock is taken
// around the cache write. Returns 0, the cache write's error (printed), or
// ENOTSUP for any vnode but the bitmap's.
int exfat_vnop_fsync(struct vnop_fsync_args* ap) {
  vnode_t vp = ap->a_vp;
  struct exfat_node* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr || (node->x_mount->xm_flags & XM_RDONLY))
    return 0;
  struct exfat_mount* mount = node->x_mount;
  if (vp != mount->xm_bitmap_vp)
    return ENOTSUP;

  bool wait = ap->a_waitfor == MNT_WAIT;
  lck_mtx_lock(mount->xm_bitmap_lock);
  int error = exfat_bitmap_cache_flush(mount, 0);
  if (error)
    kprintf("exfat_fsync_internal: error %d flushing bitmap cache!", error);
  lck_mtx_unlock(mount->xm_bitmap_lock);
  cluster_push(vp, wait ? IO_SYNC : 0);
  return error;
}

int exfat_vnop_pathconf(struct vnop_pathconf_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_pagein(struct vnop_pagein_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_pageout(struct vnop_pageout_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_mnomap(struct vnop_mnomap_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_ioctl(struct vnop_ioctl_args* ap) {
  return ENOTSUP;
}

// The volume sync walks every open file through its fsync, which comes with
// the node life cycle.
int exfat_vfs_sync(mount_t mp, int waitfor, vfs_context_t context) {
  return ENOTSUP;
}

// Renaming the volume needs free-slot search in the root directory.
int exfat_vfs_setattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context) {
  return ENOTSUP;
}
