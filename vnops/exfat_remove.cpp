// Removing names: remove (a file or symbolic link) and rmdir (an empty
// directory), with the two directory walks rmdir and rename use, one that
// tests a directory for emptiness and one that releases the clusters held
// by the benign entries left in it, and the discarding of a removed
// directory's cached blocks.
//
// A removed file keeps its clusters until its last user lets go: inactive
// frees them, so an open file stays readable after its name is gone. A
// removed directory, which nobody can read through once it is empty, loses
// its clusters at once.
//
// Locking: both operations hold the directory's and the victim's node locks
// (exfat_lock_two, ascending address order) for their whole run;
// exfat_hash_lock is taken only to mark the victim stale; the allocation
// locks, xm_bitmap_lock before xm_fat_lock, are taken inside those.

#include "exfat_dirindex.h"
#include "exfat_proto.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/namecache.h"
#include "host/vnode.h"

namespace {

// GeneralPrimaryFlags / GeneralSecondaryFlags bits of a generic entry.
constexpr uint16_t kAllocationPossible = EXFAT_SECONDARY_ALLOCATION_POSSIBLE;  // bit 0
constexpr uint16_t kNoFatChain = EXFAT_SECONDARY_NO_FAT_CHAIN;                 // bit 1

// Offsets in a generic primary entry.
constexpr uint32_t kPrimaryFlagsOffset = 4;
constexpr uint32_t kFirstClusterOffset = 20;
constexpr uint32_t kDataLengthOffset = 24;

// Checks, under the locks of a directory and of the node named in it, that
// neither has been removed, that the node still lives in that directory and
// that the name still leads to the node's entry set. The caller holds both
// locks (exfat_lock_two). Returns 0 with the set's entry count in *count,
// or ERESTART after purging the name cache of the vnode found wanting, so
// that the kernel looks the name up again.
int victim_revalidate(vnode_t dvp, vnode_t vp, struct componentname* cnp, uint32_t* count,
                      vfs_context_t context) {
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  auto* victim = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(victim->x_lock, LCK_MTX_ASSERT_OWNED);
  if (dir->x_flags & X_DELETED) {
    cache_purge(dvp);
    return ERESTART;
  }
  // The node may have moved to another directory, even to the same offset
  // there, since the kernel looked it up.
  if ((victim->x_flags & X_DELETED) || victim->x_parent != dir) {
    cache_purge(vp);
    return ERESTART;
  }
  uint32_t offset = 0;
  int error = exfat_lookup_componentname(dir, cnp, &offset, count, context);
  if (error || offset != victim->x_dir_offset) {
    cache_purge(vp);
    return ERESTART;
  }
  return 0;
}

// Marks a node whose entry set is about to be deleted: its names leave the
// name cache, hash lookups stop finding it, and it forgets its parent (so
// that nothing rewrites its entry set any more). The caller holds the
// node's lock, not exfat_hash_lock.
void victim_mark_deleted(struct exfat_node* victim) {
  lck_mtx_assert(victim->x_lock, LCK_MTX_ASSERT_OWNED);
  cache_purge(victim->x_vnode);
  lck_mtx_lock(exfat_hash_lock);
  victim->x_hash_flags |= X_HASH_STALE;
  lck_mtx_unlock(exfat_hash_lock);
  victim->x_flags |= X_DELETED;
  victim->x_parent = nullptr;
}

// Releases one allocation recorded in a benign entry: `count` clusters from
// `first` in the bitmap when NoFatChain is set, else the FAT chain from
// `first`. An allocation of length 0 or with FirstCluster below 2 holds
// nothing. A range outside the heap is refused by the bitmap with EIO (and
// XM_CORRUPT), so an entry from a damaged volume can't free clusters that
// don't exist. The clusters stay allocated until `dir`, whose clusters
// hold the entry, is removed (exfat_pending.cpp). The caller holds the
// directory's lock and no allocation lock.
int free_allocation(struct exfat_node* dir, uint16_t flags, uint32_t first, uint64_t length) {
  if (first < EXFAT_FIRST_CLUSTER || length == 0)
    return 0;
  return exfat_free_allocation(dir, (flags & kNoFatChain) != 0, first, length);
}

}  // namespace

// The emptiness test's walk callback (set form, ITER_SETS): a File set
// means the directory is not empty. The Volume GUID, TexFAT padding and
// access-control entries never reach it, so a directory holding only those,
// or only other benign primaries, counts as empty. Returns ENOTEMPTY or 0.
int exfat_dir_empty_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  (void)argument;
  (void)entry;
  (void)offset;
  return set[0] == EXFAT_ENTRY_FILE ? ENOTEMPTY : 0;
}

