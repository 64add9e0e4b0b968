// The node life cycle and the volume sync (on MNT_ASYNC mounts, so nothing
// else writes): close writes a changed entry back once, a directory's fsync
// writes its dirty blocks, F_FULLFSYNC flushes the device, sync writes all.

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

// Close writes a written file's File and Stream entries back and leaves the
// node clean, so that a second close, and closing a file nobody changed,
// write nothing at all.
TEST_F(LifeCycleTest, CloseWritesAChangedEntryOnceAndAnUnchangedOneNever) {
  uint32_t f = file(u"f", 1);
  uint32_t g = file(u"g", 1);
  mount_built();
  vnode_t vp = get(f);
  vnode_t untouched = get(g);
  settle();

  ASSERT_EQ(0, VNOP_OPEN(untouched, FREAD, ctx_));
  ASSERT_EQ(0, VNOP_CLOSE(untouched, FREAD, ctx_));
  exfat_meta_flush_internal(xm, 1);
  EXPECT_EQ(0u, stats().writes) << "closing an unchanged file";

  ASSERT_EQ(0, VNOP_OPEN(vp, FREAD | FWRITE, ctx_));
  ASSERT_EQ(0, vn_write_at(vp, 0, pattern_bytes(1, 5000)));
  ASSERT_EQ(0, VNOP_CLOSE(vp, FREAD | FWRITE, ctx_));
  EXPECT_EQ(0u, node_of(vp)->x_flags & (X_DIRTY | X_STREAM_DIRTY | X_MODIFIED));
  exfat_meta_flush_internal(xm, 1);
  std::vector<uint8_t> stream = disk_stream(f);
  EXPECT_EQ(5000u, le64dec(&stream[8]));
  EXPECT_EQ(5000u, le64dec(&stream[24]));

  host_blkdev_reset_stats(devvp);
  ASSERT_EQ(0, VNOP_CLOSE(vp, FREAD | FWRITE, ctx_));
  exfat_meta_flush_internal(xm, 1);
  EXPECT_EQ(0u, stats().writes) << "the entry was already written";
  unmount_and_check();
}

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

// A directory's fsync writes the blocks of the directory that wait in the
// buffer cache with a delayed write, and does not read the blocks that are
// not cached.
TEST_F(LifeCycleTest, DirectoryFsyncWritesItsCachedDirtyBlocksOnly) {
  uint32_t d = builder_.root().next_offset;
  Dir dir = builder_.mkdir(builder_.root(), u"d", 2, Alloc::Contiguous);
  mount_built();
  vnode_t dvp = get(d);
  ASSERT_EQ(VDIR, vnode_vtype(dvp));
  settle();

  // The directory's second block gets a deleted File entry in the buffer
  // cache; its first block is cached clean; the rest is not cached.
  const uint32_t spb = xm->xm_sectors_per_block;
  const daddr64_t start = static_cast<daddr64_t>(builder_.cluster_byte_offset(dir.first_cluster) /
                                                 xm->xm_bytes_per_sector);
  buf_t bp = nullptr;
  ASSERT_EQ(0, buf_meta_bread(devvp, start, static_cast<int>(xm->xm_block_size), NOCRED, &bp));
  buf_brelse(bp);
  ASSERT_EQ(0, buf_meta_bread(devvp, start + spb, static_cast<int>(xm->xm_block_size), NOCRED,
                              &bp));
  reinterpret_cast<uint8_t*>(buf_dataptr(bp))[0] = 0x05;
  buf_bdwrite(bp);
  host_blkdev_reset_stats(devvp);

  ASSERT_EQ(0, VNOP_FSYNC(dvp, MNT_WAIT, ctx_));
  host_devstats s = stats();
  EXPECT_EQ(0u, s.reads) << "blocks that were not cached must not be read";
  EXPECT_EQ(1u, s.writes);
  EXPECT_EQ(0x05, read_device(uint64_t(start + spb) * xm->xm_bytes_per_sector, 1)[0]);
  unmount_and_check();
}

// A volume sync writes the data, entries and caches of files still open,
// and percentInUse.
TEST_F(LifeCycleTest, SyncWritesOpenFilesAndTheCaches) {
  uint32_t f = empty_file(u"f");
  uint32_t g = empty_file(u"g");
  mount_built();
  vnode_t fv = get(f);
  vnode_t gv = get(g);
  std::vector<uint8_t> big(40 * kCluster, 0x11);  // moves percentInUse off 0
  std::vector<uint8_t> small(3000, 0x22);
  ASSERT_EQ(0, vn_write_at(fv, 0, big));
  ASSERT_EQ(0, vn_write_at(gv, 0, small));

  ASSERT_EQ(0, VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()));
  auto* fnode = node_of(fv);
  EXPECT_EQ(0u, fnode->x_flags & (X_DIRTY | X_STREAM_DIRTY));
  EXPECT_EQ(0u, xm->xm_fat_cache_dirty);
  EXPECT_EQ(0u, xm->xm_bitmap_cache_dirty);
  EXPECT_EQ(big.size(), le64dec(&disk_stream(f)[24]));
  EXPECT_EQ(small.size(), le64dec(&disk_stream(g)[8]));
  EXPECT_EQ(big, read_device(builder_.cluster_byte_offset(fnode->x_start_cluster), big.size()));
  EXPECT_NE(0, disk_percent_in_use());

  if (!fsck_program().empty()) {
    // The checker sees the device as a later mount would: dirty (mounted),
    // but with nothing else to complain about.
    std::vector<uint8_t> image = device_image();
    le16enc(&image[106], 0);
    FsckResult r = run_fsck(image);
    EXPECT_EQ(0, r.status) << r.output;
  }
}

}  // namespace
