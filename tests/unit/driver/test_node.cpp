// Nodes: the valid length within the file, write-back of a set that
// vanished, and the node hash between threads.

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

// A ValidDataLength past DataLength reads as DataLength: the file reads to
// its end and no further. A node whose slot no longer holds a set of its
// size (damage, or a directory that shares its clusters with another) is
// not written over it.
TEST_F(NodeTest, ValidLengthWithinTheFileAndRewriteOfAVanishedSet) {
  FileDesc desc;
  desc.name = u"overlong";
  desc.first_cluster = builder_.allocate(1, Alloc::Chain);
  builder_.write_data(desc.first_cluster, Alloc::Chain, bytes("0123456789"));
  desc.data_length = 10;
  desc.valid_length = 0x7FFFFFFFFFFFFFFFull;
  Placed overlong = builder_.add_set(builder_.root(), desc);
  Placed gone = builder_.add_file(builder_.root(), u"gone", bytes("abc"));
  mount_built();

  vnode_t vp = get(overlong.offset);
  EXPECT_EQ(10u, node_of(vp)->x_valid_size);
  std::vector<uint8_t> data;
  EXPECT_EQ(0, vn_read_all(vp, &data));
  EXPECT_EQ(bytes("0123456789"), data);

  struct exfat_node* node = get_node(gone.offset);
  uint8_t deleted = EXFAT_ENTRY_FILE & ~EXFAT_ENTRY_INUSE;
  exfat_node_lock(root_);
  ASSERT_EQ(0, exfat_dir_write(root_, nullptr, &deleted, gone.offset, 1, false, ctx_));
  exfat_node_unlock(root_);
  std::vector<uint8_t> slot = root_set(gone.offset);
  exfat_node_lock(node);
  node->x_flags |= X_DIRTY;
  exfat_node_unlock(node);
  KernLogCapture log;
  update(node, EIO);
  EXPECT_EQ(1u, log.count("exfat_node_update: no entry set of 3 entries at offset " +
                          std::to_string(gone.offset)));
  EXPECT_NE(0u, xm->xm_flags & XM_CORRUPT);
  EXPECT_EQ(slot, root_set(gone.offset));
}

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
