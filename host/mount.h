#pragma once
// Mounts, per-call contexts and the mount machinery.
//
// mount_t carries the mount flags, the statfs record the file system fills,
// the file system's private record and the device's I/O attributes. The
// mount machinery (host_mount, host_mount_update, host_unmount) plays the
// kernel's mount system call: it serialises mount, update and unmount of one
// mount, calls VFS_MOUNT/VFS_START/VFS_UNMOUNT and owns the mount_t.

#include "host/types.h"
#include "host/vfs.h"

// --- Mount flags (vfs_flags) -------------------------------------------------
#define MNT_RDONLY 0x00000001
#define MNT_SYNCHRONOUS 0x00000002
#define MNT_NOEXEC 0x00000004
#define MNT_NOSUID 0x00000008
#define MNT_NODEV 0x00000010
#define MNT_UNION 0x00000020
#define MNT_ASYNC 0x00000040
#define MNT_DONTBROWSE 0x00100000
#define MNT_IGNORE_OWNERSHIP 0x00200000
#define MNT_LOCAL 0x00001000
#define MNT_UPDATE 0x00010000
#define MNT_RELOAD 0x00040000
#define MNT_FORCE 0x00080000
#define MNT_NOATIME 0x10000000

// --- statfs ------------------------------------------------------------------------

// The platform's <sys/types.h> already defines fsid_t (with other member
// names), so the kernel's record goes by this name here.
typedef struct fsid {
  int32_t val[2];
} vfs_fsid_t;

#define MAXPATHLEN 1024

struct vfsstatfs {
  uint32_t f_bsize;
  size_t f_iosize;
  uint64_t f_blocks;
  uint64_t f_bfree;
  uint64_t f_bavail;
  uint64_t f_bused;
  uint64_t f_files;
  uint64_t f_ffree;
  vfs_fsid_t f_fsid;
  uid_t f_owner;
  uint64_t f_flags;
  char f_fstypename[MFSTYPENAMELEN];
  char f_mntonname[MAXPATHLEN];
  char f_mntfromname[MAXPATHLEN];
  uint32_t f_fssubtype;
  void* f_reserved[2];
};

// --- Volume attributes (VFS_GETATTR / VFS_SETATTR) ----------------------------------

typedef uint32_t vol_capabilities_set_t[4];
#define VOL_CAPABILITIES_FORMAT 0
#define VOL_CAPABILITIES_INTERFACES 1
#define VOL_CAPABILITIES_RESERVED1 2
#define VOL_CAPABILITIES_RESERVED2 3

typedef struct vol_capabilities_attr {
  vol_capabilities_set_t capabilities;
  vol_capabilities_set_t valid;
} vol_capabilities_attr_t;

typedef uint32_t attrgroup_t;
typedef struct vol_attributes_attr {
  struct {
    attrgroup_t commonattr, volattr, dirattr, fileattr, forkattr;
  } validattr, nativeattr;
} vol_attributes_attr_t;

#define VFSATTR_BIT(n) (UINT64_C(1) << (n))
#define VFSATTR_f_objcount VFSATTR_BIT(0)
#define VFSATTR_f_filecount VFSATTR_BIT(1)
#define VFSATTR_f_dircount VFSATTR_BIT(2)
#define VFSATTR_f_maxobjcount VFSATTR_BIT(3)
#define VFSATTR_f_bsize VFSATTR_BIT(4)
#define VFSATTR_f_iosize VFSATTR_BIT(5)
#define VFSATTR_f_blocks VFSATTR_BIT(6)
#define VFSATTR_f_bfree VFSATTR_BIT(7)
#define VFSATTR_f_bavail VFSATTR_BIT(8)
#define VFSATTR_f_bused VFSATTR_BIT(9)
#define VFSATTR_f_files VFSATTR_BIT(10)
#define VFSATTR_f_ffree VFSATTR_BIT(11)
#define VFSATTR_f_fsid VFSATTR_BIT(12)
#define VFSATTR_f_owner VFSATTR_BIT(13)
#define VFSATTR_f_capabilities VFSATTR_BIT(14)
#define VFSATTR_f_attributes VFSATTR_BIT(15)
#define VFSATTR_f_create_time VFSATTR_BIT(16)
#define VFSATTR_f_modify_time VFSATTR_BIT(17)
#define VFSATTR_f_access_time VFSATTR_BIT(18)
#define VFSATTR_f_backup_time VFSATTR_BIT(19)
#define VFSATTR_f_fssubtype VFSATTR_BIT(20)
#define VFSATTR_f_vol_name VFSATTR_BIT(21)
#define VFSATTR_f_signature VFSATTR_BIT(22)
#define VFSATTR_f_carbon_fsid VFSATTR_BIT(23)
#define VFSATTR_f_uuid VFSATTR_BIT(24)

struct vfs_attr {
  uint64_t f_supported;
  uint64_t f_active;
  uint64_t f_objcount, f_filecount, f_dircount, f_maxobjcount;
  uint32_t f_bsize;
  size_t f_iosize;
  uint64_t f_blocks, f_bfree, f_bavail, f_bused, f_files, f_ffree;
  vfs_fsid_t f_fsid;
  uid_t f_owner;
  vol_capabilities_attr_t f_capabilities;
  vol_attributes_attr_t f_attributes;
  struct timespec f_create_time, f_modify_time, f_access_time, f_backup_time;
  uint32_t f_fssubtype;
  char* f_vol_name;  // caller's buffer of MAXPATHLEN bytes
  uint16_t f_signature;
  uint16_t f_carbon_fsid;
  unsigned char f_uuid[16];
};

