// Volume attributes: what the file system reports to the kernel's volume
// attribute queries (sizes, identity, capabilities, name and UUID).

#include <cstring>

#include "exfat_proto.h"
#include "host/mount.h"

namespace {

// Volume format capabilities.
constexpr uint32_t VOL_CAP_FMT_SYMBOLICLINKS = 0x00000002;
constexpr uint32_t VOL_CAP_FMT_NO_ROOT_TIMES = 0x00000020;
constexpr uint32_t VOL_CAP_FMT_CASE_PRESERVING = 0x00000200;
constexpr uint32_t VOL_CAP_FMT_FAST_STATFS = 0x00000400;
constexpr uint32_t VOL_CAP_FMT_2TB_FILESIZE = 0x00000800;
constexpr uint32_t VOL_CAP_FMT_HIDDEN_FILES = 0x00002000;
constexpr uint32_t VOL_CAP_FMT_NO_PERMISSIONS = 0x00400000;
// The format bits the answer speaks for.
constexpr uint32_t kFormatValid = 0x0040FFFF;

// Volume interface capabilities.
constexpr uint32_t VOL_CAP_INT_ATTRLIST = 0x00000002;
constexpr uint32_t VOL_CAP_INT_VOL_RENAME = 0x00000080;
constexpr uint32_t VOL_CAP_INT_ADVLOCK = 0x00000100;
constexpr uint32_t VOL_CAP_INT_FLOCK = 0x00000200;
constexpr uint32_t kInterfacesValid = 0x00007FFF;

// Attribute-list support, in the kernel's attribute-list numbering: the
// attributes the volume can return (valid) and those it keeps natively.
constexpr attrgroup_t kCommonValid = 0x0227DEBF, kCommonNative = 0x022416BF;
constexpr attrgroup_t kVolumeValid = 0x4006F0FD, kVolumeNative = 0x4006F0FD;
constexpr attrgroup_t kDirValid = 0x00000005, kDirNative = 0;
constexpr attrgroup_t kFileValid = 0x00003627, kFileNative = 0x00000626;

// The largest volume name copied out, terminator included.
constexpr size_t kVolNameLimit = 1024;

void exfat_fill_capabilities(vol_capabilities_attr_t* cap) {
  memset(cap, 0, sizeof(*cap));
  cap->capabilities[VOL_CAPABILITIES_FORMAT] =
      VOL_CAP_FMT_SYMBOLICLINKS | VOL_CAP_FMT_NO_ROOT_TIMES | VOL_CAP_FMT_CASE_PRESERVING |
      VOL_CAP_FMT_FAST_STATFS | VOL_CAP_FMT_2TB_FILESIZE | VOL_CAP_FMT_HIDDEN_FILES |
      VOL_CAP_FMT_NO_PERMISSIONS;
  cap->valid[VOL_CAPABILITIES_FORMAT] = kFormatValid;
  cap->capabilities[VOL_CAPABILITIES_INTERFACES] =
      VOL_CAP_INT_ATTRLIST | VOL_CAP_INT_VOL_RENAME | VOL_CAP_INT_ADVLOCK | VOL_CAP_INT_FLOCK;
  cap->valid[VOL_CAPABILITIES_INTERFACES] = kInterfacesValid;
}

void exfat_fill_attributes(vol_attributes_attr_t* attributes) {
  memset(attributes, 0, sizeof(*attributes));
  attributes->validattr.commonattr = kCommonValid;
  attributes->validattr.volattr = kVolumeValid;
  attributes->validattr.dirattr = kDirValid;
  attributes->validattr.fileattr = kFileValid;
  attributes->nativeattr.commonattr = kCommonNative;
  attributes->nativeattr.volattr = kVolumeNative;
  attributes->nativeattr.dirattr = kDirNative;
  attributes->nativeattr.fileattr = kFileNative;
}

// Copies a NUL-terminated string into a buffer of `limit` bytes, cut if
// needed and always terminated.
void exfat_copy_string(char* dst, const char* src, size_t limit) {
  size_t n = strnlen(src, limit - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
}

}  // namespace

// The file system's getattr entry. The size figures and the subtype are
// filled whether asked for or not; identity, capabilities, attribute
// support, the name and the UUID when asked. Each one filled is marked
// supported. The free count is read under xm_bitmap_lock; the label and
// UUID without a lock (they change only under the root node's lock, as
// whole strings written before the new value is reported). Returns 0.
int exfat_vfs_getattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  // As in exfat_statfs_fill: clusters waiting only for a directory write
  // count as free.
  lck_mtx_lock(mount->xm_bitmap_lock);
  uint64_t free_clusters = uint64_t(mount->xm_free_clusters) + mount->xm_pending_ready;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  uint64_t blocks = mount->xm_max_cluster - 1;

  VFSATTR_RETURN(attr, f_bsize, mount->xm_bytes_per_cluster);
  VFSATTR_RETURN(attr, f_iosize, mount->xm_max_io);
  VFSATTR_RETURN(attr, f_blocks, blocks);
  VFSATTR_RETURN(attr, f_bfree, free_clusters);
  VFSATTR_RETURN(attr, f_bavail, free_clusters);
  VFSATTR_RETURN(attr, f_bused, blocks - free_clusters);
  VFSATTR_RETURN(attr, f_files, blocks);
  VFSATTR_RETURN(attr, f_ffree, free_clusters);
  VFSATTR_RETURN(attr, f_fssubtype, 0);

  if (VFSATTR_IS_ACTIVE(attr, f_fsid)) {
    attr->f_fsid.val[0] = static_cast<int32_t>(mount->xm_dev);
    attr->f_fsid.val[1] = vfs_typenum(mp);
    VFSATTR_SET_SUPPORTED(attr, f_fsid);
  }
  if (VFSATTR_IS_ACTIVE(attr, f_capabilities)) {
    exfat_fill_capabilities(&attr->f_capabilities);
    VFSATTR_SET_SUPPORTED(attr, f_capabilities);
  }
  if (VFSATTR_IS_ACTIVE(attr, f_attributes)) {
    exfat_fill_attributes(&attr->f_attributes);
    VFSATTR_SET_SUPPORTED(attr, f_attributes);
  }
  if (VFSATTR_IS_ACTIVE(attr, f_vol_name) && attr->f_vol_name != nullptr) {
    exfat_copy_string(attr->f_vol_name, mount->xm_label, kVolNameLimit);
    VFSATTR_SET_SUPPORTED(attr, f_vol_name);
  }
  if (VFSATTR_IS_ACTIVE(attr, f_uuid)) {
    memcpy(attr->f_uuid, mount->xm_uuid, sizeof(attr->f_uuid));
    VFSATTR_SET_SUPPORTED(attr, f_uuid);
  }
  return 0;
}
