// Recognising symbolic links, regular files of exactly 1067 bytes laid out
// as exfat_format.h describes. A file of that size whose magic, length and
// digest check out is shown as a link (VLNK); anything else stays a regular
// file.

#include <md5.h>

#include <cstdio>
#include <cstring>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/mount.h"
#include "host/vnode.h"

namespace {

// Makes a vnode through which the node's data can be read before its real
// vnode exists. Stores it in x_vnode. Returns vnode_create's error.
int make_temporary_vnode(struct exfat_node* node, vnode_t* vpp) {
  struct vnode_fsparam param;
  exfat_vnode_param_init(&param, node->x_mount->xm_mp, VNON, node, exfat_vnodeop_p,
                         kSymlinkFileSize, VNFS_NOCACHE);
  int error = vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &param, vpp);
  if (!error)
    node->x_vnode = *vpp;
  return error;
}

// Checks the contents of a link file's first 1067 bytes. Returns the target
// length, or -1 when the contents are not a valid link.
long parse_link(const uint8_t* data) {
  if (strncmp(reinterpret_cast<const char*>(data), kSymlinkMagic, kSymlinkMagicLength) != 0)
    return -1;
  long length = 0;
  for (uint32_t i = 0; i < kSymlinkLengthDigits; i++) {
    uint8_t c = data[kSymlinkLengthOffset + i];
    if (c < '0' || c > '9')
      return -1;
    length = length * 10 + (c - '0');
  }
  if (length > static_cast<long>(kSymlinkMaxTarget))
    return -1;
  char digest[kSymlinkDigestLength + 1];
  exfat_md5_digest(data + kSymlinkTargetOffset, static_cast<size_t>(length), digest);
  if (strncmp(digest, reinterpret_cast<const char*>(data + kSymlinkDigestOffset),
              kSymlinkDigestLength) != 0)
    return -1;
  return length;
}

}  // namespace

// Writes the MD5 digest of `length` bytes at `data` into `digest` as 32
// lowercase hex digits and a NUL (33 bytes).
void exfat_md5_digest(const void* data, size_t length, char* digest) {
  MD5_CTX context;
  unsigned char sum[16];
  MD5Init(&context);
  MD5Update(&context, static_cast<const unsigned char*>(data), length);
  MD5Final(sum, &context);
  for (int i = 0; i < 16; i++)
    snprintf(digest + 2 * i, 3, "%02x", sum[i]);
}

// Decides whether a regular file being instantiated is a symbolic link. The
// node has no vnode yet: its data is read through a temporary one, which is
// detached and recycled before returning, with the buffer invalidated so
// that nothing stays cached under it. Caller holds the node's lock. Returns
// VLNK (setting x_link_length and X_SYMLINK) or VREG; read failures give
// VREG.
enum vtype exfat_check_link(struct exfat_node* node, vfs_context_t context) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (node->x_size != kSymlinkFileSize || node->x_valid_size < kSymlinkFileSize)
    return VREG;

  vnode_t vp = NULLVP;
  if (make_temporary_vnode(node, &vp) != 0)
    return VREG;

  uint32_t size = exfat_link_buffer_size(node->x_mount);
  enum vtype type = VREG;
  buf_t bp = nullptr;
  int error = buf_meta_bread(vp, 0, static_cast<int>(size),
                             context != nullptr ? vfs_context_ucred(context) : NOCRED, &bp);
  if (!error) {
    long length = parse_link(reinterpret_cast<const uint8_t*>(buf_dataptr(bp)));
    if (length >= 0) {
      node->x_link_length = static_cast<uint64_t>(length);
      node->x_flags |= X_SYMLINK;
      type = VLNK;
    }
  }
  if (bp != nullptr) {
    buf_markinvalid(bp);
    buf_brelse(bp);
  }
  vnode_clearfsnode(vp);
  node->x_vnode = NULLVP;
  vnode_recycle(vp);
  vnode_put(vp);
  return type;
}
