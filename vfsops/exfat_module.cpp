// Module start and stop, the module-wide globals, and the registration of
// the "exfat" file system type with its file system operation table and its
// two vnode operation tables.
//
// The start routine is what a kernel's module loader calls when the module
// is loaded; it makes the memory tag and the zero buffer, then registers the
// type, which makes the kernel call exfat_vfs_init for the lock group and
// the node hash. Stop undoes this in reverse and refuses while any volume of
// the type is mounted.

#include <cstring>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/mount.h"

// The kernel's generic failure code for a module start or stop routine.
#define EXFAT_KERN_FAILURE 5

// --- Module-wide globals ----------------------------------------------------------

OSMallocTag exfat_malloc_tag = nullptr;
char* exfat_zeroes = nullptr;
vfstable_t exfat_vfsconf = nullptr;
lck_grp_attr_t* exfat_lck_grp_attr = nullptr;
lck_grp_t* exfat_lck_grp = nullptr;
lck_attr_t* exfat_lck_attr = nullptr;
VOPFUNC* exfat_vnodeop_p = nullptr;
VOPFUNC* exfat_fat_vnodeop_p = nullptr;
uint32_t exfat_meta_delay = 50;

// --- File system operations, in the kernel's slot order ---------------------------

static struct vfsops exfat_vfsops = {
    .vfs_mount = exfat_vfs_mount,
    .vfs_start = exfat_vfs_start,
    .vfs_unmount = exfat_vfs_unmount,
    .vfs_root = exfat_vfs_root,
    .vfs_quotactl = nullptr,  // no quotas
    .vfs_getattr = exfat_vfs_getattr,
    .vfs_sync = exfat_vfs_sync,
    .vfs_vget = nullptr,      // no export by file handle
    .vfs_fhtovp = nullptr,
    .vfs_vptofh = nullptr,
    .vfs_init = exfat_vfs_init,
    .vfs_sysctl = nullptr,
    .vfs_setattr = exfat_vfs_setattr,
    .vfs_ioctl = exfat_vfs_ioctl,
    .vfs_vget_snapdir = nullptr,
    .vfs_reserved5 = nullptr,
    .vfs_reserved4 = nullptr,
    .vfs_reserved3 = nullptr,
    .vfs_reserved2 = nullptr,
    .vfs_reserved1 = nullptr,
};

// --- Vnode operation tables ----------------------------------------------------------
//
// Every operation takes its own argument block; the kernel's vectors hold
// them all as the one generic type and calls each with the block its slot
// describes.

#define EXFAT_VOP(f) reinterpret_cast<VOPFUNC>(f)

// Files, directories and symbolic links, and the bitmap and up-case system
// files.
static const struct vnodeopv_entry_desc exfat_vnodeop_entries[] = {
    {&vnop_default_desc, EXFAT_VOP(vn_default_error)},
    {&vnop_lookup_desc, EXFAT_VOP(exfat_vnop_lookup)},
    {&vnop_create_desc, EXFAT_VOP(exfat_vnop_create)},
    {&vnop_mknod_desc, EXFAT_VOP(exfat_vnop_mknod)},
    {&vnop_open_desc, EXFAT_VOP(exfat_vnop_open)},
    {&vnop_close_desc, EXFAT_VOP(exfat_vnop_close)},
    {&vnop_getattr_desc, EXFAT_VOP(exfat_vnop_getattr)},
    {&vnop_setattr_desc, EXFAT_VOP(exfat_vnop_setattr)},
    {&vnop_read_desc, EXFAT_VOP(exfat_vnop_read)},
    {&vnop_write_desc, EXFAT_VOP(exfat_vnop_write)},
    {&vnop_fsync_desc, EXFAT_VOP(exfat_vnop_fsync)},
    {&vnop_remove_desc, EXFAT_VOP(exfat_vnop_remove)},
    {&vnop_rename_desc, EXFAT_VOP(exfat_vnop_rename)},
    {&vnop_mkdir_desc, EXFAT_VOP(exfat_vnop_mkdir)},
    {&vnop_rmdir_desc, EXFAT_VOP(exfat_vnop_rmdir)},
    {&vnop_readdir_desc, EXFAT_VOP(exfat_vnop_readdir)},
    {&vnop_inactive_desc, EXFAT_VOP(exfat_vnop_inactive)},
    {&vnop_reclaim_desc, EXFAT_VOP(exfat_vnop_reclaim)},
    {&vnop_pathconf_desc, EXFAT_VOP(exfat_vnop_pathconf)},
    {&vnop_pagein_desc, EXFAT_VOP(exfat_vnop_pagein)},
    {&vnop_pageout_desc, EXFAT_VOP(exfat_vnop_pageout)},
    {&vnop_mnomap_desc, EXFAT_VOP(exfat_vnop_mnomap)},
    {&vnop_blktooff_desc, EXFAT_VOP(exfat_vnop_blktooff)},
    {&vnop_offtoblk_desc, EXFAT_VOP(exfat_vnop_offtoblk)},
    {&vnop_blockmap_desc, EXFAT_VOP(exfat_vnop_blockmap)},
    {&vnop_strategy_desc, EXFAT_VOP(exfat_vnop_strategy)},
    {&vnop_symlink_desc, EXFAT_VOP(exfat_vnop_symlink)},
    {&vnop_readlink_desc, EXFAT_VOP(exfat_vnop_readlink)},
    {&vnop_ioctl_desc, EXFAT_VOP(exfat_vnop_ioctl)},
    {&vnop_bwrite_desc, EXFAT_VOP(vn_bwrite)},
    {nullptr, nullptr},
};

