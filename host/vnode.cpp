// Vnodes: creation, reference counting, inactive and reclaim, the list of
// unused vnodes under the vnode limit, iteration and vflush.
//
// A vnode's life:
//
//   vnode_create ──> alive, referenced ──(last reference goes)──> inactive
//        ▲                 ▲                                        │
//        │                 └──────(vnode_get / getwithvid)── unused (LRU)
//   free pool <── dead <── reclaim <──(recycle, vflush, push-out)────┘
//
// Vnode records are never returned to the system: a reclaimed record goes to
// a free pool once its last reference is gone and is reused by a later
// vnode_create with a larger vid. So a stale vnode_t is always a valid
// address, and vnode_getwithvid can tell that it names another file now.
//
// Locking: every count, state bit and list link is protected by the one
// vnode list lock (host/vnode_private.h). File-system operations (inactive,
// reclaim) and the hooks of the buffer cache, page cache and block devices
// are called with it released. While a vnode is being reclaimed
// (VL_TERMINATE), other threads' vnode_get and vnode_getwithvid wait for
// the reclaim to finish and then fail; the reclaiming thread itself may take
// further I/O references, because the file system and the host services call
// back into the vnode layer during reclaim.

#include "host/vnode.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/namecache.h"
#include "host/vfs.h"
#include "host/vnode_slots_private.h"
#include "host/vnode_private.h"

int desiredvnodes = 4096;

// --- Weak defaults for the hooks of other host services -------------------
// A program linked without the page cache, buffer cache or block devices
// keeps no per-vnode state there; those services define the strong versions.

__attribute__((weak)) int host_ubc_vnode_created(vnode_t vp, off_t filesize) { return 0; }
__attribute__((weak)) void host_buf_vnode_reclaim(vnode_t vp) {}
__attribute__((weak)) void host_ubc_vnode_reclaim(vnode_t vp) {}
__attribute__((weak)) void host_ubc_vnode_destroy(vnode_t vp) {}
__attribute__((weak)) void host_blkdev_vnode_reclaim(vnode_t vp) {}

