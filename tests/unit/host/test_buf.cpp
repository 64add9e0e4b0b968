// Buffer cache: caching, delayed writes, size changes, eviction, dropping
// and flushing, and file buffers mapped through a file system's blockmap.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "blockmapfs.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host/vnode_slots_private.h"
#include "host_test_util.h"

namespace {

using host_test::device_byte;
using host_test::device_bytes;
using host_test::pattern;

constexpr uint64_t kDevBytes = 1 << 20;

class BufTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(host_memdev_create(kDevBytes, 512, 512, &dev_), 0);
    host_test::load_pattern(dev_, kDevBytes);
  }
  void TearDown() override {
    host_bufcache_set_limit(0);
    host_blkdev_close(dev_);
  }

  host_devstats stats() { return host_test::devstats(dev_); }
  std::vector<uint8_t> dev_bytes(uint64_t off, size_t len) { return device_bytes(dev_, off, len); }
  uint8_t dev_byte(uint64_t off) { return device_byte(dev_, off); }
  static uint8_t* data(buf_t bp) { return reinterpret_cast<uint8_t*>(buf_dataptr(bp)); }
  static bool holds_pattern(buf_t bp, uint64_t dev_off) {
    for (uint32_t i = 0; i < buf_count(bp); i++)
      if (data(bp)[i] != pattern(dev_off + i)) return false;
    return true;
  }
  // A block of `size` bytes filled with `byte` and left as a delayed write.
  static void delayed_write(vnode_t vp, daddr64_t blk, int size, uint8_t byte,
                            int flags = BLK_META) {
    buf_t bp = buf_getblk(vp, blk, size, 0, 0, flags);
    memset(data(bp), byte, size);
    EXPECT_EQ(buf_bdwrite(bp), 0);
  }
  // Whether the block is cached at that size; never reads.
  static bool cached(vnode_t vp, daddr64_t blk, int size) {
    buf_t bp = buf_getblk(vp, blk, size, 0, 0, BLK_META | BLK_ONLYVALID);
    if (bp != nullptr) buf_brelse(bp);
    return bp != nullptr;
  }
  void read_release(daddr64_t blk, int size = 512) {
    buf_t bp = nullptr;
    ASSERT_EQ(buf_meta_bread(dev_, blk, size, NOCRED, &bp), 0);
    buf_brelse(bp);
  }

  vnode_t dev_ = nullptr;
};

// Catches a hit that reads again, sizes of one block mixed up or lost.
TEST_F(BufTest, ReadIsCachedByBlockAndSize) {
  EXPECT_FALSE(cached(dev_, 8, 4096));
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 512));
  EXPECT_EQ(buf_blkno(bp), 8);
  EXPECT_TRUE(buf_flags(bp) & B_META);
  buf_brelse(bp);
  ASSERT_EQ(buf_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 512));
  buf_brelse(bp);
  EXPECT_TRUE(cached(dev_, 8, 4096));
  EXPECT_FALSE(cached(dev_, 8, 1024));  // a cached block of another size is not the one
  EXPECT_EQ(stats().reads, 1u);
  EXPECT_EQ(stats().bytes_read, 4096u);
  EXPECT_EQ(host_bufcache_bytes(), 4096u);

  std::vector<uint8_t> mem(1024);
  ASSERT_EQ(host_test::dev_io(dev_, false, 6, mem.data(), 1024), 0);
  for (int i = 0; i < 1024; i++) ASSERT_EQ(mem[i], pattern(6 * 512 + i)) << i;
  EXPECT_EQ(host_buf_count(dev_), 1);

  // Another size of a block with a delayed write writes it back, then rereads.
  delayed_write(dev_, 0, 512, 0x5A);
  ASSERT_EQ(buf_meta_bread(dev_, 0, 2048, NOCRED, &bp), 0);
  EXPECT_EQ(buf_count(bp), 2048u);
  EXPECT_EQ(data(bp)[511], 0x5A);
  EXPECT_EQ(data(bp)[512], pattern(512));
  EXPECT_FALSE(buf_flags(bp) & B_DELWRI);
  buf_brelse(bp);
  EXPECT_EQ(stats().writes, 1u);
  EXPECT_EQ(stats().reads, 3u);  // with the caller-described one
  EXPECT_EQ(host_buf_count(dev_), 2);
}

