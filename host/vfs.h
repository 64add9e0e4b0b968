#pragma once
// File-system registration and operation dispatch.
//
// A file system registers with vfs_fsadd(): one table of file system
// operations (struct vfsops) and any number of vnode operation descriptions.
// Each description names an operation vector (a VOPFUNC* variable of the
// file system) and a list of (operation, function) entries; vfs_fsadd
// allocates the vector, fills it and stores it in that variable. Slots
// without an entry get the default entry's function (vn_default_error when
// the file system says so). VNOP_*() calls go through the vnode's vector,
// VFS_*() calls through the mount's vfsops.

#include "host/types.h"
#include "host/vnode.h"

struct vnode_attr;
struct vfs_attr;

// --- Operation descriptions --------------------------------------------------

struct vnodeop_desc {
  int vdesc_offset;  // slot in every operation vector
  const char* vdesc_name;
};

#define VNOP_DESC_LIST(X)                                                    \
  X(default) X(lookup) X(create) X(mknod) X(open) X(close) X(access)         \
  X(getattr) X(setattr) X(read) X(write) X(ioctl) X(select) X(exchange)      \
  X(revoke) X(mmap) X(mnomap) X(fsync) X(remove) X(link) X(rename)           \
  X(mkdir) X(rmdir) X(symlink) X(readdir) X(readdirattr) X(readlink)         \
  X(inactive) X(reclaim) X(pathconf) X(advlock) X(allocate) X(pagein)        \
  X(pageout) X(searchfs) X(copyfile) X(blktooff) X(offtoblk) X(blockmap)     \
  X(strategy) X(bwrite)

#define X(name) extern struct vnodeop_desc vnop_##name##_desc;
VNOP_DESC_LIST(X)
#undef X

// Number of slots in an operation vector.
int vnop_desc_count(void);

struct vnodeopv_entry_desc {
  struct vnodeop_desc* opve_op;
  VOPFUNC opve_impl;
};

struct vnodeopv_desc {
  VOPFUNC** opv_desc_vector_p;
  const struct vnodeopv_entry_desc* opv_desc_ops;  // ends with {NULL, NULL}
};

// The error every unset slot returns (ENOTSUP).
int vn_default_error(void* ap);
// Generic bwrite: writes the buffer with buf_bwrite.
int vn_bwrite(void* ap);

// --- Argument blocks (first member: the description) ------------------------

struct vnop_generic_args {
  struct vnodeop_desc* a_desc;
};

struct vnop_lookup_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t* a_vpp;
  struct componentname* a_cnp;
  vfs_context_t a_context;
};

struct vnop_create_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t* a_vpp;
  struct componentname* a_cnp;
  struct vnode_attr* a_vap;
  vfs_context_t a_context;
};

struct vnop_mknod_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t* a_vpp;
  struct componentname* a_cnp;
  struct vnode_attr* a_vap;
  vfs_context_t a_context;
};

struct vnop_open_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  int a_mode;
  vfs_context_t a_context;
};

struct vnop_close_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  int a_fflag;
  vfs_context_t a_context;
};

struct vnop_getattr_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  struct vnode_attr* a_vap;
  vfs_context_t a_context;
};

struct vnop_setattr_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  struct vnode_attr* a_vap;
  vfs_context_t a_context;
};

struct vnop_read_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  uio_t a_uio;
  int a_ioflag;
  vfs_context_t a_context;
};

struct vnop_write_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  uio_t a_uio;
  int a_ioflag;
  vfs_context_t a_context;
};

struct vnop_ioctl_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  u_long a_command;
  caddr_t a_data;
  int a_fflag;
  vfs_context_t a_context;
};

// Vnode ioctl commands the system-call layer passes down.
#define F_FULLFSYNC 51  // fsync, then flush the device's write cache

struct vnop_mnomap_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  vfs_context_t a_context;
};

struct vnop_fsync_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  int a_waitfor;
  vfs_context_t a_context;
};

#define VNODE_REMOVE_NODELETEBUSY 0x0001

struct vnop_remove_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t a_vp;
  struct componentname* a_cnp;
  int a_flags;
  vfs_context_t a_context;
};

struct vnop_rename_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_fdvp;
  vnode_t a_fvp;
  struct componentname* a_fcnp;
  vnode_t a_tdvp;
  vnode_t a_tvp;
  struct componentname* a_tcnp;
  vfs_context_t a_context;
};

struct vnop_mkdir_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t* a_vpp;
  struct componentname* a_cnp;
  struct vnode_attr* a_vap;
  vfs_context_t a_context;
};

struct vnop_rmdir_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t a_vp;
  struct componentname* a_cnp;
  vfs_context_t a_context;
};

struct vnop_symlink_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_dvp;
  vnode_t* a_vpp;
  struct componentname* a_cnp;
  struct vnode_attr* a_vap;
  char* a_target;
  vfs_context_t a_context;
};