namespace {

typedef std::unique_lock<std::mutex> vlock;
typedef vlist<vnode, &vnode::v_lru> lru_list;

struct vnode_globals {
  std::mutex lock;
  // Signalled when a reclaim finishes and when an I/O reference is dropped
  // on a vnode being reclaimed (the reclaim waits for them to drain).
  std::condition_variable changed;
  std::condition_variable reaper_wake;
  lru_list lru;       // unused vnodes, least recently used first
  lru_list freepool;  // dead, unreferenced records for reuse
  int numvnodes = 0;  // vnodes alive or being reclaimed
  int pushouts_in_flight = 0;
  bool reaper_started = false;
};

// Never destroyed: detached threads and late callers may still use it while
// the process exits.
vnode_globals& G() {
  static vnode_globals* g = new vnode_globals;
  return *g;
}

bool reclaiming_by_other(vnode_t vp) {
  return (vp->v_lflag & VL_TERMINATE) != 0 && vp->v_owner != std::this_thread::get_id();
}

void lru_remove_locked(vnode_t vp) {
  if (vp->v_lflag & VL_ONLRU) {
    G().lru.remove(vp);
    vp->v_lflag &= ~VL_ONLRU;
  }
}

void reaper_main();

// How far the vnodes may exceed the limit before the push-out thread is
// woken; it then pushes out down to the limit. A stream of new vnodes (a
// large create or listing) so wakes it once a batch instead of once a
// vnode, each wake being a thread switch. Small limits get no slack.
int push_out_slack() { return desiredvnodes >= 1024 ? desiredvnodes / 32 : 0; }

// Starts the push-out thread the first time the limit is exceeded.
void wake_reaper_locked() {
  vnode_globals& g = G();
  if (g.numvnodes <= desiredvnodes + push_out_slack() || g.lru.empty()) return;
  if (!g.reaper_started) {
    g.reaper_started = true;
    std::thread(reaper_main).detach();
  }
  g.reaper_wake.notify_one();
}

// Files a vnode whose counts both reached zero: a dead one goes to the free
// pool, a live one to the tail of the unused list. Caller holds the lock.
void file_unused_locked(vnode_t vp) {
  vnode_globals& g = G();
  if (vp->v_iocount != 0 || vp->v_usecount != 0) return;
  if (vp->v_lflag & VL_DEAD) {
    if (!(vp->v_lflag & VL_ONFREE)) {
      // Last in, first out: the record just freed is warm in the caches.
      vp->v_lflag |= VL_ONFREE;
      g.freepool.push_front(vp);
    }
  } else if (!(vp->v_lflag & (VL_TERMINATE | VL_ONLRU))) {
    vp->v_lflag |= VL_ONLRU;
    g.lru.push_back(vp);
    wake_reaper_locked();
  }
}

void take_iocount_locked(vnode_t vp) {
  lru_remove_locked(vp);
  vp->v_iocount++;
}

// Reclaims vp. The caller holds the lock and one I/O reference on vp, which
// is alive and not being reclaimed. Waits for every other I/O reference to
// go (they belong to operations in progress); use references stay and see a
// dead vnode afterwards. Runs inactive first when the vnode is still in use
// or was released without it. Returns with the lock held, vp dead, the
// caller's reference still counted, and the former parent whose child
// reference the caller must drop.
vnode_t reclaim_locked(vlock& lk, vnode_t vp) {
  vnode_globals& g = G();
  vp->v_lflag |= VL_TERMINATE;
  vp->v_owner = std::this_thread::get_id();
  lru_remove_locked(vp);
  while (vp->v_iocount > 1) g.changed.wait(lk);
  bool run_inactive = vp->v_usecount > 0 || (vp->v_lflag & VL_NEEDINACTIVE) != 0;
  vp->v_lflag &= ~VL_NEEDINACTIVE;
  lk.unlock();

  vfs_context_t ctx = vfs_context_kernel();
  if (run_inactive) (void)VNOP_INACTIVE(vp, ctx);
  host_buf_vnode_reclaim(vp);
  host_ubc_vnode_reclaim(vp);
  if (vp->v_type == VBLK) host_blkdev_vnode_reclaim(vp);
  cache_purge(vp);
  (void)VNOP_RECLAIM(vp, ctx);
  host_ubc_vnode_destroy(vp);

  lk.lock();
  mount_t mp = vp->v_mount.load();
  if (mp != nullptr) mp->mnt_vnodes.remove(vp);
  vp->v_mount.store(nullptr);
  vp->v_data.store(nullptr);
  vp->v_op.store(vnode_dead_ops(), std::memory_order_release);
  vnode_t parent = vp->v_parent;
  vp->v_parent = nullptr;
  vp->v_name.clear();
  vp->v_id++;
  vp->v_lflag = (vp->v_lflag & ~(VL_TERMINATE | VL_MARKTERM)) | VL_DEAD;
  vp->v_owner = std::thread::id();
  g.numvnodes--;
  g.changed.notify_all();
  return parent;
}

// Drops a child's use reference on its parent p. Returns true when that was
// p's last reference: p then carries one I/O reference for the caller to
// release with put_locked (which runs inactive). Caller holds the lock.
bool drop_child_ref_locked(vnode_t p) {
  if (p->v_usecount <= 0 || p->v_kusecount <= 0) {
    panic("vnode: child reference on %p underflows (use %d, child %d)", (void*)p, p->v_usecount,
          p->v_kusecount);
  }
  p->v_usecount--;
  p->v_kusecount--;
  if (p->v_usecount != 0 || p->v_iocount != 0) return false;
  if (p->v_lflag & VL_DEAD) {
    file_unused_locked(p);
    return false;
  }
  p->v_iocount = 1;
  return true;
}

// Drops the caller's I/O reference on vp. When it is the last reference of
// a live vnode, inactive runs (lock released), then the reclaim vnode_recycle
// asked for; the vnode is filed as unused or free. A reclaim releases the
// child reference on the parent, which may in turn be the parent's last
// reference: the loop carries on with the parent, so that a chain of
// directories unwinds without recursion. `reclaimed_parent` is the parent
// released by a reclaim the caller already did. Caller holds the lock.
void put_locked(vlock& lk, vnode_t vp, vnode_t reclaimed_parent = nullptr) {
  vnode_globals& g = G();
  vnode_t parent = reclaimed_parent;
  for (;;) {
    if (vp->v_iocount <= 0) panic("vnode_put: %p has no I/O reference", (void*)vp);
    if (vp->v_iocount == 1 && vp->v_usecount == 0 &&
        !(vp->v_lflag & (VL_DEAD | VL_TERMINATE))) {
      vp->v_lflag &= ~VL_NEEDINACTIVE;
      lk.unlock();
      (void)VNOP_INACTIVE(vp, vfs_context_kernel());
      lk.lock();
      if ((vp->v_lflag & VL_MARKTERM) && vp->v_iocount == 1 && vp->v_usecount == 0 &&
          !(vp->v_lflag & (VL_DEAD | VL_TERMINATE))) {
        parent = reclaim_locked(lk, vp);
      }
    }
    vp->v_iocount--;
    file_unused_locked(vp);
    if (vp->v_lflag & VL_TERMINATE) g.changed.notify_all();
    if (parent == nullptr) return;
    vp = parent;
    parent = nullptr;
    if (!drop_child_ref_locked(vp)) return;
  }
}

// Pushes out the least recently used unused vnode. Caller holds the lock;
// the unused list is not empty.
void push_out_one_locked(vlock& lk) {
  vnode_globals& g = G();
  vnode_t vp = g.lru.head;
  lru_remove_locked(vp);
  vp->v_iocount = 1;
  g.pushouts_in_flight++;
  vnode_t parent = reclaim_locked(lk, vp);
  put_locked(lk, vp, parent);
  g.pushouts_in_flight--;
  g.changed.notify_all();
}

// Whether more vnodes exist than desiredvnodes, not counting those a push-out
// is already reclaiming (they still count in numvnodes until it ends; two
// threads pushing out at once would otherwise both take the excess and
// reclaim twice what is needed). Caller holds the lock.
bool over_limit_locked() {
  vnode_globals& g = G();
  return g.numvnodes - g.pushouts_in_flight > desiredvnodes && !g.lru.empty();
}

// The push-out thread: reclaims unused vnodes while there are more vnodes
// than desiredvnodes. It holds no other lock while reclaiming, so a file
// system's reclaim can take whatever locks it needs; a thread creating a
// vnode never reclaims another one inline while it holds its own locks.
void reaper_main() {
  vnode_globals& g = G();
  vlock lk(g.lock);
  for (;;) {
    g.reaper_wake.wait(lk, [&] { return over_limit_locked(); });
    push_out_one_locked(lk);
  }
}

// Waits until vp is not being reclaimed by another thread. Returns false
// when vp is dead or no longer has `vid` (when check_vid). Caller holds the
// lock.
bool wait_usable_locked(vlock& lk, vnode_t vp, bool check_vid, uint32_t vid) {
  for (;;) {
    if (check_vid && vp->v_id != vid) return false;
    if (vp->v_lflag & VL_DEAD) return false;
    if (!reclaiming_by_other(vp)) return true;
    G().changed.wait(lk);
  }
}

}  // namespace

