// Making and reading symbolic links. The format has no link entry: a link
// is a regular file of exactly 1067 bytes (see exfat_link_check.cpp, which
// recognises them):
//
//   offset  0  "XSym\n"
//           5  the target length L, "%04d\n"
//          10  MD5 of the target, 32 lowercase hex digits, '\n'
//          43  the L target bytes; then '\n' when L < 1024, and spaces
//              up to offset 1066 when L < 1023
//
// Creation follows create and mkdir (exfat_create.cpp): the entry set is
// written first, then the node is made locked and marked X_HASH_INIT while
// its clusters are allocated and its contents written.
//
// Locking: the parent's node lock is held throughout symlink, the new
// node's across its allocation and contents; readlink holds the node's lock
// except around the read, which may page through the node's blockmap.

#include <cstdio>
#include <cstring>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/namecache.h"
#include "host/uio.h"
#include "host/vnode.h"

namespace {

const char symlink_magic[] = "XSym\n";
constexpr size_t kSymlinkMagicLength = 5;
constexpr uint32_t kSymlinkFileSize = 1067;
constexpr size_t kSymlinkLengthOffset = 5;
constexpr size_t kSymlinkDigestOffset = 10;
constexpr size_t kSymlinkDigestLength = 32;
constexpr size_t kSymlinkTargetOffset = 43;
constexpr size_t kSymlinkMaxTarget = 1024;

inline kauth_cred_t context_cred(vfs_context_t context) {
  return context != nullptr ? vfs_context_ucred(context) : NOCRED;
}

// The buffer a link's contents are read and written through.
inline uint32_t link_buffer_size(const struct exfat_mount* mount) {
  return exfat_link_buffer_size(mount);
}

// Lays a link's contents for `target` (length <= 1024) out in `data`,
// which holds at least 1067 bytes already zeroed.
void symlink_fill(char* data, const char* target, size_t length) {
  memcpy(data, symlink_magic, kSymlinkMagicLength);
  // "%04d\n" also writes the newline at offset 9; snprintf's NUL lands on
  // offset 10 and is overwritten by the digest.
  snprintf(data + kSymlinkLengthOffset, 6, "%04d\n", static_cast<int>(length));
  exfat_md5_digest(target, length, data + kSymlinkDigestOffset);
  data[kSymlinkDigestOffset + kSymlinkDigestLength] = '\n';
  memcpy(data + kSymlinkTargetOffset, target, length);
  if (length < kSymlinkMaxTarget)
    data[kSymlinkTargetOffset + length] = '\n';
  for (size_t i = kSymlinkTargetOffset + length + 1; i < kSymlinkFileSize; i++)
    data[i] = ' ';
}

// Writes a new link's contents through its vnode's buffer cache (a delayed
// write) and records its length and size in the node, which becomes dirty.
// The caller holds the new node's lock; its clusters exist. Returns 0 or
// buf_bdwrite's error.
int symlink_write_contents(struct exfat_node* node, const char* target, size_t length) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  buf_t bp = buf_getblk(node->x_vnode, 0, static_cast<int>(link_buffer_size(node->x_mount)), 0,
                        0, BLK_META);
  buf_clear(bp);
  symlink_fill(reinterpret_cast<char*>(buf_dataptr(bp)), target, length);
  node->x_link_length = length;
  node->x_valid_size = kSymlinkFileSize;
  node->x_flags |= X_DIRTY | X_STREAM_DIRTY;
  return buf_bdwrite(bp);
}

// Gives a new link its clusters and contents, undoing the creation when
// the clusters can't be had. The caller holds the parent's and the new
// node's locks. Returns 0; exfat_new_node_allocate's error; or the
// contents' write error.
int symlink_finish(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                   uint32_t entries, const char* target, size_t length, vfs_context_t context) {
  int error = exfat_new_node_allocate(dir, node, offset, entries, kSymlinkFileSize, "symlink",
                                      "symlink", context);
  return error ? error : symlink_write_contents(node, target, length);
}

}  // namespace

