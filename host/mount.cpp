// Mounts: queries and setters, per-call contexts, copyin/copyout, module
// references, and the mount machinery that plays the kernel's mount, update
// and unmount system calls.
//
// Locking: g_mount_lock protects the list of mounts, each mount's busy
// bit and its syncer schedule. Mount, update, sync and unmount of one mount
// run one at a time (the syncer's periodic sync too): each marks the mount
// busy (waiting while another holds it) and calls the file system without
// g_mount_lock. A caller that loses the race to an unmount
// finds the mount gone from the list and gets EINVAL; it never touches the
// freed record. Mount flags are atomic so that file-system code on other
// threads can read them while an update runs.

#include "host/mount.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <thread>
#include <vector>

#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/thread_call_private.h"
#include "host/vnode_slots_private.h"
#include "host/vnode_private.h"

// --- Mount queries and setters ------------------------------------------------

namespace {

// Flags a caller may pass to host_mount and that vfs_setflags may set.
const uint64_t kOptionFlags = MNT_RDONLY | MNT_SYNCHRONOUS | MNT_NOEXEC | MNT_NOSUID | MNT_NODEV |
                              MNT_UNION | MNT_ASYNC | MNT_DONTBROWSE | MNT_IGNORE_OWNERSHIP |
                              MNT_LOCAL | MNT_NOATIME;
// Options an update replaces (read-only is handled on its own; ownership and
// locality are the file system's to set).
const uint64_t kUpdatableFlags = MNT_SYNCHRONOUS | MNT_NOEXEC | MNT_NOSUID | MNT_NODEV |
                                 MNT_UNION | MNT_ASYNC | MNT_DONTBROWSE | MNT_NOATIME;
const uint64_t kRequestFlags = MNT_UPDATE | MNT_RELOAD | MNT_FORCE;

// Default transfer limits: one request may carry 8 MiB.
const uint32_t kMaxIO = 8u << 20;
const uint32_t kSegSize = 32u << 10;

}  // namespace

struct vfsstatfs* vfs_statfs(mount_t mp) { return &mp->mnt_vfsstat; }
void* vfs_fsprivate(mount_t mp) { return mp->mnt_data.load(); }
void vfs_setfsprivate(mount_t mp, void* data) { mp->mnt_data.store(data); }
uint64_t vfs_flags(mount_t mp) { return mp->mnt_flag.load(); }
int vfs_isupdate(mount_t mp) { return (vfs_flags(mp) & MNT_UPDATE) != 0; }
int vfs_isrdonly(mount_t mp) { return (vfs_flags(mp) & MNT_RDONLY) != 0; }
int vfs_isrdwr(mount_t mp) { return !vfs_isrdonly(mp); }
int vfs_isreload(mount_t mp) {
  return (vfs_flags(mp) & (MNT_UPDATE | MNT_RELOAD)) == (MNT_UPDATE | MNT_RELOAD);
}
int vfs_iswriteupgrade(mount_t mp) { return vfs_isupdate(mp) && mp->mnt_want_rdwr.load(); }
int vfs_isforce(mount_t mp) { return (vfs_flags(mp) & MNT_FORCE) != 0; }
int vfs_typenum(mount_t mp) { return mp->mnt_vtable->vfc_typenum; }
vnode_t vfs_devvp(mount_t mp) { return mp->mnt_devvp; }

void vfs_name(mount_t mp, char* buffer) {
  snprintf(buffer, MFSTYPENAMELEN, "%s", mp->mnt_vtable->vfc_name);
}

void vfs_setflags(mount_t mp, uint64_t flags) {
  if (flags & ~kOptionFlags) panic("vfs_setflags: unsupported flags 0x%llx", (unsigned long long)flags);
  mp->mnt_flag.fetch_or(flags);
}

void vfs_clearflags(mount_t mp, uint64_t flags) {
  if (flags & ~kOptionFlags) {
    panic("vfs_clearflags: unsupported flags 0x%llx", (unsigned long long)flags);
  }
  mp->mnt_flag.fetch_and(~flags);
}

void vfs_ioattr(mount_t mp, struct vfsioattr* ioattrp) { *ioattrp = mp->mnt_ioattr; }
void vfs_setioattr(mount_t mp, struct vfsioattr* ioattrp) { mp->mnt_ioattr = *ioattrp; }

