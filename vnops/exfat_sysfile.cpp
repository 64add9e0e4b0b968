// The system files and the root directory scan.
//
// At mount, once the FAT is open, the root directory is walked once for its
// system entries: the allocation bitmap, opened as the "<bitmap>" system
// vnode that stays referenced for the life of the mount; the up-case table,
// read and checked (exfat_upcase_read.cpp); the volume label; and an
// optional Volume GUID that replaces the serial-number UUID. The scan runs
// before any other thread can reach the volume, with the root node locked.

#include <cstring>

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/utf8.h"

namespace {

// What the scan callback needs: the mount and the root directory's vnode.
struct exfat_scan_context {
  struct exfat_mount* mount;
  vnode_t root_vp;
};

// Takes the volume label from a label entry into xm_label (UTF-8, NUL-
// terminated) and records the entry's offset. The entry has room for 11
// UTF-16 units; a larger CharacterCount is taken as 11, so that nothing past
// the 32-byte entry is ever read. Returns 0 or the conversion's error.
int exfat_scan_label(struct exfat_mount* mount, const uint8_t* entry, uint32_t offset) {
  const struct exfat_label_entry* label = reinterpret_cast<const struct exfat_label_entry*>(entry);
  uint32_t count = label->CharacterCount;
  if (count > EXFAT_LABEL_MAX_CHARS)
    count = EXFAT_LABEL_MAX_CHARS;
  uint16_t units[EXFAT_LABEL_MAX_CHARS];
  for (uint32_t i = 0; i < count; i++)
    units[i] = le16dec(label->VolumeLabel + 2 * i);

  size_t length = 0;
  int error = utf8_encodestr(units, count * sizeof(uint16_t),
                             reinterpret_cast<uint8_t*>(mount->xm_label), &length,
                             sizeof(mount->xm_label), 0, UTF_DECOMPOSED);
  if (error)
    return error;
  mount->xm_label_offset = offset;
  return 0;
}

// Takes the Volume GUID as the volume UUID when the entry's checksum holds.
// The GUID entry is a set of its own with no secondaries; one that claims
// secondaries is not a valid GUID entry and is passed over (its checksum
// would cover entries that aren't part of it).
void exfat_scan_guid(struct exfat_mount* mount, const uint8_t* entry) {
  const struct exfat_guid_entry* guid = reinterpret_cast<const struct exfat_guid_entry*>(entry);
  if (guid->SecondaryCount != 0)
    return;
  if (le16dec(guid->SetChecksum) != exfat_checksum_file_set(entry))
    return;
  exfat_guid_to_uuid(mount->xm_uuid, guid->VolumeGuid);
}

}  // namespace

// Walks the root directory for its system entries (bitmap, up-case table,
// label, GUID). The caller (the mount) holds no node lock; the root node is
// locked here for the walk. Returns 0; the walk's or a system file's error;
// or EINVAL when no up-case table or no active bitmap was found (both are
// reported when both are missing). On error the root vnode is recycled.
int exfat_scan_root_dir(mount_t mp, vfs_context_t context) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  mount->xm_label_offset = EXFAT_NO_LABEL_OFFSET;

  vnode_t root_vp = NULLVP;
  struct exfat_node* root = nullptr;
  int error = exfat_vfs_root_locked(mp, &root_vp, &root, context);
  if (error)
    return error;

  struct exfat_scan_context scan = {mount, root_vp};
  error = exfat_dir_iterate(root, 0, &scan, exfat_scan_root_callback, ITER_SINGLES, context);
  if (error) {
    exfat_node_unlock(root);
    vnode_recycle(root_vp);
    vnode_put(root_vp);
    return error;
  }

  if (mount->xm_upcase == nullptr) {
    kprintf("exfat_scan_root_dir: No upcase table!");
    error = EINVAL;
  }
  if (mount->xm_bitmap_vp == nullptr) {
    kprintf("exfat_scan_root_dir: No volume bitmap!");
    error = EINVAL;
  }
  exfat_node_unlock(root);
  if (error)
    vnode_recycle(root_vp);
  vnode_put(root_vp);
  return error;
}

// The scan's iteration callback, called for each in-use system entry of the
// root directory (ITER_SINGLES: set is NULL, entry points into the block).
// The caller holds the root node's lock. Returns 0 to go on, or an error
// that ends the scan (opening the bitmap, reading the up-case table,
// converting the label).
int exfat_scan_root_callback(void* scan_context, uint8_t* set, uint8_t* entry, uint32_t offset) {
  struct exfat_scan_context* scan = static_cast<struct exfat_scan_context*>(scan_context);
  struct exfat_mount* mount = scan->mount;
  lck_mtx_assert(static_cast<struct exfat_node*>(vnode_fsnode(scan->root_vp))->x_lock,
                 LCK_MTX_ASSERT_OWNED);

  switch (entry[0]) {
    case EXFAT_ENTRY_BITMAP:
      // The bitmap of a second FAT; this driver uses only the first FAT.
      if (entry[1] & EXFAT_BITMAP_SECOND_FAT)
        return 0;
      if (mount->xm_bitmap_vp != nullptr) {
        kprintf("exfat: Found two active bitmap files!");
        return 0;
      }
      return exfat_get_bitmap_file(mount, scan->root_vp, offset, entry);
    case EXFAT_ENTRY_UPCASE:
      if (mount->xm_upcase != nullptr) {
        kprintf("exfat_scan_root_dir: Found two upcase tables!");
        return 0;
      }
      return exfat_read_upcase(mount, scan->root_vp, offset, entry);
    case EXFAT_ENTRY_LABEL:
      return exfat_scan_label(mount, entry, offset);
    case EXFAT_ENTRY_GUID:
      exfat_scan_guid(mount, entry);
      return 0;
    default:
      return 0;
  }
}

