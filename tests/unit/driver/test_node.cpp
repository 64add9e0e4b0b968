// Nodes: what a node takes from its entry set (the root from its chain),
// size limits, write-back, and the node hash between threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/time.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;  // default geometry: 512-byte sectors, 8 per cluster
constexpr int64_t k2024 = 1704067200;  // 2024-01-01 00:00:00 UTC, the builder's default stamp

class NodeTest : public VolumeTest {
 protected:
  explicit NodeTest(Geometry g = {}) : VolumeTest(g) {}

  void TearDown() override {
    host_set_nanotime(nullptr);
    VolumeTest::TearDown();
  }

};

class RootNodeTest : public NodeTest {
 protected:
  RootNodeTest() : NodeTest(Geometry{.root_clusters = 3}) {}
};

class NodeConcurrency : public NodeTest {};

// Threads racing to instantiate the root all get one node.
TEST_F(NodeConcurrency, RacingRootGetsMakeOneNode) {
  mount_built();
  uint64_t with_root = host_malloc_outstanding("exfat node");
  vnode_recycle(root_vp_);
  vnode_put(root_vp_);
  root_vp_ = NULLVP;
  ASSERT_EQ(with_root - sizeof(struct exfat_node), host_malloc_outstanding("exfat node"))
      << "the root was not reclaimed";

  constexpr int kThreads = 4;
  struct exfat_node* got[kThreads] = {};
  int errors[kThreads] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      errors[i] = exfat_node_get(xm, NULLVP, nullptr, 0, VDIR, 0, &got[i], ctx_);
    });
  }
  for (std::thread& t : threads)
    t.join();
  for (int i = 0; i < kThreads; i++) {
    ASSERT_EQ(0, errors[i]);
    EXPECT_EQ(got[0], got[i]);
  }
  EXPECT_EQ(with_root, host_malloc_outstanding("exfat node"));
  for (int i = 0; i < kThreads; i++)
    vnode_put(got[i]->x_vnode);
}

}  // namespace
