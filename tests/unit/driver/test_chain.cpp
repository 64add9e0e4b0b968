// Cluster chains on mounted builder images: the all-or-nothing space check
// of an extension and freeing a chain that ends early or loops.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/vfs.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;  // 512-byte sectors, 8 per cluster
constexpr uint32_t kSizeDirty = X_MODIFIED | X_DIRTY | X_STREAM_DIRTY;

class ChainTest : public VolumeTest {
 protected:
  ChainTest() : VolumeTest(geometry_with_clusters(1024)) {}

  // Gives the free clusters of first..last to contiguous filler files.
  void occupy(uint32_t first, uint32_t last) {
    uint32_t c = first;
    while (c <= last) {
      if (builder_.allocated(c)) {
        c++;
        continue;
      }
      uint32_t start = c;
      while (c <= last && !builder_.allocated(c))
        builder_.set_allocated(c++, true);
      FileDesc desc;
      desc.name = u"fill" + std::u16string(1, static_cast<char16_t>(u'A' + fillers_++));
      desc.first_cluster = start;
      desc.data_length = uint64_t(c - start) * kCluster;
      desc.no_fat_chain = true;
      builder_.add_set(builder_.root(), desc);
    }
  }

  // A regular file whose data is the chain through `chain`, in order.
  uint32_t chained_file(const std::u16string& name, const std::vector<uint32_t>& chain,
                        uint64_t size) {
    for (size_t i = 0; i < chain.size(); i++) {
      builder_.set_allocated(chain[i], true);
      builder_.set_fat(chain[i], i + 1 < chain.size() ? chain[i + 1] : EXFAT_FAT_EOC);
    }
    FileDesc desc;
    desc.name = name;
    desc.first_cluster = chain[0];
    desc.data_length = size;
    return builder_.add_set(builder_.root(), desc).offset;
  }

  // Two runs, 40-47 and 60-63, as one file's chain.
  const std::vector<uint32_t> kTwoRuns = {40, 41, 42, 43, 44, 45, 46, 47, 60, 61, 62, 63};

  // Mounts the volume with a file "f" whose data is `chain`; its node.
  struct exfat_node* mounted_chained_file(const std::vector<uint32_t>& chain) {
    uint32_t f = chained_file(u"f", chain, chain.size() * kCluster);
    mount_built();
    return get_node(f);
  }

  int truncate(struct exfat_node* node, uint64_t size, int flags = 0) {
    exfat_node_lock(node);
    int error = exfat_truncate(node, size, flags, ctx_);
    exfat_node_unlock(node);
    return error;
  }

  int fillers_ = 0;
};

class ChainGrowthTest : public ChainTest {
 protected:
  // Clusters 500 .. 499 + `tail` are free, as are the gaps 100-108 and
  // 200-204; the rest of the volume is owned.
  void shape(uint32_t tail) {
    occupy(2, 99);
    occupy(109, 199);
    occupy(205, 499);
    occupy(500 + tail, 1025);
  }
};

