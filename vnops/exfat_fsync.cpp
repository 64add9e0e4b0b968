// Open, close, fsync and the full-sync ioctl: the moments at which a node's
// deferred entry changes (sizes, clusters, times, held in x_flags as
// X_DIRTY and X_STREAM_DIRTY) are written back into its parent directory.
//
// Locking: data is pushed to the page cache and the disk without the node
// lock (close before taking it, fsync after dropping it), because page-out
// takes x_io_lock and the node lock itself. The entry is rewritten with the
// node locked and its parent locked through exfat_lock_parent, in the node
// lock order.

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/ubc.h"


namespace {

// A node needs its entry rewritten when it is dirty and is neither the root
// (no entry set), nor deleted, nor a system file.
constexpr uint32_t kRewriteMask = X_ROOT | X_DIRTY | X_DELETED | X_SYSTEM;  // 0x0C21

bool needs_rewrite(const struct exfat_node* node) {
  return (node->x_flags & kRewriteMask) == X_DIRTY;
}

void unlock_parent(struct exfat_node* parent) {
  if (parent != nullptr) {
    exfat_node_unlock(parent);
    vnode_put(parent->x_vnode);
  }
}

// Close's entry rewrite. The caller holds the node lock once. Returns 0, the
// parent-lock error (dirty bits left set) or the update's error.
int exfat_close_update(struct exfat_node* node, vfs_context_t context) {
  for (;;) {
    if (!needs_rewrite(node))
      return 0;
    struct exfat_node* parent = nullptr;
    int error = exfat_lock_parent(node, &parent);
    if (error == -1)
      continue;  // moved while unlocked; test the need again
    if (error)
      return error;
    error = exfat_node_update(node, parent, context);
    if (error)
      kprintf("exfat_vnop_close: error %d from exfat_node_update", error);
    exfat_meta_flush(node->x_mount, 0);
    unlock_parent(parent);
    return error;
  }
}

// Fsync's entry rewrite. The caller holds the node lock once. Returns
// `error` unchanged when nothing was to be written, 0 when the need went
// away during a retry, the parent-lock error (*keep_dirty set: the dirty
// bits must stay) or the update's error.
int exfat_fsync_update(struct exfat_node* node, int error, vfs_context_t context,
                       bool* keep_dirty) {
  bool retried = false;
  for (;;) {
    if (!needs_rewrite(node))
      return retried ? 0 : error;
    struct exfat_node* parent = nullptr;
    int lock_error = exfat_lock_parent(node, &parent);
    if (lock_error == -1) {
      retried = true;
      continue;
    }
    if (lock_error) {
      *keep_dirty = true;
      return lock_error;
    }
    int update_error = exfat_node_update(node, parent, context);
    if (update_error) {
      kprintf("exfat_fsync_internal: error %d from exfat_node_update", update_error);
      error = update_error;
    }
    unlock_parent(parent);
    return error;
  }
}

// Writes a delayed-write metadata block of a directory if the buffer cache
// holds it; a block that is not cached is not read.
void exfat_dir_flush_block(struct exfat_mount* mount, daddr64_t block, bool wait) {
  buf_t bp = buf_getblk(mount->xm_devvp, block, static_cast<int>(mount->xm_block_size), 0, 0,
                        BLK_META | BLK_ONLYVALID);
  if (bp == nullptr)
    return;
  if (buf_flags(bp) & B_DELWRI) {
    if (wait)
      buf_bwrite(bp);
    else
      buf_bawrite(bp);
  } else {
    buf_brelse(bp);
  }
}

}  // namespace

// Opening needs nothing of the driver: every file is always ready. Returns 0.
int exfat_vnop_open(struct vnop_open_args* ap) {
  (void)ap;
  return 0;
}

// Pushes the file's dirty data, then rewrites its entry set if it is dirty
// and asks for the delayed metadata flush. The data is pushed before the
// node lock is taken; the parent is locked for the rewrite. Returns 0, the
// parent-lock error, the rewrite's error, or the error of an earlier data
// write that nobody waited for (write-behind, page-out).
int exfat_vnop_close(struct vnop_close_args* ap) {
  vnode_t vp = ap->a_vp;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr)
    return 0;

  exfat_node_lock(node);
  off_t size = static_cast<off_t>(node->x_size);
  exfat_node_unlock(node);
  int push_error = cluster_push(vp, IO_CLOSE);
  // Stores through a mapping reach the disk only through page-out.
  int page_error = vnode_isreg(vp) ? ubc_msync(vp, 0, size, nullptr, UBC_PUSHDIRTY) : 0;

  exfat_node_lock(node);
  exfat_update_times(node);
  int error = exfat_close_update(node, ap->a_context);
  exfat_node_unlock(node);
  return error ? error : push_error ? push_error : page_error;
}

// The fsync vnode operation: the node's data and entry through
// exfat_fsync_internal (with a directory's cached dirty blocks), then a
// delayed metadata flush unless it is a system vnode (the bitmap at unmount:
// its cache block was written by the internal step). Nothing on a read-only
// mount. Takes the node lock. Returns 0 or exfat_fsync_internal's error.
int exfat_vnop_fsync(struct vnop_fsync_args* ap) {
  vnode_t vp = ap->a_vp;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr || (node->x_mount->xm_flags & XM_RDONLY))
    return 0;

  exfat_node_lock(node);
  int error = exfat_fsync_internal(vp, ap->a_waitfor == MNT_WAIT, true, ap->a_context);
  if (!vnode_issystem(vp))
    exfat_meta_flush(node->x_mount, 0);
  exfat_node_unlock(node);
  return error;
}

