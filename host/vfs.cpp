// File-system registration (vfs_fsadd/vfs_fsremove) and dispatch of vnode
// and file system operations through the registered tables.
//
// Every operation vector has one slot per operation description, in the
// order of VNOP_DESC_LIST. Dispatch reads the vnode's vector without a lock:
// the vector is published before the vnode is handed out and is replaced by
// the dead vector only when the vnode is reclaimed, after every other I/O
// reference has drained.

#include "host/vfs.h"

#include <cstring>
#include <mutex>
#include <new>

#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/vnode_private.h"

// --- Operation descriptions ---------------------------------------------------

namespace {
enum {
#define X(name) vnop_##name##_slot,
  VNOP_DESC_LIST(X)
#undef X
      vnop_slot_count
};
}  // namespace

#define X(name) struct vnodeop_desc vnop_##name##_desc = {vnop_##name##_slot, "vnop_" #name};
VNOP_DESC_LIST(X)
#undef X

int vnop_desc_count(void) { return vnop_slot_count; }

int vn_default_error(void* ap) { return ENOTSUP; }

int vn_bwrite(void* ap) { return buf_bwrite(static_cast<struct vnop_bwrite_args*>(ap)->a_bp); }

// A program linked without the buffer cache has no buffers, so nothing can
// reach these; the buffer cache's definitions replace them.
__attribute__((weak)) errno_t buf_bwrite(buf_t bp) {
  panic("buf_bwrite: no buffer cache in this program");
}
__attribute__((weak)) vnode_t buf_vnode(buf_t bp) {
  panic("buf_vnode: no buffer cache in this program");
}

// --- Dead vnodes ------------------------------------------------------------------
// A vnode reclaimed while references remain (a forced unmount) answers every
// operation with an error, except those its remaining holders need in order
// to let go of it.

namespace {

int dead_badf(void* ap) { return EBADF; }
int dead_nxio(void* ap) { return ENXIO; }
int dead_ok(void* ap) { return 0; }

VOPFUNC g_dead_ops[vnop_slot_count];

std::once_flag g_dead_once;

}  // namespace

VOPFUNC* vnode_dead_ops(void) {
  std::call_once(g_dead_once, [] {
    for (int i = 0; i < vnop_slot_count; i++) g_dead_ops[i] = dead_badf;
    g_dead_ops[vnop_open_slot] = dead_nxio;
    g_dead_ops[vnop_close_slot] = dead_ok;
    g_dead_ops[vnop_inactive_slot] = dead_ok;
    g_dead_ops[vnop_reclaim_slot] = dead_ok;
  });
  return g_dead_ops;
}

// --- Registration -------------------------------------------------------------------

namespace {

// Protects the table list and every type's mount count.
std::mutex g_vfs_lock;
vfstable_t g_tables[32];
int g_ntables;
int g_next_typenum = 0x20;

vfstable_t find_table_locked(const char* name) {
  for (int i = 0; i < g_ntables; i++) {
    if (strncmp(g_tables[i]->vfc_name, name, MFSNAMELEN) == 0) return g_tables[i];
  }
  return nullptr;
}

void free_vectors(vfstable_t vfc) {
  for (int i = 0; i < vfc->vfc_nvectors; i++) {
    *vfc->vfc_vector_vars[i] = nullptr;
    delete[] vfc->vfc_vectors[i];
  }
  vfc->vfc_nvectors = 0;
}

// Fills one vector: every slot gets the description's entry for it, or the
// default entry's function, or vn_default_error. ENOMEM.
int fill_vector(vfstable_t vfc, struct vnodeopv_desc* desc) {
  if (host_alloc_should_fail()) return ENOMEM;
  auto* vec = new (std::nothrow) VOPFUNC[vnop_slot_count];
  if (vec == nullptr) return ENOMEM;
  VOPFUNC dflt = vn_default_error;
  for (const struct vnodeopv_entry_desc* e = desc->opv_desc_ops; e->opve_op != nullptr; e++) {
    if (e->opve_op == &vnop_default_desc && e->opve_impl != nullptr) dflt = e->opve_impl;
  }
  for (int i = 0; i < vnop_slot_count; i++) vec[i] = dflt;
  for (const struct vnodeopv_entry_desc* e = desc->opv_desc_ops; e->opve_op != nullptr; e++) {
    int slot = e->opve_op->vdesc_offset;
    if (slot < 0 || slot >= vnop_slot_count) {
      panic("vfs_fsadd: %s: operation %s has no slot", vfc->vfc_name, e->opve_op->vdesc_name);
    }
    if (e->opve_impl != nullptr) vec[slot] = e->opve_impl;
  }
  vfc->vfc_vectors[vfc->vfc_nvectors] = vec;
  vfc->vfc_vector_vars[vfc->vfc_nvectors] = desc->opv_desc_vector_p;
  vfc->vfc_nvectors++;
  *desc->opv_desc_vector_p = vec;
  return 0;
}

}  // namespace