// Advisory locking is always local to the host: this records the request.
void vfs_setlocklocal(mount_t mp) { mp->mnt_locallock.store(true); }

// --- Contexts -------------------------------------------------------------------
// The host has no users: a credential is an opaque token that file systems
// pass along (to the buffer cache, for example) and never look into.

namespace {
alignas(16) char g_kernel_cred_token[16];
struct vfs_context g_kernel_context = {reinterpret_cast<kauth_cred_t>(g_kernel_cred_token)};
}  // namespace

vfs_context_t vfs_context_kernel(void) { return &g_kernel_context; }

vfs_context_t vfs_context_create(vfs_context_t ctx) {
  if (host_alloc_should_fail()) return nullptr;
  auto* c = new (std::nothrow) vfs_context;
  if (c == nullptr) return nullptr;
  c->vc_ucred = (ctx != nullptr ? ctx : &g_kernel_context)->vc_ucred;
  return c;
}

int vfs_context_rele(vfs_context_t ctx) {
  if (ctx == &g_kernel_context) panic("vfs_context_rele: the kernel context is not released");
  delete ctx;
  return 0;
}

kauth_cred_t vfs_context_ucred(vfs_context_t ctx) { return ctx->vc_ucred; }

int copyin(user_addr_t uaddr, void* kaddr, size_t len) {
  if (uaddr == 0) return EFAULT;
  memcpy(kaddr, reinterpret_cast<const void*>(uaddr), len);
  return 0;
}

int copyout(const void* kaddr, user_addr_t uaddr, size_t len) {
  if (uaddr == 0) return EFAULT;
  memcpy(reinterpret_cast<void*>(uaddr), kaddr, len);
  return 0;
}

// --- Module references ------------------------------------------------------------

namespace {
std::atomic<int> g_module_refs{0};
}

int host_module_ref(void) { return ++g_module_refs; }

int host_module_rele(void) {
  int n = --g_module_refs;
  if (n < 0) panic("host_module_rele: no module reference to drop");
  return n;
}

int host_module_refcount(void) { return g_module_refs.load(); }

// --- Mount machinery ---------------------------------------------------------------

