#pragma once
// Vnodes: the kernel's handle on a file, directory, link or device.
//
// Reference counts, as a kernel has them:
//  - the I/O count (vnode_get/vnode_getwithvid/vnode_put, and the reference
//    vnode_create returns) is held across one operation;
//  - the use count (vnode_ref/vnode_rele, vnode_ref_ext/vnode_rele_ext) is
//    held long-term: open files, the mount's system files, a child's hold on
//    its parent directory.
// When both drop to zero the file system's inactive operation runs. A vnode
// is reclaimed (the file system's reclaim runs, its fsnode is detached, its
// vid changes) after vnode_recycle, by vflush, or when an unused vnode is
// pushed out of the LRU of unused vnodes under the vnode limit. Vnode memory
// is never returned to the system: a stale vnode_t stays a valid address, and
// vnode_getwithvid on it fails with ENOENT once its vid has changed. A vnode
// that is being reclaimed is never handed out.

#include "host/types.h"

enum vtype { VNON, VREG, VDIR, VBLK, VCHR, VLNK, VSOCK, VFIFO, VBAD, VSTR, VCPLX };

// --- Component names (one pathname component handed to lookup/create) ----

// cn_nameiop
#define LOOKUP 0
#define CREATE 1
#define DELETE 2
#define RENAME 3

// cn_flags
#define FOLLOW 0x00000040
#define ISDOTDOT 0x00002000
#define MAKEENTRY 0x00004000
#define ISLASTCN 0x00008000

struct componentname {
  uint32_t cn_nameiop;
  uint32_t cn_flags;
  char* cn_pnbuf;
  int cn_pnlen;
  char* cn_nameptr;  // not NUL-terminated in general: use cn_namelen
  int cn_namelen;
  uint32_t cn_hash;
  uint32_t cn_consume;
};

// --- Creating vnodes --------------------------------------------------------

#define VNCREATE_FLAVOR 0
#define VCREATESIZE sizeof(struct vnode_fsparam)

// vnfs_flags
#define VNFS_NOCACHE 0x01    // do not enter the name in the name cache
#define VNFS_CANTCACHE 0x02  // never enter this vnode in the name cache
#define VNFS_ADDFSREF 0x04   // the file system holds a reference (vnode_removefsref)

typedef int (*VOPFUNC)(void*);

struct vnode_fsparam {
  mount_t vnfs_mp;
  enum vtype vnfs_vtype;
  const char* vnfs_str;  // file-system type name, for diagnostics
  vnode_t vnfs_dvp;      // parent directory, or NULL
  void* vnfs_fsnode;
  VOPFUNC* vnfs_vops;    // the operation vector filled by vfs_fsadd
  int vnfs_markroot;
  int vnfs_marksystem;
  dev_t vnfs_rdev;
  off_t vnfs_filesize;
  struct componentname* vnfs_cnp;
  uint32_t vnfs_flags;
};

// flavor must be VNCREATE_FLAVOR and size VCREATESIZE. On success *vpp holds
// an I/O reference. ENOMEM when the vnode or its page-cache object can't be
// allocated.
errno_t vnode_create(uint32_t flavor, uint32_t size, void* data, vnode_t* vpp);

// --- References ------------------------------------------------------------

errno_t vnode_get(vnode_t vp);                 // ENOENT when dead or being reclaimed
errno_t vnode_getwithvid(vnode_t vp, uint32_t vid);  // ENOENT when the vid changed
errno_t vnode_put(vnode_t vp);
uint32_t vnode_vid(vnode_t vp);
errno_t vnode_ref(vnode_t vp);
void vnode_rele(vnode_t vp);
// Open/close form: fmode FWRITE also counts the vnode as open for writing
// (vflush WRITECLOSE looks at that count).
errno_t vnode_ref_ext(vnode_t vp, int fmode, int flags);
void vnode_rele_ext(vnode_t vp, int fmode, int dont_reenter);
// Marks the vnode to be reclaimed as soon as it is unused; reclaims it now
// when it already is. Returns 1 if it was reclaimed by this call.
int vnode_recycle(vnode_t vp);
// True when the use count, not counting references held by child vnodes on
// their parent, exceeds refcnt.
int vnode_isinuse(vnode_t vp, int refcnt);

