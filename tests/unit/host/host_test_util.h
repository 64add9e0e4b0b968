#pragma once
// Small helpers shared by the host's tests: waiting for other threads,
// restoring bounds a test lowered, making bare vnodes and reading device
// counters.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include "host/blkdev.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace host_test {

// Polls until pred holds or about five seconds pass (for waiting on other
// threads to reach a sleep or a timer to fire); returns the last answer.
template <typename Pred>
bool eventually(Pred pred) {
  for (int i = 0; i < 5000; i++) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return pred();
}

// Lowers the page pool's bound for one test and restores it after.
struct PoolLimit {
  size_t saved = host_ubc_limit();
  explicit PoolLimit(size_t bytes) { host_ubc_set_limit(bytes); }
  ~PoolLimit() { host_ubc_set_limit(saved); }
};

// Parameters of a vnode outside any file system's own helpers.
inline struct vnode_fsparam fsparam(enum vtype type, VOPFUNC* ops, uint32_t flags = VNFS_NOCACHE,
                                    mount_t mp = nullptr) {
  struct vnode_fsparam p = {};
  p.vnfs_mp = mp;
  p.vnfs_vtype = type;
  p.vnfs_vops = ops;
  p.vnfs_flags = flags;
  return p;
}

inline int create_vnode(struct vnode_fsparam p, vnode_t* vpp) {
  return vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, vpp);
}

// Recycles a vnode and drops the caller's I/O reference: reclaimed now.
inline void discard(vnode_t vp) {
  vnode_recycle(vp);
  vnode_put(vp);
}

// Reclaims that bare_device_ops() has seen.
inline std::atomic<int>& bare_device_reclaims() {
  static std::atomic<int> n{0};
  return n;
}

// An operation vector of vn_default_error whose reclaim only counts and
// detaches the node, for device-like vnodes without a file system.
inline VOPFUNC* bare_device_ops() {
  static std::vector<VOPFUNC> ops = [] {
    std::vector<VOPFUNC> v(vnop_desc_count(), vn_default_error);
    v[vnop_reclaim_desc.vdesc_offset] = [](void* ap) {
      bare_device_reclaims()++;
      vnode_clearfsnode(static_cast<struct vnop_reclaim_args*>(ap)->a_vp);
      return 0;
    };
    v[vnop_inactive_desc.vdesc_offset] = [](void*) { return 0; };
    return v;
  }();
  return ops.data();
}

inline host_devstats devstats(vnode_t dev) {
  host_devstats s;
  host_blkdev_stats(dev, &s);
  return s;
}

}  // namespace host_test