namespace {

std::mutex g_mount_lock;
// Wakes waiters for a busy mount, and forks waiting for the syncer to rest.
// Wakes the syncer when a schedule changes or a busy mount becomes idle.
// Neither is ever destroyed: a syncer thread may still use them while the
// process exits (with a volume mounted, or just after the last unmount).
std::condition_variable& g_mount_idle = *new std::condition_variable;
std::condition_variable& g_syncer_wake = *new std::condition_variable;
// The syncer's state, under g_mount_lock: a thread exists, has started
// running, is syncing a mount; forks waiting to happen.
bool g_syncer_running = false;
bool g_syncer_up = false;
bool g_syncer_syncing = false;
int g_syncer_forks = 0;
vlist<mount, &mount::mnt_list> g_mounts;

bool mounted_locked(mount_t mp) {
  for (mount_t m = g_mounts.head; m != nullptr; m = m->mnt_list.next) {
    if (m == mp) return true;
  }
  return false;
}

// Marks the mount busy for one operation; false when it is not mounted (or
// was unmounted while the caller waited).
bool mount_begin_op(mount_t mp) {
  std::unique_lock<std::mutex> lk(g_mount_lock);
  for (;;) {
    if (!mounted_locked(mp)) return false;
    if (!mp->mnt_busy) break;
    g_mount_idle.wait(lk);
  }
  mp->mnt_busy = true;
  return true;
}

void mount_end_op(mount_t mp) {
  std::lock_guard<std::mutex> guard(g_mount_lock);
  mp->mnt_busy = false;
  g_mount_idle.notify_all();
  if (mp->mnt_sync_interval_ms != 0) g_syncer_wake.notify_all();
}

// The device's logical block size, or 512 when it can't say.
uint32_t device_block_size(vnode_t devvp) {
  const u_long kGetBlockSize = 0x40046418u;  // DKIOCGETBLOCKSIZE
  uint32_t size = 0;
  if (devvp == nullptr ||
      VNOP_IOCTL(devvp, kGetBlockSize, reinterpret_cast<caddr_t>(&size), 0, vfs_context_kernel()) != 0 ||
      size == 0) {
    return 512;
  }
  return size;
}

void init_mount(mount_t mp, vfstable_t vfc, vnode_t devvp, uint64_t flags) {
  mp->mnt_vtable = vfc;
  mp->mnt_flag.store(flags);
  mp->mnt_devvp = devvp;
  struct vfsstatfs* sf = &mp->mnt_vfsstat;
  snprintf(sf->f_fstypename, sizeof sf->f_fstypename, "%s", vfc->vfc_name);
  sf->f_fsid.val[1] = vfc->vfc_typenum;
  sf->f_flags = flags;
  struct vfsioattr* io = &mp->mnt_ioattr;
  io->io_maxreadcnt = io->io_maxwritecnt = kMaxIO;
  io->io_segreadcnt = io->io_segwritecnt = kMaxIO / kSegSize;
  io->io_maxsegreadsize = io->io_maxsegwritesize = kSegSize;
  io->io_devblocksize = device_block_size(devvp);
}

// The argument record as the file system will copy it in: a private copy,
// so that the caller's buffer need not outlive the call.
user_addr_t stage_args(std::vector<char>& copy, const void* data, size_t datalen) {
  if (data == nullptr) return 0;
  copy.assign(static_cast<const char*>(data), static_cast<const char*>(data) + datalen);
  if (copy.empty()) copy.push_back(0);
  return reinterpret_cast<user_addr_t>(copy.data());
}

// Reclaims whatever vnodes a file system left behind on a mount that is
// going away, so that none outlives its mount.
void reclaim_leftovers(mount_t mp, const char* who) {
  int left = host_mount_vnode_count(mp);
  if (left == 0) return;
  kprintf("%s: %s left %d vnodes; reclaiming them", who, mp->mnt_vtable->vfc_name, left);
  if (vflush(mp, nullptr, FORCECLOSE) != 0) {
    panic("%s: %s: vnodes survive a forced flush", who, mp->mnt_vtable->vfc_name);
  }
}

void destroy_mount(mount_t mp) {
  {
    std::lock_guard<std::mutex> guard(g_mount_lock);
    g_mounts.remove(mp);
    g_mount_idle.notify_all();
  }
  if (mp->mnt_devvp != nullptr) vnode_rele(mp->mnt_devvp);
  vfs_table_release(mp->mnt_vtable);
  delete mp;
}

}  // namespace

int host_mount(const char* fstype, vnode_t devvp, uint64_t flags, const void* data,
               size_t datalen, mount_t* mpp) {
  if (flags & ~kOptionFlags) panic("host_mount: unsupported flags 0x%llx", (unsigned long long)flags);
  *mpp = nullptr;
  vfstable_t vfc = vfs_table_acquire(fstype);
  if (vfc == nullptr) return ENODEV;
  mount_t mp = host_alloc_should_fail() ? nullptr : new (std::nothrow) mount;
  if (mp == nullptr) {
    vfs_table_release(vfc);
    return ENOMEM;
  }
  init_mount(mp, vfc, devvp, flags);
  if (devvp != nullptr) {
    int error = vnode_ref(devvp);
    if (error != 0) {
      vfs_table_release(vfc);
      delete mp;
      return error;
    }
  }
  {
    std::lock_guard<std::mutex> guard(g_mount_lock);
    mp->mnt_busy = true;
    g_mounts.push_back(mp);
  }
  std::vector<char> args;
  int error = VFS_MOUNT(mp, devvp, stage_args(args, data, datalen), vfs_context_kernel());
  if (error != 0) {
    reclaim_leftovers(mp, "host_mount");
    destroy_mount(mp);
    return error;
  }
  (void)VFS_START(mp, 0, vfs_context_kernel());
  mp->mnt_vfsstat.f_flags = vfs_flags(mp);
  mount_end_op(mp);
  *mpp = mp;
  return 0;
}

