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

// The root has no entry set: fixed attributes and 1980 times, and a size and
// last cluster taken from its FAT chain.
TEST_F(RootNodeTest, RootComesFromItsChain) {
  mount_built();
  EXPECT_NE(0u, root_->x_flags & X_ROOT);
  EXPECT_EQ(EXFAT_ATTR_DIRECTORY, root_->x_attributes);
  EXPECT_EQ(0x00210000u, root_->x_create_time);
  EXPECT_EQ(0x00210000u, root_->x_modify_time);
  EXPECT_EQ(0x00210000u, root_->x_access_time);
  EXPECT_EQ(0, root_->x_create_utc | root_->x_modify_utc | root_->x_access_utc |
                   root_->x_create_10ms | root_->x_modify_10ms);
  EXPECT_EQ(0u, root_->x_create_sec);
  EXPECT_EQ(3u * kCluster, root_->x_size);
  EXPECT_EQ(xm->xm_root_cluster, root_->x_start_cluster);
  EXPECT_EQ(builder_.root().clusters.back(), root_->x_last_cluster);
  EXPECT_EQ(nullptr, root_->x_parent);
  EXPECT_EQ(VDIR, vnode_vtype(root_vp_));
  EXPECT_TRUE(vnode_isvroot(root_vp_));
}

// A file's node carries its entry set's fields.
TEST_F(NodeTest, FileNodeFromItsEntrySet) {
  Placed f = builder_.add_file(builder_.root(), u"hello.txt", bytes("hello"));
  Placed run = builder_.add_file(builder_.root(), u"run",
                                 std::vector<uint8_t>(2 * kCluster + 100, 7), Alloc::Contiguous);
  mount_built();

  struct exfat_node* node = nullptr;
  ASSERT_EQ(0, node_get(f.offset, &node));
  EXPECT_EQ(VREG, vnode_vtype(node->x_vnode));
  EXPECT_EQ(5u, node->x_size);
  EXPECT_EQ(5u, node->x_valid_size);
  EXPECT_EQ(f.first_cluster, node->x_start_cluster);
  EXPECT_EQ(0x20, node->x_attributes);
  EXPECT_EQ(2, node->x_secondary_count);  // stream and one name entry
  EXPECT_EQ(static_cast<uint64_t>(k2024), node->x_create_sec);
  EXPECT_EQ(0x80, node->x_create_utc);
  EXPECT_EQ(0u, node->x_flags & X_CONTIGUOUS);
  EXPECT_EQ(0u, node->x_extent_length);
  EXPECT_EQ(root_, node->x_parent);
  EXPECT_EQ(f.offset, node->x_dir_offset);
  EXPECT_EQ(root_->x_start_cluster, node->x_dir_cluster);
  EXPECT_EQ(0u, root_->x_lock_count) << "the parent's lock level must be gone";

  vnode_t parent = vnode_getparent(node->x_vnode);
  EXPECT_EQ(root_vp_, parent);
  if (parent != NULLVP)
    vnode_put(parent);

  struct exfat_node* again = nullptr;
  ASSERT_EQ(0, node_get(f.offset, &again));
  EXPECT_EQ(node, again);
  EXPECT_EQ(2, host_vnode_iocount(node->x_vnode));
  vnode_put(again->x_vnode);
  vnode_put(node->x_vnode);

  ASSERT_EQ(0, node_get(run.offset, &node));
  EXPECT_NE(0u, node->x_flags & X_CONTIGUOUS);
  EXPECT_EQ(run.first_cluster, node->x_extent_cluster);
  EXPECT_EQ(0u, node->x_extent_index);
  EXPECT_EQ(3u, node->x_extent_length);
  EXPECT_EQ(run.first_cluster + 2, node->x_last_cluster);
  vnode_put(node->x_vnode);
}

