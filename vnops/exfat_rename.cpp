// Rename: moving a file or directory to a new name, in its directory or
// another one, replacing an existing target.
//
// exFAT keeps the name inside the file's own entry set, so a rename always
// writes a complete new set (the old one with its File Name entries
// replaced) into free slots of the target directory and only then frees the
// old set. The node keeps its identity: it is re-keyed in the node hash
// under its new place, and the vnode gets its new name and parent.
//
// Outline of exfat_vnop_rename, one helper per step:
//   1. lock the source directory, source, target directory and target
//      (exfat_lock_four, ascending address order);
//   2. revalidate: nothing removed or moved away meanwhile, the source
//      name still leads to the source (ERESTART otherwise)
//                                                      rename_revalidate
//   3. convert the target name                         rename_convert_target
//   4. find the target name in the target directory;
//   5. pick the victim (none for a case-only rename)   rename_find_target
//   6. a directory moving to another parent: take xm_rename_lock and refuse
//      a move into its own subtree                     rename_check_subtree
//   7. read the source's entry set                     rename_read_set
//   8. set Hidden from the new name;
//   9. put the new name into the set                   rename_build_set
//  10. find slots for the new set in the target        exfat_find_empty_entries
//  11. check the victim and delete its set             rename_replace_victim
//  12.-14. write the new set, delete the old one       rename_move_set
//  15. re-key the node, give the vnode its new identity rename_rekey
//  16. request the metadata flush;
//  17. release everything.
//
// On disk the order is: the victim's set deleted, the new set written, the
// old set deleted. Between the last two the file has two sets sharing its
// clusters; a failure there leaves both and returns the error. The node
// moves to its new key only after both writes succeeded, so until then
// lookups and exfat_node_update address the old set, which is still there.
//
// Locking: the four node locks are held for the whole operation.
// xm_rename_lock is taken after them, only for directory moves between
// parents (the only operations that give a directory a new parent), so that
// the ancestor walk of step 6 sees a tree that holds still. exfat_hash_lock
// is held only while the victim is marked stale and the source re-keyed.

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/namecache.h"
#include "host/utf8.h"
#include "host/vnode.h"

namespace {

// Everything one rename works with.
struct rename_state {
  // The arguments.
  vnode_t fdvp, fvp, tdvp, tvp;
  struct componentname* fcnp;
  struct componentname* tcnp;
  vfs_context_t context;
  // Their nodes; target is NULL without a target vnode.
  struct exfat_node* fdir;
  struct exfat_node* source;
  struct exfat_node* tdir;
  struct exfat_node* target;
  // The replaced node: the target unless it is the source itself.
  struct exfat_node* victim;
  struct exfat_mount* mount;

  uint32_t old_offset;     // the source's set in the source directory
  uint32_t old_count;      // its entries
  uint32_t target_offset;  // the victim's set in the target directory
  uint32_t target_count;   // its entries
  uint32_t new_offset;     // the slots of the new set
  uint16_t old_attributes;   // the source's x_attributes before step 8
  bool attributes_changed;   // step 8 ran: old_attributes is to be put back on failure

  uint16_t name[EXFAT_MAX_NAME_LENGTH];  // the target name, UTF-16
  uint32_t name_length;                   // in units
  uint16_t name_hash;

  uint8_t* buffer;        // the entry set, 8192 bytes
  bool rename_locked;     // xm_rename_lock is held
};

// Step 2: checks that none of the four nodes was removed, that the source
// still lives in the source directory and that the source name still leads
// to its set, remembering where that set is. The caller holds the four
// locks. Returns 0, or ERESTART after purging the name cache of the vnode
// found wanting.
int rename_revalidate(struct rename_state* rs) {
  lck_mtx_assert(rs->source->x_lock, LCK_MTX_ASSERT_OWNED);
  if (rs->fdir->x_flags & X_DELETED) {
    cache_purge(rs->fdvp);
    return ERESTART;
  }
  // The source may have moved to another directory, even to the same
  // offset there, since the kernel looked it up.
  if ((rs->source->x_flags & X_DELETED) || rs->source->x_parent != rs->fdir) {
    cache_purge(rs->fvp);
    return ERESTART;
  }
  int error = exfat_lookup_componentname(rs->fdir, rs->fcnp, &rs->old_offset, &rs->old_count,
                                         rs->context);
  if (error || rs->old_offset != rs->source->x_dir_offset) {
    cache_purge(rs->fvp);
    return ERESTART;
  }
  if (rs->tdir->x_flags & X_DELETED) {
    cache_purge(rs->tdvp);
    return ERESTART;
  }
  if (rs->target != nullptr && (rs->target->x_flags & X_DELETED)) {
    cache_purge(rs->tvp);
    return ERESTART;
  }
  return 0;
}

// Step 3: converts the target name to UTF-16 (at most 255 units) and hashes
// it. Returns 0 or the conversion's error (ENAMETOOLONG, EINVAL).
int rename_convert_target(struct rename_state* rs) {
  size_t bytes = 0;
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(rs->tcnp->cn_nameptr),
                             static_cast<size_t>(rs->tcnp->cn_namelen), rs->name, &bytes,
                             sizeof(rs->name), 0, UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error)
    return error;
  rs->name_length = static_cast<uint32_t>(bytes / sizeof(uint16_t));
  rs->name_hash =
      exfat_name_hash(rs->mount->xm_upcase, static_cast<uint8_t>(rs->name_length), rs->name);
  return 0;
}