// Catches writes that reach the device too early, too late, twice or never.
TEST_F(BufTest, WritesReachTheDeviceWhenTheyShould) {
  buf_t bp = buf_getblk(dev_, 10, 1024, 0, 0, BLK_META);
  buf_clear(bp);
  memcpy(data(bp), "delayed", 7);
  EXPECT_EQ(buf_bdwrite(bp), 0);
  EXPECT_EQ(dev_byte(10 * 512), pattern(10 * 512));
  bp = buf_getblk(dev_, 10, 1024, 0, 0, BLK_META | BLK_ONLYVALID);
  ASSERT_NE(bp, nullptr);
  EXPECT_TRUE(buf_flags(bp) & B_DELWRI);
  EXPECT_EQ(memcmp(data(bp), "delayed", 7), 0);
  buf_brelse(bp);  // still a delayed write after an unchanged release
  EXPECT_EQ(stats().writes, 0u);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  std::vector<uint8_t> disk = dev_bytes(10 * 512, 1024);
  EXPECT_EQ(memcmp(disk.data(), "delayed", 7), 0);
  EXPECT_EQ(disk[1023], 0);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 1u);  // nothing left to write the second time

  delayed_write(dev_, 20, 512, 0x33);
  ASSERT_EQ(buf_meta_bread(dev_, 20, 512, NOCRED, &bp), 0);
  data(bp)[0] = 0x11;
  EXPECT_EQ(buf_bwrite(bp), 0);
  EXPECT_EQ(dev_bytes(20 * 512, 2), (std::vector<uint8_t>{0x11, 0x33}));
  ASSERT_EQ(buf_meta_bread(dev_, 20, 512, NOCRED, &bp), 0);
  data(bp)[1] = 0x22;
  EXPECT_EQ(buf_bawrite(bp), 0);
  EXPECT_EQ(dev_byte(20 * 512 + 1), 0x22);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 3u);  // the written delayed write left the dirty list
  EXPECT_EQ(stats().reads, 0u);   // written buffers stay cached
  EXPECT_EQ(host_buf_count(dev_), 2);

  delayed_write(dev_, 60, 512, 0x66);
  EXPECT_EQ(VNOP_FSYNC(dev_, MNT_WAIT, nullptr), 0);
  EXPECT_EQ(dev_byte(60 * 512), 0x66);
  EXPECT_EQ(stats().flushes, 1u);
}

// Catches invalid buffers kept, and dropping calls that write or drop the wrong blocks.
TEST_F(BufTest, InvalidatingAndDroppingWriteExactlyWhatTheyShould) {
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 40, 512, NOCRED, &bp), 0);
  buf_markinvalid(bp);
  buf_brelse(bp);
  delayed_write(dev_, 41, 512, 0);
  bp = buf_getblk(dev_, 41, 512, 0, 0, BLK_META);
  buf_markinvalid(bp);
  buf_brelse(bp);
  bp = buf_getblk(dev_, 42, 512, 0, 0, BLK_META);
  buf_clear(bp);
  buf_brelse(bp);  // never filled
  EXPECT_EQ(host_buf_count(dev_), 0);
  ASSERT_EQ(buf_meta_bread(dev_, 42, 512, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 42 * 512));
  buf_markinvalid(bp);
  buf_brelse(bp);

  EXPECT_EQ(buf_invalblkno(dev_, 50, BUF_WAIT), 0);  // not cached: nothing to do
  delayed_write(dev_, 100, 512, 0x40);
  delayed_write(dev_, 50, 512, 0x77);
  read_release(200);
  EXPECT_EQ(buf_invalblkno(dev_, 50, BUF_WAIT), 0);
  EXPECT_EQ(host_buf_count(dev_), 2);
  EXPECT_EQ(buf_invalidateblks(dev_, BUF_WRITE_DATA, 0, 0), 0);
  EXPECT_EQ(host_buf_count(dev_), 0);
  EXPECT_EQ(dev_byte(100 * 512), 0x40);
  // Without BUF_WRITE_DATA the delayed writes are lost.
  delayed_write(dev_, 101, 512, 0x41, BLK_READ);
  EXPECT_EQ(buf_invalidateblks(dev_, 0, 0, 0), 0);
  EXPECT_EQ(host_bufcache_bytes(), 0u);
  for (int blk : {41, 50, 101}) EXPECT_EQ(dev_byte(blk * 512), pattern(blk * 512)) << blk;
  EXPECT_EQ(stats().writes, 1u);
}

