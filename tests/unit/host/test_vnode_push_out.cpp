// The push-out thread under a stream of new vnodes: woken once a batch, it
// reclaims down to the limit.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "host/vnode_slots_private.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

struct VnodeLimit {
  explicit VnodeLimit(int n) { host_set_desiredvnodes(n); }
  ~VnodeLimit() { host_set_desiredvnodes(4096); }
};

// Unused vnodes up to the slack above the limit stay until the slack is
// exceeded; then the thread takes them back to the limit, not one below
// the slack. Before batching, each vnode beyond the limit woke it.
TEST(VnodePushOut, WokenOnceTheSlackIsExceededAndReclaimsToTheLimit) {
  TinyFs fs;
  vnode_t root = fs.root();
  int next = 0;
  auto add = [&](int n) {
    for (int i = 0; i < n; i++) {
      vnode_t vp = nullptr;
      std::string name = "f" + std::to_string(next++);
      ASSERT_EQ(0, fs.create(root, name.c_str(), &vp)) << name;
      vnode_put(vp);
    }
  };
  host_vnode_push_out();
  int limit = host_vnode_count() + 2048;
  int slack = limit / 32;
  VnodeLimit guard(limit);
  add(limit - host_vnode_count() + slack);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(limit + slack, host_vnode_count()) << "pushed out within the slack";
  add(1);
  EXPECT_TRUE(host_test::eventually([&] { return host_vnode_count() == limit; }))
      << host_vnode_count() << " vnodes, limit " << limit;
  vnode_put(root);
}

}  // namespace
