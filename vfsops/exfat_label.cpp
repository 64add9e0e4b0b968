// Renaming the volume. The name lives twice: in the root directory as a
// volume label entry (type 0x83, up to 11 UTF-16 units) and in memory as
// xm_label (UTF-8, decomposed, as the kernel reports names). The driver
// keeps at most one label entry: once xm_label_offset knows where it is,
// every rename rewrites that slot in place.
//
// Locking: xm_label and xm_label_offset change only under the root node's
// lock (and during the mount's root scan); readers of the label take no
// lock.

#include <cstring>

#include "exfat_proto.h"
#include "host/mount.h"
#include "host/utf8.h"
#include "host/vnode.h"

namespace {

// The label entry:
//
//   byte 0      1                2 .. 23                  24 .. 31
//   +-------+----------------+-------------------------+----------+
//   | 0x83  | CharacterCount | VolumeLabel: 11 UTF-16  | zero     |
//   +-------+----------------+-------------------------+----------+
constexpr size_t kLabelBytes = EXFAT_LABEL_MAX_CHARS * sizeof(uint16_t);  // 22
constexpr size_t kLabelNameOffset = offsetof(struct exfat_label_entry, VolumeLabel);

// Builds a label entry for a NUL-terminated UTF-8 name: the name is stored
// precomposed, so that "e" + U+0301 takes one unit as it would on any other
// system writing the volume. Returns 0, or the conversion's error
// (ENAMETOOLONG past 11 units, EINVAL for ill-formed UTF-8) with the entry
// not to be used.
int exfat_label_entry_build(const char* name, uint8_t* entry) {
  uint16_t units[EXFAT_LABEL_MAX_CHARS];
  size_t length = 0;
  memset(entry, 0, EXFAT_ENTRY_SIZE);
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(name), strlen(name), units, &length,
                             kLabelBytes, 0, UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error)
    return error;
  size_t count = length / sizeof(uint16_t);
  for (size_t i = 0; i < count; i++)
    le16enc(entry + kLabelNameOffset + 2 * i, units[i]);
  entry[0] = EXFAT_ENTRY_LABEL;
  entry[1] = static_cast<uint8_t>(count);
  return 0;
}

// Converts the name held in a label entry into `label` (EXFAT_LABEL_BYTES,
// NUL-terminated UTF-8, decomposed). `label` changes only on success, so a
// name that does not fit leaves the old one whole. Returns 0 or the
// conversion's error (ENAMETOOLONG when the decomposed form needs more
// than 63 bytes).
int exfat_label_entry_to_utf8(const uint8_t* entry, char* label) {
  uint16_t units[EXFAT_LABEL_MAX_CHARS];
  size_t count = entry[1];
  for (size_t i = 0; i < count; i++)
    units[i] = le16dec(entry + kLabelNameOffset + 2 * i);
  char converted[EXFAT_LABEL_BYTES];
  size_t length = 0;
  int error = utf8_encodestr(units, count * sizeof(uint16_t), reinterpret_cast<uint8_t*>(converted),
                             &length, sizeof(converted), 0, UTF_DECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error)
    return error;
  memcpy(label, converted, length + 1);
  return 0;
}

}  // namespace

// Writes one 32-byte entry into the root directory at *label_offset. When
// the offset is EXFAT_NO_LABEL_OFFSET a free slot is found first (the root
// may grow by a cluster for it) and, once the entry is written, its offset
// is stored in *label_offset. The write is delayed; the caller asks for the
// metadata flush.
//
// The caller holds the root node's lock (which guards *label_offset).
// Returns 0; ENOSPC when there is no free slot and the root can't grow;
// or a read, mapping or allocation error. Nothing is written on error.
//
// The offset of a new slot is recorded only after the entry is in it: were
// it recorded first and the write then failed, the slot would stay free
// yet remembered, and a later file could take it only to have its entry
// overwritten by the next rename.
int exfat_update_root_entry(vnode_t root_vp, uint32_t* label_offset, const uint8_t* entry,
                            vfs_context_t context) {
  struct exfat_node* root = static_cast<struct exfat_node*>(vnode_fsnode(root_vp));
  lck_mtx_assert(root->x_lock, LCK_MTX_ASSERT_OWNED);

  uint32_t offset = *label_offset;
  if (offset == EXFAT_NO_LABEL_OFFSET) {
    int error = exfat_find_empty_entries(root, 1, &offset, context);
    if (error)
      return error;
  }
  int error = exfat_dir_write(root, nullptr, entry, offset, EXFAT_ENTRY_SIZE, false, context);
  if (error)
    return error;
  *label_offset = offset;
  return 0;
}

// The file system's setattr entry. Only the volume name can be set; a
// request without f_vol_name does nothing. The new name (f_vol_name, NUL-
// terminated UTF-8) is written to the label entry, then xm_label follows
// it, f_vol_name is marked supported and a delayed metadata flush is asked
// for.
//
// Takes a reference on the root vnode and the root node's lock and drops
// both before returning. Returns 0; EROFS on a read-only mount (nothing
// written, nothing locked); the root's error; the conversion's
// error when the name does not fit 11 UTF-16 units or is not UTF-8
// (nothing written); exfat_update_root_entry's error (nothing written); or
// the error of converting the name back (the entry on disk already has the
// new name, xm_label keeps the old one).
int exfat_vfs_setattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context) {
  if (!VFSATTR_IS_ACTIVE(attr, f_vol_name))
    return 0;
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  // The label entry and the root directory's growth would both be writes.
  if (mount->xm_flags & XM_RDONLY)
    return EROFS;

  vnode_t root_vp = NULLVP;
  struct exfat_node* root = nullptr;
  int error = exfat_vfs_root_locked(mp, &root_vp, &root, context);
  if (error)
    return error;

  uint8_t entry[EXFAT_ENTRY_SIZE];
  error = exfat_label_entry_build(attr->f_vol_name, entry);
  if (!error)
    error = exfat_update_root_entry(root_vp, &mount->xm_label_offset, entry, context);
  if (!error)
    error = exfat_label_entry_to_utf8(entry, mount->xm_label);
  if (!error) {
    VFSATTR_SET_SUPPORTED(attr, f_vol_name);
    exfat_meta_flush(mount, 0);
  }

  exfat_node_unlock(root);
  vnode_put(root_vp);
  return error;
}