#define VFSATTR_INIT(s) ((s)->f_supported = (s)->f_active = 0)
#define VFSATTR_WANTED(s, a) ((s)->f_active |= VFSATTR_##a)
#define VFSATTR_IS_ACTIVE(s, a) (((s)->f_active & VFSATTR_##a) != 0)
#define VFSATTR_IS_SUPPORTED(s, a) (((s)->f_supported & VFSATTR_##a) != 0)
#define VFSATTR_SET_SUPPORTED(s, a) ((s)->f_supported |= VFSATTR_##a)
#define VFSATTR_RETURN(s, a, x) \
  do {                          \
    (s)->a = (x);               \
    VFSATTR_SET_SUPPORTED(s, a); \
  } while (0)

// --- Device I/O attributes ------------------------------------------------------

struct vfsioattr {
  uint32_t io_maxreadcnt;
  uint32_t io_maxwritecnt;
  uint32_t io_segreadcnt;
  uint32_t io_segwritecnt;
  uint32_t io_maxsegreadsize;
  uint32_t io_maxsegwritesize;
  uint32_t io_devblocksize;
  uint32_t io_flags;
  void* io_reserved[2];
};

// --- Mount queries and setters ------------------------------------------------

struct vfsstatfs* vfs_statfs(mount_t mp);
void* vfs_fsprivate(mount_t mp);
void vfs_setfsprivate(mount_t mp, void* data);
int vfs_isupdate(mount_t mp);
int vfs_isrdonly(mount_t mp);
int vfs_isrdwr(mount_t mp);
int vfs_isreload(mount_t mp);
int vfs_iswriteupgrade(mount_t mp);  // an update from read-only to read-write
int vfs_isforce(mount_t mp);
int vfs_typenum(mount_t mp);
void vfs_name(mount_t mp, char* buffer);  // MFSTYPENAMELEN bytes
uint64_t vfs_flags(mount_t mp);
void vfs_setflags(mount_t mp, uint64_t flags);
void vfs_clearflags(mount_t mp, uint64_t flags);
void vfs_ioattr(mount_t mp, struct vfsioattr* ioattrp);
void vfs_setioattr(mount_t mp, struct vfsioattr* ioattrp);
void vfs_setlocklocal(mount_t mp);
vnode_t vfs_devvp(mount_t mp);

// --- Contexts -----------------------------------------------------------------

// vfs_context_create(NULL) makes a kernel context; a context passed in is
// copied. Release with vfs_context_rele.
vfs_context_t vfs_context_create(vfs_context_t ctx);
int vfs_context_rele(vfs_context_t ctx);
kauth_cred_t vfs_context_ucred(vfs_context_t ctx);
// The shared kernel context (never released).
vfs_context_t vfs_context_kernel(void);

// Copies from the caller's address space. EFAULT for a NULL address.
int copyin(user_addr_t uaddr, void* kaddr, size_t len);
int copyout(const void* kaddr, user_addr_t uaddr, size_t len);

// --- Module references --------------------------------------------------------
// A loaded module holds a reference on itself per mounted volume so that it
// can't be unloaded meanwhile. Returns the new count.
int host_module_ref(void);
int host_module_rele(void);
int host_module_refcount(void);

// --- Mount machinery (the mount system call) ------------------------------------

// Mounts the device under a new mount of the named type: flags are MNT_*
// (MNT_RDONLY, MNT_ASYNC, MNT_NOATIME …); data/datalen is the argument record
// passed to VFS_MOUNT through copyin. On success *mpp is the mount, its root
// not yet fetched. The device vnode gets a use reference for the mount's
// lifetime.
int host_mount(const char* fstype, vnode_t devvp, uint64_t flags, const void* data,
               size_t datalen, mount_t* mpp);
// An update of a mounted volume: flags are the new MNT_* flags (MNT_RDONLY to
// downgrade, without it to upgrade; MNT_RELOAD, MNT_FORCE as requests).
int host_mount_update(mount_t mp, uint64_t flags, const void* data, size_t datalen);
// Every sync of a writable mount (unmount's, host_sync's, the syncer's)
// first writes the delayed blocks of the mount's file vnodes that nobody
// uses (a kernel's buffer cache does that by itself; the file system's sync
// reaches only vnodes in use), then calls VFS_SYNC.
// Unmounts: that sync with MNT_WAIT first unless forced or read-only, then
// VFS_UNMOUNT with MNT_FORCE when asked. On success the mount is freed; on
// failure it stays mounted and usable.
int host_unmount(mount_t mp, int mntflags);
// The sync above with the kernel context (VFS_SYNC alone when read-only).
int host_sync(mount_t mp, int waitfor);
// How often the syncer writes back the mount's pending changes
// (VFS_SYNC with MNT_NOWAIT, skipped while the mount is read-only), in
// milliseconds from now on; 0 stops it for this mount. EINVAL when the
// mount is gone.
int host_set_sync_interval(mount_t mp, uint32_t interval_ms);