errno_t vfs_fsadd(struct vfs_fsentry* vfe, vfstable_t* handle) {
  const uint32_t known = VFS_TBLTHREADSAFE | VFS_TBLFSNODELOCK | VFS_TBLNOTYPENUM |
                         VFS_TBLLOCALVOL | VFS_TBL64BITREADY | VFS_TBLNATIVEXATTR |
                         VFS_TBLDIRLINKS | VFS_TBLUNMOUNT_PREFLIGHT | VFS_TBLGENERICMNTARGS |
                         VFS_TBLREADDIR_EXTENDED | VFS_TBLNOMACLABEL | VFS_TBLVNOP_PAGEINV2 |
                         VFS_TBLVNOP_PAGEOUTV2;
  if (vfe->vfe_flags & ~known) panic("vfs_fsadd: unsupported flags 0x%x", vfe->vfe_flags);
  if (vfe->vfe_vopcnt < 0 || vfe->vfe_vopcnt > 8) {
    panic("vfs_fsadd: %d operation descriptions", vfe->vfe_vopcnt);
  }
  *handle = nullptr;
  std::lock_guard<std::mutex> guard(g_vfs_lock);
  char name[MFSNAMELEN + 1];
  memcpy(name, vfe->vfe_fsname, MFSNAMELEN);
  name[MFSNAMELEN] = '\0';
  if (find_table_locked(name) != nullptr) return EEXIST;
  if (g_ntables == (int)(sizeof g_tables / sizeof g_tables[0])) return ENOMEM;
  if (host_alloc_should_fail()) return ENOMEM;
  auto* vfc = new (std::nothrow) vfstable{};
  if (vfc == nullptr) return ENOMEM;
  memcpy(vfc->vfc_name, name, sizeof name);
  vfc->vfc_vfsops = vfe->vfe_vfsops;
  vfc->vfc_flags = vfe->vfe_flags;
  vfc->vfc_typenum = (vfe->vfe_flags & VFS_TBLNOTYPENUM) ? g_next_typenum++ : vfe->vfe_fstypenum;
  for (int i = 0; i < vfe->vfe_vopcnt; i++) {
    int error = fill_vector(vfc, vfe->vfe_opvdescs[i]);
    if (error != 0) {
      free_vectors(vfc);
      delete vfc;
      return error;
    }
  }
  if (vfc->vfc_vfsops->vfs_init != nullptr) {
    struct vfsconf conf = {};
    memcpy(conf.vfc_name, vfc->vfc_name, MFSNAMELEN);
    conf.vfc_typenum = vfc->vfc_typenum;
    conf.vfc_flags = vfc->vfc_flags;
    (void)vfc->vfc_vfsops->vfs_init(&conf);
  }
  g_tables[g_ntables++] = vfc;
  *handle = vfc;
  return 0;
}

errno_t vfs_fsremove(vfstable_t handle) {
  std::lock_guard<std::mutex> guard(g_vfs_lock);
  int i = 0;
  while (i < g_ntables && g_tables[i] != handle) i++;
  if (i == g_ntables) return ENOENT;
  if (handle->vfc_mountcount > 0) return EBUSY;
  g_tables[i] = g_tables[--g_ntables];
  free_vectors(handle);
  delete handle;
  return 0;
}

vfstable_t vfs_table_acquire(const char* name) {
  std::lock_guard<std::mutex> guard(g_vfs_lock);
  vfstable_t vfc = find_table_locked(name);
  if (vfc != nullptr) vfc->vfc_mountcount++;
  return vfc;
}