int host_mount_update(mount_t mp, uint64_t flags, const void* data, size_t datalen) {
  if (flags & ~(kOptionFlags | MNT_RELOAD | MNT_FORCE)) {
    panic("host_mount_update: unsupported flags 0x%llx", (unsigned long long)flags);
  }
  if (!mount_begin_op(mp)) return EINVAL;
  uint64_t old = vfs_flags(mp);
  // A downgrade is visible as MNT_RDONLY during the call; an upgrade keeps
  // the mount read-only until the file system has accepted it.
  uint64_t during = (old & ~kUpdatableFlags) | (flags & kUpdatableFlags) | MNT_UPDATE |
                    (flags & (MNT_RELOAD | MNT_FORCE)) | (flags & MNT_RDONLY);
  mp->mnt_want_rdwr.store((old & MNT_RDONLY) && !(flags & MNT_RDONLY));
  mp->mnt_flag.store(during);
  std::vector<char> args;
  int error = VFS_MOUNT(mp, mp->mnt_devvp, stage_args(args, data, datalen), vfs_context_kernel());
  if (error != 0) {
    mp->mnt_flag.store(old);
  } else {
    uint64_t now = vfs_flags(mp) & ~kRequestFlags;
    if (mp->mnt_want_rdwr.load()) now &= ~(uint64_t)MNT_RDONLY;
    mp->mnt_flag.store(now);
  }
  mp->mnt_want_rdwr.store(false);
  mp->mnt_vfsstat.f_flags = vfs_flags(mp);
  mount_end_op(mp);
  return error;
}

namespace {

// A file system's sync reaches the vnodes in use and the device's buffers;
// a kernel's buffer cache writes the delayed blocks of every other vnode on
// its own (a new symbolic link's contents, once its creator let it go). So
// every sync here first writes those, data before the metadata that the
// file system's sync then writes. Returns the first write error.
int sync_idle_files(mount_t mp, int waitfor) {
  int first_error = 0;
  for (vnode_t vp : host_buf_dirty_vnodes(mp)) {
    if (!host_vnode_get_live(vp, mp)) continue;  // its reclaim writes it
    int error = buf_flushdirtyblks(vp, waitfor == MNT_WAIT, 0, "sync_idle_files");
    if (first_error == 0) first_error = error;
    vnode_put(vp);
  }
  return first_error;
}

// The whole sync of a writable mount: idle files' blocks, then the file
// system's. ENOTSUP (a file system with nothing to sync) counts as done.
int sync_mount(mount_t mp, int waitfor) {
  int idle_error = sync_idle_files(mp, waitfor);
  int error = VFS_SYNC(mp, waitfor, vfs_context_kernel());
  if (error == ENOTSUP) error = 0;
  return error != 0 ? error : idle_error;
}

}  // namespace

int host_unmount(mount_t mp, int mntflags) {
  if (mntflags & ~MNT_FORCE) panic("host_unmount: unsupported flags 0x%x", mntflags);
  if (!mount_begin_op(mp)) return EINVAL;
  if (mntflags & MNT_FORCE) mp->mnt_flag.fetch_or(MNT_FORCE);
  // As a kernel's unmount does, an unforced one first syncs a writable
  // mount: what only a sync writes (exFAT's PercentInUse) must not depend on
  // whether a delayed flush happened to run. A sync that failed to write
  // ends an unforced unmount with its error and the volume still mounted,
  // as a failing write in the file system's own unmount does: the caller
  // learns of it and may force.
  int error = 0;
  if (!(mntflags & MNT_FORCE) && !vfs_isrdonly(mp)) error = sync_mount(mp, MNT_WAIT);
  if (error == 0) error = VFS_UNMOUNT(mp, mntflags, vfs_context_kernel());
  if (error != 0) {
    mp->mnt_flag.fetch_and(~(uint64_t)MNT_FORCE);
    mount_end_op(mp);
    return error;
  }
  reclaim_leftovers(mp, "host_unmount");
  destroy_mount(mp);
  return 0;
}

int host_sync(mount_t mp, int waitfor) {
  if (waitfor != MNT_WAIT && waitfor != MNT_NOWAIT) panic("host_sync: waitfor %d", waitfor);
  if (!mount_begin_op(mp)) return EINVAL;
  int error = vfs_isrdonly(mp) ? VFS_SYNC(mp, waitfor, vfs_context_kernel()) : sync_mount(mp, waitfor);
  mount_end_op(mp);
  return error;
}

// --- The syncer ------------------------------------------------------------------------
//
// A kernel writes back what its mounts hold in memory every few seconds;
// without that, what a long-lived mount writes reaches the disk only when
// memory runs short, at fsync or at unmount. One thread serves every mount
// that has an interval: it sleeps until the earliest deadline, marks that
// mount busy as host_sync does and calls VFS_SYNC(MNT_NOWAIT) unless the
// mount is read-only: writes are started, not waited for, and the device's
// cache is not flushed. A sync's error is the file system's to report (it
// has no caller to return to). The thread starts with the first interval
// and ends when no mount has one.

