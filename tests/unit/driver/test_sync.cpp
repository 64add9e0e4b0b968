// The volume sync on mounted builder images: open files' data and entries,
// the FAT and bitmap caches and percentInUse reach the device without any
// delayed flush (the volumes are mounted asynchronous, so nothing else
// writes), the volume is then consistent for the checker, and a read-only
// volume is never written.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/uio.h"
#include "host/vfs.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/mount_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;

class SyncTest : public MountTest {
 protected:
  SyncTest() {
    builder_.add_bitmap_entry().add_upcase_entry();
  }

  void TearDown() override {
    for (vnode_t vp : held_)
      vnode_put(vp);
    held_.clear();
    if (root_vp_ != NULLVP)
      vnode_put(root_vp_);
    root_vp_ = NULLVP;
    MountTest::TearDown();
  }

  uint32_t empty_file(const std::u16string& name) {
    FileSpec spec;
    spec.name = name;
    return builder_.add_set(builder_.root(), spec).offset;
  }

  void mount_built(uint64_t flags) {
    image_ = builder_.build();
    ASSERT_EQ(0, load(image_));
    ASSERT_EQ(0, mount(flags));
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, vfs_context_kernel()));
  }

  vnode_t get(uint32_t offset) {
    auto* root = static_cast<struct exfat_node*>(vnode_fsnode(root_vp_));
    struct exfat_node* node = nullptr;
    exfat_node_lock(root);  // exfat_node_get drops this level
    EXPECT_EQ(0, exfat_node_get(xm, root_vp_, nullptr, offset, VNON, 0, &node,
                                vfs_context_kernel()));
    if (node == nullptr)
      return NULLVP;
    held_.push_back(node->x_vnode);
    return node->x_vnode;
  }

  int write(vnode_t vp, const std::vector<uint8_t>& data) {
    uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_WRITE);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(data.data()), data.size());
    int error = VNOP_WRITE(vp, uio, 0, vfs_context_kernel());
    uio_free(uio);
    return error;
  }

  std::vector<uint8_t> disk_stream(uint32_t offset) {
    return read_device(builder_.dir_byte_offset(builder_.root(), offset + 32), 32);
  }

  ImageBuilder builder_;
  std::vector<uint8_t> image_;
  vnode_t root_vp_ = NULLVP;
  std::vector<vnode_t> held_;
};

// Two files written and still open: one sync writes their data, their
// entries, the allocation in the FAT and the bitmap and percentInUse, so
// that the device alone, checked while the volume is still mounted, is a
// consistent volume.
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
  auto* fnode = static_cast<struct exfat_node*>(vnode_fsnode(fv));
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
    std::vector<uint8_t> image = read_device(0, image_.size());
    le16enc(&image[106], 0);
    FsckResult r = run_fsck(image);
    EXPECT_EQ(0, r.status) << r.output;
  }
}

// A sync without waiting still writes everything before the next sync.
TEST_F(SyncTest, SyncWithoutWaitStillWritesTheEntry) {
  uint32_t f = empty_file(u"f");
  mount_built(MNT_ASYNC);
  vnode_t fv = get(f);
  ASSERT_EQ(0, write(fv, std::vector<uint8_t>(5000, 0x33)));
  ASSERT_EQ(0, VFS_SYNC(mp, MNT_NOWAIT, vfs_context_kernel()));
  ASSERT_EQ(0, VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()));
  EXPECT_EQ(5000u, le64dec(&disk_stream(f)[24]));
}

// A read-only volume: sync answers 0 and writes nothing.
TEST_F(SyncTest, ReadOnlySyncWritesNothing) {
  builder_.add_file(builder_.root(), u"f", std::vector<uint8_t>(100, 1));
  mount_built(MNT_RDONLY);
  host_blkdev_reset_stats(devvp);
  EXPECT_EQ(0, VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()));
  host_devstats stats{};
  host_blkdev_stats(devvp, &stats);
  EXPECT_EQ(0u, stats.writes);
  EXPECT_EQ(0u, stats.flushes);
}

}  // namespace