std::mutex& vnode_list_lock(void) { return G().lock; }

bool host_vnode_get_live(vnode_t vp, mount_t mp) {
  vlock lk(G().lock);
  if (vp->v_mount.load() != mp || !vnode_alive_locked(vp, vp->v_id)) return false;
  take_iocount_locked(vp);
  return true;
}

int vnode_get_nowait_locked(vnode_t vp, uint32_t vid) {
  if (!vnode_alive_locked(vp, vid)) return ENOENT;
  take_iocount_locked(vp);
  return 0;
}

bool vnode_alive_locked(vnode_t vp, uint32_t vid) {
  return vp->v_id == vid && !(vp->v_lflag & VL_DEAD) && !reclaiming_by_other(vp);
}

// --- Creation ---------------------------------------------------------------

namespace {

vnode_t alloc_record(vlock& lk) {
  vnode_globals& g = G();
  if (!g.freepool.empty()) {
    vnode_t vp = g.freepool.head;
    g.freepool.remove(vp);
    vp->v_lflag &= ~VL_ONFREE;
    return vp;
  }
  lk.unlock();
  vnode_t vp = new (std::nothrow) vnode;
  lk.lock();
  if (vp != nullptr) vp->v_id = 1;
  return vp;
}

// Undoes vnode_create for a vnode that was never handed out (its page-cache
// object could not be made). The file system's node stays with the caller.
void discard_new_vnode(vnode_t vp) {
  vnode_globals& g = G();
  vlock lk(g.lock);
  mount_t mp = vp->v_mount.load();
  if (mp != nullptr) mp->mnt_vnodes.remove(vp);
  vp->v_mount.store(nullptr);
  vp->v_data.store(nullptr);
  vp->v_op.store(vnode_dead_ops());
  vnode_t parent = vp->v_parent;
  vp->v_parent = nullptr;
  vp->v_name.clear();
  vp->v_id++;
  vp->v_lflag = VL_DEAD;
  vp->v_iocount = 0;
  g.numvnodes--;
  file_unused_locked(vp);
  if (parent != nullptr && drop_child_ref_locked(parent)) put_locked(lk, parent);
}

}  // namespace