// All-or-nothing beyond the free space (or without memory for the free-run
// table) changes nothing; otherwise the file keeps what there was.
TEST_F(ChainTest, ExtensionBeyondTheFreeSpace) {
  uint32_t f = empty_file(u"f");
  mount_built();
  struct exfat_node* node = get_node(f);
  ASSERT_NE(nullptr, node);
  const uint32_t free_clusters = xm->xm_free_clusters;
  const uint32_t flags = node->x_flags;

  EXPECT_EQ(ENOSPC, truncate(node, uint64_t(free_clusters + 1) * kCluster, IO_UNIT));
  exfat_node_lock(node);
  lck_mtx_lock(xm->xm_bitmap_lock);
  EXPECT_EQ(ENOSPC, exfat_file_extend(node, uint64_t(free_clusters) * kCluster + 1, IO_UNIT));
  lck_mtx_unlock(xm->xm_bitmap_lock);
  exfat_node_unlock(node);
  EXPECT_EQ(0u, node->x_size);
  EXPECT_EQ(0u, node->x_start_cluster);
  EXPECT_EQ(flags, node->x_flags);
  EXPECT_EQ(free_clusters, xm->xm_free_clusters);

  // A free count above what the bitmap holds lets an all-or-nothing size
  // past the check; what it took before running short is given back.
  for (uint64_t from : {uint64_t(0), uint64_t(3 * kCluster + 5)}) {
    if (from != 0) {
      ASSERT_EQ(0, truncate(node, from));
    }
    const uint32_t before = xm->xm_free_clusters;
    xm->xm_free_clusters += 3;
    EXPECT_EQ(ENOSPC, truncate(node, uint64_t(before + 3) * kCluster + from, IO_UNIT)) << from;
    xm->xm_free_clusters -= 3;
    EXPECT_EQ(from, node->x_size);
    EXPECT_EQ(before, xm->xm_free_clusters) << from;
    EXPECT_EQ(from == 0 ? 0u : node->x_start_cluster + 3, node->x_last_cluster);
    if (from != 0) {
      ASSERT_EQ(0, truncate(node, 0));
    }
  }
  // What the cut gave back is free once the node's entry is written.
  exfat_pending_release(xm, node);
  settle_frees();

  exfat_node_lock(node);
  lck_mtx_lock(xm->xm_bitmap_lock);
  host_malloc_fail_nth(1);
  EXPECT_EQ(ENOMEM, exfat_file_extend(node, kCluster, 0));
  host_malloc_fail_nth(0);
  lck_mtx_unlock(xm->xm_bitmap_lock);
  exfat_node_unlock(node);
  EXPECT_EQ(0u, node->x_size);
  EXPECT_EQ(0u, node->x_start_cluster);
  EXPECT_EQ(free_clusters, xm->xm_free_clusters);

  EXPECT_EQ(ENOSPC, truncate(node, uint64_t(free_clusters + 1) * kCluster + 7));
  EXPECT_EQ(uint64_t(free_clusters) * kCluster, node->x_size);
  EXPECT_EQ(0u, xm->xm_free_clusters);
  EXPECT_TRUE(node->x_flags & X_STREAM_DIRTY);

  update(node);
  unmount_and_check();
}

// Clusters a truncation gives back stay allocated, their chain uncut, until
// the file's entry is written; the file takes its own back when it grows;
// cuts that overlap are freed once; a FAT read failure frees nothing.
TEST_F(ChainTest, FreedClustersWaitForTheirOwnersEntry) {
  const std::vector<uint32_t> chain = kTwoRuns;
  struct exfat_node* node = mounted_chained_file(chain);
  ASSERT_NE(nullptr, node);
  const uint32_t free_before = free_clusters();

  ASSERT_EQ(0, truncate(node, 2 * kCluster));
  settle_frees();
  EXPECT_EQ(free_before, free_clusters()) << "the entry on disk still names them";
  for (uint32_t c : chain)
    EXPECT_TRUE(used(c)) << c;
  EXPECT_EQ(42u, fat(41)) << "the end mark waits with the tail";
  // A lookup's cached run stops at the end of the file: the tail still
  // linked after it is relinked elsewhere when the file grows from a run
  // other than its own tail, and a cached run over it would then map the
  // file's new clusters to the old tail's.
  lck_mtx_lock(xm->xm_fat_lock);
  node->x_extent_length = 0;  // the lookup walks the chain
  lck_mtx_unlock(xm->xm_fat_lock);
  uint64_t sector = 0;
  ASSERT_EQ(0, exfat_blockmap(node, 1, 1, &sector, nullptr, nullptr));
  EXPECT_EQ(2u, node->x_extent_index + node->x_extent_length);

  ASSERT_EQ(0, truncate(node, 5 * kCluster));
  EXPECT_EQ(44u, node->x_last_cluster) << "its own tail comes back";
  EXPECT_EQ(free_before, free_clusters());

  ASSERT_EQ(0, truncate(node, 3 * kCluster));
  ASSERT_EQ(0, truncate(node, 0));
  exfat_pending_release(xm, node);  // as exfat_node_update does
  settle_frees();
  EXPECT_EQ(free_before + chain.size(), free_clusters()) << "each cluster freed once";
  for (uint32_t c : chain)
    EXPECT_FALSE(used(c)) << c;
  EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
}

