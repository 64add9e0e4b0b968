// The allocation bitmap on a mounted volume: marking to the end of a block,
// counting free runs, the free-extent table.

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

// 40,000 clusters of 512 bytes: a bitmap of 5,000 bytes, one full block
// (clusters 2 .. 32,769) and a short one.
Geometry two_block_bitmap() {
  return Geometry{.cluster_shift = 0, .cluster_count = 40000};
}

class BitmapTest : public MountTest {
 protected:
  // Bitmap word `index` (32 clusters from cluster 2 + 32 * index) through
  // the cache.
  uint32_t word(uint32_t index) {
    lck_mtx_lock(xm->xm_bitmap_lock);
    int error = 0;
    uint32_t* w = exfat_bitmap_map(xm, index * 32, nullptr, &error);
    EXPECT_NE(nullptr, w) << error;
    uint32_t v = w ? le32dec(w) : 0;
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return v;
  }
  bool used(uint32_t cluster) { return word((cluster - 2) / 32) & (1u << ((cluster - 2) % 32)); }

  int mark_used(uint32_t first, uint32_t count) {
    lck_mtx_lock(xm->xm_bitmap_lock);
    int error = exfat_bitmap_mark_used(xm, first, count);
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return error;
  }
  int mark_free(uint32_t first, uint32_t count) {
    lck_mtx_lock(xm->xm_bitmap_lock);
    int error = exfat_bitmap_mark_free(xm, first, count);
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return error;
  }
  int count_contig(uint32_t first, uint32_t maximum, uint32_t* count) {
    lck_mtx_lock(xm->xm_bitmap_lock);
    int error = exfat_bitmap_count_free_contig(xm, first, maximum, count);
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return error;
  }
  std::vector<std::pair<uint32_t, uint32_t>> find_free(uint32_t wanted) {
    std::vector<struct exfat_free_extent> table(EXFAT_FREE_EXTENTS, {0xEEEEEEEE, 0xEEEEEEEE});
    lck_mtx_lock(xm->xm_bitmap_lock);
    EXPECT_EQ(0, exfat_bitmap_find_free(xm, wanted, table.data()));
    lck_mtx_unlock(xm->xm_bitmap_lock);
    std::vector<std::pair<uint32_t, uint32_t>> runs;
    for (const auto& e : table) {
      if (e.fe_length == 0)
        break;
      runs.emplace_back(e.fe_start, e.fe_length);
    }
    return runs;
  }

  // Writes the bitmap cache and the bitmap file's pages to the device.
  void flush_bitmap() {
    lck_mtx_lock(xm->xm_bitmap_lock);
    ASSERT_EQ(0, exfat_bitmap_cache_flush(xm, 0));
    lck_mtx_unlock(xm->xm_bitmap_lock);
    ASSERT_EQ(0, cluster_push(xm->xm_bitmap_vp, IO_SYNC));
  }
  bool disk_used(uint32_t cluster) {
    const uint32_t bit = cluster - 2;
    uint64_t at = built_.cluster_byte_offset(built_.bitmap_cluster()) + bit / 8;
    return read_device(at, 1)[0] & (1u << (bit % 8));
  }

};

// Marks within one block keep the cache there; crossing a block's end writes
// it back and moves on.
TEST_F(BitmapTest, MarkingExactlyToTheEndOfABlockReadsNoFurtherBlock) {
  mount_volume(two_block_bitmap());
  ASSERT_EQ(5000u, xm->xm_bitmap_size);
  const uint32_t last_of_block = 32769;  // bit 32767

  ASSERT_EQ(0, mark_used(last_of_block - 9, 10));
  EXPECT_EQ(0u, xm->xm_bitmap_cache_offset);
  ASSERT_EQ(0, mark_free(last_of_block - 9, 10));
  ASSERT_EQ(0, mark_used(last_of_block - 31, 32));  // one whole last word
  EXPECT_EQ(0u, xm->xm_bitmap_cache_offset);
  ASSERT_EQ(0, mark_used(last_of_block - 100, 101));  // partial word, words, to the end
  EXPECT_EQ(0u, xm->xm_bitmap_cache_offset);
  EXPECT_EQ(0xFFFFFFFFu, word(1023));

  // Crossing the boundary moves the cache and writes block 0 back.
  ASSERT_EQ(0, mark_free(last_of_block - 3, 10));
  EXPECT_EQ(4096u, xm->xm_bitmap_cache_offset);
  EXPECT_EQ(0x0FFFFFFFu, word(1023));
  EXPECT_FALSE(used(last_of_block + 6));
  flush_bitmap();
  EXPECT_TRUE(disk_used(last_of_block - 4));
  EXPECT_FALSE(disk_used(last_of_block - 3));
}