// Makes a symbolic link named a_cnp in a_dvp pointing at a_target (a NUL
// terminated string of at most 1024 bytes) and returns its vnode in a_vpp
// with an I/O reference. The caller holds no driver lock; the parent's
// node lock is held throughout.
//
// Returns 0; ENAMETOOLONG for a longer target, before anything else;
// ENOMEM; ERESTART when the parent has been removed (its name-cache entries
// purged); the name conversion's error; EEXIST; ENOSPC or an I/O error from
// the slots; exfat_node_get's error; ENOSPC when the link's clusters can't
// be had (the set is deleted again); EIO when that deletion failed (logged,
// XM_CORRUPT set); or the contents' write error.
int exfat_vnop_symlink(struct vnop_symlink_args* ap) {
  vnode_t dvp = ap->a_dvp;
  auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
  struct exfat_mount* mount = dir->x_mount;
  uint16_t name[EXFAT_MAX_NAME_LENGTH];
  uint32_t length = 0;
  uint16_t hash = 0;
  uint32_t offset = 0;
  struct exfat_node* node = nullptr;
  int error;

  size_t target_length = strlen(ap->a_target);
  if (target_length > kSymlinkMaxTarget)
    return ENAMETOOLONG;
  auto* buffer = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (buffer == nullptr)
    return ENOMEM;

  exfat_node_lock(dir);
  if (dir->x_flags & X_DELETED) {
    cache_purge(dvp);
    error = ERESTART;
    goto unlock;
  }
  error = exfat_new_name(dir, ap->a_cnp, name, &length, &hash, ap->a_context);
  if (error)
    goto unlock;
  error = exfat_new_set_write(dir, buffer, name, length, hash,
                              exfat_new_attributes(ap->a_cnp, ap->a_vap, EXFAT_ATTR_ARCHIVE),
                              &offset, ap->a_context);
  if (error)
    goto unlock;

  error = exfat_node_get(mount, dvp, ap->a_cnp, offset, VLNK, 1, &node, ap->a_context);
  if (!error) {
    error = symlink_finish(dir, node, offset, buffer[1] + 1u, ap->a_target, target_length,
                           ap->a_context);
    exfat_new_node_ready(node);
    if (!error)
      *ap->a_vpp = node->x_vnode;
    else
      vnode_put(node->x_vnode);
  }
  cache_purge_negatives(dvp);
  exfat_meta_flush(mount, 0);

unlock:
  exfat_node_unlock(dir);
  OSFree(buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  return error;
}

// Copies the target of the link a_vp, exactly x_link_length bytes, into
// a_uio. The caller holds no driver lock; the node's lock is taken here and
// dropped around the read.
//
// Returns 0; EINVAL for a vnode that is not a link; EAGAIN for a link that
// has been removed (its name-cache entries purged); EIO for a link without
// clusters (logged) or a short read; the read's error; or uiomove's.
//
// Decision: a read that comes back shorter than the link file is reported
// as EIO, with the message logged, rather than stopping the system: it can
// follow from the device, not only from a bug.
int exfat_vnop_readlink(struct vnop_readlink_args* ap) {
  vnode_t vp = ap->a_vp;
  if (vnode_vtype(vp) != VLNK)
    return EINVAL;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  buf_t bp = nullptr;
  int error = 0;

  exfat_node_lock(node);
  if (node->x_flags & X_DELETED) {
    cache_purge(vp);
    error = EAGAIN;
    goto unlock;
  }
  if (node->x_start_cluster == 0) {
    kprintf("exfat_vnop_readlink: x_start_cluster == 0!");
    error = EIO;
    goto unlock;
  }

  exfat_node_unlock(node);
  error = buf_meta_bread(vp, 0, static_cast<int>(link_buffer_size(node->x_mount)),
                         context_cred(ap->a_context), &bp);
  exfat_node_lock(node);
  if (error)
    goto unlock;
  if (buf_count(bp) < kSymlinkFileSize || buf_resid(bp) != 0) {
    kprintf("exfat_vnop_readlink: buf_count(bp) = %d (less than %ld)",
            static_cast<int>(buf_count(bp)), static_cast<long>(kSymlinkFileSize));
    error = EIO;
    goto unlock;
  }
  error = uiomove(reinterpret_cast<char*>(buf_dataptr(bp)) + kSymlinkTargetOffset,
                  static_cast<int>(node->x_link_length), ap->a_uio);

unlock:
  if (bp != nullptr)
    buf_brelse(bp);
  exfat_node_unlock(node);
  return error;
}
