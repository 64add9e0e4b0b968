// The volume sync (on MNT_ASYNC mounts, so nothing else writes): data,
// entries, caches and percentInUse reach the device; read-only writes nothing.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/fsck.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;

class SyncTest : public VolumeTest {
 protected:
  int write(vnode_t vp, const std::vector<uint8_t>& data) { return vn_write(vp, 0, data).error; }
};

// Two files written and still open.
TEST_F(SyncTest, SyncWritesOpenFilesAndTheCaches) {
  uint32_t f = empty_file(u"f");
  uint32_t g = empty_file(u"g");
  mount_built(MNT_ASYNC);
  vnode_t fv = get(f);
  vnode_t gv = get(g);
  std::vector<uint8_t> big(40 * kCluster, 0x11);  // moves percentInUse off 0
  std::vector<uint8_t> small(3000, 0x22);
  ASSERT_EQ(0, write(fv, big));
  ASSERT_EQ(0, write(gv, small));

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

// A read-only volume: sync answers 0 and writes nothing.
TEST_F(SyncTest, ReadOnlySyncWritesNothing) {
  builder_.add_file(builder_.root(), u"f", std::vector<uint8_t>(100, 1));
  mount_built(MNT_RDONLY);
  host_blkdev_reset_stats(devvp);
  EXPECT_EQ(0, VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()));
  EXPECT_EQ(0u, stats().writes);
  EXPECT_EQ(0u, stats().flushes);
}

}  // namespace