// Catches eviction out of LRU order, over its bound, of a held buffer, and eviction that
// loses delayed writes or writes them while clean buffers could go.
TEST_F(BufTest, EvictionTakesIdleBuffersLeastRecentlyUsedFirst) {
  host_bufcache_set_limit(4 * 512);
  for (int b = 0; b < 4; b++) read_release(b);
  read_release(0);  // block 1 is now the oldest
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 3, 512, NOCRED, &bp), 0);
  buf_markaged(bp);
  buf_brelse(bp);
  read_release(10);  // evicts the aged block 3
  read_release(11);  // evicts block 1
  EXPECT_EQ(host_bufcache_bytes(), 4u * 512);
  EXPECT_FALSE(cached(dev_, 3, 512));
  EXPECT_FALSE(cached(dev_, 1, 512));
  EXPECT_TRUE(cached(dev_, 0, 512));
  EXPECT_TRUE(cached(dev_, 2, 512));
  EXPECT_EQ(stats().reads, 6u);

  // Held buffers stay, even when that leaves the cache over its bound.
  buf_t held = nullptr, other = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 0, 512, NOCRED, &held), 0);
  host_bufcache_set_limit(512);
  ASSERT_EQ(buf_meta_bread(dev_, 1, 512, NOCRED, &other), 0);
  EXPECT_EQ(host_bufcache_bytes(), 1024u);
  EXPECT_TRUE(holds_pattern(held, 0));
  buf_brelse(other);
  buf_brelse(held);
  host_bufcache_set_limit(1);  // empties the cache

  // Only delayed writes to evict: the oldest is written first.
  host_bufcache_set_limit(2 * 4096);
  for (int b = 0; b < 2; b++) delayed_write(dev_, b * 8, 4096, 0x60 + b);
  read_release(100, 4096);
  EXPECT_EQ(dev_bytes(0, 4096), std::vector<uint8_t>(4096, 0x60));
  EXPECT_EQ(dev_byte(8 * 512), pattern(8 * 512));
  EXPECT_EQ(host_buf_count(dev_), 2);
  // Lowering the bound evicts at once, clean buffers before delayed writes.
  host_bufcache_set_limit(4096);
  EXPECT_FALSE(cached(dev_, 100, 4096));
  EXPECT_EQ(dev_byte(8 * 512), pattern(8 * 512));
  host_bufcache_set_limit(1);
  EXPECT_EQ(host_bufcache_bytes(), 0u);
  EXPECT_EQ(dev_byte(8 * 512), 0x61);
}

