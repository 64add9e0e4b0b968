// The one-block FAT cache and the walk to a file's last cluster, on a
// mounted volume.

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
#include "tests/unit/driver/mount_fixture.h"

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

// Clusters 0, 1 and past the heap are EIO and corruption; op 3 (get and set)
// returns the old entry while storing the new one.
TEST_F(FatTest, GetSetRefusesClustersOutsideTheHeap) {
  mount_volume(two_block_fat());
  const uint32_t max = xm->xm_max_cluster;
  ASSERT_EQ(1201u, max);

  for (uint32_t bad : {0u, 1u, max + 1}) {
    xm->xm_flags &= ~XM_CORRUPT;
    uint32_t value = 0xDEADBEEF;
    EXPECT_EQ(EIO, exfat_fat_get_set(EXFAT_FAT_GET, xm, bad, &value, 0)) << bad;
    EXPECT_EQ(0xDEADBEEFu, value) << "nothing is read for cluster " << bad;
    EXPECT_TRUE(xm->xm_flags & XM_CORRUPT) << bad;
    xm->xm_flags &= ~XM_CORRUPT;
    EXPECT_EQ(EIO, exfat_fat_get_set(EXFAT_FAT_SET, xm, bad, nullptr, 7)) << bad;
    EXPECT_TRUE(xm->xm_flags & XM_CORRUPT) << bad;
  }
  xm->xm_flags &= ~XM_CORRUPT;

  // The highest cluster is a data cluster like any other.
  set(max, 0xFFFFFFFF);
  EXPECT_EQ(0xFFFFFFFFu, get(max));
  EXPECT_FALSE(xm->xm_flags & XM_CORRUPT);

  set(40, 41);
  uint32_t old = 0;
  ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET | EXFAT_FAT_SET, xm, 40, &old, 0xFFFFFFFF));
  EXPECT_EQ(41u, old);
  EXPECT_EQ(0xFFFFFFFFu, get(40));
}

// Moving the cache writes the dirty block back first; entries are little-endian.
TEST_F(FatTest, CacheWritesBackADirtyBlockBeforeMovingAndEntriesAreLittleEndian) {
  mount_volume(two_block_fat());
  set(40, 0x01020304);  // block 0
  lck_mtx_lock(xm->xm_fat_lock);
  EXPECT_EQ(0u, xm->xm_fat_cache_offset);
  EXPECT_TRUE(xm->xm_fat_cache_dirty);
  int error = -1;
  uint32_t* entry = exfat_fat_map(xm, 1100, &error);  // block 1
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(0, error);
  EXPECT_EQ(4096u, xm->xm_fat_cache_offset);
  EXPECT_FALSE(xm->xm_fat_cache_dirty) << "the new block starts clean";
  // The entry pointer lies inside the cache at the entry's place.
  EXPECT_EQ(reinterpret_cast<char*>(xm->xm_fat_cache) + (1100 * 4 - 4096),
            reinterpret_cast<char*>(entry));
  lck_mtx_unlock(xm->xm_fat_lock);

  // Back in block 0 the change must come from the page cache, not be lost.
  EXPECT_EQ(0x01020304u, get(40));

  fsync_fat();
  EXPECT_EQ(0x01020304u, disk_entry(40));
  EXPECT_EQ((std::vector<uint8_t>{0x04, 0x03, 0x02, 0x01}),
            read_device(built_.fat_byte_offset() + 40 * 4, 4));
}

// Only the short last block's FAT bytes are written; the FAT vnode doesn't grow.
TEST_F(FatTest, ShortLastBlockIsWrittenWithoutTouchingWhatFollowsTheFat) {
  const uint64_t fat_end = mountable(two_block_fat()).fat_byte_offset() + 5120;
  mount_volume(two_block_fat(), {}, [&](std::vector<uint8_t>& image) {
    std::memset(image.data() + fat_end, kSentinel, 6 * 512);
  });
  ASSERT_EQ(5120u, xm->xm_fat_size);

  // The highest cluster's entry lies in the short block.
  set(1201, 0x11223344);
  set(1100, 0xFFFFFFFF);
  fsync_fat();
  EXPECT_EQ(0x11223344u, disk_entry(1201));
  EXPECT_EQ(0xFFFFFFFFu, disk_entry(1100));
  EXPECT_EQ(std::vector<uint8_t>(6 * 512, kSentinel), read_device(fat_end, 6 * 512));
  EXPECT_EQ(off_t(5120), ubc_getsize(xm->xm_fat_vp)) << "the FAT vnode must not grow";
}

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

// Loops, free entries and clusters past the heap are reported once each,
// mark the volume corrupt and leave the outputs alone.
TEST_F(FatTest, FindLastClusterReportsCorruptChains) {
  mount_volume(two_block_fat(), [](ImageBuilder& b) {
    b.set_fat(10, 11).set_fat(11, 12).set_fat(12, 10);  // a loop
    b.set_fat(20, 21).set_fat(21, 0);                   // a free entry in the chain
    b.set_fat(30, 1202);                                // past xm_max_cluster (1201)
  });
  struct {
    uint32_t start;
    const char* message;
  } cases[] = {
      {10, "exfat_fat_find_last_cluster: Corrupt cluster chain detected"},
      {20, "exfat_fat_find_last_cluster: invalid cluster: 0"},
      {30, "exfat_fat_find_last_cluster: invalid cluster: 1202"},
  };
  for (const auto& c : cases) {
    xm->xm_flags &= ~XM_CORRUPT;
    struct exfat_node n = stand_in_node(xm, c.start);
    uint32_t last = 77;
    uint64_t bytes = 77;
    KernLogCapture log;
    EXPECT_EQ(EIO, exfat_fat_find_last_cluster(&n, &last, &bytes)) << c.start;
    EXPECT_EQ(1u, log.count(c.message)) << c.start;
    EXPECT_EQ(1u, log.lines().size()) << c.start;
    EXPECT_TRUE(xm->xm_flags & XM_CORRUPT) << c.start;
    EXPECT_EQ(77u, last) << "outputs stay unchanged on an error";
    EXPECT_EQ(77u, bytes);
  }
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