TEST_F(BitmapTest, CountFreeContigStopsAtUsedClustersLimitsAndTheEnd) {
  mount_volume(geometry_with_clusters(512), [](ImageBuilder& b) {
    b.set_allocated(80, true).set_allocated(300, true);
  });
  const uint32_t max = xm->xm_max_cluster;
  uint32_t n = 0;
  ASSERT_EQ(0, count_contig(31, 1000, &n));
  EXPECT_EQ(49u, n);  // 31 .. 79
  ASSERT_EQ(0, count_contig(34, 1000, &n));  // word-aligned start
  EXPECT_EQ(46u, n);
  ASSERT_EQ(0, count_contig(81, 1000, &n));  // whole free words, then a partial one
  EXPECT_EQ(219u, n);
  ASSERT_EQ(0, count_contig(31, 5, &n));
  EXPECT_EQ(5u, n);
  ASSERT_EQ(0, count_contig(34, 64, &n));  // the limit falls on a word boundary
  EXPECT_EQ(46u, n);
  ASSERT_EQ(0, count_contig(81, 64, &n));
  EXPECT_EQ(64u, n);
  ASSERT_EQ(0, count_contig(80, 1000, &n));
  EXPECT_EQ(0u, n);
  ASSERT_EQ(0, count_contig(max - 1, 10, &n));
  EXPECT_EQ(2u, n);
  ASSERT_EQ(0, count_contig(max, 10, &n));
  EXPECT_EQ(1u, n);

  for (uint32_t bad : {1u, max + 1}) {
    xm->xm_flags &= ~XM_CORRUPT;
    KernLogCapture log;
    EXPECT_EQ(EIO, count_contig(bad, 10, &n));
    EXPECT_EQ(1u, log.count("exfat_bitmap_count_free: cluster " + std::to_string(bad) +
                            " out of range 2.." + std::to_string(max)));
    EXPECT_TRUE(xm->xm_flags & XM_CORRUPT);
  }
  xm->xm_flags &= ~XM_CORRUPT;
}

TEST(ExtentInsert, OrdersByLengthThenClusterAndDropsTheWorst) {
  std::vector<struct exfat_free_extent> t(EXFAT_FREE_EXTENTS, {0, 0});
  exfat_extent_insert(50, 3, t.data());
  exfat_extent_insert(10, 3, t.data());
  exfat_extent_insert(70, 8, t.data());
  exfat_extent_insert(30, 3, t.data());
  exfat_extent_insert(5, 1, t.data());
  auto at = [&](int k) { return std::make_pair(t[k].fe_start, t[k].fe_length); };
  EXPECT_EQ(std::make_pair(70u, 8u), at(0));
  EXPECT_EQ(std::make_pair(10u, 3u), at(1));
  EXPECT_EQ(std::make_pair(30u, 3u), at(2));
  EXPECT_EQ(std::make_pair(50u, 3u), at(3));
  EXPECT_EQ(std::make_pair(5u, 1u), at(4));
  EXPECT_EQ(0u, t[5].fe_length);

  // A full table of runs of 5.
  for (uint32_t k = 0; k < EXFAT_FREE_EXTENTS; ++k)
    t[k] = {1000 + k, 5};
  exfat_extent_insert(2, 4, t.data());
  EXPECT_EQ(5u, t[EXFAT_FREE_EXTENTS - 1].fe_length) << "a shorter run is dropped";
  exfat_extent_insert(5000, 5, t.data());
  EXPECT_EQ(1000u + EXFAT_FREE_EXTENTS - 1, t[EXFAT_FREE_EXTENTS - 1].fe_start)
      << "an equal run at a higher cluster is dropped";
  exfat_extent_insert(999, 5, t.data());
  EXPECT_EQ(999u, t[0].fe_start);
  EXPECT_EQ(1000u + EXFAT_FREE_EXTENTS - 2, t[EXFAT_FREE_EXTENTS - 1].fe_start);
  exfat_extent_insert(7, 9, t.data());
  EXPECT_EQ(std::make_pair(7u, 9u), at(0));
  EXPECT_EQ(std::make_pair(999u, 5u), at(1));
  exfat_extent_insert(1, 5, t.data());  // lands in the last slot
  EXPECT_EQ(std::make_pair(1u, 5u), at(1));
}

}  // namespace