// A tail in the batch being freed is the batch's: a further cut of the file
// walks only to it, so that growing back takes only what the file may keep
// and the batch still frees the tail (and writes no end mark into the
// file's grown chain).
TEST_F(ChainTest, TailsInFlightAreNotWalkedAgain) {
  const std::vector<uint32_t> chain = kTwoRuns;
  struct exfat_node* node = mounted_chained_file(chain);
  ASSERT_NE(nullptr, node);

  ASSERT_EQ(0, truncate(node, 8 * kCluster));
  exfat_pending_release(xm, node);  // its entry is written
  struct exfat_pending_free batch[EXFAT_PENDING_FREES];
  uint32_t n = exfat_pending_take(xm, batch);
  ASSERT_EQ(1u, n) << "the tail 60-63 is in flight";
  ASSERT_EQ(0, truncate(node, 4 * kCluster));
  ASSERT_EQ(0, truncate(node, 12 * kCluster));
  exfat_pending_finish(xm, batch, n, "test");

  uint32_t c = 40;
  for (uint32_t i = 0; i < 12; i++) {
    ASSERT_TRUE(c >= 40 && c < 60) << "cluster " << i << " of the file is " << c;
    EXPECT_TRUE(used(c)) << c;
    c = fat(c);
  }
  EXPECT_EQ(EXFAT_FAT_EOC, c);
  for (uint32_t t = 60; t <= 63; t++)
    EXPECT_FALSE(used(t)) << t;
  EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
  update(node);
  unmount_and_check();
}

// Freeing follows the chain only, to any end mark; a loop is reported as
// corruption instead of being freed for ever.
TEST_F(ChainTest, ChainFreeFollowsTheChainOnly) {
  for (uint32_t c : {40u, 41u, 42u, 43u, 60u, 61u, 62u, 90u, 91u})
    builder_.set_allocated(c, true);
  builder_.set_fat(40, 41).set_fat(41, 42).set_fat(42, 60).set_fat(60, 61).set_fat(61, EXFAT_FAT_BAD);
  builder_.set_fat(43, 44).set_fat(62, 63);
  builder_.set_fat(90, 91).set_fat(91, 90);
  mount_built();
  uint32_t free_before = xm->xm_free_clusters;
  KernLogCapture log;

  lck_mtx_lock(xm->xm_bitmap_lock);
  lck_mtx_lock(xm->xm_fat_lock);
  EXPECT_EQ(0, exfat_chain_free(xm, 40));
  EXPECT_EQ(0, exfat_chain_free(xm, 1)) << "no chain";
  EXPECT_EQ(free_before + 5, xm->xm_free_clusters);
  EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
  EXPECT_EQ(EIO, exfat_chain_free(xm, 90));
  lck_mtx_assert(xm->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_unlock(xm->xm_fat_lock);
  lck_mtx_unlock(xm->xm_bitmap_lock);

  EXPECT_TRUE(xm->xm_flags & XM_CORRUPT);
  EXPECT_EQ(1u, log.count("exfat_chain_free: corrupt cluster chain detected"));
  for (uint32_t c : {40u, 41u, 42u, 60u, 61u})
    EXPECT_FALSE(used(c)) << c;
  EXPECT_TRUE(used(43));
  EXPECT_TRUE(used(62));
}

// A chain given back while its owner still names it is walked as the
// immediate free walks it: a loop is corruption and nothing of it is
// freed; a chain's clusters stay used until the owner lets go.
TEST_F(ChainTest, HeldChainFreeWalksAsTheImmediateFreeDoes) {
  for (uint32_t c : {40u, 41u, 42u, 60u, 90u, 91u})
    builder_.set_allocated(c, true);
  builder_.set_fat(40, 41).set_fat(41, 42).set_fat(42, 60).set_fat(60, EXFAT_FAT_EOC);
  builder_.set_fat(90, 91).set_fat(91, 90);
  mount_built();
  struct exfat_node owner = stand_in_node(xm, 0);
  const uint32_t free_before = xm->xm_free_clusters;
  KernLogCapture log;

  lck_mtx_lock(xm->xm_bitmap_lock);
  lck_mtx_lock(xm->xm_fat_lock);
  EXPECT_EQ(0, exfat_free_chain(xm, 40, 0, &owner, nullptr));
  EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
  EXPECT_NE(0, exfat_free_chain(xm, 90, 0, &owner, nullptr));
  lck_mtx_unlock(xm->xm_fat_lock);
  lck_mtx_unlock(xm->xm_bitmap_lock);
  EXPECT_TRUE(xm->xm_flags & XM_CORRUPT);
  EXPECT_EQ(1u, log.count("exfat_chain_free: corrupt cluster chain detected"));
  for (uint32_t c : {40u, 41u, 42u, 60u})
    EXPECT_TRUE(used(c)) << c << " is still named by its owner";

  exfat_pending_release(xm, &owner);
  settle_frees();
  EXPECT_EQ(free_before + 4, xm->xm_free_clusters);
  for (uint32_t c : {40u, 41u, 42u, 60u})
    EXPECT_FALSE(used(c)) << c;
  EXPECT_TRUE(used(90));
  EXPECT_TRUE(used(91));
}

}  // namespace