void vfs_table_release(vfstable_t vfc) {
  std::lock_guard<std::mutex> guard(g_vfs_lock);
  if (vfc->vfc_mountcount <= 0) panic("vfs_table_release: %s is not mounted", vfc->vfc_name);
  vfc->vfc_mountcount--;
}

// --- File system operations ------------------------------------------------------------

namespace {
struct vfsops* ops_of(mount_t mp) { return mp->mnt_vtable->vfc_vfsops; }
}  // namespace

int VFS_MOUNT(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_mount == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_mount(mp, devvp, data, ctx);
}

int VFS_START(mount_t mp, int flags, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_start == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_start(mp, flags, ctx);
}

int VFS_UNMOUNT(mount_t mp, int mntflags, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_unmount == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_unmount(mp, mntflags, ctx);
}

int VFS_VGET(mount_t mp, ino64_t ino, vnode_t* vpp, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_vget == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_vget(mp, ino, vpp, ctx);
}

int VFS_SYNC(mount_t mp, int waitfor, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_sync == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_sync(mp, waitfor, ctx);
}

int VFS_ROOT(mount_t mp, vnode_t* vpp, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_root == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_root(mp, vpp, ctx);
}

int VFS_GETATTR(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_getattr == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_getattr(mp, attr, ctx);
}

int VFS_SETATTR(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_setattr == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_setattr(mp, attr, ctx);
}

int VFS_IOCTL(mount_t mp, u_long command, caddr_t data, int flags, vfs_context_t ctx) {
  if (ops_of(mp)->vfs_ioctl == nullptr) return ENOTSUP;
  return ops_of(mp)->vfs_ioctl(mp, command, data, flags, ctx);
}

// --- Vnode operations ------------------------------------------------------------------

namespace {

// Calls the vnode's operation for `desc` with the argument block `a`.
template <typename Args>
errno_t vnop_call(vnode_t vp, Args* a) {
  if (vp == nullptr) panic("%s: NULL vnode", a->a_desc->vdesc_name);
  VOPFUNC* ops = vp->v_op.load(std::memory_order_acquire);
  return ops[a->a_desc->vdesc_offset](a);
}

}  // namespace