errno_t vnode_create(uint32_t flavor, uint32_t size, void* data, vnode_t* vpp) {
  if (flavor != VNCREATE_FLAVOR || size != VCREATESIZE) {
    panic("vnode_create: unsupported flavor %u or size %u", flavor, size);
  }
  auto* param = static_cast<struct vnode_fsparam*>(data);
  if (param->vnfs_flags & ~(uint32_t)(VNFS_NOCACHE | VNFS_CANTCACHE | VNFS_ADDFSREF)) {
    panic("vnode_create: unsupported flags 0x%x", param->vnfs_flags);
  }
  *vpp = nullptr;
  if (host_alloc_should_fail()) return ENOMEM;

  vnode_globals& g = G();
  vlock lk(g.lock);
  vnode_t vp = alloc_record(lk);
  if (vp == nullptr) return ENOMEM;
  vp->v_iocount = 1;
  vp->v_usecount = vp->v_kusecount = vp->v_writecount = 0;
  vp->v_lflag = 0;
  vp->v_owner = std::thread::id();
  vp->v_type = param->vnfs_vtype;
  vp->v_flag = (param->vnfs_markroot ? VROOT : 0) | (param->vnfs_marksystem ? VSYSTEM : 0) |
               ((param->vnfs_flags & VNFS_CANTCACHE) ? VNOCACHE : 0) |
               ((param->vnfs_flags & VNFS_ADDFSREF) ? VFSREF : 0);
  vp->v_rdev = param->vnfs_rdev;
  vp->v_tag = param->vnfs_str;
  vp->v_ubcinfo = vp->v_bufinfo = vp->v_specinfo = nullptr;
  struct componentname* cnp = param->vnfs_cnp;
  if (cnp != nullptr && cnp->cn_nameptr != nullptr && cnp->cn_namelen > 0) {
    vp->v_name.assign(cnp->cn_nameptr, (size_t)cnp->cn_namelen);
  } else {
    vp->v_name.clear();
  }
  vnode_t dvp = param->vnfs_dvp;
  if (dvp != nullptr && !(dvp->v_lflag & VL_DEAD)) {
    dvp->v_usecount++;
    dvp->v_kusecount++;
    vp->v_parent = dvp;
  } else {
    vp->v_parent = nullptr;
  }
  vp->v_op.store(param->vnfs_vops, std::memory_order_release);
  vp->v_data.store(param->vnfs_fsnode);
  vp->v_mount.store(param->vnfs_mp);
  if (param->vnfs_mp != nullptr) param->vnfs_mp->mnt_vnodes.push_back(vp);
  g.numvnodes++;
  lk.unlock();

  int error = host_ubc_vnode_created(vp, param->vnfs_filesize);
  if (error != 0) {
    discard_new_vnode(vp);
    return error;
  }
  if (dvp != nullptr && cnp != nullptr && (cnp->cn_flags & MAKEENTRY) &&
      !(param->vnfs_flags & (VNFS_NOCACHE | VNFS_CANTCACHE))) {
    cache_enter(dvp, vp, cnp);
  }
  lk.lock();
  wake_reaper_locked();
  *vpp = vp;
  return 0;
}

