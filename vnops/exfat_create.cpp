// Adding a name to a directory: create (an empty regular file), mkdir (a
// directory with one zero-filled cluster) and mknod (refused). Symbolic
// links are made along the same lines in exfat_symlink.cpp, which shares the
// helpers of this file that begin with exfat_new_.
//
// The order is always the same: the entry set is built in memory, written
// into free slots of the parent, and only then is a node instantiated for
// it. A directory exists for a moment with no cluster and DataLength 0; its
// node stays locked and marked X_HASH_INIT meanwhile, so that lookups of it
// wait until the cluster is there.
//
// Locking: the parent's node lock is held from the start until the node
// layer takes it over (create) or until the end (mkdir, symlink); the new
// node's lock is held across its cluster allocation. exfat_hash_lock is
// taken briefly inside those locks to change x_hash_flags.

#include <cstring>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/namecache.h"
#include "host/utf8.h"
#include "host/vnode.h"

namespace {

// The base FileAttributes of a new regular file and of a new directory.
constexpr uint16_t kFileAttributes = EXFAT_ATTR_ARCHIVE;      // 0x20
constexpr uint16_t kDirectoryAttributes = EXFAT_ATTR_DIRECTORY;  // 0x10

// Either immutable flag asks for a read-only entry.
constexpr uint32_t kImmutableFlags = UF_IMMUTABLE | SF_IMMUTABLE;  // 0x00020002

}  // namespace

// --- Shared with symlink ------------------------------------------------------------

// Converts the component name into a UTF-16 name of at most 255 units
// (name must have room for 255), hashes it and checks that the directory
// holds no set of that name (compared through the up-case table). The
// caller holds the directory's node lock. Returns 0 with *length and *hash
// set; the conversion's error (ENAMETOOLONG for more than 255 units, EINVAL
// for ill-formed UTF-8); or EEXIST when the name exists, and also when the
// search fails, since a name that can't be proven free must not be made.
int exfat_new_name(struct exfat_node* dir, struct componentname* cnp, uint16_t* name,
                   uint32_t* length, uint16_t* hash, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = dir->x_mount;
  size_t bytes = 0;
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(cnp->cn_nameptr),
                             static_cast<size_t>(cnp->cn_namelen), name, &bytes,
                             EXFAT_MAX_NAME_LENGTH * sizeof(uint16_t), 0,
                             UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error)
    return error;
  *length = static_cast<uint32_t>(bytes / sizeof(uint16_t));
  *hash = exfat_name_hash(mount->xm_upcase, static_cast<uint8_t>(*length), name);

  error = exfat_lookup_name(dir, name, *length, *hash, mount->xm_upcase, nullptr, nullptr,
                            context);
  return error == ENOENT ? 0 : EEXIST;
}

// The FileAttributes of a new entry: `base` (Archive for files and links,
// Directory for directories), plus Hidden when the name begins with a dot,
// plus ReadOnly when the caller asks for an immutable flag. Asking for one
// marks va_flags supported, whatever its value, since the flag is kept; no
// other requested attribute is stored.
uint16_t exfat_new_attributes(const struct componentname* cnp, struct vnode_attr* vap,
                              uint16_t base) {
  uint16_t attributes = base;
  if (cnp->cn_namelen > 0 && cnp->cn_nameptr[0] == '.')
    attributes |= EXFAT_ATTR_HIDDEN;
  if (vap != nullptr && VATTR_IS_ACTIVE(vap, va_flags) && (vap->va_flags & kImmutableFlags)) {
    attributes |= EXFAT_ATTR_READ_ONLY;
    VATTR_SET_SUPPORTED(vap, va_flags);
  }
  return attributes;
}

// Builds a new entry set for the name in `buffer` (8192 bytes), finds room
// for it in the directory (growing the directory if needed) and writes it
// there. The caller holds the directory's node lock and keeps it until a
// node exists for the set, since the slots are not reserved. Returns 0 with
// the set's byte offset in *offset; ENOSPC when the directory can't grow;
// or a read, write or allocation error (no set is written then).
int exfat_new_set_write(struct exfat_node* dir, uint8_t* buffer, const uint16_t* name,
                        uint32_t length, uint16_t hash, uint16_t attributes, uint32_t* offset,
                        vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  exfat_file_set_init(buffer, name, length, hash, attributes, dir->x_mount->xm_secondsWest);
  uint32_t entries = buffer[1] + 1u;  // SecondaryCount + the File entry
  int error = exfat_find_empty_entries(dir, entries, offset, context);
  if (error)
    return error;
  return exfat_dir_write(dir, nullptr, buffer, *offset, entries * EXFAT_ENTRY_SIZE, true, context);
}

