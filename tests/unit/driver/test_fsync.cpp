// F_FULLFSYNC on an MNT_ASYNC mount (nothing else writes): the device's
// cache is flushed after the data.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/fsck.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;

class LifeCycleTest : public VolumeTest {
 protected:
  void TearDown() override {
    if (devvp != nullptr)
      host_memdev_set_faults(devvp, host_memdev_faults{});
    VolumeTest::TearDown();
  }

  // A chained file of `clusters` clusters filled with a pattern; returns the
  // offset of its set in the root.
  uint32_t file(const std::u16string& name, uint32_t clusters) {
    return builder_.add_file(builder_.root(), name, pattern_bytes(9, uint64_t(clusters) * kCluster))
        .offset;
  }

  void mount_built(uint64_t flags = MNT_ASYNC) { VolumeTest::mount_built(flags); }
};

// F_FULLFSYNC writes the data, then asks the device to flush its cache.
TEST_F(LifeCycleTest, FullFsyncFlushesTheDeviceCacheAfterTheData) {
  uint32_t f = file(u"f", 2);
  uint32_t g = file(u"g", 2);
  mount_built();
  vnode_t vp = get(f);
  vnode_t other = get(g);
  settle();
  host_memdev_faults faults;
  faults.power_cut_mode = true;
  host_memdev_set_faults(devvp, faults);
  uint32_t first = node_of(vp)->x_start_cluster;
  uint32_t other_first = node_of(other)->x_start_cluster;

  std::vector<uint8_t> data(2 * kCluster, 0x3C);
  ASSERT_EQ(0, vn_write_at(vp, 0, data));
  ASSERT_EQ(0, VNOP_IOCTL(vp, 51, nullptr, 0, ctx_));
  EXPECT_EQ(1u, stats().flushes);
  EXPECT_EQ(ENOTTY, VNOP_IOCTL(vp, 52, nullptr, 0, ctx_));
  EXPECT_EQ(ENOTTY, VNOP_IOCTL(root_vp_, 0x20006416u, nullptr, 0, ctx_));

  ASSERT_EQ(0, vn_write_at(other, 0, data));
  ASSERT_EQ(0, VNOP_FSYNC(other, MNT_WAIT, ctx_));
  host_memdev_power_cut(devvp);
  EXPECT_EQ(data, read_device(builder_.cluster_byte_offset(first), data.size()));
  EXPECT_NE(data, read_device(builder_.cluster_byte_offset(other_first), data.size()))
      << "without the cache flush the power cut should have lost these writes";
}

// A directory's fsync writes its blocks after the allocation caches: an
// entry on the disk never names a cluster that the disk's bitmap calls free
// (a power cut right after would leave the file owning a free cluster).
TEST_F(LifeCycleTest, DirectoryFsyncWritesTheAllocationsItsEntriesName) {
  uint32_t f = empty_file(u"f");
  mount_built();
  vnode_t vp = get(f);
  settle();
  ASSERT_EQ(0, vn_write_at(vp, 0, std::vector<uint8_t>(kCluster, 0x5A)));
  update(node_of(vp));  // the entry into the root's cached block, as close does
  ASSERT_EQ(0, VNOP_FSYNC(root_vp_, MNT_WAIT, ctx_));
  EXPECT_GT(stats().writes, 0u) << "the root's block was written";

  const uint32_t bit = node_of(vp)->x_start_cluster - 2;
  const uint32_t bitmap = node_of(xm->xm_bitmap_vp)->x_start_cluster;
  std::vector<uint8_t> byte = read_device(builder_.cluster_byte_offset(bitmap) + bit / 8, 1);
  EXPECT_TRUE((byte[0] >> (bit % 8)) & 1) << "cluster " << bit + 2 << " is free on the disk";
}

}  // namespace
