// The name cache.
//
// Entries are keyed by (directory vnode, exact name bytes) in a hash map and
// threaded on three lists: the least-recently-used list of all entries, a
// list of the directory's entries and, for positive entries, the named
// vnode's list, so that purging a vnode touches only its own entries. A
// directory has two lists: its positive entries hang off the vnode
// (v_nc_dir), its negative ones off a map from directory to list head, so
// that dropping the negative entries of a directory, which every create in
// it does, costs what there is to drop and not what the directory holds.
//
// Each entry records the vids of its directory and of its vnode at the time
// it was made. A lookup that finds a vid changed (the vnode was reclaimed
// and perhaps reused) drops the entry and reports a miss, so an entry made
// while its vnode was being reclaimed can never hand out the wrong file.
//
// Locking: g_nc_lock protects the maps, the lists and the per-vnode list heads
// (vnode::v_nc_dir, vnode::v_nc_name). It is taken before the vnode list lock.

#include "host/namecache.h"

#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/kern.h"
#include "host/malloc.h"
#include "host/vnode_private.h"

struct nc_entry {
  vnode_t dvp;
  uint32_t dvid;
  vnode_t vp;  // NULL for a negative entry
  uint32_t vid;
  std::string name;
  vlink<nc_entry> lru;
  nc_entry* dir_prev;  // on dvp->v_nc_dir
  nc_entry* dir_next;
  nc_entry* name_prev;  // on vp->v_nc_name
  nc_entry* name_next;
};

namespace {

struct nc_key {
  vnode_t dvp;
  std::string_view name;  // points into the entry's own name, or the caller's
  bool operator==(const nc_key& o) const { return dvp == o.dvp && name == o.name; }
};

struct nc_key_hash {
  size_t operator()(const nc_key& k) const {
    return std::hash<std::string_view>()(k.name) ^ (std::hash<void*>()(k.dvp) * 31);
  }
};

struct nc_state {
  std::mutex lock;
  std::unordered_map<nc_key, nc_entry*, nc_key_hash> map;
  vlist<nc_entry, &nc_entry::lru> lru;
  // Directory vnode -> first of its negative entries; no key for none.
  std::unordered_map<vnode_t, nc_entry*> negatives;
  size_t limit = 8192;
};

nc_state& NC() {
  static nc_state* s = new nc_state;
  return *s;
}

// The head of the directory list that entry e belongs on.
nc_entry** dir_head(nc_entry* e) {
  if (e->vp != nullptr) return &e->dvp->v_nc_dir;
  return &NC().negatives[e->dvp];
}

void unlink_locked(nc_entry* e) {
  nc_state& s = NC();
  s.map.erase(nc_key{e->dvp, e->name});
  s.lru.remove(e);
  if (e->dir_prev != nullptr) {
    e->dir_prev->dir_next = e->dir_next;
  } else if (e->vp != nullptr) {
    e->dvp->v_nc_dir = e->dir_next;
  } else if (e->dir_next != nullptr) {
    s.negatives[e->dvp] = e->dir_next;
  } else {
    s.negatives.erase(e->dvp);
  }
  if (e->dir_next != nullptr) e->dir_next->dir_prev = e->dir_prev;
  if (e->vp != nullptr) {
    if (e->name_prev != nullptr) {
      e->name_prev->name_next = e->name_next;
    } else {
      e->vp->v_nc_name = e->name_next;
    }
    if (e->name_next != nullptr) e->name_next->name_prev = e->name_prev;
  }
  delete e;
}

void trim_locked() {
  nc_state& s = NC();
  while (s.lru.count > s.limit) unlink_locked(s.lru.head);
}

// Drops the negative entries of directory vp: one map look-up and the
// entries themselves.
void purge_negatives_locked(vnode_t vp) {
  nc_state& s = NC();
  for (;;) {
    auto it = s.negatives.find(vp);
    if (it == s.negatives.end()) return;
    unlink_locked(it->second);
  }
}

nc_key key_of(vnode_t dvp, const struct componentname* cnp) {
  return nc_key{dvp, std::string_view(cnp->cn_nameptr, (size_t)cnp->cn_namelen)};
}

}  // namespace