namespace {

// Undoes a new node whose first allocation failed: its vnode is purged from
// the name cache and marked for recycling, the node goes stale in the hash,
// is marked deleted and parentless, and its entry set of `entries` entries
// at `offset` is deleted again, unless the parent itself has been removed
// meanwhile. The caller holds the parent's and the node's locks. Returns 0,
// or the error of the deletion (the set then stays on disk).
int new_node_undo(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                  uint32_t entries, vfs_context_t context) {
  cache_purge(node->x_vnode);
  vnode_recycle(node->x_vnode);
  lck_mtx_lock(exfat_hash_lock);
  node->x_hash_flags |= X_HASH_STALE;
  lck_mtx_unlock(exfat_hash_lock);
  node->x_flags |= X_DELETED;
  node->x_parent = nullptr;
  if (dir->x_flags & X_DELETED)
    return 0;
  return exfat_delete_dirents(dir, offset, entries, 1, context);
}

}  // namespace

// Gives a new node (a directory or a link, `kind` in the message) its first
// `size` bytes of clusters. When they can't be had, the creation is undone
// (its set of `entries` entries at `offset` deleted again); when even that
// fails, "exfat_vnop_<operation>: Error %d removing zero-length <kind>" is
// logged and the volume marked corrupt. The caller holds the parent's and
// the node's locks. Returns 0; the allocation's error (ENOSPC when no
// cluster is free) after an undo; or EIO when the undo failed.
int exfat_new_node_allocate(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                            uint32_t entries, uint64_t size, const char* operation,
                            const char* kind, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  int error = exfat_truncate(node, size, IO_UNIT, context);
  if (!error)
    return 0;
  int undo_error = new_node_undo(dir, node, offset, entries, context);
  if (undo_error) {
    kprintf("exfat_vnop_%s: Error %d removing zero-length %s", operation, undo_error, kind);
    dir->x_mount->xm_flags |= XM_CORRUPT;
    return EIO;
  }
  return error;
}

// Ends the initialisation of a node made with keep-locked: clears
// X_HASH_INIT, wakes the lookups that sleep on it, and drops the node's
// lock. The caller holds the node's lock (once) and not exfat_hash_lock.
void exfat_new_node_ready(struct exfat_node* node) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  exfat_node_init_done(node);
  exfat_node_unlock(node);
}

// Begins a create, mkdir or symlink in the directory dvp. The caller holds
// no driver lock; the directory's node lock is taken here and stays held on
// every return, for the caller to release (or hand to exfat_node_get). A
// removed directory gives ERESTART with its name-cache entries purged, so
// that the kernel looks the name up again; then the name is checked
// (exfat_new_name), the set buffer allocated (ENOMEM) and the entry set
// written with the FileAttributes `base` plus what the name and vap ask for
// (exfat_new_set_write). *bufferp receives the 8192-byte buffer, or NULL
// when none was allocated; the caller frees it with exfat_new_buffer_free.
// On success the set stands at *offset, and buffer[1] + 1 entries long.
int exfat_new_entry(vnode_t dvp, struct componentname* cnp, struct vnode_attr* vap, uint16_t base,
                    uint8_t** bufferp, uint32_t* offset, vfs_context_t context) {
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  uint16_t name[EXFAT_MAX_NAME_LENGTH];
  uint32_t length = 0;
  uint16_t hash = 0;

  *bufferp = nullptr;
  exfat_node_lock(dir);
  if (dir->x_flags & X_DELETED) {
    cache_purge(dvp);
    return ERESTART;
  }
  int error = exfat_new_name(dir, cnp, name, &length, &hash, context);
  if (error)
    return error;
  *bufferp = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (*bufferp == nullptr)
    return ENOMEM;
  return exfat_new_set_write(dir, *bufferp, name, length, hash,
                             exfat_new_attributes(cnp, vap, base), offset, context);
}

