// The one-block FAT cache, the walk to a file's last cluster, and the FAT
// vnode's paging, block mapping and fsync, on a mounted volume.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/ubc.h"
#include "host/uio.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/mount_fixture.h"

using namespace exvol::test;

namespace {

// 1,200 clusters of 512 bytes: a FAT of one 4 KiB block and a short one of
// 1 KiB, followed by six spare sectors that can hold a sentinel.
Geometry two_block_fat() {
  Geometry g;
  g.sector_shift = 9;
  g.cluster_shift = 0;
  g.cluster_count = 1200;
  g.heap_offset = 24 + 10 + 6;
  return g;
}

constexpr uint8_t kSentinel = 0xA5;

class FatTest : public MountTest {
 protected:
  // Mounts a standard volume of geometry g; `edit` may change the builder
  // (FAT chains) before the image is made.
  void mount_volume(const Geometry& g, const std::function<void(ImageBuilder&)>& edit = {}) {
    ImageBuilder b(g);
    b.add_bitmap_entry().add_upcase_entry();
    if (edit)
      edit(b);
    std::vector<uint8_t> image = b.build();
    fat_byte_offset_ = b.fat_byte_offset();
    ASSERT_EQ(0, load(image));
    ASSERT_EQ(0, mount());
  }

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
    return le32dec(read_device(fat_byte_offset_ + 4ull * cluster, 4).data());
  }

  // Writes the FAT cache and the FAT vnode's pages to the device.
  void fsync_fat() { ASSERT_EQ(0, VNOP_FSYNC(xm->xm_fat_vp, MNT_WAIT, vfs_context_kernel())); }

  // Writes everything out and drops the FAT vnode's pages and the FAT cache,
  // so that the next access must read the device.
  void drop_fat_caches() {
    fsync_fat();
    lck_mtx_lock(xm->xm_fat_lock);
    xm->xm_fat_cache_offset = EXFAT_CACHE_NONE;
    lck_mtx_unlock(xm->xm_fat_lock);
    ASSERT_EQ(0, ubc_msync(xm->xm_fat_vp, 0, xm->xm_fat_size, nullptr,
                           UBC_PUSHDIRTY | UBC_SYNC | UBC_INVALIDATE));
  }

  uint64_t device_reads() {
    host_devstats s{};
    host_blkdev_stats(devvp, &s);
    return s.reads;
  }

  uint64_t fat_byte_offset_ = 0;
};

// A stand-in node for the walks that only look at the allocation fields.
struct exfat_node chained_node(struct exfat_mount* xm, uint32_t start, uint64_t size) {
  struct exfat_node n {};
  n.x_mount = xm;
  n.x_start_cluster = start;
  n.x_size = size;
  return n;
}

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
            read_device(fat_byte_offset_ + 40 * 4, 4));
}

// Only the short last block's FAT bytes are written; the FAT vnode doesn't grow.
TEST_F(FatTest, ShortLastBlockIsWrittenWithoutTouchingWhatFollowsTheFat) {
  Geometry g = two_block_fat();
  ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry();
  std::vector<uint8_t> image = b.build();
  fat_byte_offset_ = b.fat_byte_offset();
  const uint64_t fat_end = fat_byte_offset_ + 5120;
  std::memset(image.data() + fat_end, kSentinel, 6 * 512);
  ASSERT_EQ(0, load(image));
  ASSERT_EQ(0, mount());
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

// A cache move whose write-back or read fails leaves the cache empty, so the
// next access reads the block again.
TEST_F(FatTest, FailedCacheMovesEmptyTheCacheAndTheNextAccessRereads) {
  mount_volume(two_block_fat(), [](ImageBuilder& b) { b.set_fat(1100, 0xFFFFFFFF); });
  set(40, 0xFFFFFFFF);
  fsync_fat();
  set(40, 41);  // dirty, never written

  lck_mtx_lock(xm->xm_fat_lock);
  // The write-back's request record is the next allocation; it fails.
  host_malloc_fail_nth(1);
  int error = 0;
  EXPECT_EQ(nullptr, exfat_fat_map(xm, 1100, &error));
  host_malloc_fail_nth(0);
  EXPECT_EQ(ENOMEM, error);
  EXPECT_EQ(EXFAT_CACHE_NONE, xm->xm_fat_cache_offset);
  EXPECT_FALSE(xm->xm_fat_cache_dirty);
  lck_mtx_unlock(xm->xm_fat_lock);

  // The change is dropped with the block; the entry is read again.
  EXPECT_EQ(0xFFFFFFFFu, get(40));

  drop_fat_caches();
  host_memdev_faults faults;
  faults.fail_read_bytes = {fat_byte_offset_ + 4096};
  host_memdev_set_faults(devvp, faults);
  lck_mtx_lock(xm->xm_fat_lock);
  EXPECT_EQ(nullptr, exfat_fat_map(xm, 1100, &error));
  EXPECT_NE(0, error);
  EXPECT_EQ(EXFAT_CACHE_NONE, xm->xm_fat_cache_offset);
  lck_mtx_unlock(xm->xm_fat_lock);
  host_memdev_set_faults(devvp, host_memdev_faults{});
  EXPECT_EQ(0xFFFFFFFFu, get(1100));
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

  struct exfat_node a = chained_node(xm, 10, 0);
  uint32_t last = 0;
  uint64_t bytes = 0;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&a, &last, &bytes));
  EXPECT_EQ(12u, last);
  EXPECT_EQ(3 * bpc, bytes);

  struct exfat_node b = chained_node(xm, 20, 0);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&b, &last, nullptr));
  EXPECT_EQ(21u, last);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&b, nullptr, &bytes));
  EXPECT_EQ(2 * bpc, bytes);

  struct exfat_node c = chained_node(xm, 30, 0);
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&c, &last, &bytes));
  EXPECT_EQ(30u, last);
  EXPECT_EQ(bpc, bytes);

  struct exfat_node empty = chained_node(xm, 0, 0);
  last = 99;
  bytes = 99;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&empty, &last, &bytes));
  EXPECT_EQ(0u, last);
  EXPECT_EQ(0u, bytes);

  struct exfat_node resumed = chained_node(xm, 40, 0);
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
    struct exfat_node n = chained_node(xm, c.start, 0);
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