// Catches I/O errors swallowed, failed reads cached, failed writes retried
// forever, and data that failed to be written forgotten: a later read must
// find what was last written, not the device's older contents.
TEST_F(BufTest, IoErrorsAreReportedAndFailedWritesKeepTheirData) {
  host_memdev_faults f;
  f.fail_read_bytes = {5 * 512 + 100};
  f.fail_write_bytes = {70 * 512};
  host_memdev_set_faults(dev_, f);
  buf_t bp = nullptr;
  EXPECT_EQ(buf_meta_bread(dev_, 4, 1024, NOCRED, &bp), EIO);
  ASSERT_NE(bp, nullptr);
  EXPECT_EQ(buf_error(bp), EIO);
  buf_brelse(bp);
  EXPECT_FALSE(cached(dev_, 4, 1024));
  ASSERT_EQ(buf_meta_bread(dev_, 70, 512, NOCRED, &bp), 0);
  data(bp)[0] = 0x11;
  EXPECT_EQ(buf_bwrite(bp), EIO);
  ASSERT_EQ(buf_meta_bread(dev_, 70, 512, NOCRED, &bp), 0);
  EXPECT_EQ(data(bp)[0], 0x11);
  buf_brelse(bp);
  delayed_write(dev_, 70, 512, 0x22);
  uint64_t writes = stats().writes;
  EXPECT_EQ(buf_flushdirtyblks(dev_, 1, 0, "test"), EIO);
  EXPECT_EQ(buf_flushdirtyblks(dev_, 1, 0, "test"), 0);
  EXPECT_EQ(stats().writes, writes + 1);  // tried once, then clean
  EXPECT_EQ(dev_byte(70 * 512), pattern(70 * 512));
  ASSERT_EQ(buf_meta_bread(dev_, 70, 512, NOCRED, &bp), 0);
  EXPECT_EQ(data(bp)[0], 0x22);
  buf_brelse(bp);
  delayed_write(dev_, 70, 512, 0);
  EXPECT_EQ(buf_invalidateblks(dev_, BUF_WRITE_DATA, 0, 0), EIO);
  EXPECT_EQ(host_buf_count(dev_), 0);
  // A failed write that nobody waited for (eviction, a block size change)
  // is reported by the next flush of the device, once.
  delayed_write(dev_, 70, 512, 0x33);
  host_bufcache_set_limit(1);
  EXPECT_EQ(host_buf_count(dev_), 0);
  EXPECT_EQ(buf_flushdirtyblks(dev_, 0, 0, "test"), EIO);
  EXPECT_EQ(buf_flushdirtyblks(dev_, 1, 0, "test"), 0);
  host_bufcache_set_limit(0);
  delayed_write(dev_, 70, 512, 0x44);
  ASSERT_EQ(host_test::set_blocksize(dev_, 4096), 0);
  EXPECT_EQ(VNOP_FSYNC(dev_, MNT_WAIT, nullptr), EIO);
  EXPECT_EQ(VNOP_FSYNC(dev_, MNT_WAIT, nullptr), 0);
  ASSERT_EQ(host_test::set_blocksize(dev_, 512), 0);

  host_memdev_set_faults(dev_, host_memdev_faults{});
  ASSERT_EQ(buf_meta_bread(dev_, 4, 1024, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 4 * 512));
  buf_brelse(bp);
}

// Catches a block-size change that misplaces delayed writes or touches held buffers.
TEST_F(BufTest, BlockSizeChangeDropsIdleBuffersOfTheOldSize) {
  delayed_write(dev_, 8, 512, 0x88);
  ASSERT_EQ(host_test::set_blocksize(dev_, 4096), 0);
  // The delayed write went to its old place; block 8 now means byte 32768.
  EXPECT_EQ(dev_byte(8 * 512), 0x88);
  EXPECT_EQ(host_buf_count(dev_), 0);
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 4096));
  buf_brelse(bp);

  // The way a mount changes the size: with the boot buffer still held. The
  // held buffer is left alone (no wait for it), then dropped by its holder.
  ASSERT_EQ(buf_meta_bread(dev_, 0, 4096, NOCRED, &bp), 0);
  ASSERT_EQ(host_test::set_blocksize(dev_, 512), 0);
  EXPECT_TRUE(holds_pattern(bp, 0));
  buf_markinvalid(bp);
  buf_brelse(bp);
  ASSERT_EQ(buf_meta_bread(dev_, 0, 8 * 512, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 0));
  buf_brelse(bp);
}

// A thread taking a buffer it already holds would wait for itself forever.
TEST(BufDeathTest, TakingABufferTwicePanics) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  vnode_t dev = nullptr;
  ASSERT_EQ(host_memdev_create(1 << 16, 512, 512, &dev), 0);
  EXPECT_DEATH(
      {
        buf_getblk(dev, 0, 512, 0, 0, 0);
        buf_getblk(dev, 0, 512, 0, 0, 0);
      },
      "buf_getblk: block 0 of vnode .* is held by the calling thread");
  host_blkdev_close(dev);
}

// --- File buffers mapped through a file system ----------------------------------------

// File buffers of 4096-byte logical blocks on blockmapfs, over a device holding pattern().
class FileBufTest : public BufTest {
 protected:
  void SetUp() override {
    dev_ = fs.devvp();
    host_test::load_pattern(dev_, kDevBytes);
  }
  void TearDown() override { host_bufcache_set_limit(0); }
  BlockMapFs fs{kDevBytes};
};