// A node's size must be one its kind can have, within the heap, and a
// contiguous run must lie in the heap; a refused entry leaves no node
// behind, marks the volume corrupt and still drops the parent's lock level.
TEST_F(NodeTest, SizeAndRunLimits) {
  const uint64_t heap = 512ull * kCluster;  // default geometry: 512 clusters
  struct Case {
    const char16_t* name;
    uint16_t attributes;
    uint32_t first_cluster;  // 0: one allocated cluster
    uint64_t length;
    bool contiguous;
    const char* refusal;  // NULL: accepted
  };
  const Case cases[] = {
      {u"hugedir", EXFAT_ATTR_DIRECTORY, 0, 0x100000000ull, false,
       "exfat: ExFAT directory is too large (0x100000000)"},
      {u"longdir", EXFAT_ATTR_DIRECTORY, 0, heap + kCluster, false,
       "exfat: ExFAT directory is too large (0x201000)"},
      {u"toobig", EXFAT_ATTR_ARCHIVE, 0, 0x8000000000000000ull, false,
       "exfat: ExFAT file is too large (0x8000000000000000)"},
      {u"past the heap", EXFAT_ATTR_ARCHIVE, 0, heap + 1, false,
       "exfat: ExFAT file is too large (0x200001)"},
      {u"heap sized", EXFAT_ATTR_ARCHIVE, 0, heap, false, nullptr},
      {u"run past the end", EXFAT_ATTR_ARCHIVE, 512, 3 * kCluster, true,
       "exfat: ExFAT file's clusters lie outside the volume (first 512, length 0x3000)"},
      {u"run before the heap", EXFAT_ATTR_DIRECTORY, 1, kCluster, true,
       "exfat: ExFAT file's clusters lie outside the volume (first 1, length 0x1000)"},
      {u"run to the end", EXFAT_ATTR_ARCHIVE, 512, 2 * kCluster, true, nullptr},
  };
  std::vector<Placed> placed;
  for (const Case& c : cases) {
    FileDesc spec;
    spec.name = c.name;
    spec.attributes = c.attributes;
    spec.first_cluster =
        c.first_cluster != 0 ? c.first_cluster : builder_.allocate(1, Alloc::Chain);
    spec.data_length = c.length;
    spec.valid_length = 0;
    spec.no_fat_chain = c.contiguous;
    placed.push_back(builder_.add_set(builder_.root(), spec));
  }
  mount_built();

  for (size_t i = 0; i < std::size(cases); i++) {
    const Case& c = cases[i];
    SCOPED_TRACE(testing::Message() << "case " << i);
    xm->xm_flags &= ~XM_CORRUPT;
    uint64_t nodes_before = host_malloc_outstanding("exfat node");
    KernLogCapture log;
    struct exfat_node* node = reinterpret_cast<struct exfat_node*>(1);
    int error = node_get(placed[i].offset, &node);
    EXPECT_EQ(0u, root_->x_lock_count);
    if (c.refusal == nullptr) {
      ASSERT_EQ(0, error);
      EXPECT_EQ(c.length, node->x_size);
      EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
      vnode_put(node->x_vnode);
      continue;
    }
    EXPECT_EQ(EIO, error);
    EXPECT_EQ(nullptr, node);
    EXPECT_EQ(1u, log.count(c.refusal)) << (log.lines().empty() ? "" : log.lines()[0]);
    EXPECT_NE(0u, xm->xm_flags & XM_CORRUPT);
    EXPECT_EQ(nodes_before, host_malloc_outstanding("exfat node"));
  }
}

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

// What is written back is exactly the entries that changed.
TEST_F(NodeTest, UpdateWritesSixtyFourBytesForAStreamChange) {
  builder_.skip_to(builder_.root(), kCluster - 64);
  Placed f = builder_.add_file(builder_.root(), u"a twenty char name..", bytes("0123456789"));
  ASSERT_EQ(4u, f.entries);
  builder_.skip_to(builder_.root(), 2 * kCluster - 32);
  Placed g = builder_.add_file(builder_.root(), u"g", bytes("abc"));
  mount_built();

  auto plant_marker = [&](uint32_t dir_offset) {
    // Byte 5 of an entry well after the set: no entry type depends on it.
    uint8_t marker = 0xEE;
    uint64_t at = builder_.dir_byte_offset(builder_.root(), dir_offset) + 1024 + 5;
    EXPECT_EQ(0, host_memdev_load(xm->xm_devvp, &marker, 1, at));
    return at;
  };

  struct exfat_node* node = nullptr;
  ASSERT_EQ(0, node_get(f.offset, &node));
  exfat_node_lock(node);
  node->x_valid_size = 4;
  node->x_flags |= X_DIRTY | X_STREAM_DIRTY;
  exfat_node_unlock(node);
  update(node);
  EXPECT_EQ(0u, node->x_flags & (X_DIRTY | X_STREAM_DIRTY));
  uint64_t marker_at = plant_marker(kCluster);
  std::vector<uint8_t> set = root_set(f.offset, 4);
  EXPECT_EQ(4u, le64dec(&set[32 + 8]));
  EXPECT_EQ(10u, le64dec(&set[32 + 24]));
  EXPECT_EQ(exfat_checksum_file_set(set.data()), le16dec(&set[2]));
  EXPECT_EQ(0xEE, read_device(marker_at, 1)[0]) << "the name entries' block was written";
  vnode_put(node->x_vnode);

  ASSERT_EQ(0, node_get(g.offset, &node));
  exfat_node_lock(node);
  node->x_valid_size = 1;  // not written without X_STREAM_DIRTY
  node->x_attributes |= EXFAT_ATTR_HIDDEN;
  node->x_flags |= X_DIRTY;
  exfat_node_unlock(node);
  update(node);
  marker_at = plant_marker(2 * kCluster);
  set = root_set(g.offset, 3);
  EXPECT_EQ(EXFAT_ATTR_ARCHIVE | EXFAT_ATTR_HIDDEN, le16dec(&set[4]));
  EXPECT_EQ(3u, le64dec(&set[32 + 8]));
  EXPECT_EQ(exfat_checksum_file_set(set.data()), le16dec(&set[2]));
  EXPECT_EQ(0xEE, read_device(marker_at, 1)[0]) << "the stream entry's block was written";
  node->x_valid_size = 3;
  vnode_put(node->x_vnode);
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
