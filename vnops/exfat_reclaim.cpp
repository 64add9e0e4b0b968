// The end of a node's life: inactive, when the last reference to its vnode
// goes, writes a dirty entry set back (or releases a removed file), and
// reclaim, when the vnode is recycled, runs inactive once more and destroys
// the node.

#include "exfat_dirindex.h"
#include "exfat_proto.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/namecache.h"
#include "host/ubc.h"
#include "host/vnode.h"

namespace {

// Inactive asks for a rewrite when the node is dirty and neither the root
// nor a system file; deleted nodes were handled before it asks.
constexpr uint32_t kInactiveRewriteMask = X_ROOT | X_DIRTY | X_SYSTEM;  // 0x0821

// Releases a removed node whose last user has gone: its cached buffers and
// pages are dropped unwritten (the data is unreachable, its entry set is
// gone), its clusters are freed by truncating it to 0, and the vnode is
// recycled so that reclaim follows at once. Caller holds the node's lock
// once; it is dropped around the cache invalidation and held again on
// return. Returns 0 or the truncation's error.
int inactive_deleted(vnode_t vp, struct exfat_node* node, vfs_context_t context) {
  if (node->x_size == 0) {
    vnode_recycle(vp);
    return 0;
  }
  exfat_node_unlock(node);
  buf_invalidateblks(vp, 0, 0, 0);
  ubc_setsize(vp, 0);
  exfat_node_lock(node);
  // The size is read again: truncating to the size the node already has is
  // a caller error, and the node was unlocked meanwhile.
  int error = 0;
  if (node->x_size != 0) {
    // A directory's blocks live in the device's buffer cache, not the
    // vnode's. A directory replaced by a rename reaches this point with its
    // clusters still allocated, and a delayed write of one of its blocks
    // must not land on a cluster that a file gets once they are freed
    // (rmdir discards them itself and arrives here with size 0).
    if (node->x_attributes & EXFAT_ATTR_DIRECTORY)
      error = exfat_dir_invalidate(node);
    if (error == 0)
      error = exfat_truncate(node, 0, 0, context);
  }
  vnode_recycle(vp);
  exfat_meta_flush(node->x_mount, 0);
  return error;
}

// Rewrites the entry set of a dirty node in its parent. Caller holds the
// node's lock once. Returns 0, -1 when the parent lock must be retried (the
// node is locked again, nothing else held), or the parent-lock or update
// error.
int inactive_update(struct exfat_node* node, vfs_context_t context) {
  struct exfat_node* parent;
  int error = exfat_lock_parent(node, &parent);
  if (error)
    return error;
  error = exfat_node_update(node, parent, context);
  if (error)
    kprintf("exfat_vnop_inactive: error %d from exfat_node_update", error);
  exfat_meta_flush(node->x_mount, 0);
  if (parent != nullptr) {
    exfat_node_unlock(parent);
    vnode_put(parent->x_vnode);
  }
  return error;
}

}  // namespace

// Runs when the vnode's last I/O and use references are gone, and from
// reclaim: pending times are stamped; a removed node is released; a dirty
// one gets its entry set rewritten in the parent. Nothing is written on a
// read-only volume. Takes and drops the node's lock (and the parent's,
// through exfat_lock_parent). Returns 0, or the parent-lock or node-update
// error.
int exfat_inactive(vnode_t vp, vfs_context_t context) {
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr || vnode_vfsisrdonly(vp))
    return 0;

  exfat_node_lock(node);
  exfat_update_times(node);
  int error;
  for (;;) {
    if (node->x_flags & X_DELETED) {
      error = inactive_deleted(vp, node, context);
      break;
    }
    if ((node->x_flags & kInactiveRewriteMask) != X_DIRTY) {
      error = 0;
      break;
    }
    // -1: the node was renamed while unlocked; decide again, it may even
    // have been deleted meanwhile.
    error = inactive_update(node, context);
    if (error != -1)
      break;
  }
  exfat_node_unlock(node);
  return error;
}

// The inactive vnode operation.
int exfat_vnop_inactive(struct vnop_inactive_args* ap) {
  return exfat_inactive(ap->a_vp, ap->a_context);
}

// Destroys the node of a vnode being recycled: a last inactive pass writes
// back what is pending, then the node leaves the hash and the name cache,
// drops its directory index, and is freed with its mutexes, and the vnode forgets it. Takes exfat_hash_lock
// only around the hash removal. Never fails.
int exfat_vnop_reclaim(struct vnop_reclaim_args* ap) {
  vnode_t vp = ap->a_vp;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  if (node == nullptr)
    return 0;

  (void)exfat_inactive(vp, ap->a_context);
  exfat_pending_node_gone(node->x_mount, node, (node->x_flags & X_DELETED) != 0);

  lck_mtx_lock(exfat_hash_lock);
  exfat_hash_remove(node);
  lck_mtx_unlock(exfat_hash_lock);

  cache_purge(vp);
  exfat_dirindex_drop(node);

  lck_mtx_free(node->x_io_lock, exfat_lck_grp);
  lck_mtx_free(node->x_lock, exfat_lck_grp);
  OSFree(node, sizeof(*node), exfat_node_tag);
  vnode_clearfsnode(vp);
  vnode_removefsref(vp);
  return 0;
}