// Makes the node and vnode of a system file whose entry stands at `offset`
// in the directory dir_vp: a regular-file vnode marked system, never name-
// cached, with the ordinary vnode operations; named `name` when one is
// given. The caller holds the directory's node lock; takes and drops
// exfat_hash_lock. A node already hashed under the key is a fatal error. On
// success *vpp holds the vnode with an I/O reference; on failure *vpp is
// NULL and ENOMEM or vnode_create's error is returned.
int exfat_system_node_get(struct exfat_mount* mount, vnode_t dir_vp, const char* name,
                          uint32_t offset, uint32_t first_cluster, uint64_t size, vnode_t* vpp) {
  struct exfat_node* parent = static_cast<struct exfat_node*>(vnode_fsnode(dir_vp));
  lck_mtx_assert(parent->x_lock, LCK_MTX_ASSERT_OWNED);
  uint32_t dev = mount->xm_dev;
  *vpp = NULLVP;

  lck_mtx_lock(exfat_hash_lock);
  int hash_error = 0;
  if (exfat_hash_get(dev, parent->x_start_cluster, offset, nullptr, &hash_error) != nullptr ||
      hash_error != 0)
    panic("exfat: exfat_system_node_get: system file node already exists!");

  struct exfat_node* node = exfat_node_alloc();
  if (node == nullptr) {
    lck_mtx_unlock(exfat_hash_lock);
    return ENOMEM;
  }
  node->x_mount = mount;
  node->x_dev = dev;
  node->x_dir_cluster = parent->x_start_cluster;
  node->x_dir_offset = offset;
  node->x_hash_flags = X_HASH_INIT;
  node->x_flags = X_SYSTEM;
  exfat_hash_insert(node);
  lck_mtx_unlock(exfat_hash_lock);

  node->x_start_cluster = first_cluster;
  node->x_size = size;
  node->x_valid_size = size;

  struct vnode_fsparam param;
  exfat_vnode_param_init(&param, mount->xm_mp, VREG, node, exfat_vnodeop_p,
                         static_cast<off_t>(size), VNFS_NOCACHE | VNFS_CANTCACHE);
  param.vnfs_marksystem = 1;
  vnode_t vp = NULLVP;
  int error = vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &param, &vp);
  if (error) {
    exfat_node_unhash(node);
    exfat_node_free(node);
    return error;
  }
  node->x_vnode = vp;

  if (name != nullptr)
    vnode_update_identity(vp, NULLVP, name, 0, 0, VNODE_UPDATE_NAME);
  vnode_addfsref(vp);
  *vpp = vp;
  exfat_node_init_done(node);
  return 0;
}

// Opens the allocation bitmap described by the bitmap entry at `offset` of
// the root directory dir_vp into xm_bitmap_vp (a use reference, no I/O
// reference), starts reading it ahead and counts the free clusters. The
// caller holds the root node's lock. Returns 0, or the error of the system
// node, the reference or the count; on error xm_bitmap_vp is left empty and
// the vnode recycled.
int exfat_get_bitmap_file(struct exfat_mount* mount, vnode_t dir_vp, uint32_t offset,
                          const uint8_t* entry) {
  const struct exfat_bitmap_entry* bitmap =
      reinterpret_cast<const struct exfat_bitmap_entry*>(entry);
  vnode_t vp = NULLVP;
  int error = exfat_system_node_get(mount, dir_vp, "<bitmap>", offset,
                                    le32dec(bitmap->FirstCluster), le64dec(bitmap->DataLength), &vp);
  if (error)
    return error;
  error = vnode_ref(vp);
  if (error) {
    vnode_recycle(vp);
    vnode_put(vp);
    return error;
  }
  vnode_put(vp);
  mount->xm_bitmap_vp = vp;

  struct exfat_node* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  mount->xm_bitmap_size = static_cast<uint32_t>(node->x_size);
  // The whole bitmap is about to be counted: have it read in large requests.
  off_t size = static_cast<off_t>(mount->xm_bitmap_size);
  advisory_read(vp, size, 0, static_cast<int>(size < INT32_MAX ? size : INT32_MAX));

  error = exfat_count_free_clusters(mount);
  if (error == 0)
    return 0;
  vnode_recycle(vp);
  vnode_rele(vp);
  mount->xm_bitmap_vp = NULLVP;
  return error;
}