// Steps 4 and 5: searches the target directory for the target name. With
// a target vnode the name must lead to the target's set, in the target
// directory; without one it must be absent. Picks the victim. The caller holds the four locks.
// Returns 0; ERESTART, after purging the target's name-cache entries, when
// the target vnode no longer matches its name; or EEXIST when a name the
// kernel thought free exists, or the search fails.
int rename_find_target(struct rename_state* rs) {
  lck_mtx_assert(rs->tdir->x_lock, LCK_MTX_ASSERT_OWNED);
  int error = exfat_lookup_name(rs->tdir, rs->name, rs->name_length, rs->name_hash,
                                rs->mount->xm_upcase, &rs->target_offset, &rs->target_count,
                                rs->context);
  if (rs->target != nullptr) {
    if (error || rs->target_offset != rs->target->x_dir_offset ||
        (rs->target != rs->source && rs->target->x_parent != rs->tdir)) {
      // Decision: the target's name-cache entries go too. The kernel's
      // lookup may have come from the cache, and a directory that changed
      // behind it (or that can no longer be searched) would otherwise be
      // answered from the cache again on every restart.
      cache_purge(rs->tvp);
      return ERESTART;
    }
  } else if (error != ENOENT) {
    return EEXIST;
  }
  // A case-only rename: the kernel's lookup of the new name found the
  // source itself, which is moved, not replaced.
  rs->victim = rs->target == rs->source ? nullptr : rs->target;
  return 0;
}

// Step 6: a directory moving to another parent must not move into itself
// or below itself. Takes xm_rename_lock for such moves and keeps it to the
// end (rs->rename_locked), so that no other directory move changes the
// x_parent links walked here. The caller holds the four node locks.
// Returns 0 or EINVAL.
int rename_check_subtree(struct rename_state* rs) {
  if (!(rs->source->x_attributes & EXFAT_ATTR_DIRECTORY) || rs->fdir == rs->tdir)
    return 0;
  lck_mtx_lock(rs->mount->xm_rename_lock);
  rs->rename_locked = true;
  for (struct exfat_node* n = rs->tdir; n != nullptr; n = n->x_parent) {
    if (n == rs->source)
      return EINVAL;
  }
  return 0;
}

// Step 7: allocates the work buffer and reads the source's whole entry set
// into it. The caller holds the source directory's lock. Returns 0, ENOMEM,
// the read error, or EIO (XM_CORRUPT set) when what was read is not the
// valid File set of old_count entries that the lookup reported.
//
// The set is checked again because the lookup may have trusted it without a
// check (it lay before the directory's checked-end mark), and the directory
// block it reads may since have come back from the device with other
// contents (a device that lost writes). Reshaping a set whose counts do not
// agree would move entries outside the buffer.
int rename_read_set(struct rename_state* rs) {
  lck_mtx_assert(rs->fdir->x_lock, LCK_MTX_ASSERT_OWNED);
  rs->buffer = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (rs->buffer == nullptr)
    return ENOMEM;
  int error = exfat_dir_read(rs->fdir, nullptr, rs->buffer, rs->old_offset,
                             rs->old_count * EXFAT_ENTRY_SIZE, rs->context);
  if (error)
    return error;
  if (rs->buffer[0] != EXFAT_ENTRY_FILE || rs->buffer[1] + 1u != rs->old_count ||
      !exfat_valid_entry_set(rs->buffer)) {
    kprintf("exfat_vnop_rename: entry set at offset %u is not valid\n", rs->old_offset);
    rs->mount->xm_flags |= XM_CORRUPT;
    return EIO;
  }
  return 0;
}

