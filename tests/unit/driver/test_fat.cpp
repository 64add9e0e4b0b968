// The walk to a file's last cluster on a mounted volume, and the mount's
// flags under threads that find corruption.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/host_mount_fixture.h"

using namespace exvol::test;

namespace {

// 1,200 clusters of 512 bytes: a FAT of one 4 KiB block and a short one of
// 1 KiB, followed by six spare sectors that can hold a sentinel.
Geometry two_block_fat() {
  return Geometry{.cluster_shift = 0, .cluster_count = 1200, .heap_offset = 24 + 10 + 6};
}

constexpr uint8_t kSentinel = 0xA5;

class FatTest : public MountTest {
 protected:
  uint32_t get(uint32_t cluster) {
    uint32_t value = 0;
    EXPECT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET, xm, cluster, &value, 0));
    return value;
  }
  void set(uint32_t cluster, uint32_t value) {
    EXPECT_EQ(0, exfat_fat_get_set(EXFAT_FAT_SET, xm, cluster, nullptr, value));
  }

  // The FAT entry of `cluster` as stored on the device.
  uint32_t disk_entry(uint32_t cluster) {
    return le32dec(read_device(built_.fat_byte_offset() + 4ull * cluster, 4).data());
  }

  // Writes the FAT cache and the FAT vnode's pages to the device.
  void fsync_fat() { ASSERT_EQ(0, VNOP_FSYNC(xm->xm_fat_vp, MNT_WAIT, vfs_context_kernel())); }
};

// A chain ends at any end mark (the bad-cluster mark too); a walk resumes
// after the cached extent (cluster 40's entry is garbage).
TEST_F(FatTest, FindLastClusterFollowsTheChainToAnyEndMark) {
  mount_volume(two_block_fat(), [](ImageBuilder& b) {
    b.set_fat(10, 11).set_fat(11, 12).set_fat(12, 0xFFFFFFF7);  // bad-cluster mark
    b.set_fat(20, 21).set_fat(21, 0xFFFFFFFF);
    b.set_fat(30, 0xFFFFFFF8);
    b.set_fat(40, 0).set_fat(42, 43).set_fat(43, 0xFFFFFFFF);
  });
  const uint64_t bpc = xm->xm_bytes_per_cluster;

  struct exfat_node a = stand_in_node(xm, 10);
  uint32_t last = 0;
  uint64_t bytes = 0;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&a, &last, &bytes));
  EXPECT_EQ(12u, last);
  EXPECT_EQ(3 * bpc, bytes);

  struct exfat_node b = stand_in_node(xm, 20);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&b, &last, nullptr));
  EXPECT_EQ(21u, last);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&b, nullptr, &bytes));
  EXPECT_EQ(2 * bpc, bytes);

  struct exfat_node c = stand_in_node(xm, 30);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&c, &last, &bytes));
  EXPECT_EQ(30u, last);
  EXPECT_EQ(bpc, bytes);

  struct exfat_node empty = stand_in_node(xm, 0);
  last = 99;
  bytes = 99;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&empty, &last, &bytes));
  EXPECT_EQ(0u, last);
  EXPECT_EQ(0u, bytes);

  struct exfat_node resumed = stand_in_node(xm, 40);
  resumed.x_extent_cluster = 40;
  resumed.x_extent_index = 0;
  resumed.x_extent_length = 3;  // 40, 41, 42
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&resumed, &last, &bytes));
  EXPECT_EQ(43u, last);
  EXPECT_EQ(4 * bpc, bytes);
  EXPECT_FALSE(xm->xm_flags & XM_CORRUPT);
}

// Corruption found on several threads at once while an update sets and
// clears XM_RDONLY: every change of xm_flags is atomic, so no thread's bit is
// lost (and ThreadSanitizer sees any plain read-modify-write).
class FatConcurrency : public FatTest {};

TEST_F(FatConcurrency, FlagsSurviveCorruptionFoundOnManyThreads) {
  mount_volume(two_block_fat());
  std::atomic<bool> stop{false};
  std::atomic<int> finds{0};
  std::vector<std::thread> finders;
  for (int t = 0; t < 3; t++)
    finders.emplace_back([&] {
      while (!stop.load()) {
        uint32_t value = 0;
        EXPECT_EQ(EIO, exfat_fat_get_set(EXFAT_FAT_GET, xm, 1, &value, 0));
        finds++;
      }
    });
  int lost = 0;
  for (int i = 0; i < 20000 || finds.load() < 3000; i++) {
    xm->xm_flags |= XM_RDONLY;
    lost += (xm->xm_flags & XM_RDONLY) ? 0 : 1;
    xm->xm_flags &= ~XM_RDONLY;
    lost += (xm->xm_flags & XM_RDONLY) ? 1 : 0;
  }
  stop = true;
  for (std::thread& t : finders)
    t.join();
  EXPECT_EQ(0, lost);
  EXPECT_TRUE(xm->xm_flags & XM_CORRUPT);
}

}  // namespace