// readdir flags
#define VNODE_READDIR_EXTENDED 0x0001
#define VNODE_READDIR_REQSEEKOFF 0x0002

struct vnop_readdir_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  uio_t a_uio;
  int a_flags;
  int* a_eofflag;
  int* a_numdirent;
  vfs_context_t a_context;
};

struct vnop_readlink_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  uio_t a_uio;
  vfs_context_t a_context;
};

struct vnop_inactive_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  vfs_context_t a_context;
};

struct vnop_reclaim_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  vfs_context_t a_context;
};

struct vnop_pathconf_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  int a_name;
  int32_t* a_retval;
  vfs_context_t a_context;
};

struct vnop_pagein_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  upl_t a_pl;
  upl_offset_t a_pl_offset;
  off_t a_f_offset;
  size_t a_size;
  int a_flags;
  vfs_context_t a_context;
};

struct vnop_pageout_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  upl_t a_pl;
  upl_offset_t a_pl_offset;
  off_t a_f_offset;
  size_t a_size;
  int a_flags;
  vfs_context_t a_context;
};

struct vnop_blktooff_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  daddr64_t a_lblkno;
  off_t* a_offset;
};

struct vnop_offtoblk_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  off_t a_offset;
  daddr64_t* a_lblkno;
};

// blockmap flags (a_flags)
#define VNODE_READ 0x01
#define VNODE_WRITE 0x02

struct vnop_blockmap_args {
  struct vnodeop_desc* a_desc;
  vnode_t a_vp;
  off_t a_foffset;
  size_t a_size;
  daddr64_t* a_bpn;  // device block, or -1 for a hole
  size_t* a_run;     // contiguous bytes from a_foffset
  void* a_poff;      // int*: offset within the device block
  int a_flags;
  vfs_context_t a_context;
};

struct vnop_strategy_args {
  struct vnodeop_desc* a_desc;
  buf_t a_bp;
};

struct vnop_bwrite_args {
  struct vnodeop_desc* a_desc;
  buf_t a_bp;
};

// --- Dispatch ------------------------------------------------------------------

errno_t VNOP_LOOKUP(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, vfs_context_t ctx);
errno_t VNOP_CREATE(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                    vfs_context_t ctx);
errno_t VNOP_MKNOD(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                   vfs_context_t ctx);
errno_t VNOP_OPEN(vnode_t vp, int mode, vfs_context_t ctx);
errno_t VNOP_CLOSE(vnode_t vp, int fflag, vfs_context_t ctx);
errno_t VNOP_GETATTR(vnode_t vp, struct vnode_attr* vap, vfs_context_t ctx);
errno_t VNOP_SETATTR(vnode_t vp, struct vnode_attr* vap, vfs_context_t ctx);
errno_t VNOP_READ(vnode_t vp, uio_t uio, int ioflag, vfs_context_t ctx);
errno_t VNOP_WRITE(vnode_t vp, uio_t uio, int ioflag, vfs_context_t ctx);
errno_t VNOP_IOCTL(vnode_t vp, u_long command, caddr_t data, int fflag, vfs_context_t ctx);
errno_t VNOP_MNOMAP(vnode_t vp, vfs_context_t ctx);
errno_t VNOP_FSYNC(vnode_t vp, int waitfor, vfs_context_t ctx);
errno_t VNOP_REMOVE(vnode_t dvp, vnode_t vp, struct componentname* cnp, int flags,
                    vfs_context_t ctx);
errno_t VNOP_RENAME(vnode_t fdvp, vnode_t fvp, struct componentname* fcnp, vnode_t tdvp,
                    vnode_t tvp, struct componentname* tcnp, vfs_context_t ctx);
errno_t VNOP_MKDIR(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, struct vnode_attr* vap,
                   vfs_context_t ctx);
errno_t VNOP_RMDIR(vnode_t dvp, vnode_t vp, struct componentname* cnp, vfs_context_t ctx);
errno_t VNOP_SYMLINK(vnode_t dvp, vnode_t* vpp, struct componentname* cnp,
                     struct vnode_attr* vap, char* target, vfs_context_t ctx);
errno_t VNOP_READDIR(vnode_t vp, uio_t uio, int flags, int* eofflag, int* numdirent,
                     vfs_context_t ctx);
errno_t VNOP_READLINK(vnode_t vp, uio_t uio, vfs_context_t ctx);
errno_t VNOP_INACTIVE(vnode_t vp, vfs_context_t ctx);
errno_t VNOP_RECLAIM(vnode_t vp, vfs_context_t ctx);
errno_t VNOP_PATHCONF(vnode_t vp, int name, int32_t* retval, vfs_context_t ctx);
errno_t VNOP_PAGEIN(vnode_t vp, upl_t pl, upl_offset_t pl_offset, off_t f_offset, size_t size,
                    int flags, vfs_context_t ctx);
