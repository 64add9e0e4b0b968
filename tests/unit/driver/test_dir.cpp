// Directory block I/O: reads and writes of byte ranges of a directory.

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/host_mount_fixture.h"

namespace {

using exvol::test::bytes;
using exvol::test::Dir;
using exvol::test::FileDesc;
using exvol::test::Geometry;
using exvol::test::ImageBuilder;
using exvol::test::make_file_set;
using exvol::test::Placed;
using exvol::test::raw_entry;

// 512-byte sectors and 8 KiB clusters: directory blocks of 4096 bytes, two
// per cluster, so sets can straddle blocks inside a cluster and clusters.
constexpr uint32_t kBlock = 4096;
constexpr uint32_t kCluster = 8192;

Geometry dir_geometry() {
  return Geometry{.cluster_shift = 4, .cluster_count = 256};
}

// One callback invocation as the walk reported it.
struct Seen {
  uint32_t offset;
  bool is_set;
  uint8_t type;
  std::vector<uint8_t> data;  // the set copy, or the 32-byte entry
};

struct Recorder {
  std::vector<Seen> seen;
  int stop_with = 0;  // returned from the first callback when nonzero
};

int record_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  auto* r = static_cast<Recorder*>(argument);
  Seen s;
  s.offset = offset;
  s.is_set = set != nullptr;
  if (set != nullptr) {
    s.type = set[0];
    s.data.assign(set, set + (set[1] + 1) * EXFAT_ENTRY_SIZE);
  } else {
    s.type = entry[0];
    s.data.assign(entry, entry + EXFAT_ENTRY_SIZE);
  }
  r->seen.push_back(std::move(s));
  return r->stop_with;
}

std::vector<uint32_t> offsets(const Recorder& r) {
  std::vector<uint32_t> v;
  for (const Seen& s : r.seen)
    v.push_back(s.offset);
  return v;
}

FileDesc named(const std::u16string& name) {
  FileDesc desc;
  desc.name = name;
  return desc;
}

class DirTest : public exvol::test::MountTest {
 protected:
  DirTest() : builder_(dir_geometry()) {
    builder_.add_bitmap_entry().add_upcase_entry();
  }

  void TearDown() override {
    put_dir();
    MountTest::TearDown();
  }

  // Makes the directory under test in the root, `clusters` long.
  Dir& make_dir(uint32_t clusters = 1) {
    dir_offset_ = builder_.root().next_offset;
    dir_ = builder_.mkdir(builder_.root(), u"d", clusters);
    return dir_;
  }

  // Mounts the built image and instantiates the directory's node.
  void mount_and_open() {
    ASSERT_EQ(0, load(builder_.build()));
    ASSERT_EQ(0, mount());
    ctx_ = vfs_context_kernel();
    vnode_t root_vp = NULLVP;
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp, ctx_));
    auto* root = static_cast<struct exfat_node*>(vnode_fsnode(root_vp));
    exfat_node_lock(root);
    int error = exfat_node_get(xm, root_vp, nullptr, dir_offset_, VNON, 0, &node_, ctx_);
    vnode_put(root_vp);
    ASSERT_EQ(0, error);
    ASSERT_EQ(VDIR, vnode_vtype(node_->x_vnode));
  }

  int iterate(uint32_t offset, Recorder* r, int flags) {
    exfat_node_lock(node_);
    int error = exfat_dir_iterate(node_, offset, r, record_callback, flags, ctx_);
    exfat_node_unlock(node_);
    return error;
  }

  void put_dir() {
    if (node_ != nullptr) {
      vnode_put(node_->x_vnode);
      node_ = nullptr;
    }
  }

  std::vector<uint8_t> image_bytes(uint32_t offset, size_t length) {
    return read_device(builder_.dir_byte_offset(dir_, offset), length);
  }

  ImageBuilder builder_;
  Dir dir_;
  uint32_t dir_offset_ = 0;
  struct exfat_node* node_ = nullptr;
  vfs_context_t ctx_ = nullptr;
};

// exfat_dir_read copies across block and cluster boundaries and reports a range
// past the directory's end.
TEST_F(DirTest, ReadAndWriteRanges) {
  Dir& d = make_dir(2);
  builder_.add_set(d, named(u"a"));
  mount_and_open();

  std::vector<uint8_t> expected = image_bytes(kCluster - 64, 64);
  std::vector<uint8_t> cross(128);
  exfat_node_lock(node_);
  EXPECT_EQ(0, exfat_dir_read(node_, nullptr, cross.data(), kCluster - 64, 128, ctx_));
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), cross.begin()));
  EXPECT_EQ(E2BIG, exfat_dir_read(node_, nullptr, cross.data(), 2 * kCluster, 32, ctx_));
  exfat_node_unlock(node_);

  Recorder r;
  ASSERT_EQ(0, iterate(0, &r, ITER_SETS));
  ASSERT_EQ(96u, node_->x_checked_end);

  std::vector<uint8_t> set = make_file_set(named(u"new"), builder_.upcase());
  uint32_t len = static_cast<uint32_t>(set.size());
  exfat_node_lock(node_);
  EXPECT_EQ(0, exfat_dir_write(node_, nullptr, set.data(), 96 + 2 * len, len, true, ctx_));
  EXPECT_EQ(96u, node_->x_checked_end);  // not at the mark
  EXPECT_EQ(0, exfat_dir_write(node_, nullptr, set.data(), 96, len, false, ctx_));
  EXPECT_EQ(96u, node_->x_checked_end);  // no advance asked
  EXPECT_EQ(0, exfat_dir_write(node_, nullptr, set.data(), 96, len, true, ctx_));
  EXPECT_EQ(96u + len, node_->x_checked_end);
  // Zeros (no source) clear the far copy again.
  EXPECT_EQ(0, exfat_dir_write(node_, nullptr, nullptr, 96 + 2 * len, len, false, ctx_));
  exfat_node_unlock(node_);

  Recorder after;
  ASSERT_EQ(0, iterate(0, &after, ITER_SETS));
  EXPECT_EQ((std::vector<uint32_t>{0, 96}), offsets(after));
  EXPECT_EQ(set, after.seen[1].data);

  // The delayed writes reach the device with the next flush.
  buf_flushdirtyblks(xm->xm_devvp, 1, 0, "test");
  EXPECT_EQ(set, image_bytes(96, len));
}

}  // namespace
