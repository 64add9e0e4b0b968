// Making and reading symbolic links: regular files of exactly 1067 bytes
// laid out as exfat_format.h describes (exfat_link_check.cpp recognises
// them).
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
  memcpy(data, kSymlinkMagic, kSymlinkMagicLength);
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

// What symlink_finish writes: the target and its length.
struct symlink_target {
  const char* target;
  size_t length;
};

// symlink's finish: gives a new link its clusters and contents, undoing the
// creation when the clusters can't be had. The caller holds the parent's
// and the new node's locks. Returns 0; exfat_new_node_allocate's error; or
// the contents' write error.
int symlink_finish(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                   uint32_t entries, const void* argument, vfs_context_t context) {
  const auto* target = static_cast<const struct symlink_target*>(argument);
  int error = exfat_new_node_allocate(dir, node, offset, entries, kSymlinkFileSize, "symlink",
                                      "symlink", context);
  return error ? error : symlink_write_contents(node, target->target, target->length);
}

}  // namespace

// Makes a symbolic link named a_cnp in a_dvp pointing at a_target (a NUL
// terminated string of at most 1024 bytes) and returns its vnode in a_vpp
// with an I/O reference. The caller holds no driver lock; the parent's
// node lock is held throughout.
//
// Returns 0; ENAMETOOLONG for a longer target, before anything else;
// ERESTART when the parent has been removed (its name-cache entries
// purged); the name conversion's error; EEXIST; ENOMEM; ENOSPC or an I/O
// error from the slots; exfat_node_get's error; ENOSPC when the link's
// clusters can't be had (the set is deleted again); EIO when that deletion
// failed (logged, XM_CORRUPT set); or the contents' write error.
int exfat_vnop_symlink(struct vnop_symlink_args* ap) {
  vnode_t dvp = ap->a_dvp;
  const struct symlink_target target = {ap->a_target, strlen(ap->a_target)};
  if (target.length > kSymlinkMaxTarget)
    return ENAMETOOLONG;
  uint8_t* buffer = nullptr;
  uint32_t offset = 0;
  int error = exfat_new_entry(dvp, ap->a_cnp, ap->a_vap, EXFAT_ATTR_ARCHIVE, &buffer, &offset,
                              ap->a_context);
  if (!error)
    error = exfat_new_node_make(dvp, ap->a_cnp, offset, buffer[1] + 1u, VLNK, symlink_finish,
                                &target, ap->a_vpp, ap->a_context);
  exfat_node_unlock(static_cast<struct exfat_node*>(vnode_fsnode(dvp)));
  exfat_new_buffer_free(buffer);
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