// Frees the buffer exfat_new_entry allocated; NULL is allowed.
void exfat_new_buffer_free(uint8_t* buffer) {
  if (buffer != nullptr)
    OSFree(buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
}

// Makes the node of a set exfat_new_entry wrote at `offset` (`entries`
// entries long) in dvp, as `type`, and has `finish` give it its clusters
// and contents while it stays locked and marked X_HASH_INIT, so that
// lookups of it wait. The caller holds the directory's node lock, which
// stays held. Returns 0 with the new vnode and its I/O reference in *vpp;
// exfat_node_get's error (the set stays on disk); or finish's error (the
// vnode's reference is dropped again).
int exfat_new_node_make(vnode_t dvp, struct componentname* cnp, uint32_t offset, uint32_t entries,
                        enum vtype type, exfat_new_finish_t finish, const void* argument,
                        vnode_t* vpp, vfs_context_t context) {
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = dir->x_mount;
  struct exfat_node* node = nullptr;
  int error = exfat_node_get(mount, dvp, cnp, offset, type, 1, &node, context);
  if (!error) {
    error = finish(dir, node, offset, entries, argument, context);
    exfat_new_node_ready(node);
    if (!error)
      *vpp = node->x_vnode;
    else
      vnode_put(node->x_vnode);
  }
  cache_purge_negatives(dvp);
  exfat_meta_flush(mount, 0);
  return error;
}

namespace {

// mkdir's finish: one zero-filled cluster, which holds only
// end-of-directory markers.
int mkdir_finish(struct exfat_node* dir, struct exfat_node* node, uint32_t offset, uint32_t entries,
                 const void* argument, vfs_context_t context) {
  (void)argument;
  return exfat_new_node_allocate(dir, node, offset, entries, dir->x_mount->xm_bytes_per_cluster,
                                 "mkdir", "directory", context);
}

}  // namespace

// --- The vnode operations -------------------------------------------------------------

// Creates an empty regular file named by a_cnp in directory a_dvp and
// returns its vnode in a_vpp with an I/O reference. The caller holds no
// driver lock. The parent's node lock is taken here and handed to
// exfat_node_get, which releases it.
//
// Returns 0; ERESTART when the parent has been removed (its name-cache
// entries are purged and the kernel looks the name up again); the name
// conversion's error; EEXIST; ENOMEM; ENOSPC or an I/O error from finding
// or writing the slots; or exfat_node_get's error, in which case the set
// stays on disk as a valid empty file.
int exfat_vnop_create(struct vnop_create_args* ap) {
  vnode_t dvp = ap->a_dvp;
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  uint8_t* buffer = nullptr;
  uint32_t offset = 0;
  int error =
      exfat_new_entry(dvp, ap->a_cnp, ap->a_vap, kFileAttributes, &buffer, &offset, ap->a_context);
  if (error) {
    exfat_node_unlock(dir);
    exfat_new_buffer_free(buffer);
    return error;
  }

  // Decision: when exfat_node_get fails the set just written is left on
  // disk. It is a valid empty file that a later lookup finds; deleting it
  // here would need the parent's lock, which the node layer has released.
  struct exfat_node* node = nullptr;
  error = exfat_node_get(dir->x_mount, dvp, ap->a_cnp, offset, VREG, 0, &node, ap->a_context);
  if (!error)
    *ap->a_vpp = node->x_vnode;
  cache_purge_negatives(dvp);
  exfat_meta_flush(dir->x_mount, 0);
  exfat_new_buffer_free(buffer);
  return error;
}

// Makes a directory named by a_cnp in a_dvp with one zero-filled cluster
// and returns its vnode in a_vpp with an I/O reference. exFAT directories
// have no "." or ".." entries. The caller holds no driver lock; the parent's
// node lock is held throughout, the new node's across its allocation.
//
// Returns 0; ERESTART when the parent has been removed (its name-cache
// entries purged); the name conversion's error; EEXIST; ENOMEM (nothing
// changed); ENOSPC or an I/O error from the slots; exfat_node_get's error
// (the set stays on disk as a zero-length directory); the first cluster's
// allocation error (ENOSPC), after which the set is gone again; or EIO when
// that undoing failed (logged, XM_CORRUPT set).
int exfat_vnop_mkdir(struct vnop_mkdir_args* ap) {
  vnode_t dvp = ap->a_dvp;
  uint8_t* buffer = nullptr;
  uint32_t offset = 0;
  int error = exfat_new_entry(dvp, ap->a_cnp, ap->a_vap, kDirectoryAttributes, &buffer, &offset,
                              ap->a_context);
  if (!error)
    error = exfat_new_node_make(dvp, ap->a_cnp, offset, buffer[1] + 1u, VDIR, mkdir_finish, nullptr,
                                ap->a_vpp, ap->a_context);
  exfat_node_unlock(static_cast<struct exfat_node*>(vnode_fsnode(dvp)));
  exfat_new_buffer_free(buffer);
  return error;
}

// Device and other special files have no place in exFAT: always EINVAL,
// nothing created.
int exfat_vnop_mknod(struct vnop_mknod_args* ap) {
  (void)ap;
  return EINVAL;
}
