// The allocation bitmap on a mounted volume: marking runs used and free
// across words and blocks, counting free clusters, the free-run searches.

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

TEST_F(BitmapTest, MarkingWorksAcrossWordsAndKeepsTheFreeCount) {
  mount_volume(geometry_with_clusters(512));
  const uint32_t w0 = word(0), w2 = word(2), w3 = word(3);
  const uint32_t free_before = xm->xm_free_clusters;

  // Clusters 31 .. 70 are bits 29 .. 68.
  ASSERT_EQ(0, mark_used(31, 40));
  EXPECT_EQ(w0 | 0xE0000000u, word(0));
  EXPECT_EQ(0xFFFFFFFFu, word(1));
  EXPECT_EQ(w2 | 0x0000001Fu, word(2));
  EXPECT_EQ(w3, word(3));
  EXPECT_EQ(free_before - 40, xm->xm_free_clusters);
  EXPECT_TRUE(xm->xm_bitmap_cache_dirty);

  ASSERT_EQ(0, mark_free(32, 38));  // leaves 31 and 70 in use
  EXPECT_EQ(w0 | 0x20000000u, word(0));
  EXPECT_EQ(0u, word(1));
  EXPECT_EQ(w2 | 0x00000010u, word(2));
  EXPECT_EQ(free_before - 2, xm->xm_free_clusters);

  // A run inside one word.
  ASSERT_EQ(0, mark_used(36, 3));
  EXPECT_EQ(0x0000001Cu, word(1));

  flush_bitmap();
  EXPECT_TRUE(disk_used(31));
  EXPECT_TRUE(disk_used(37));
  EXPECT_FALSE(disk_used(39));
  EXPECT_TRUE(disk_used(70));
}

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

// Everything in use except the stretches 10-12, 20-24 and 40-41.
void three_stretches(ImageBuilder& b) {
  for (uint32_t c = 2; c <= b.geometry().cluster_count + 1; ++c) {
    const bool free = (c >= 10 && c <= 12) || (c >= 20 && c <= 24) || (c >= 40 && c <= 41);
    b.set_allocated(c, !free);
  }
}

TEST_F(BitmapTest, FindFreeStopsAtTheFirstStretchLongEnough) {
  mount_volume(geometry_with_clusters(512), three_stretches);
  using Runs = std::vector<std::pair<uint32_t, uint32_t>>;
  EXPECT_EQ((Runs{{20, 4}, {10, 3}}), find_free(4));
  EXPECT_EQ((Runs{{20, 5}, {10, 3}, {40, 2}}), find_free(6));
  EXPECT_EQ((Runs{{10, 3}}), find_free(3));
  EXPECT_EQ((Runs{{10, 1}}), find_free(1));
  EXPECT_EQ(10u, xm->xm_free_clusters);
  release();

  // Free: 100 .. 513, the end; the last run is measured to the end.
  mount_volume(geometry_with_clusters(512), [](ImageBuilder& b) {
    for (uint32_t c = 2; c < 100; ++c)
      b.set_allocated(c, true);
  });
  EXPECT_EQ((Runs{{100, 50}}), find_free(50));
  EXPECT_EQ((Runs{{100, 414}}), find_free(414));
  EXPECT_EQ((Runs{{100, 414}}), find_free(1000));
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

// Counting ignores the padding bits of the bitmap's last byte (and what
// follows the bitmap file), below 32 clusters and after whole words alike.
TEST_F(BitmapTest, CountingLooksOnlyAtRealBits) {
  for (uint32_t count : {20u, 45u}) {
    SCOPED_TRACE(count);
    uint64_t last_byte = 0;
    mount_volume(
        geometry_with_clusters(count),
        [&](ImageBuilder& b) {
          b.set_allocated(15, true).set_allocated(count + 1, true);  // the last cluster
          last_byte = b.cluster_byte_offset(b.bitmap_cluster()) + count / 8;
        },
        [&](std::vector<uint8_t>& image) {
          image[last_byte] |= static_cast<uint8_t>(0xFF << (count % 8));
          image[last_byte + 1] = 0xFF;
        });
    EXPECT_EQ(count + 1, xm->xm_max_cluster);
    uint32_t expected_free = 0;
    for (uint32_t c = 2; c <= count + 1; ++c)
      expected_free += built_.allocated(c) ? 0 : 1;
    EXPECT_EQ(expected_free, xm->xm_free_clusters);
    release();
  }
}

}  // namespace