// A FAT read error during the walk is reported with its error.
TEST_F(FatTest, FindLastClusterReportsFatReadErrors) {
  mount_volume(two_block_fat(), [](ImageBuilder& b) {
    b.set_fat(1100, 1101).set_fat(1101, 0xFFFFFFFF);
  });
  drop_fat_caches();
  host_memdev_faults faults;
  faults.fail_read_bytes = {fat_byte_offset_ + 4096};
  host_memdev_set_faults(devvp, faults);

  struct exfat_node n = chained_node(xm, 1100, 0);
  KernLogCapture log;
  const int error = exfat_fat_find_last_cluster(&n, nullptr, nullptr);
  EXPECT_NE(0, error);
  EXPECT_EQ(1u, log.count("exfat_fat_find_last_cluster: error " + std::to_string(error) +
                          " from exfat_fat_map"));
  host_memdev_set_faults(devvp, host_memdev_faults{});
}

// A contiguous file is answered from its size, without FAT access.
TEST_F(FatTest, ContiguousFilesAreAnsweredWithoutTheFat) {
  Geometry g;
  g.sector_shift = 9;
  g.cluster_shift = 6;  // 32 KiB clusters
  g.cluster_count = 64;
  mount_volume(g);
  drop_fat_caches();
  const uint64_t reads = device_reads();

  struct exfat_node n = chained_node(xm, 40, 1);
  n.x_flags = X_CONTIGUOUS;
  uint32_t last = 0;
  uint64_t bytes = 0;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&n, &last, &bytes));
  EXPECT_EQ(40u, last);
  EXPECT_EQ(32768u, bytes);

  n.x_size = 3 * 32768ull + 1;
  ASSERT_EQ(0, exfat_fat_find_last_cluster(&n, &last, &bytes));
  EXPECT_EQ(43u, last);
  EXPECT_EQ(4 * 32768ull, bytes);

  EXPECT_EQ(EXFAT_CACHE_NONE, xm->xm_fat_cache_offset);
  EXPECT_EQ(reads, device_reads());
}

class FatVnodeTest : public FatTest {
 protected:
  // A vnode with the FAT vnode's operations over `size` bytes from
  // `first_sector`: a FAT length no boot sector can give.
  vnode_t make_fat_vnode(uint32_t first_sector, uint32_t size) {
    auto* fnode = static_cast<struct exfat_fat_node*>(
        OSMalloc(sizeof(struct exfat_fat_node), exfat_malloc_tag));
    fnode->xf_mount = xm;
    fnode->xf_fat_offset = first_sector;
    fnode->xf_fat_size = size;
    struct vnode_fsparam p = {};
    p.vnfs_mp = xm->xm_mp;
    p.vnfs_vtype = VREG;
    p.vnfs_str = "exfat";
    p.vnfs_fsnode = fnode;
    p.vnfs_vops = exfat_fat_vnodeop_p;
    p.vnfs_marksystem = 1;
    p.vnfs_filesize = size;
    p.vnfs_flags = VNFS_CANTCACHE;
    vnode_t vp = nullptr;
    EXPECT_EQ(0, vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, &vp));
    return vp;
  }
};