// Whether the set read into the buffer still fits the 255 secondaries a
// set may have once its name entries are replaced by the new name's. A set
// from another system may carry many extra secondaries after a short name;
// such a file can only take names that need no more name entries.
bool rename_set_fits(const struct rename_state* rs) {
  const uint32_t per_entry = EXFAT_NAME_CHARS_PER_ENTRY;
  uint32_t old_names = (rs->buffer[EXFAT_SET_STREAM_OFFSET + 3] + per_entry - 1) / per_entry;
  uint32_t new_names = (rs->name_length + per_entry - 1) / per_entry;
  return rs->buffer[1] - old_names + new_names <= EXFAT_MAX_SET_ENTRIES - 1;
}

// Steps 8 and 9: a name beginning with a dot is Hidden, any other is not;
// the source's attributes (in the node and in the set) follow the new name,
// and the set's File Name entries are replaced by it, with a new
// SecondaryCount and checksum. The caller holds the source's lock. Returns
// 0, or ENAMETOOLONG, with nothing changed, when the new name does not fit
// beside the set's other secondaries.
int rename_build_set(struct rename_state* rs) {
  lck_mtx_assert(rs->source->x_lock, LCK_MTX_ASSERT_OWNED);
  if (!rename_set_fits(rs))
    return ENAMETOOLONG;
  rs->old_attributes = rs->source->x_attributes;
  rs->attributes_changed = true;
  if (rs->tcnp->cn_namelen > 0 && rs->tcnp->cn_nameptr[0] == '.')
    rs->source->x_attributes |= EXFAT_ATTR_HIDDEN;
  else
    rs->source->x_attributes &= ~EXFAT_ATTR_HIDDEN;
  auto* file = reinterpret_cast<struct exfat_file_entry*>(rs->buffer);
  le16enc(file->FileAttributes, rs->source->x_attributes);
  exfat_file_set_rename(rs->buffer, rs->name, rs->name_length, rs->name_hash);
  return 0;
}

// Step 11: checks that the victim may be replaced by the source and deletes
// its entry set. A directory can only replace an empty directory (whose
// leftover allocations are released), a file only a file. The victim's own
// clusters go later, when its vnode becomes inactive. The caller holds the
// four locks. Returns 0; EISDIR, ENOTEMPTY, ENOTDIR or a walk or release
// error with nothing marked; or the deletion's error, with the victim
// already marked deleted. *marked tells whether the victim was marked.
int rename_replace_victim(struct rename_state* rs, bool* marked) {
  struct exfat_node* victim = rs->victim;
  lck_mtx_assert(victim->x_lock, LCK_MTX_ASSERT_OWNED);
  bool victim_dir = (victim->x_attributes & EXFAT_ATTR_DIRECTORY) != 0;
  bool source_dir = (rs->source->x_attributes & EXFAT_ATTR_DIRECTORY) != 0;
  *marked = false;
  if (victim_dir && !source_dir)
    return EISDIR;
  if (victim_dir) {
    int error = exfat_dir_iterate(victim, 0, nullptr, exfat_dir_empty_callback, ITER_SETS,
                                  rs->context);
    if (error)
      return error;
    error = exfat_dir_iterate(victim, 0, victim, exfat_dir_free_callback, ITER_SETS,
                              rs->context);
    if (error)
      return error;
  } else if (source_dir) {
    return ENOTDIR;
  }

  *marked = true;
  cache_purge(rs->tvp);
  lck_mtx_lock(exfat_hash_lock);
  victim->x_hash_flags |= X_HASH_STALE;
  lck_mtx_unlock(exfat_hash_lock);
  victim->x_flags |= X_DELETED;
  victim->x_parent = nullptr;
  return exfat_delete_dirents(rs->tdir, rs->target_offset, rs->target_count, 1, rs->context);
}

// Steps 12 to 14: writes the new set into its slots in the target directory
// and deletes the old set from the source directory, without releasing
// anything: the data now belongs to the new set. The caller holds the four
// locks. Returns 0 or the write's or deletion's error (a failed deletion
// leaves both sets on disk).
int rename_move_set(struct rename_state* rs) {
  lck_mtx_assert(rs->tdir->x_lock, LCK_MTX_ASSERT_OWNED);
  cache_purge(rs->fvp);
  uint32_t length = (rs->buffer[1] + 1u) * EXFAT_ENTRY_SIZE;
  int error =
      exfat_dir_write(rs->tdir, nullptr, rs->buffer, rs->new_offset, length, true, rs->context);
  if (error)
    return error;
  cache_purge_negatives(rs->tdvp);
  return exfat_delete_dirents(rs->fdir, rs->old_offset, rs->old_count, 0, rs->context);
}