namespace {

int64_t steady_now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The idle mount whose sync is due first. *scheduled tells whether any
// mount, busy or not, has an interval.
mount_t next_due_locked(bool* scheduled) {
  mount_t next = nullptr;
  *scheduled = false;
  for (mount_t m = g_mounts.head; m != nullptr; m = m->mnt_list.next) {
    if (m->mnt_sync_interval_ms == 0) continue;
    *scheduled = true;
    if (!m->mnt_busy && (next == nullptr || m->mnt_sync_due_ns < next->mnt_sync_due_ns)) next = m;
  }
  return next;
}

void syncer_main() {
  std::unique_lock<std::mutex> lk(g_mount_lock);
  g_syncer_up = true;
  g_mount_idle.notify_all();
  for (;;) {
    bool scheduled = false;
    mount_t mp = next_due_locked(&scheduled);
    if (!scheduled) break;
    int64_t now = steady_now_ns();
    if (mp == nullptr || g_syncer_forks != 0) {
      // Every scheduled mount is busy (mount_end_op wakes us), or a fork
      // waits for us to rest (its parent handler does).
      g_syncer_wake.wait(lk);
      continue;
    }
    if (mp->mnt_sync_due_ns > now) {
      g_syncer_wake.wait_for(lk, std::chrono::nanoseconds(mp->mnt_sync_due_ns - now));
      continue;
    }
    mp->mnt_busy = true;
    g_syncer_syncing = true;
    mp->mnt_sync_due_ns = now + int64_t{mp->mnt_sync_interval_ms} * 1000000;
    lk.unlock();
    if (!vfs_isrdonly(mp)) (void)sync_mount(mp, MNT_NOWAIT);
    lk.lock();
    mp->mnt_busy = false;
    g_syncer_syncing = false;
    g_mount_idle.notify_all();
  }
  g_syncer_running = false;
  g_syncer_up = false;
  g_mount_idle.notify_all();
}

// Fork handlers: the same protocol as the timer queue's (thread_call.cpp).
// g_mount_lock is held across the fork, which first waits until the syncer
// is up and not syncing, so that the child finds no mount marked busy by a
// thread it doesn't have; the child starts its own syncer when a mount
// there has an interval. A sync may arm a deferred call, so these handlers
// are registered after the timer queue's: they prepare first.
void syncer_atfork_prepare() {
  std::unique_lock<std::mutex> lk(g_mount_lock);
  g_syncer_forks++;
  while ((g_syncer_running && !g_syncer_up) || g_syncer_syncing) g_mount_idle.wait(lk);
  lk.release();  // held until the parent's or the child's handler
}
void syncer_atfork_parent() {
  g_syncer_forks--;
  g_syncer_wake.notify_all();
  g_mount_lock.unlock();
}
void syncer_atfork_child() {
  new (&g_mount_idle) std::condition_variable;
  new (&g_syncer_wake) std::condition_variable;
  g_syncer_forks = 0;
  g_syncer_up = false;
  if (g_syncer_running) std::thread(syncer_main).detach();
  g_mount_lock.unlock();
}

// Starts the syncer's thread and waits until it runs (a fork must not
// find it half started). The caller holds g_mount_lock through `lk`.
void start_syncer(std::unique_lock<std::mutex>& lk) {
  static std::once_flag hooks;
  std::call_once(hooks, [] {
    host_thread_call_register_atfork();
    pthread_atfork(syncer_atfork_prepare, syncer_atfork_parent, syncer_atfork_child);
  });
  g_syncer_running = true;
  std::thread(syncer_main).detach();
  while (g_syncer_running && !g_syncer_up) g_mount_idle.wait(lk);
}

}  // namespace

int host_set_sync_interval(mount_t mp, uint32_t interval_ms) {
  std::unique_lock<std::mutex> lk(g_mount_lock);
  if (!mounted_locked(mp)) return EINVAL;
  mp->mnt_sync_interval_ms = interval_ms;
  mp->mnt_sync_due_ns = steady_now_ns() + int64_t{interval_ms} * 1000000;
  g_syncer_wake.notify_all();
  if (interval_ms != 0 && !g_syncer_running) start_syncer(lk);
  return 0;
}