errno_t VNOP_PAGEOUT(vnode_t vp, upl_t pl, upl_offset_t pl_offset, off_t f_offset, size_t size,
                     int flags, vfs_context_t ctx);
errno_t VNOP_BLKTOOFF(vnode_t vp, daddr64_t lblkno, off_t* offset);
errno_t VNOP_OFFTOBLK(vnode_t vp, off_t offset, daddr64_t* lblkno);
errno_t VNOP_BLOCKMAP(vnode_t vp, off_t foffset, size_t size, daddr64_t* bpn, size_t* run,
                      void* poff, int flags, vfs_context_t ctx);
errno_t VNOP_STRATEGY(buf_t bp);
errno_t VNOP_BWRITE(buf_t bp);

// --- File attributes ---------------------------------------------------------------

#define VNODE_ATTR_BIT(n) (UINT64_C(1) << (n))
#define VNODE_ATTR_va_rdev VNODE_ATTR_BIT(0)
#define VNODE_ATTR_va_nlink VNODE_ATTR_BIT(1)
#define VNODE_ATTR_va_total_size VNODE_ATTR_BIT(2)
#define VNODE_ATTR_va_total_alloc VNODE_ATTR_BIT(3)
#define VNODE_ATTR_va_data_size VNODE_ATTR_BIT(4)
#define VNODE_ATTR_va_data_alloc VNODE_ATTR_BIT(5)
#define VNODE_ATTR_va_iosize VNODE_ATTR_BIT(6)
#define VNODE_ATTR_va_uid VNODE_ATTR_BIT(7)
#define VNODE_ATTR_va_gid VNODE_ATTR_BIT(8)
#define VNODE_ATTR_va_mode VNODE_ATTR_BIT(9)
#define VNODE_ATTR_va_flags VNODE_ATTR_BIT(10)
#define VNODE_ATTR_va_create_time VNODE_ATTR_BIT(12)
#define VNODE_ATTR_va_access_time VNODE_ATTR_BIT(13)
#define VNODE_ATTR_va_modify_time VNODE_ATTR_BIT(14)
#define VNODE_ATTR_va_change_time VNODE_ATTR_BIT(15)
#define VNODE_ATTR_va_fileid VNODE_ATTR_BIT(17)
#define VNODE_ATTR_va_linkid VNODE_ATTR_BIT(18)
#define VNODE_ATTR_va_parentid VNODE_ATTR_BIT(19)
#define VNODE_ATTR_va_fsid VNODE_ATTR_BIT(20)
#define VNODE_ATTR_va_filerev VNODE_ATTR_BIT(21)
#define VNODE_ATTR_va_gen VNODE_ATTR_BIT(22)
#define VNODE_ATTR_va_type VNODE_ATTR_BIT(27)

// BSD file flags (va_flags)
#define UF_NODUMP 0x00000001
#define UF_IMMUTABLE 0x00000002
#define UF_APPEND 0x00000004
#define UF_HIDDEN 0x00008000
#define SF_ARCHIVED 0x00010000
#define SF_IMMUTABLE 0x00020000
#define SF_APPEND 0x00040000

struct vnode_attr {
  uint64_t va_supported;
  uint64_t va_active;
  int va_vaflags;  // I/O flags for a size change (IO_*)

  dev_t va_rdev;
  uint64_t va_nlink;
  off_t va_total_size;
  off_t va_total_alloc;
  off_t va_data_size;
  off_t va_data_alloc;
  uint32_t va_iosize;
  uid_t va_uid;
  gid_t va_gid;
  mode_t va_mode;
  uint32_t va_flags;
  struct timespec va_create_time;
  struct timespec va_access_time;
  struct timespec va_modify_time;
  struct timespec va_change_time;
  uint64_t va_fileid;
  uint64_t va_linkid;
  uint64_t va_parentid;
  dev_t va_fsid;
  uint64_t va_filerev;
  uint32_t va_gen;
  enum vtype va_type;
};

#define VATTR_INIT(v) \
  do {                \
    (v)->va_supported = (v)->va_active = 0; \
    (v)->va_vaflags = 0; \
  } while (0)
#define VATTR_WANTED(v, a) ((v)->va_active |= VNODE_ATTR_##a)
#define VATTR_SET(v, a, x) \
  do {                     \
    (v)->a = (x);          \
    (v)->va_active |= VNODE_ATTR_##a; \
  } while (0)