// The walk callback (set form, ITER_SETS, argument the directory's node) that
// releases the clusters held by the sets left in an empty directory being
// removed: the primary's allocation and each secondary's, where
// AllocationPossible says there is one. Runs under the directory's node
// lock; takes the allocation locks. Returns 0; EIO (logged) for a primary
// that is not benign, since only an emptied directory is walked; or the
// first release error, which ends the walk (what was freed stays freed).
int exfat_dir_free_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  (void)entry;
  (void)offset;
  auto* dir = static_cast<struct exfat_node*>(argument);
  if (!(set[0] & EXFAT_ENTRY_BENIGN)) {
    kprintf("exfat_dir_free_callback: found unexpected primary of type 0x%2x", set[0]);
    return EIO;
  }

  uint16_t flags = le16dec(set + kPrimaryFlagsOffset);
  int error = 0;
  if (flags & kAllocationPossible)
    error = free_allocation(dir, flags, le32dec(set + kFirstClusterOffset),
                            le64dec(set + kDataLengthOffset));
  for (uint32_t i = 1; error == 0 && i <= set[1]; i++) {
    const uint8_t* secondary = set + i * EXFAT_ENTRY_SIZE;
    if (secondary[1] & kAllocationPossible)
      error = free_allocation(dir, secondary[1], le32dec(secondary + kFirstClusterOffset),
                              le64dec(secondary + kDataLengthOffset));
  }
  return error;
}

namespace {

// Drops one cached metadata block without writing it (exfat_dir_each_block's
// `apply`; a drop always waits for the block's I/O).
void invalidate_block(struct exfat_mount* mount, daddr64_t block, bool wait) {
  (void)wait;
  buf_invalblkno(mount->xm_devvp, block, BUF_WAIT);
}

}  // namespace

// Drops every cached metadata block of a directory's clusters from the
// device's buffer cache without writing it, delayed writes included, so
// that a removed directory's blocks can't land on clusters that have been
// given to someone else; its index goes with them. The caller holds the
// directory's node lock. Returns 0 at the end of the clusters, or any other mapping error.
int exfat_dir_invalidate(struct exfat_node* dir) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  exfat_dirindex_drop(dir);
  return exfat_dir_each_block(dir, invalidate_block, true);
}

// Removes the name a_cnp, which leads to a_vp, from directory a_dvp. The
// file's clusters stay allocated until its last user lets go (inactive
// frees them). The caller holds no driver lock; both nodes are locked here.
//
// Returns 0; ERESTART when the directory or the file has been removed, or
// the name now leads elsewhere (name cache purged, the kernel retries);
// EBUSY, with nothing changed, when VNODE_REMOVE_NODELETEBUSY is given and
// the file is in use; or the error of deleting the entry set, after which
// the node is already marked deleted.
int exfat_vnop_remove(struct vnop_remove_args* ap) {
  vnode_t dvp = ap->a_dvp;
  vnode_t vp = ap->a_vp;
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  auto* victim = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  uint32_t count = 0;

  exfat_lock_two(dir, victim);
  int error = victim_revalidate(dvp, vp, ap->a_cnp, &count, ap->a_context);
  if (error)
    goto unlock;
  if ((ap->a_flags & VNODE_REMOVE_NODELETEBUSY) && vnode_isinuse(vp, 0)) {
    error = EBUSY;
    goto unlock;
  }
  victim_mark_deleted(victim);
  error = exfat_delete_dirents(dir, victim->x_dir_offset, count, 1, ap->a_context);
  exfat_meta_flush(dir->x_mount, 0);

unlock:
  exfat_node_unlock(dir);
  exfat_node_unlock(victim);
  return error;
}

// Removes the empty directory a_vp, named a_cnp in a_dvp, and frees its
// clusters and those held by the benign entries left in it. The caller
// holds no driver lock; both nodes are locked here.
//
// Returns 0; ERESTART as remove does; ENOTEMPTY when it holds a file or
// directory; the walk's error (EIO for a corrupt directory, or for a
// primary the release pass can't handle); a release error (the directory
// stays); or the first error of deleting its entry set, discarding its
// blocks or freeing its clusters, after which it is marked deleted.
int exfat_vnop_rmdir(struct vnop_rmdir_args* ap) {
  vnode_t dvp = ap->a_dvp;
  vnode_t vp = ap->a_vp;
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  auto* victim = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  struct exfat_mount* mount = dir->x_mount;
  uint32_t count = 0;

  exfat_lock_two(dir, victim);
  int error = victim_revalidate(dvp, vp, ap->a_cnp, &count, ap->a_context);
  if (error)
    goto unlock;
  error = exfat_dir_iterate(victim, 0, nullptr, exfat_dir_empty_callback, ITER_SETS,
                            ap->a_context);
  if (error)
    goto unlock;
  error = exfat_dir_iterate(victim, 0, victim, exfat_dir_free_callback, ITER_SETS, ap->a_context);
  if (error)
    goto unlock;

  victim_mark_deleted(victim);
  error = exfat_delete_dirents(dir, victim->x_dir_offset, count, 1, ap->a_context);
  {
    // The blocks go first, so that none of them is written over clusters
    // that are free again. A directory of size 0 exists only on a damaged
    // volume and has nothing to free.
    // Giving the clusters back is not a change to the directory's
    // contents: a program that still has it open keeps seeing the times
    // it had (the truncation would stamp a modification).
    int release_error = exfat_dir_invalidate(victim);
    const uint32_t stamp_pending = victim->x_flags & X_MODIFIED;
    if (release_error == 0 && victim->x_size != 0)
      release_error = exfat_truncate(victim, 0, 0, ap->a_context);
    victim->x_flags = (victim->x_flags & ~X_MODIFIED) | stamp_pending;
    if (error == 0)
      error = release_error;
  }
  exfat_meta_flush(mount, 0);

unlock:
  exfat_node_unlock(dir);
  exfat_node_unlock(victim);
  return error;
}