// --- References ------------------------------------------------------------------

errno_t vnode_get(vnode_t vp) {
  vlock lk(G().lock);
  if (!wait_usable_locked(lk, vp, false, 0)) return ENOENT;
  take_iocount_locked(vp);
  return 0;
}

errno_t vnode_getwithvid(vnode_t vp, uint32_t vid) {
  vlock lk(G().lock);
  if (!wait_usable_locked(lk, vp, true, vid)) return ENOENT;
  take_iocount_locked(vp);
  return 0;
}

errno_t vnode_put(vnode_t vp) {
  vlock lk(G().lock);
  put_locked(lk, vp);
  return 0;
}

uint32_t vnode_vid(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  return vp->v_id;
}

errno_t vnode_ref(vnode_t vp) { return vnode_ref_ext(vp, 0, 0); }

void vnode_rele(vnode_t vp) { vnode_rele_ext(vp, 0, 0); }

// flags: no flags are defined for this host; any is refused.
errno_t vnode_ref_ext(vnode_t vp, int fmode, int flags) {
  if (flags != 0 || (fmode & ~(FREAD | FWRITE))) {
    panic("vnode_ref_ext: unsupported fmode 0x%x or flags 0x%x", fmode, flags);
  }
  vlock lk(G().lock);
  if ((vp->v_lflag & VL_DEAD) || reclaiming_by_other(vp)) return ENOENT;
  if (vp->v_iocount <= 0 && vp->v_usecount <= 0) {
    panic("vnode_ref_ext: %p has no reference to take another from", (void*)vp);
  }
  vp->v_usecount++;
  if (fmode & FWRITE) vp->v_writecount++;
  return 0;
}

void vnode_rele_ext(vnode_t vp, int fmode, int dont_reenter) {
  if (fmode & ~(FREAD | FWRITE)) panic("vnode_rele_ext: unsupported fmode 0x%x", fmode);
  vlock lk(G().lock);
  if (vp->v_usecount - vp->v_kusecount <= 0) {
    panic("vnode_rele_ext: %p has no use reference", (void*)vp);
  }
  vp->v_usecount--;
  if (fmode & FWRITE) {
    if (vp->v_writecount <= 0) panic("vnode_rele_ext: %p is not open for writing", (void*)vp);
    vp->v_writecount--;
  }
  if (vp->v_usecount != 0 || vp->v_iocount != 0) return;
  if (vp->v_lflag & VL_DEAD) {
    file_unused_locked(vp);
  } else if (dont_reenter) {
    // The caller can't take a call into the file system now: inactive runs
    // with the next release or before the vnode is reclaimed.
    vp->v_lflag |= VL_NEEDINACTIVE;
    file_unused_locked(vp);
  } else {
    vp->v_iocount = 1;
    put_locked(lk, vp);
  }
}

int vnode_recycle(vnode_t vp) {
  vlock lk(G().lock);
  if (vp->v_lflag & (VL_DEAD | VL_TERMINATE)) return 0;
  if (vp->v_iocount != 0 || vp->v_usecount != 0) {
    vp->v_lflag |= VL_MARKTERM;
    return 0;
  }
  take_iocount_locked(vp);
  vnode_t parent = reclaim_locked(lk, vp);
  put_locked(lk, vp, parent);
  return 1;
}

int vnode_isinuse(vnode_t vp, int refcnt) {
  std::lock_guard<std::mutex> guard(G().lock);
  return (vp->v_usecount - vp->v_kusecount) > refcnt;
}

// --- Fields and identity -------------------------------------------------------

void* vnode_fsnode(vnode_t vp) { return vp->v_data.load(); }

void vnode_clearfsnode(vnode_t vp) { vp->v_data.store(nullptr); }

int vnode_addfsref(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  if (vp->v_flag & VFSREF) panic("vnode_addfsref: %p already has the file system's reference", (void*)vp);
  vp->v_flag |= VFSREF;
  return 0;
}

int vnode_removefsref(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  if (!(vp->v_flag & VFSREF)) panic("vnode_removefsref: %p has no file system reference", (void*)vp);
  vp->v_flag &= ~VFSREF;
  return 0;
}