// --- Fields and identity ---------------------------------------------------

void* vnode_fsnode(vnode_t vp);
void vnode_clearfsnode(vnode_t vp);
int vnode_addfsref(vnode_t vp);
int vnode_removefsref(vnode_t vp);

#define VNODE_UPDATE_PARENT 0x01
#define VNODE_UPDATE_NAME 0x02
#define VNODE_UPDATE_CACHE 0x04
// Sets the name (name_len 0 means strlen) and/or the parent. A new parent
// receives a child reference (released when the child is reclaimed or
// re-parented).
void vnode_update_identity(vnode_t vp, vnode_t dvp, const char* name, int name_len,
                           uint32_t name_hashval, int flags);
// The parent directory with an I/O reference, or NULL.
vnode_t vnode_getparent(vnode_t vp);
// Copies the vnode's name (may be empty) into buf; returns its length.
int vnode_getname_copy(vnode_t vp, char* buf, size_t buflen);

enum vtype vnode_vtype(vnode_t vp);
int vnode_isdir(vnode_t vp);
int vnode_isreg(vnode_t vp);
int vnode_islnk(vnode_t vp);
int vnode_isblk(vnode_t vp);
int vnode_issystem(vnode_t vp);
int vnode_isvroot(vnode_t vp);
int vnode_vfsisrdonly(vnode_t vp);
mount_t vnode_mount(vnode_t vp);
dev_t vnode_specrdev(vnode_t vp);

// --- Iteration over a mount's vnodes ---------------------------------------

#define VNODE_RETURNED 0
#define VNODE_RETURNED_DONE 1
#define VNODE_CLAIMED 2
#define VNODE_CLAIMED_DONE 3

#define VNODE_ITERATE_ALL 0x80
#define VNODE_ITERATE_ACTIVE 0x100
#define VNODE_ITERATE_INACTIVE 0x200

// Calls callout(vp, arg) with an I/O reference held on each vnode of the
// mount (only those in use with VNODE_ITERATE_ACTIVE). Vnodes being
// reclaimed are skipped.
int vnode_iterate(mount_t mp, int flags, int (*callout)(vnode_t, void*), void* arg);

// vflush flags
#define SKIPSYSTEM 0x0001
#define FORCECLOSE 0x0002
#define WRITECLOSE 0x0004
#define SKIPSWAP 0x0008
#define SKIPROOT 0x0010

// Reclaims the mount's unused vnodes (children before their parents). With
// SKIPSYSTEM system vnodes are left alone; with WRITECLOSE only regular files
// open for writing are considered. Vnodes in use are reclaimed anyway with
// FORCECLOSE (their remaining references then see a dead vnode); otherwise
// they make the call return EBUSY after everything else was done.
int vflush(mount_t mp, vnode_t skipvp, int flags);

// --- Host controls (not kernel interfaces) ---------------------------------

// The vnode limit: unused vnodes beyond it are reclaimed, least recently
// used first, by a host thread that is woken once they exceed it by 1/32
// (none below 1,024) and then reclaims down to it. desiredvnodes is also
// the size hashinit callers ask for.
extern int desiredvnodes;
void host_set_desiredvnodes(int n);
// Vnodes currently allocated to a mount (live or unused, not yet reclaimed).
int host_mount_vnode_count(mount_t mp);
// Total I/O and use counts, for assertions in tests.
int host_vnode_iocount(vnode_t vp);
int host_vnode_usecount(vnode_t vp);
int host_vnode_isdead(vnode_t vp);
// Vnodes alive or being reclaimed, all mounts and devices together.
int host_vnode_count(void);
// Unused vnodes beyond the limit are normally pushed out by a host thread;
// this does it now on the calling thread and waits for push-outs already
// under way, so that a test sees the result.
void host_vnode_push_out(void);