errno_t VNOP_LOOKUP(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, vfs_context_t ctx) {
  struct vnop_lookup_args a = {&vnop_lookup_desc, dvp, vpp, cnp, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_CREATE(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                    vfs_context_t ctx) {
  struct vnop_create_args a = {&vnop_create_desc, dvp, vpp, cnp, vap, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_MKNOD(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                   vfs_context_t ctx) {
  struct vnop_mknod_args a = {&vnop_mknod_desc, dvp, vpp, cnp, vap, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_OPEN(vnode_t vp, int mode, vfs_context_t ctx) {
  struct vnop_open_args a = {&vnop_open_desc, vp, mode, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_CLOSE(vnode_t vp, int fflag, vfs_context_t ctx) {
  struct vnop_close_args a = {&vnop_close_desc, vp, fflag, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_GETATTR(vnode_t vp, struct vnode_attr* vap, vfs_context_t ctx) {
  struct vnop_getattr_args a = {&vnop_getattr_desc, vp, vap, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_SETATTR(vnode_t vp, struct vnode_attr* vap, vfs_context_t ctx) {
  struct vnop_setattr_args a = {&vnop_setattr_desc, vp, vap, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_READ(vnode_t vp, uio_t uio, int ioflag, vfs_context_t ctx) {
  struct vnop_read_args a = {&vnop_read_desc, vp, uio, ioflag, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_WRITE(vnode_t vp, uio_t uio, int ioflag, vfs_context_t ctx) {
  struct vnop_write_args a = {&vnop_write_desc, vp, uio, ioflag, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_IOCTL(vnode_t vp, u_long command, caddr_t data, int fflag, vfs_context_t ctx) {
  struct vnop_ioctl_args a = {&vnop_ioctl_desc, vp, command, data, fflag, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_MNOMAP(vnode_t vp, vfs_context_t ctx) {
  struct vnop_mnomap_args a = {&vnop_mnomap_desc, vp, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_FSYNC(vnode_t vp, int waitfor, vfs_context_t ctx) {
  struct vnop_fsync_args a = {&vnop_fsync_desc, vp, waitfor, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_REMOVE(vnode_t dvp, vnode_t vp, struct componentname* cnp, int flags,
                    vfs_context_t ctx) {
  struct vnop_remove_args a = {&vnop_remove_desc, dvp, vp, cnp, flags, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_RENAME(vnode_t fdvp, vnode_t fvp, struct componentname* fcnp, vnode_t tdvp,
                    vnode_t tvp, struct componentname* tcnp, vfs_context_t ctx) {
  struct vnop_rename_args a = {&vnop_rename_desc, fdvp, fvp, fcnp, tdvp, tvp, tcnp, ctx};
  return vnop_call(fdvp, &a);
}

errno_t VNOP_MKDIR(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                   vfs_context_t ctx) {
  struct vnop_mkdir_args a = {&vnop_mkdir_desc, dvp, vpp, cnp, vap, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_RMDIR(vnode_t dvp, vnode_t vp, struct componentname* cnp, vfs_context_t ctx) {
  struct vnop_rmdir_args a = {&vnop_rmdir_desc, dvp, vp, cnp, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_SYMLINK(vnode_t dvp, vnode_t* vpp, struct componentname* cnp,
                     struct vnode_attr* vap, char* target, vfs_context_t ctx) {
  struct vnop_symlink_args a = {&vnop_symlink_desc, dvp, vpp, cnp, vap, target, ctx};
  return vnop_call(dvp, &a);
}

errno_t VNOP_READDIR(vnode_t vp, uio_t uio, int flags, int* eofflag, int* numdirent,
                     vfs_context_t ctx) {
  struct vnop_readdir_args a = {&vnop_readdir_desc, vp, uio, flags, eofflag, numdirent, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_READLINK(vnode_t vp, uio_t uio, vfs_context_t ctx) {
  struct vnop_readlink_args a = {&vnop_readlink_desc, vp, uio, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_INACTIVE(vnode_t vp, vfs_context_t ctx) {
  struct vnop_inactive_args a = {&vnop_inactive_desc, vp, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_RECLAIM(vnode_t vp, vfs_context_t ctx) {
  struct vnop_reclaim_args a = {&vnop_reclaim_desc, vp, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_PATHCONF(vnode_t vp, int name, int32_t* retval, vfs_context_t ctx) {
  struct vnop_pathconf_args a = {&vnop_pathconf_desc, vp, name, retval, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_PAGEIN(vnode_t vp, upl_t pl, upl_offset_t pl_offset, off_t f_offset, size_t size,
                    int flags, vfs_context_t ctx) {
  struct vnop_pagein_args a = {&vnop_pagein_desc, vp, pl, pl_offset, f_offset, size, flags, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_PAGEOUT(vnode_t vp, upl_t pl, upl_offset_t pl_offset, off_t f_offset, size_t size,
                     int flags, vfs_context_t ctx) {
  struct vnop_pageout_args a = {&vnop_pageout_desc, vp, pl, pl_offset, f_offset, size, flags, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_BLKTOOFF(vnode_t vp, daddr64_t lblkno, off_t* offset) {
  struct vnop_blktooff_args a = {&vnop_blktooff_desc, vp, lblkno, offset};
  return vnop_call(vp, &a);
}

errno_t VNOP_OFFTOBLK(vnode_t vp, off_t offset, daddr64_t* lblkno) {
  struct vnop_offtoblk_args a = {&vnop_offtoblk_desc, vp, offset, lblkno};
  return vnop_call(vp, &a);
}

errno_t VNOP_BLOCKMAP(vnode_t vp, off_t foffset, size_t size, daddr64_t* bpn, size_t* run,
                      void* poff, int flags, vfs_context_t ctx) {
  struct vnop_blockmap_args a = {&vnop_blockmap_desc, vp, foffset, size, bpn, run, poff, flags, ctx};
  return vnop_call(vp, &a);
}

errno_t VNOP_STRATEGY(buf_t bp) {
  struct vnop_strategy_args a = {&vnop_strategy_desc, bp};
  return vnop_call(buf_vnode(bp), &a);
}

errno_t VNOP_BWRITE(buf_t bp) {
  struct vnop_bwrite_args a = {&vnop_bwrite_desc, bp};
  return vnop_call(buf_vnode(bp), &a);
}
