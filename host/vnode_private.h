#pragma once
// The vnode, mount and file-system table records, shared by the host's own
// vnode, mount, dispatch and name-cache code (host/vnode.cpp, host/mount.cpp,
// host/vfs.cpp, host/namecache.cpp) and by nobody else.
//
// Locking. One host-wide mutex, the vnode list lock (vnode_list_lock()),
// protects every reference count, state bit, list link and identity field of
// every vnode, and each mount's vnode list. Critical sections under it are
// short and never call out of the vnode layer: file-system operations and the
// hooks of other host services run with it released. The name cache has its
// own mutex, taken before the vnode list lock when both are needed (the name
// cache checks vids and takes references under its lock); nothing takes the
// name cache lock while holding the vnode list lock.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"

struct nc_entry;

// v_lflag: life-cycle state, protected by the vnode list lock.
#define VL_TERMINATE 0x0001     // being reclaimed by v_owner; not handed out
#define VL_DEAD 0x0002          // reclaimed: dead operations, no fsnode, no mount
#define VL_MARKTERM 0x0004      // reclaim as soon as the last reference goes
#define VL_NEEDINACTIVE 0x0008  // released without running inactive (dont_reenter)
#define VL_ONLRU 0x0010         // on the list of unused vnodes
#define VL_ONFREE 0x0020        // in the pool of free vnode records

// v_flag: fixed attributes, set at creation.
#define VROOT 0x0001     // root of its mount
#define VSYSTEM 0x0002   // a file system's private (system) vnode
#define VNOCACHE 0x0004  // never entered in the name cache
#define VFSREF 0x0008    // the file system holds its reference (vnode_addfsref)

// An intrusive doubly linked list link; the lists are protected by whoever
// protects the records they thread.
template <typename T>
struct vlink {
  T* prev = nullptr;
  T* next = nullptr;
};

template <typename T, vlink<T> T::*Link>
struct vlist {
  T* head = nullptr;
  T* tail = nullptr;
  size_t count = 0;

  bool empty() const { return head == nullptr; }
  void push_back(T* e) {
    vlink<T>& l = e->*Link;
    l.prev = tail;
    l.next = nullptr;
    if (tail != nullptr) {
      (tail->*Link).next = e;
    } else {
      head = e;
    }
    tail = e;
    count++;
  }
  void push_front(T* e) {
    vlink<T>& l = e->*Link;
    l.prev = nullptr;
    l.next = head;
    if (head != nullptr) {
      (head->*Link).prev = e;
    } else {
      tail = e;
    }
    head = e;
    count++;
  }
  void remove(T* e) {
    vlink<T>& l = e->*Link;
    if (l.prev != nullptr) {
      (l.prev->*Link).next = l.next;
    } else {
      head = l.next;
    }
    if (l.next != nullptr) {
      (l.next->*Link).prev = l.prev;
    } else {
      tail = l.prev;
    }
    l.prev = l.next = nullptr;
    count--;
  }
};

struct vnode {
  // --- protected by the vnode list lock ---
  uint32_t v_id = 0;  // the vid; grows at every reclaim and never goes back
  int32_t v_iocount = 0;
  int32_t v_usecount = 0;   // includes v_kusecount
  int32_t v_kusecount = 0;  // use references held by child vnodes
  int32_t v_writecount = 0;
  uint32_t v_lflag = 0;
  std::thread::id v_owner;  // the thread reclaiming the vnode (VL_TERMINATE)
  vnode_t v_parent = nullptr;
  std::string v_name;
  vlink<vnode> v_lru;  // list of unused vnodes, or the free pool
  vlink<vnode> v_mntlink;

  // --- set at creation, before the vnode is handed out; stable while any
  // reference is held ---
  enum vtype v_type = VNON;
  uint32_t v_flag = 0;
  dev_t v_rdev = 0;
  const char* v_tag = nullptr;

  // --- read without the lock by dispatch and queries. Reclaim replaces them
  // only after every other I/O reference has drained ---
  std::atomic<VOPFUNC*> v_op{nullptr};
  std::atomic<void*> v_data{nullptr};
  std::atomic<mount_t> v_mount{nullptr};

  // --- owned by other host services (host/vnode_slots_private.h) ---
  void* v_ubcinfo = nullptr;
  void* v_bufinfo = nullptr;
  void* v_specinfo = nullptr;

  // --- protected by the name cache lock ---
  nc_entry* v_nc_dir = nullptr;   // entries in this directory
  nc_entry* v_nc_name = nullptr;  // entries naming this vnode
};

typedef vlist<vnode, &vnode::v_mntlink> mount_vnode_list;

struct vfs_context {
  kauth_cred_t vc_ucred;
};

// The registered type of a file system (vfs_fsadd).
struct vfstable {
  char vfc_name[MFSNAMELEN + 1];
  int vfc_typenum;
  struct vfsops* vfc_vfsops;
  uint32_t vfc_flags;
  int vfc_mountcount;        // protected by the registry lock (host/vfs.cpp)
  VOPFUNC* vfc_vectors[8];        // the vectors vfs_fsadd allocated …
  VOPFUNC** vfc_vector_vars[8];   // … and the variables that point at them
  int vfc_nvectors;
};

struct mount {
  vfstable_t mnt_vtable = nullptr;
  std::atomic<uint64_t> mnt_flag{0};
  // Set for the length of an update that asks for write access: the mount
  // stays MNT_RDONLY until the file system has accepted it.
  std::atomic<bool> mnt_want_rdwr{false};
  struct vfsstatfs mnt_vfsstat {};
  std::atomic<void*> mnt_data{nullptr};
  struct vfsioattr mnt_ioattr {};
  vnode_t mnt_devvp = nullptr;
  std::atomic<bool> mnt_locallock{false};

  // protected by the vnode list lock
  mount_vnode_list mnt_vnodes;

  // protected by the mount machinery's lock (host/mount.cpp)
  bool mnt_busy = false;
  vlink<mount> mnt_list;
  uint32_t mnt_sync_interval_ms = 0;  // the syncer's period; 0: not synced by it
  int64_t mnt_sync_due_ns = 0;        // steady-clock time of the next sync
};

// --- Between the vnode layer and the rest of the host --------------------

std::mutex& vnode_list_lock(void);

// Takes an I/O reference without waiting: fails (ENOENT) when the vid
// differs, or the vnode is dead or being reclaimed by another thread.
// Caller holds the vnode list lock.
int vnode_get_nowait_locked(vnode_t vp, uint32_t vid);
// Whether a vnode is alive (not dead, not being reclaimed) with this vid.
// Caller holds the vnode list lock.
bool vnode_alive_locked(vnode_t vp, uint32_t vid);

// The operation vector of dead vnodes (host/vfs.cpp).
VOPFUNC* vnode_dead_ops(void);

// File-system types, for the mount machinery: vfs_table_acquire finds a type
// by name and counts one more mount of it (NULL when unknown);
// vfs_table_release undoes that.
vfstable_t vfs_table_acquire(const char* name);
void vfs_table_release(vfstable_t vfc);