int cache_lookup(vnode_t dvp, vnode_t* vpp, struct componentname* cnp) {
  *vpp = nullptr;
  nc_state& s = NC();
  std::lock_guard<std::mutex> guard(s.lock);
  auto it = s.map.find(key_of(dvp, cnp));
  if (it == s.map.end()) return 0;
  nc_entry* e = it->second;
  if (!(cnp->cn_flags & MAKEENTRY)) {
    unlink_locked(e);
    return 0;
  }
  std::lock_guard<std::mutex> vguard(vnode_list_lock());
  if (!vnode_alive_locked(dvp, e->dvid)) {
    unlink_locked(e);
    return 0;
  }
  if (e->vp == nullptr) {
    bool creating = cnp->cn_nameiop == CREATE || cnp->cn_nameiop == RENAME;
    if (creating && (cnp->cn_flags & ISLASTCN)) {
      unlink_locked(e);
      return 0;
    }
    s.lru.remove(e);
    s.lru.push_back(e);
    return ENOENT;
  }
  if (vnode_get_nowait_locked(e->vp, e->vid) != 0) {
    unlink_locked(e);
    return 0;
  }
  s.lru.remove(e);
  s.lru.push_back(e);
  *vpp = e->vp;
  return -1;
}

void cache_enter(vnode_t dvp, vnode_t vp, struct componentname* cnp) {
  nc_state& s = NC();
  // The cache is an optimisation: without memory, nothing is entered.
  if (host_alloc_should_fail()) return;
  auto* e = new (std::nothrow) nc_entry{};
  if (e == nullptr) return;
  e->name.assign(cnp->cn_nameptr, (size_t)cnp->cn_namelen);
  std::lock_guard<std::mutex> guard(s.lock);
  {
    // Read the vids and refuse vnodes on their way out under the vnode list
    // lock: reclaim marks a vnode before it purges its entries, so an entry
    // made here is either refused or purged.
    std::lock_guard<std::mutex> vguard(vnode_list_lock());
    if ((dvp->v_lflag & (VL_DEAD | VL_TERMINATE)) ||
        (vp != nullptr && ((vp->v_lflag & (VL_DEAD | VL_TERMINATE)) || (vp->v_flag & VNOCACHE)))) {
      delete e;
      return;
    }
    e->dvid = dvp->v_id;
    e->vid = vp != nullptr ? vp->v_id : 0;
  }
  auto it = s.map.find(nc_key{dvp, e->name});
  if (it != s.map.end()) unlink_locked(it->second);
  e->dvp = dvp;
  e->vp = vp;
  nc_entry** head;
  try {
    head = dir_head(e);
  } catch (const std::bad_alloc&) {
    delete e;
    return;
  }
  e->dir_next = *head;
  if (e->dir_next != nullptr) e->dir_next->dir_prev = e;
  *head = e;
  if (vp != nullptr) {
    e->name_next = vp->v_nc_name;
    if (e->name_next != nullptr) e->name_next->name_prev = e;
    vp->v_nc_name = e;
  }
  s.map.emplace(nc_key{dvp, e->name}, e);
  s.lru.push_back(e);
  trim_locked();
}

void cache_purge(vnode_t vp) {
  nc_state& s = NC();
  std::lock_guard<std::mutex> guard(s.lock);
  while (vp->v_nc_dir != nullptr) unlink_locked(vp->v_nc_dir);
  while (vp->v_nc_name != nullptr) unlink_locked(vp->v_nc_name);
  purge_negatives_locked(vp);
}

void cache_purge_negatives(vnode_t vp) {
  nc_state& s = NC();
  std::lock_guard<std::mutex> guard(s.lock);
  purge_negatives_locked(vp);
}

void host_namecache_set_limit(size_t entries) {
  nc_state& s = NC();
  std::lock_guard<std::mutex> guard(s.lock);
  s.limit = entries;
  trim_locked();
}

size_t host_namecache_count(void) {
  nc_state& s = NC();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.map.size();
}