// The FAT's own vnode: paged in and out as plain arithmetic over the FAT's
// sectors.
static const struct vnodeopv_entry_desc exfat_fat_vnodeop_entries[] = {
    {&vnop_default_desc, EXFAT_VOP(vn_default_error)},
    {&vnop_pagein_desc, EXFAT_VOP(exfat_fat_pagein)},
    {&vnop_pageout_desc, EXFAT_VOP(exfat_fat_pageout)},
    {&vnop_strategy_desc, EXFAT_VOP(exfat_fat_strategy)},
    {&vnop_blockmap_desc, EXFAT_VOP(exfat_fat_blockmap)},
    {&vnop_blktooff_desc, EXFAT_VOP(exfat_vnop_blktooff)},
    {&vnop_offtoblk_desc, EXFAT_VOP(exfat_vnop_offtoblk)},
    {&vnop_fsync_desc, EXFAT_VOP(exfat_fat_fsync)},
    {&vnop_inactive_desc, EXFAT_VOP(exfat_fat_inactive)},
    {&vnop_reclaim_desc, EXFAT_VOP(exfat_fat_reclaim)},
    {&vnop_bwrite_desc, EXFAT_VOP(vn_bwrite)},
    {nullptr, nullptr},
};

static struct vnodeopv_desc exfat_vnodeop_opv_desc = {&exfat_vnodeop_p, exfat_vnodeop_entries};
static struct vnodeopv_desc exfat_fat_vnodeop_opv_desc = {&exfat_fat_vnodeop_p,
                                                          exfat_fat_vnodeop_entries};
static struct vnodeopv_desc* exfat_vnodeop_opv_desc_list[] = {&exfat_vnodeop_opv_desc,
                                                              &exfat_fat_vnodeop_opv_desc};

// --- Start and stop ------------------------------------------------------------------

// Called once by the kernel when the type is added (vfs_fsadd): makes the
// lock group every driver mutex comes from, then the node hash. Returns 0.
int exfat_vfs_init(struct vfsconf* vfsconf) {
  exfat_lck_grp_attr = lck_grp_attr_alloc_init();
  exfat_lck_grp = lck_grp_alloc_init("exfat", exfat_lck_grp_attr);
  exfat_lck_attr = lck_attr_alloc_init();
  exfat_hash_init();
  return 0;
}

// The counterpart of exfat_vfs_init, called by the stop routine once the
// type is gone: the node hash first (its lock comes from the group), then the
// lock attributes, the group and the group attributes. Returns 0.
int exfat_vfs_uninit(void) {
  exfat_hash_uninit();
  lck_attr_free(exfat_lck_attr);
  exfat_lck_attr = nullptr;
  lck_grp_free(exfat_lck_grp);
  exfat_lck_grp = nullptr;
  lck_grp_attr_free(exfat_lck_grp_attr);
  exfat_lck_grp_attr = nullptr;
  return 0;
}

// Releases what start made before registering, when the start fails. The
// tag goes too, so that a failed start leaves nothing behind and a later
// start begins afresh.
static void exfat_module_release(void) {
  if (exfat_zeroes != nullptr) {
    OSFree(exfat_zeroes, EXFAT_ZEROES_SIZE, exfat_malloc_tag);
    exfat_zeroes = nullptr;
  }
  OSMalloc_Tagfree(exfat_malloc_tag);
  exfat_malloc_tag = nullptr;
}

// The module's start routine. Makes the "exfat" memory tag and the zero
// buffer and registers the file system type. Returns 0, or 5 when memory
// for the zero buffer runs out (nothing is registered) or the kernel refuses
// the registration.
int exfat_module_start(void) {
  exfat_malloc_tag = OSMalloc_Tagalloc("exfat", OSMT_DEFAULT);
  exfat_zeroes = static_cast<char*>(OSMalloc(EXFAT_ZEROES_SIZE, exfat_malloc_tag));
  if (exfat_zeroes == nullptr) {
    exfat_module_release();
    return EXFAT_KERN_FAILURE;
  }
  memset(exfat_zeroes, 0, EXFAT_ZEROES_SIZE);

  struct vfs_fsentry vfe;
  memset(&vfe, 0, sizeof(vfe));
  vfe.vfe_vfsops = &exfat_vfsops;
  vfe.vfe_vopcnt = 2;
  vfe.vfe_opvdescs = exfat_vnodeop_opv_desc_list;
  // The type number is left to the kernel (VFS_TBLNOTYPENUM).
  strncpy(vfe.vfe_fsname, "exfat", MFSNAMELEN - 1);
  vfe.vfe_flags = VFS_TBLTHREADSAFE | VFS_TBLNOTYPENUM | VFS_TBLLOCALVOL | VFS_TBL64BITREADY |
                  VFS_TBLREADDIR_EXTENDED | VFS_TBLVNOP_PAGEINV2 | VFS_TBLVNOP_PAGEOUTV2;
  vfe.vfe_reserv[0] = nullptr;
  vfe.vfe_reserv[1] = nullptr;

  if (vfs_fsadd(&vfe, &exfat_vfsconf) != 0) {
    exfat_vfsconf = nullptr;
    exfat_module_release();
    return EXFAT_KERN_FAILURE;
  }
  return 0;
}

// The module's stop routine. Removes the type, then releases the lock
// group, the node hash, the zero buffer and the tag. Returns 0, or 5 when the
// kernel refuses to remove the type (volumes still mounted); the module then
// stays fully usable.
int exfat_module_stop(void) {
  if (vfs_fsremove(exfat_vfsconf) != 0)
    return EXFAT_KERN_FAILURE;
  exfat_vfsconf = nullptr;
  exfat_vfs_uninit();
  exfat_module_release();
  return 0;
}