// Step 15: moves the source node to its new key in the node hash and gives
// the vnode its new name, and its new parent when it changed directory.
// The caller holds the four locks, not exfat_hash_lock.
void rename_rekey(struct rename_state* rs) {
  struct exfat_node* source = rs->source;
  lck_mtx_assert(source->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_lock(exfat_hash_lock);
  exfat_hash_remove(source);
  // Stored only when it changes: a directory's x_parent may then only
  // change under xm_rename_lock, which the ancestor walk of other renames
  // relies on when it reads the links of directories it has not locked.
  if (source->x_parent != rs->tdir)
    source->x_parent = rs->tdir;
  source->x_dir_cluster = rs->tdir->x_start_cluster;
  source->x_dir_offset = rs->new_offset;
  source->x_secondary_count = rs->buffer[1];
  exfat_hash_insert(source);
  lck_mtx_unlock(exfat_hash_lock);

  int flags = VNODE_UPDATE_NAME;
  if (rs->fdvp != rs->tdvp)
    flags |= VNODE_UPDATE_PARENT;
  vnode_update_identity(rs->fvp, rs->tdvp, rs->tcnp->cn_nameptr, rs->tcnp->cn_namelen,
                        rs->tcnp->cn_hash, flags);
}

// Steps 7 to 15, run once the names are checked. Returns 0 or the first
// error; *flush tells whether the metadata may have changed (the steps got
// past the victim's checks), so that the caller requests the flush.
int rename_rewrite(struct rename_state* rs, bool* flush) {
  *flush = false;
  int error = rename_read_set(rs);
  if (error)
    return error;
  error = rename_build_set(rs);
  if (error)
    return error;
  error = exfat_find_empty_entries(rs->tdir, rs->buffer[1] + 1u, &rs->new_offset, rs->context);
  if (error)
    return error;
  if (rs->victim != nullptr) {
    error = rename_replace_victim(rs, flush);
    if (error)
      return error;
  }
  *flush = true;
  error = rename_move_set(rs);
  if (error)
    return error;
  rename_rekey(rs);
  return 0;
}

}  // namespace

// Renames a_fcnp (leading to a_fvp in a_fdvp) to a_tcnp in a_tdvp,
// replacing a_tvp when the kernel passes one. The caller holds no driver
// lock; the four nodes are locked here, and xm_rename_lock for a directory
// moving between parents.
//
// Returns 0; ERESTART when a node was removed, the source name moved or the
// target vnode no longer matches its name (the kernel looks them up
// again); the target name's conversion error; ENAMETOOLONG also when the
// new name needs more name entries than the source's set has room for
// beside its other secondaries; EEXIST; EINVAL for a
// directory moved into itself or below itself; ENOMEM; EISDIR (file onto
// directory); ENOTDIR (directory onto file); ENOTEMPTY; ENOSPC when the
// target directory can't grow; or an I/O error.
//
// Decision: when the rename fails after the source's Hidden bit was changed
// in memory, the bit is put back. Until the new set is in place the node
// still addresses its old set, and a later rewrite of that set must not
// give the old name the new name's Hidden bit.
int exfat_vnop_rename(struct vnop_rename_args* ap) {
  struct rename_state rs = {};
  rs.fdvp = ap->a_fdvp;
  rs.fvp = ap->a_fvp;
  rs.tdvp = ap->a_tdvp;
  rs.tvp = ap->a_tvp;
  rs.fcnp = ap->a_fcnp;
  rs.tcnp = ap->a_tcnp;
  rs.context = ap->a_context;
  rs.fdir = static_cast<struct exfat_node*>(vnode_fsnode(rs.fdvp));
  rs.source = static_cast<struct exfat_node*>(vnode_fsnode(rs.fvp));
  rs.tdir = static_cast<struct exfat_node*>(vnode_fsnode(rs.tdvp));
  rs.target = rs.tvp != NULLVP ? static_cast<struct exfat_node*>(vnode_fsnode(rs.tvp)) : nullptr;
  rs.mount = rs.source->x_mount;

  exfat_lock_four(rs.fdir, rs.source, rs.tdir, rs.target);
  bool flush = false;
  int error = rename_revalidate(&rs);
  if (!error)
    error = rename_convert_target(&rs);
  if (!error)
    error = rename_find_target(&rs);
  if (!error)
    error = rename_check_subtree(&rs);
  if (!error) {
    error = rename_rewrite(&rs, &flush);
    if (error && rs.attributes_changed)
      rs.source->x_attributes = rs.old_attributes;
  }
  if (flush)
    exfat_meta_flush(rs.mount, 0);

  if (rs.rename_locked)
    lck_mtx_unlock(rs.mount->xm_rename_lock);
  exfat_unlock_four(rs.fdir, rs.source, rs.tdir, rs.target);
  if (rs.buffer != nullptr)
    OSFree(rs.buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  return error;
}