// name_hashval: the host's name cache hashes names itself.
void vnode_update_identity(vnode_t vp, vnode_t dvp, const char* name, int name_len,
                           uint32_t name_hashval, int flags) {
  if (flags & ~(VNODE_UPDATE_PARENT | VNODE_UPDATE_NAME | VNODE_UPDATE_CACHE)) {
    panic("vnode_update_identity: unsupported flags 0x%x", flags);
  }
  if (flags & VNODE_UPDATE_CACHE) cache_purge(vp);
  vlock lk(G().lock);
  if (flags & VNODE_UPDATE_NAME) {
    if (name == nullptr) {
      vp->v_name.clear();
    } else {
      vp->v_name.assign(name, name_len > 0 ? (size_t)name_len : strlen(name));
    }
  }
  if ((flags & VNODE_UPDATE_PARENT) && dvp != vp->v_parent) {
    vnode_t old = vp->v_parent;
    if (dvp != nullptr) {
      if (dvp->v_lflag & VL_DEAD) panic("vnode_update_identity: new parent %p is dead", (void*)dvp);
      dvp->v_usecount++;
      dvp->v_kusecount++;
    }
    vp->v_parent = dvp;
    if (old != nullptr && drop_child_ref_locked(old)) put_locked(lk, old);
  }
}

vnode_t vnode_getparent(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  vnode_t p = vp->v_parent;
  if (p == nullptr || (p->v_lflag & VL_DEAD) || reclaiming_by_other(p)) return nullptr;
  take_iocount_locked(p);
  return p;
}

int vnode_getname_copy(vnode_t vp, char* buf, size_t buflen) {
  std::lock_guard<std::mutex> guard(G().lock);
  if (buflen == 0) return 0;
  size_t n = std::min(vp->v_name.size(), buflen - 1);
  memcpy(buf, vp->v_name.data(), n);
  buf[n] = '\0';
  return (int)n;
}

enum vtype vnode_vtype(vnode_t vp) { return vp->v_type; }
int vnode_isdir(vnode_t vp) { return vp->v_type == VDIR; }
int vnode_isreg(vnode_t vp) { return vp->v_type == VREG; }
int vnode_islnk(vnode_t vp) { return vp->v_type == VLNK; }
int vnode_isblk(vnode_t vp) { return vp->v_type == VBLK; }
int vnode_issystem(vnode_t vp) { return (vp->v_flag & VSYSTEM) != 0; }
int vnode_isvroot(vnode_t vp) { return (vp->v_flag & VROOT) != 0; }
mount_t vnode_mount(vnode_t vp) { return vp->v_mount.load(); }
dev_t vnode_specrdev(vnode_t vp) { return vp->v_rdev; }

int vnode_vfsisrdonly(vnode_t vp) {
  mount_t mp = vp->v_mount.load();
  return mp != nullptr && vfs_isrdonly(mp);
}

void** host_vnode_ubc_slot(vnode_t vp) { return &vp->v_ubcinfo; }
void** host_vnode_buf_slot(vnode_t vp) { return &vp->v_bufinfo; }
void** host_vnode_spec_slot(vnode_t vp) { return &vp->v_specinfo; }
VOPFUNC* host_vnode_ops(vnode_t vp) { return vp->v_op.load(std::memory_order_acquire); }

// --- Iteration and flushing ----------------------------------------------------

int vnode_iterate(mount_t mp, int flags, int (*callout)(vnode_t, void*), void* arg) {
  if (flags & ~(VNODE_ITERATE_ALL | VNODE_ITERATE_ACTIVE | VNODE_ITERATE_INACTIVE)) {
    panic("vnode_iterate: unsupported flags 0x%x", flags);
  }
  // Work from a snapshot: callouts run without the lock, while vnodes come
  // and go. A vnode reused since the snapshot fails the vid check.
  std::vector<std::pair<vnode_t, uint32_t>> snapshot;
  vlock lk(G().lock);
  snapshot.reserve(mp->mnt_vnodes.count);
  for (vnode_t vp = mp->mnt_vnodes.head; vp != nullptr; vp = vp->v_mntlink.next) {
    snapshot.emplace_back(vp, vp->v_id);
  }
  for (auto [vp, vid] : snapshot) {
    if (!vnode_alive_locked(vp, vid) || vp->v_mount.load() != mp) continue;
    bool active = vp->v_usecount > 0 || vp->v_iocount > 0;
    if ((flags & VNODE_ITERATE_ACTIVE) && !active) continue;
    if ((flags & VNODE_ITERATE_INACTIVE) && active) continue;
    take_iocount_locked(vp);
    lk.unlock();
    int ret = callout(vp, arg);
    lk.lock();
    if (ret == VNODE_RETURNED || ret == VNODE_RETURNED_DONE) put_locked(lk, vp);
    if (ret == VNODE_RETURNED_DONE || ret == VNODE_CLAIMED_DONE) break;
  }
  return 0;
}