// Writes a vnode's data and entry back: the bitmap's cache block for the
// bitmap vnode, the dirty pages and buffers of the vnode (waited for with
// `wait`), a directory's dirty cached metadata blocks when
// `flush_dir_blocks` is set, and the entry set when the node needs it. The
// dirty bits are cleared in the end, also for nodes without an entry to
// rewrite.
//
// The caller holds the node lock exactly once; it is dropped while data is
// pushed (page-out takes it) and held again on return. xm_bitmap_lock is
// taken for the bitmap, with the node unlocked. Returns 0, the bitmap
// flush's error (logged), the parent-lock error (dirty bits then stay set),
// the update's error, or the error of writing the vnode's data.
int exfat_fsync_internal(vnode_t vp, bool wait, bool flush_dir_blocks, vfs_context_t context) {
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr)
    return 0;
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = node->x_mount;
  int error = 0;

  off_t size = static_cast<off_t>(node->x_size);
  exfat_node_unlock(node);
  // The bitmap's cache block is written with the bitmap node unlocked: the
  // metadata flush holds xm_bitmap_lock while the bitmap's pages are mapped,
  // which takes the bitmap node's lock, so that node lock must never be
  // held while waiting for xm_bitmap_lock.
  if (vp == mount->xm_bitmap_vp) {
    lck_mtx_lock(mount->xm_bitmap_lock);
    error = exfat_bitmap_cache_flush(mount, 0);
    if (error)
      kprintf("exfat_fsync_internal: error %d flushing bitmap cache!", error);
    lck_mtx_unlock(mount->xm_bitmap_lock);
  }
  // A data write that failed is this fsync's error: the caller is told
  // that its data did not reach the disk. The push writes what write()
  // dirtied; stores through a mapping reach the disk only through page-out
  // (ubc_msync, which a vnode without a page cache refuses).
  int push_error = cluster_push(vp, wait ? IO_SYNC : 0);
  int page_error =
      vnode_isreg(vp) ? ubc_msync(vp, 0, size, nullptr, UBC_PUSHDIRTY | (wait ? UBC_SYNC : 0)) : 0;
  if (push_error == 0)
    push_error = page_error;
  buf_flushdirtyblks(vp, wait, 0, "exfat_fsync_internal");
  if (error == 0)
    error = push_error;
  exfat_node_lock(node);

  if (flush_dir_blocks && (node->x_attributes & EXFAT_ATTR_DIRECTORY)) {
    // The directory's blocks may name clusters whose bitmap bits and FAT
    // links are still only in the allocation caches: those go first. Every
    // change to these blocks is made under this directory's lock, held from
    // here until they are written, so none can name a later allocation.
    (void)exfat_flush_alloc_caches(mount, "exfat_fsync_internal");
    (void)exfat_dir_flush(node, wait);
  }
  exfat_update_times(node);

  bool keep_dirty = false;
  error = exfat_fsync_update(node, error, context, &keep_dirty);
  if (!keep_dirty)
    node->x_flags &= ~(X_DIRTY | X_STREAM_DIRTY);
  return error;
}

// Calls apply(mount, block, wait) on every metadata block of the
// directory's clusters, in order. The caller holds the directory's node
// lock; the mapping takes xm_fat_lock for a chain, and `apply` is called
// with no allocation lock held. Returns 0 at the end of the clusters, or
// any other mapping error.
int exfat_dir_each_block(struct exfat_node* dir,
                         void (*apply)(struct exfat_mount* mount, daddr64_t block, bool wait),
                         bool wait) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = dir->x_mount;
  for (uint32_t index = 0;; index++) {
    uint64_t sector = 0;
    int error = exfat_blockmap(dir, index, 1, &sector, nullptr, nullptr);
    if (error == E2BIG)
      return 0;
    if (error)
      return error;
    for (uint32_t j = 0; j < mount->xm_blocks_per_cluster; j++)
      apply(mount, static_cast<daddr64_t>(sector + uint64_t(j) * mount->xm_sectors_per_block),
            wait);
  }
}

// Writes the directory's metadata blocks that sit in the buffer cache with a
// delayed write pending (synchronously with `wait`), cluster by cluster;
// blocks that are not cached are skipped, not read. Nothing for a deleted
// directory. The caller holds the directory's node lock; xm_fat_lock is
// taken for the mapping. Returns 0 or a mapping error other than the end of
// the directory.
int exfat_dir_flush(struct exfat_node* dir, bool wait) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  if (dir->x_flags & X_DELETED)
    return 0;
  return exfat_dir_each_block(dir, exfat_dir_flush_block, wait);
}

// The full-sync request (F_FULLFSYNC): fsync the vnode, waiting, then have
// the device flush its write cache. Other commands are not supported. The
// caller holds no driver lock. Returns 0, ENOTTY, the fsync's error or the
// device's.
int exfat_vnop_ioctl(struct vnop_ioctl_args* ap) {
  if (ap->a_command != F_FULLFSYNC)
    return ENOTTY;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(ap->a_vp));
  struct vnop_fsync_args fsync_args = {};
  fsync_args.a_desc = &vnop_fsync_desc;
  fsync_args.a_vp = ap->a_vp;
  fsync_args.a_waitfor = MNT_WAIT;
  fsync_args.a_context = ap->a_context;
  int error = exfat_vnop_fsync(&fsync_args);
  if (error)
    return error;
  return VNOP_IOCTL(node->x_mount->xm_devvp, DKIOCSYNCHRONIZECACHE, nullptr, FWRITE,
                    ap->a_context);
}