// Catches one request over discontiguous runs, holes read, buffers filed under the
// device, writes through the read mapping, needless remapping, failed reads cached.
TEST_F(FileBufTest, ReadsFollowTheRunsAndWritesAllocateHoles) {
  bmfs_file* f = fs.create(5 * 4096, {{7, 1}, {50, 1}, {-1, 1}, {20, 2}});
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(f->vp, 1, 16384, NOCRED, &bp), 0);
  for (int i = 0; i < 4096; i++) ASSERT_EQ(data(bp)[i], pattern(50 * 4096 + i)) << i;
  for (int i = 4096; i < 8192; i++) ASSERT_EQ(data(bp)[i], 0) << i;
  for (int i = 8192; i < 16384; i++) ASSERT_EQ(data(bp)[i], pattern(20 * 4096 + i - 8192)) << i;
  EXPECT_EQ(buf_blkno(bp), 50 * 8);
  EXPECT_EQ(buf_lblkno(bp), 1);
  EXPECT_EQ(stats().reads, 2u);  // one request per mapped run
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(f->vp), 1);
  EXPECT_EQ(host_buf_count(dev_), 0);

  bmfs_file* g = fs.create(2 * 4096, {{-1, 2}});
  ASSERT_EQ(buf_meta_bread(g->vp, 0, 8192, NOCRED, &bp), 0);
  EXPECT_EQ(buf_blkno(bp), -1);
  for (int i = 0; i < 8192; i++) ASSERT_EQ(data(bp)[i], 0) << i;
  EXPECT_EQ(stats().reads, 2u);
  memset(data(bp), 0xAB, 8192);
  EXPECT_EQ(buf_bdwrite(bp), 0);
  buf_flushdirtyblks(g->vp, 1, 0, "test");
  EXPECT_TRUE(fs.on_device(g) == std::vector<char>(8192, char(0xAB)));
  // Mapped as one run: a second write goes straight to the allocated blocks.
  ASSERT_EQ(buf_meta_bread(g->vp, 0, 8192, NOCRED, &bp), 0);
  EXPECT_EQ(buf_blkno(bp), kDevBytes / 2 / 512);  // blockmapfs allocates from mid-device
  data(bp)[0] = 0xCD;
  int calls = g->blockmaps;
  EXPECT_EQ(buf_bwrite(bp), 0);
  EXPECT_EQ(g->blockmaps, calls);
  EXPECT_EQ(fs.on_device(g)[0], char(0xCD));
  EXPECT_EQ(stats().writes, 2u);
  bp = nullptr;
  EXPECT_EQ(buf_meta_bread(g->vp, 5, 4096, NOCRED, &bp), EINVAL);  // past the end
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(g->vp), 1);
}

// Eviction must not call blockmap (a lock-order hazard); flush and reclaim write them.
TEST_F(FileBufTest, FileDelayedWritesWaitForTheirFlushOrReclaim) {
  bmfs_file* f = fs.create(16 * 4096, {{100, 16}});
  host_bufcache_set_limit(4096);
  delayed_write(f->vp, 0, 4096, 0x71);
  int calls = f->blockmaps;
  read_release(0, 4096);
  read_release(8, 4096);  // evicts device block 0, not the file's
  EXPECT_EQ(f->blockmaps, calls);
  EXPECT_EQ(host_buf_count(f->vp), 1);
  EXPECT_EQ(host_buf_count(dev_), 1);
  host_bufcache_set_limit(1);
  EXPECT_EQ(host_bufcache_bytes(), 4096u);
  EXPECT_EQ(stats().writes, 0u);
  buf_flushdirtyblks(f->vp, 1, 0, "test");
  EXPECT_EQ(dev_bytes(100 * 4096, 4096), std::vector<uint8_t>(4096, 0x71));
  host_bufcache_set_limit(1);
  EXPECT_EQ(host_bufcache_bytes(), 0u);

  host_bufcache_set_limit(0);
  delayed_write(f->vp, 1, 4096, 0x99);
  vnode_t vp = f->vp;
  ASSERT_EQ(host_buf_count(vp), 1);
  fs.release(f);  // the last reference: reclaimed now
  EXPECT_EQ(host_buf_count(vp), 0);
  EXPECT_EQ(dev_bytes(101 * 4096, 4096), std::vector<uint8_t>(4096, 0x99));
}

}  // namespace