// The FAT's last page reads zeros past the FAT; later pages are refused.
TEST_F(FatVnodeTest, PageinZeroFillsPastTheEndOfTheFatAndRefusesPagesPastIt) {
  mount_volume(two_block_fat());
  const uint32_t first_sector = 600;
  std::vector<uint8_t> pattern(12288);
  for (size_t i = 0; i < pattern.size(); ++i)
    pattern[i] = static_cast<uint8_t>(i * 7 + 1);
  ASSERT_EQ(0, host_memdev_load(devvp, pattern.data(), pattern.size(), first_sector * 512ull));

  vnode_t vp = make_fat_vnode(first_sector, 10000);
  ASSERT_NE(nullptr, vp);
  EXPECT_EQ(0, VNOP_PAGEIN(vp, nullptr, 0, 8192, 4096, 0, vfs_context_kernel()));
  uintptr_t page = 0;
  ASSERT_EQ(0, ubc_page_fault(vp, 8192, 0, &page));
  const uint8_t* p = reinterpret_cast<const uint8_t*>(page);
  EXPECT_EQ(0, std::memcmp(p, pattern.data() + 8192, 10000 - 8192));
  EXPECT_EQ(std::vector<uint8_t>(12288 - 10000, 0), std::vector<uint8_t>(p + 1808, p + 4096));
  ubc_page_unpin(vp, 8192);

  EXPECT_EQ(EINVAL, VNOP_PAGEIN(vp, nullptr, 0, 12288, 4096, 0, vfs_context_kernel()));
  EXPECT_EQ(EINVAL, VNOP_PAGEIN(vp, nullptr, 0, 4096, 100, 0, vfs_context_kernel()));
  EXPECT_EQ(EINVAL, VNOP_PAGEOUT(vp, nullptr, 0, 12288, 4096, 0, vfs_context_kernel()));
  // A page already resident needs no I/O.
  EXPECT_EQ(0, VNOP_PAGEIN(vp, nullptr, 0, 8192, 4096, 0, vfs_context_kernel()));
  vnode_put(vp);  // reclaim frees the node
}

// FAT offsets map to sectors by arithmetic; runs are cut at the FAT's end.
TEST_F(FatVnodeTest, BlockmapIsArithmeticAndStopsAtTheEndOfTheFat) {
  mount_volume(two_block_fat());
  vnode_t vp = make_fat_vnode(2048, 10000);
  ASSERT_NE(nullptr, vp);
  daddr64_t bpn = 0;
  size_t run = 0;
  int poff = -1;
  ASSERT_EQ(0, VNOP_BLOCKMAP(vp, 1000, 4096, &bpn, &run, &poff, VNODE_READ, vfs_context_kernel()));
  EXPECT_EQ(2049, bpn);
  EXPECT_EQ(4096u, run);
  EXPECT_EQ(488, poff);

  ASSERT_EQ(0, VNOP_BLOCKMAP(vp, 8192, 4096, &bpn, &run, &poff, VNODE_WRITE, vfs_context_kernel()));
  EXPECT_EQ(2048 + 16, bpn);
  EXPECT_EQ(10000u - 8192u, run);
  EXPECT_EQ(0, poff);

  EXPECT_EQ(0, VNOP_BLOCKMAP(vp, 0, 4096, nullptr, &run, &poff, VNODE_READ, vfs_context_kernel()));
  vnode_put(vp);
}

// Fsync writes the cache, then pushes the pages; a failed write-back is
// reported and leaves the block dirty.
TEST_F(FatVnodeTest, FsyncWritesTheCacheThenPushesThePages) {
  mount_volume(two_block_fat());
  set(50, 51);
  set(1100, 1101);  // moves the cache: block 0 goes to the page cache only
  EXPECT_NE(51u, disk_entry(50));
  EXPECT_TRUE(xm->xm_fat_cache_dirty);

  fsync_fat();
  EXPECT_FALSE(xm->xm_fat_cache_dirty);
  EXPECT_EQ(51u, disk_entry(50));
  EXPECT_EQ(1101u, disk_entry(1100));
  EXPECT_EQ(0u, host_ubc_vnode_dirty_pages(xm->xm_fat_vp));

  // With a clean cache, fsync only pushes the pages.
  lck_mtx_lock(xm->xm_fat_lock);
  ASSERT_EQ(0, exfat_fat_get_set_internal(EXFAT_FAT_SET, xm, 60, nullptr, 61));
  ASSERT_EQ(0, exfat_fat_cache_flush(xm, 0));
  lck_mtx_unlock(xm->xm_fat_lock);
  EXPECT_EQ(1u, host_ubc_vnode_dirty_pages(xm->xm_fat_vp));
  fsync_fat();
  EXPECT_EQ(61u, disk_entry(60));
  EXPECT_EQ(0u, host_ubc_vnode_dirty_pages(xm->xm_fat_vp));

  set(50, 52);
  host_memdev_faults faults;
  faults.fail_write_bytes = {fat_byte_offset_};
  host_memdev_set_faults(devvp, faults);
  EXPECT_NE(0, VNOP_FSYNC(xm->xm_fat_vp, MNT_WAIT, vfs_context_kernel()));
  EXPECT_TRUE(xm->xm_fat_cache_dirty) << "a failed write-back leaves the block dirty";
  host_memdev_set_faults(devvp, host_memdev_faults{});
  fsync_fat();
  EXPECT_EQ(52u, disk_entry(50));
}

}  // namespace