namespace {

bool vflush_considers(vnode_t vp, vnode_t skipvp, int flags) {
  if (vp == skipvp) return false;
  if ((flags & SKIPSYSTEM) && (vp->v_flag & VSYSTEM)) return false;
  if ((flags & SKIPROOT) && (vp->v_flag & VROOT)) return false;
  if ((flags & WRITECLOSE) && (vp->v_type != VREG || vp->v_writecount == 0)) return false;
  return true;
}

}  // namespace

// SKIPSWAP: there is no swap on this host; the flag is accepted and has no
// effect.
int vflush(mount_t mp, vnode_t skipvp, int flags) {
  if (flags & ~(SKIPSYSTEM | FORCECLOSE | WRITECLOSE | SKIPSWAP | SKIPROOT)) {
    panic("vflush: unsupported flags 0x%x", flags);
  }
  vnode_globals& g = G();
  vlock lk(g.lock);
  for (;;) {
    // One victim per pass: the list changes while a reclaim runs unlocked.
    // A vnode that only its children keep in use is left for a later pass,
    // after the children (which release it when they go).
    vnode_t victim = nullptr;
    bool others_reclaiming = false;
    for (vnode_t vp = mp->mnt_vnodes.head; vp != nullptr; vp = vp->v_mntlink.next) {
      if (!vflush_considers(vp, skipvp, flags)) continue;
      if (vp->v_lflag & VL_TERMINATE) {
        others_reclaiming = true;
        continue;
      }
      bool unused = vp->v_iocount == 0 && vp->v_usecount == 0;
      if (unused || ((flags & FORCECLOSE) && vp->v_kusecount == 0)) {
        victim = vp;
        break;
      }
    }
    if (victim != nullptr) {
      take_iocount_locked(victim);
      vnode_t parent = reclaim_locked(lk, victim);
      put_locked(lk, victim, parent);
      continue;
    }
    if (!others_reclaiming) break;
    g.changed.wait(lk);
  }
  int busy = 0;
  for (vnode_t vp = mp->mnt_vnodes.head; vp != nullptr; vp = vp->v_mntlink.next) {
    if (vflush_considers(vp, skipvp, flags)) busy++;
  }
  return busy != 0 ? EBUSY : 0;
}

// --- Host controls ---------------------------------------------------------------

void host_set_desiredvnodes(int n) {
  if (n < 1) panic("host_set_desiredvnodes: limit %d", n);
  std::lock_guard<std::mutex> guard(G().lock);
  desiredvnodes = n;
  wake_reaper_locked();
}

void host_vnode_push_out(void) {
  vnode_globals& g = G();
  vlock lk(g.lock);
  for (;;) {
    if (over_limit_locked()) {
      push_out_one_locked(lk);
    } else if (g.pushouts_in_flight > 0) {
      g.changed.wait(lk);
    } else {
      return;
    }
  }
}

int host_mount_vnode_count(mount_t mp) {
  std::lock_guard<std::mutex> guard(G().lock);
  return (int)mp->mnt_vnodes.count;
}

int host_vnode_iocount(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  return vp->v_iocount;
}

int host_vnode_usecount(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  return vp->v_usecount;
}

int host_vnode_isdead(vnode_t vp) {
  std::lock_guard<std::mutex> guard(G().lock);
  return (vp->v_lflag & VL_DEAD) != 0;
}

int host_vnode_count(void) {
  std::lock_guard<std::mutex> guard(G().lock);
  return G().numvnodes;
}