#define VATTR_IS_ACTIVE(v, a) (((v)->va_active & VNODE_ATTR_##a) != 0)
#define VATTR_IS_SUPPORTED(v, a) (((v)->va_supported & VNODE_ATTR_##a) != 0)
#define VATTR_SET_SUPPORTED(v, a) ((v)->va_supported |= VNODE_ATTR_##a)
#define VATTR_RETURN(v, a, x) \
  do {                        \
    (v)->a = (x);             \
    VATTR_SET_SUPPORTED(v, a); \
  } while (0)

// --- File system operations ------------------------------------------------------

struct vfsops {
  int (*vfs_mount)(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx);
  int (*vfs_start)(mount_t mp, int flags, vfs_context_t ctx);
  int (*vfs_unmount)(mount_t mp, int mntflags, vfs_context_t ctx);
  int (*vfs_root)(mount_t mp, vnode_t* vpp, vfs_context_t ctx);
  int (*vfs_quotactl)(mount_t mp, int cmds, uid_t uid, caddr_t arg, vfs_context_t ctx);
  int (*vfs_getattr)(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx);
  int (*vfs_sync)(mount_t mp, int waitfor, vfs_context_t ctx);
  int (*vfs_vget)(mount_t mp, ino64_t ino, vnode_t* vpp, vfs_context_t ctx);
  int (*vfs_fhtovp)(mount_t mp, int fhlen, unsigned char* fhp, vnode_t* vpp, vfs_context_t ctx);
  int (*vfs_vptofh)(vnode_t vp, int* fhlen, unsigned char* fhp, vfs_context_t ctx);
  int (*vfs_init)(struct vfsconf* vfsconf);
  int (*vfs_sysctl)(int* name, u_int namelen, user_addr_t oldp, size_t* oldlenp,
                    user_addr_t newp, size_t newlen, vfs_context_t ctx);
  int (*vfs_setattr)(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx);
  int (*vfs_ioctl)(mount_t mp, u_long command, caddr_t data, int flags, vfs_context_t ctx);
  int (*vfs_vget_snapdir)(mount_t mp, vnode_t* vpp, vfs_context_t ctx);
  void* vfs_reserved5;
  void* vfs_reserved4;
  void* vfs_reserved3;
  void* vfs_reserved2;
  void* vfs_reserved1;
};

#define MFSNAMELEN 15
#define MFSTYPENAMELEN 16

// vfe_flags
#define VFS_TBLTHREADSAFE 0x0001
#define VFS_TBLFSNODELOCK 0x0002
#define VFS_TBLNOTYPENUM 0x0008
#define VFS_TBLLOCALVOL 0x0010
#define VFS_TBL64BITREADY 0x0020
#define VFS_TBLNATIVEXATTR 0x0040
#define VFS_TBLDIRLINKS 0x0080
#define VFS_TBLUNMOUNT_PREFLIGHT 0x0100
#define VFS_TBLGENERICMNTARGS 0x0200
#define VFS_TBLREADDIR_EXTENDED 0x0400
#define VFS_TBLNOMACLABEL 0x1000
#define VFS_TBLVNOP_PAGEINV2 0x2000
#define VFS_TBLVNOP_PAGEOUTV2 0x4000

// What vfs_init learns about its type.
struct vfsconf {
  char vfc_name[MFSNAMELEN];
  int vfc_typenum;
  int vfc_refcount;  // volumes of the type mounted
  uint32_t vfc_flags;
};

struct vfs_fsentry {
  struct vfsops* vfe_vfsops;
  int vfe_vopcnt;
  struct vnodeopv_desc** vfe_opvdescs;
  int vfe_fstypenum;
  char vfe_fsname[MFSNAMELEN];
  uint32_t vfe_flags;
  void* vfe_reserv[2];
};

// Registers a file-system type: fills the operation vectors, assigns a type
// number (VFS_TBLNOTYPENUM) and calls vfs_init. EEXIST when the name is
// taken; ENOMEM.
errno_t vfs_fsadd(struct vfs_fsentry* vfe, vfstable_t* handle);
// EBUSY while volumes of the type are mounted.
errno_t vfs_fsremove(vfstable_t handle);

// File-system operations through the mount's vfsops; an operation the file
// system does not provide returns ENOTSUP.
int VFS_MOUNT(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx);
int VFS_START(mount_t mp, int flags, vfs_context_t ctx);
int VFS_UNMOUNT(mount_t mp, int mntflags, vfs_context_t ctx);
int VFS_VGET(mount_t mp, ino64_t ino, vnode_t* vpp, vfs_context_t ctx);
int VFS_SYNC(mount_t mp, int waitfor, vfs_context_t ctx);
int VFS_ROOT(mount_t mp, vnode_t* vpp, vfs_context_t ctx);
int VFS_GETATTR(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx);
int VFS_SETATTR(mount_t mp, struct vfs_attr* attr, vfs_context_t ctx);
int VFS_IOCTL(mount_t mp, u_long command, caddr_t data, int flags, vfs_context_t ctx);
