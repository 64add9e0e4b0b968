// Buffer cache: caching, delayed writes, size changes, eviction, dropping
// and flushing, and file buffers mapped through a file system's blockmap.

#include <gtest/gtest.h>


#include <algorithm>
#include <cstring>
#include <vector>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host/vnode_internal.h"

namespace {

constexpr uint64_t kDevBytes = 1 << 20;

// The byte a freshly made device holds at `off`: differs between
// neighbouring bytes and between blocks.
uint8_t pattern(uint64_t off) { return static_cast<uint8_t>(off * 7 + off / 512); }

class BufTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(host_memdev_create(kDevBytes, 512, 512, &dev_), 0);
    std::vector<uint8_t> img(kDevBytes);
    for (uint64_t i = 0; i < kDevBytes; i++) img[i] = pattern(i);
    ASSERT_EQ(host_memdev_load(dev_, img.data(), img.size(), 0), 0);
    host_blkdev_reset_stats(dev_);
  }
  void TearDown() override {
    host_bufcache_set_limit(0);
    host_blkdev_close(dev_);
  }

  host_devstats stats() {
    host_devstats s;
    host_blkdev_stats(dev_, &s);
    return s;
  }
  std::vector<uint8_t> device_bytes(uint64_t off, size_t len) {
    std::vector<uint8_t> v(len);
    EXPECT_EQ(host_memdev_read(dev_, v.data(), len, off), 0);
    return v;
  }
  static uint8_t* data(buf_t bp) { return reinterpret_cast<uint8_t*>(buf_dataptr(bp)); }
  static bool holds_pattern(buf_t bp, uint64_t dev_off) {
    for (uint32_t i = 0; i < buf_count(bp); i++)
      if (data(bp)[i] != pattern(dev_off + i)) return false;
    return true;
  }

  vnode_t dev_ = nullptr;
};

TEST_F(BufTest, ReadIsCachedAndServedWithoutDeviceIO) {
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 512));
  EXPECT_EQ(buf_count(bp), 4096u);
  EXPECT_EQ(buf_resid(bp), 0u);
  EXPECT_EQ(buf_blkno(bp), 8);
  EXPECT_EQ(buf_lblkno(bp), 8);
  EXPECT_EQ(buf_vnode(bp), dev_);
  EXPECT_EQ(buf_device(bp), vnode_specrdev(dev_));
  EXPECT_TRUE(buf_flags(bp) & B_META);
  buf_brelse(bp);
  EXPECT_EQ(stats().reads, 1u);
  EXPECT_EQ(stats().bytes_read, 4096u);

  ASSERT_EQ(buf_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 512));
  buf_brelse(bp);
  EXPECT_EQ(stats().reads, 1u);
  EXPECT_EQ(host_buf_count(dev_), 1);
  EXPECT_EQ(host_bufcache_bytes(), 4096u);
}

TEST_F(BufTest, OnlyValidFindsCachedBlocksWithoutReading) {
  EXPECT_EQ(buf_getblk(dev_, 3, 512, 0, 0, BLK_META | BLK_ONLYVALID), nullptr);
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 3, 512, NOCRED, &bp), 0);
  buf_brelse(bp);
  bp = buf_getblk(dev_, 3, 512, 0, 0, BLK_META | BLK_ONLYVALID);
  ASSERT_NE(bp, nullptr);
  EXPECT_TRUE(holds_pattern(bp, 3 * 512));
  EXPECT_FALSE(buf_flags(bp) & B_DELWRI);
  buf_brelse(bp);
  // A cached block of another size is not the one asked for.
  EXPECT_EQ(buf_getblk(dev_, 3, 1024, 0, 0, BLK_META | BLK_ONLYVALID), nullptr);
  EXPECT_EQ(stats().reads, 1u);
}

TEST_F(BufTest, DelayedWriteStaysCachedUntilFlushed) {
  buf_t bp = buf_getblk(dev_, 10, 1024, 0, 0, BLK_META);
  buf_clear(bp);
  memcpy(data(bp), "delayed", 7);
  EXPECT_EQ(buf_bdwrite(bp), 0);
  EXPECT_EQ(stats().writes, 0u);
  EXPECT_EQ(device_bytes(10 * 512, 1)[0], pattern(10 * 512));

  bp = buf_getblk(dev_, 10, 1024, 0, 0, BLK_META | BLK_ONLYVALID);
  ASSERT_NE(bp, nullptr);
  EXPECT_TRUE(buf_flags(bp) & B_DELWRI);
  EXPECT_EQ(memcmp(data(bp), "delayed", 7), 0);
  buf_brelse(bp);  // still a delayed write after an unchanged release

  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 1u);
  std::vector<uint8_t> disk = device_bytes(10 * 512, 1024);
  EXPECT_EQ(memcmp(disk.data(), "delayed", 7), 0);
  EXPECT_EQ(disk[1023], 0);

  bp = buf_getblk(dev_, 10, 1024, 0, 0, BLK_META | BLK_ONLYVALID);
  ASSERT_NE(bp, nullptr);
  EXPECT_FALSE(buf_flags(bp) & B_DELWRI);
  buf_brelse(bp);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 1u);  // nothing left to write
}

TEST_F(BufTest, SynchronousAndAsynchronousWritesReachTheDevice) {
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 20, 512, NOCRED, &bp), 0);
  data(bp)[0] = 0x11;
  EXPECT_EQ(buf_bwrite(bp), 0);
  EXPECT_EQ(device_bytes(20 * 512, 1)[0], 0x11);

  ASSERT_EQ(buf_meta_bread(dev_, 20, 512, NOCRED, &bp), 0);
  EXPECT_EQ(data(bp)[0], 0x11);
  data(bp)[1] = 0x22;
  EXPECT_EQ(buf_bawrite(bp), 0);
  EXPECT_EQ(device_bytes(20 * 512 + 1, 1)[0], 0x22);
  EXPECT_EQ(stats().reads, 1u);
  EXPECT_EQ(stats().writes, 2u);
  EXPECT_EQ(host_buf_count(dev_), 1);  // a written buffer stays cached
}

TEST_F(BufTest, WritingADelayedWriteTakesItOffTheDirtyList) {
  buf_t bp = buf_getblk(dev_, 30, 512, 0, 0, BLK_META);
  memset(data(bp), 0x33, 512);
  buf_bdwrite(bp);
  bp = buf_getblk(dev_, 30, 512, 0, 0, BLK_META | BLK_ONLYVALID);
  ASSERT_NE(bp, nullptr);
  ASSERT_TRUE(buf_flags(bp) & B_DELWRI);
  EXPECT_EQ(buf_bwrite(bp), 0);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 1u);
}

TEST_F(BufTest, AnotherSizeWritesTheDirtyBlockBackAndRereads) {
  buf_t bp = buf_getblk(dev_, 0, 512, 0, 0, BLK_META);
  memset(data(bp), 0x5A, 512);
  buf_bdwrite(bp);

  ASSERT_EQ(buf_meta_bread(dev_, 0, 2048, NOCRED, &bp), 0);
  EXPECT_EQ(buf_count(bp), 2048u);
  EXPECT_EQ(data(bp)[0], 0x5A);
  EXPECT_EQ(data(bp)[511], 0x5A);
  EXPECT_EQ(data(bp)[512], pattern(512));
  EXPECT_FALSE(buf_flags(bp) & B_DELWRI);
  buf_brelse(bp);
  EXPECT_EQ(stats().writes, 1u);
  EXPECT_EQ(stats().reads, 1u);
  EXPECT_EQ(host_buf_count(dev_), 1);
  EXPECT_EQ(host_bufcache_bytes(), 2048u);

  // A clean block of another size is simply read again.
  ASSERT_EQ(buf_meta_bread(dev_, 0, 512, NOCRED, &bp), 0);
  buf_brelse(bp);
  EXPECT_EQ(stats().writes, 1u);
  EXPECT_EQ(stats().reads, 2u);
}

TEST_F(BufTest, InvalidBuffersAndFailedOrUnfilledOnesAreNotKept) {
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 40, 512, NOCRED, &bp), 0);
  buf_markinvalid(bp);
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(dev_), 0);

  // A delayed write marked invalid is dropped without being written.
  bp = buf_getblk(dev_, 41, 512, 0, 0, BLK_META);
  buf_clear(bp);
  buf_bdwrite(bp);
  bp = buf_getblk(dev_, 41, 512, 0, 0, BLK_META);
  buf_markinvalid(bp);
  buf_brelse(bp);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 0u);
  EXPECT_EQ(host_buf_count(dev_), 0);

  // A buffer that was never filled holds nothing of the block.
  bp = buf_getblk(dev_, 42, 512, 0, 0, BLK_META);
  buf_clear(bp);
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(dev_), 0);
  ASSERT_EQ(buf_meta_bread(dev_, 42, 512, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 42 * 512));
  buf_brelse(bp);
}

TEST_F(BufTest, InvalidateblksWritesOrDiscardsDelayedWrites) {
  for (int i = 0; i < 4; i++) {
    buf_t bp = buf_getblk(dev_, 100 + i, 512, 0, 0, i % 2 ? BLK_META : BLK_READ);
    memset(data(bp), 0x40 + i, 512);
    buf_bdwrite(bp);
  }
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 200, 512, NOCRED, &bp), 0);
  buf_brelse(bp);
  ASSERT_EQ(host_buf_count(dev_), 5);

  // Metadata is left alone with BUF_SKIP_META; the rest is written and dropped.
  EXPECT_EQ(buf_invalidateblks(dev_, BUF_WRITE_DATA | BUF_SKIP_META, 0, 0), 0);
  EXPECT_EQ(host_buf_count(dev_), 3);
  EXPECT_EQ(device_bytes(100 * 512, 1)[0], 0x40);
  EXPECT_EQ(device_bytes(102 * 512, 1)[0], 0x42);
  EXPECT_EQ(device_bytes(101 * 512, 1)[0], pattern(101 * 512));

  // Without BUF_WRITE_DATA the delayed writes are lost.
  EXPECT_EQ(buf_invalidateblks(dev_, 0, 0, 0), 0);
  EXPECT_EQ(host_buf_count(dev_), 0);
  EXPECT_EQ(host_bufcache_bytes(), 0u);
  EXPECT_EQ(device_bytes(101 * 512, 1)[0], pattern(101 * 512));
  EXPECT_EQ(stats().writes, 2u);
}

TEST_F(BufTest, InvalblknoDropsOneBlockAndItsDelayedWrite) {
  EXPECT_EQ(buf_invalblkno(dev_, 50, BUF_WAIT), 0);  // not cached: nothing to do
  for (int i = 0; i < 2; i++) {
    buf_t bp = buf_getblk(dev_, 50 + i, 512, 0, 0, BLK_META);
    memset(data(bp), 0x77, 512);
    buf_bdwrite(bp);
  }
  EXPECT_EQ(buf_invalblkno(dev_, 50, BUF_WAIT), 0);
  EXPECT_EQ(host_buf_count(dev_), 1);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(stats().writes, 1u);
  EXPECT_EQ(device_bytes(50 * 512, 1)[0], pattern(50 * 512));
  EXPECT_EQ(device_bytes(51 * 512, 1)[0], 0x77);
}

TEST_F(BufTest, EvictionTakesCleanBuffersLeastRecentlyUsedFirst) {
  host_bufcache_set_limit(4 * 512);
  buf_t bp = nullptr;
  for (int b = 0; b < 4; b++) {
    ASSERT_EQ(buf_meta_bread(dev_, b, 512, NOCRED, &bp), 0);
    buf_brelse(bp);
  }
  // Touch block 0 so that block 1 is the oldest, and age block 3.
  ASSERT_EQ(buf_meta_bread(dev_, 0, 512, NOCRED, &bp), 0);
  buf_brelse(bp);
  ASSERT_EQ(buf_meta_bread(dev_, 3, 512, NOCRED, &bp), 0);
  buf_markaged(bp);
  buf_brelse(bp);
  ASSERT_EQ(stats().reads, 4u);

  ASSERT_EQ(buf_meta_bread(dev_, 10, 512, NOCRED, &bp), 0);  // evicts the aged block 3
  buf_brelse(bp);
  ASSERT_EQ(buf_meta_bread(dev_, 11, 512, NOCRED, &bp), 0);  // evicts block 1
  buf_brelse(bp);
  EXPECT_EQ(host_bufcache_bytes(), 4u * 512);
  EXPECT_EQ(buf_getblk(dev_, 3, 512, 0, 0, BLK_ONLYVALID), nullptr);
  EXPECT_EQ(buf_getblk(dev_, 1, 512, 0, 0, BLK_ONLYVALID), nullptr);
  for (daddr64_t b : {0, 2}) {
    bp = buf_getblk(dev_, b, 512, 0, 0, BLK_ONLYVALID);
    ASSERT_NE(bp, nullptr) << "block " << b;
    buf_brelse(bp);
  }
}

TEST_F(BufTest, EvictingADelayedWriteWritesItFirst) {
  host_bufcache_set_limit(2 * 4096);
  for (int b = 0; b < 2; b++) {
    buf_t bp = buf_getblk(dev_, b * 8, 4096, 0, 0, BLK_META);
    memset(data(bp), 0x60 + b, 4096);
    buf_bdwrite(bp);
  }
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 100, 4096, NOCRED, &bp), 0);
  // Only dirty buffers were there: the oldest was written, then dropped.
  EXPECT_EQ(device_bytes(0, 4096), std::vector<uint8_t>(4096, 0x60));
  EXPECT_EQ(device_bytes(8 * 512, 1)[0], pattern(8 * 512));
  EXPECT_EQ(host_buf_count(dev_), 2);
  buf_brelse(bp);

  // Lowering the bound evicts at once, clean buffers before delayed writes.
  host_bufcache_set_limit(4096);
  EXPECT_EQ(host_bufcache_bytes(), 4096u);
  EXPECT_EQ(buf_getblk(dev_, 100, 4096, 0, 0, BLK_ONLYVALID), nullptr);
  EXPECT_EQ(device_bytes(8 * 512, 1)[0], pattern(8 * 512));
  host_bufcache_set_limit(1);
  EXPECT_EQ(host_bufcache_bytes(), 0u);
  EXPECT_EQ(device_bytes(8 * 512, 1)[0], 0x61);
}

TEST_F(BufTest, AHeldBufferIsNeverEvicted) {
  host_bufcache_set_limit(512);
  buf_t held = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 0, 512, NOCRED, &held), 0);
  buf_t other = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 1, 512, NOCRED, &other), 0);
  EXPECT_EQ(host_bufcache_bytes(), 1024u);  // over the bound rather than evict a held buffer
  EXPECT_TRUE(holds_pattern(held, 0));
  buf_brelse(other);
  buf_brelse(held);
}

TEST_F(BufTest, DeviceFsyncWritesDelayedWrites) {
  buf_t bp = buf_getblk(dev_, 60, 512, 0, 0, BLK_META);
  memset(data(bp), 0x66, 512);
  buf_bdwrite(bp);
  EXPECT_EQ(VNOP_FSYNC(dev_, MNT_WAIT, nullptr), 0);
  EXPECT_EQ(device_bytes(60 * 512, 1)[0], 0x66);
  EXPECT_EQ(stats().flushes, 1u);
}

TEST_F(BufTest, FailedReadReturnsEIOAndCachesNothing) {
  host_memdev_faults f;
  f.fail_read_bytes = {5 * 512 + 100};
  host_memdev_set_faults(dev_, f);
  buf_t bp = nullptr;
  EXPECT_EQ(buf_meta_bread(dev_, 4, 1024, NOCRED, &bp), EIO);
  ASSERT_NE(bp, nullptr);
  EXPECT_EQ(buf_error(bp), EIO);
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(dev_), 0);
  EXPECT_EQ(buf_getblk(dev_, 4, 1024, 0, 0, BLK_ONLYVALID), nullptr);

  host_memdev_set_faults(dev_, host_memdev_faults{});
  ASSERT_EQ(buf_meta_bread(dev_, 4, 1024, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 4 * 512));
  buf_brelse(bp);
}

TEST_F(BufTest, FailedWriteIsReportedAndTheDataDropped) {
  host_memdev_faults f;
  f.fail_write_bytes = {70 * 512};
  host_memdev_set_faults(dev_, f);
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev_, 70, 512, NOCRED, &bp), 0);
  data(bp)[0] = 0;
  EXPECT_EQ(buf_bwrite(bp), EIO);
  EXPECT_EQ(host_buf_count(dev_), 0);

  // A delayed write that fails when flushed is dropped too, not retried forever.
  bp = buf_getblk(dev_, 70, 512, 0, 0, BLK_META);
  buf_bdwrite(bp);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(host_buf_count(dev_), 0);
  EXPECT_EQ(device_bytes(70 * 512, 1)[0], pattern(70 * 512));
  // And the error of a write made by buf_invalidateblks is its result.
  bp = buf_getblk(dev_, 70, 512, 0, 0, BLK_META);
  buf_bdwrite(bp);
  EXPECT_EQ(buf_invalidateblks(dev_, BUF_WRITE_DATA, 0, 0), EIO);
}

TEST_F(BufTest, BlockSizeChangeDropsIdleBuffersOfTheOldSize) {
  buf_t bp = buf_getblk(dev_, 8, 512, 0, 0, BLK_META);
  memset(data(bp), 0x88, 512);
  buf_bdwrite(bp);
  uint32_t size = 4096;
  ASSERT_EQ(VNOP_IOCTL(dev_, DKIOCSETBLOCKSIZE, reinterpret_cast<caddr_t>(&size), FWRITE, nullptr),
            0);
  // The delayed write went to its old place; block 8 now means byte 32768.
  EXPECT_EQ(device_bytes(8 * 512, 1)[0], 0x88);
  EXPECT_EQ(host_buf_count(dev_), 0);
  ASSERT_EQ(buf_meta_bread(dev_, 8, 4096, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 8 * 4096));
  buf_brelse(bp);

  // The way a mount changes the size: with the boot buffer still held. The
  // held buffer is left alone (no wait for it), then dropped by its holder.
  ASSERT_EQ(buf_meta_bread(dev_, 0, 4096, NOCRED, &bp), 0);
  size = 512;
  ASSERT_EQ(VNOP_IOCTL(dev_, DKIOCSETBLOCKSIZE, reinterpret_cast<caddr_t>(&size), FWRITE, nullptr),
            0);
  EXPECT_TRUE(holds_pattern(bp, 0));
  buf_markinvalid(bp);
  buf_brelse(bp);
  ASSERT_EQ(buf_meta_bread(dev_, 0, 8 * 512, NOCRED, &bp), 0);
  EXPECT_TRUE(holds_pattern(bp, 0));
  buf_brelse(bp);
}

TEST_F(BufTest, CallerDescribedBuffersTransferAtTheirBlock) {
  std::vector<uint8_t> mem(1024);
  buf_t bp = buf_alloc(dev_);
  buf_setdataptr(bp, reinterpret_cast<uintptr_t>(mem.data()));
  buf_setcount(bp, 1024);
  buf_setblkno(bp, 6);
  buf_setflags(bp, B_READ);
  EXPECT_EQ(VNOP_STRATEGY(bp), 0);
  EXPECT_EQ(buf_biowait(bp), 0);
  EXPECT_EQ(buf_resid(bp), 0u);
  for (int i = 0; i < 1024; i++) ASSERT_EQ(mem[i], pattern(6 * 512 + i)) << i;
  buf_free(bp);
  EXPECT_EQ(host_buf_count(dev_), 0);  // such buffers are never cached
}

TEST(BufDeathTest, MisuseOfTheCachePanics) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  vnode_t dev = nullptr;
  ASSERT_EQ(host_memdev_create(1 << 16, 512, 512, &dev), 0);
  EXPECT_DEATH(buf_getblk(dev, 0, 512, 0, 0, 0x4), "buf_getblk: unsupported operation 0x4");
  EXPECT_DEATH(buf_getblk(dev, 0, 2 << 20, 0, 0, 0), "buf_getblk: size 2097152 out of range");
  EXPECT_DEATH(buf_invalidateblks(dev, 0x100, 0, 0), "buf_invalidateblks: unsupported flags");
  EXPECT_DEATH(buf_flushdirtyblks(dev, 1, 1, "x"), "buf_flushdirtyblks: unsupported flags");
  EXPECT_DEATH(
      {
        buf_t bp = buf_getblk(dev, 0, 512, 0, 0, 0);
        buf_setflags(bp, B_DELWRI);
      },
      "buf_setflags: unsupported flags 0x8");
  EXPECT_DEATH(
      {
        buf_getblk(dev, 0, 512, 0, 0, 0);
        buf_getblk(dev, 0, 512, 0, 0, 0);
      },
      "buf_getblk: block 0 of vnode .* is held by the calling thread");
  host_blkdev_close(dev);
}

// --- File buffers mapped through a file system ----------------------------------------

// A file of a tiny test file system: 4096-byte logical blocks, and extents
// that the test lays out. Reads and writes may map differently, as with a
// file whose valid length is short of its size.
struct TestFile {
  struct Extent {
    off_t foff;
    size_t len;
    int64_t dev_byte;  // where foff lies on the device; -1: a hole
  };
  vnode_t devvp;
  std::vector<Extent> read_map;
  std::vector<Extent> write_map;
  int blockmap_calls = 0;
};

int tf_blktooff(void* ap) {
  auto* a = static_cast<vnop_blktooff_args*>(ap);
  *a->a_offset = a->a_lblkno * 4096;
  return 0;
}

int tf_blockmap(void* ap) {
  auto* a = static_cast<vnop_blockmap_args*>(ap);
  auto* tf = static_cast<TestFile*>(vnode_fsnode(a->a_vp));
  tf->blockmap_calls++;
  uint32_t bsize = 0;
  VNOP_IOCTL(tf->devvp, DKIOCGETBLOCKSIZE, reinterpret_cast<caddr_t>(&bsize), 0, nullptr);
  for (const auto& e : (a->a_flags & VNODE_READ) ? tf->read_map : tf->write_map) {
    if (a->a_foffset < e.foff || a->a_foffset >= e.foff + static_cast<off_t>(e.len)) continue;
    off_t in = a->a_foffset - e.foff;
    int64_t at = e.dev_byte < 0 ? 0 : e.dev_byte + in;
    *a->a_bpn = e.dev_byte < 0 ? -1 : at / bsize;
    *a->a_run = std::min(e.len - static_cast<size_t>(in), a->a_size);
    *static_cast<int*>(a->a_poff) = static_cast<int>(at % bsize);
    return 0;
  }
  return EINVAL;
}

int tf_strategy(void* ap) {
  auto* a = static_cast<vnop_strategy_args*>(ap);
  auto* tf = static_cast<TestFile*>(vnode_fsnode(buf_vnode(a->a_bp)));
  return buf_strategy(tf->devvp, ap);
}

VOPFUNC* tf_vnodeops() {
  static VOPFUNC* v = [] {
    auto* vec = new VOPFUNC[vnop_desc_count()];
    std::fill(vec, vec + vnop_desc_count(), &vn_default_error);
    vec[vnop_blktooff_desc.vdesc_offset] = &tf_blktooff;
    vec[vnop_blockmap_desc.vdesc_offset] = &tf_blockmap;
    vec[vnop_strategy_desc.vdesc_offset] = &tf_strategy;
    return vec;
  }();
  return v;
}

class FileBufTest : public BufTest {
 protected:
  void SetUp() override {
    BufTest::SetUp();
    tf_.devvp = dev_;
    vnode_fsparam p{};
    p.vnfs_vtype = VREG;
    p.vnfs_str = "testfs";
    p.vnfs_fsnode = &tf_;
    p.vnfs_vops = tf_vnodeops();
    ASSERT_EQ(vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, &vp_), 0);
  }
  void TearDown() override {
    if (vp_ != nullptr) {
      vnode_recycle(vp_);
      vnode_put(vp_);
    }
    BufTest::TearDown();
  }
  TestFile tf_;
  vnode_t vp_ = nullptr;
};

TEST_F(FileBufTest, ReadMapsDiscontiguousRunsAndReadsHolesAsZeros) {
  // File block 1 = bytes [4096, 20480): 3 KiB at device block 100, a 1 KiB
  // hole, 12 KiB starting 256 bytes into device block 40.
  tf_.read_map = {{0, 4096, 7 * 512},
                  {4096, 3072, 100 * 512},
                  {7168, 1024, -1},
                  {8192, 12288, 40 * 512 + 256}};
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(vp_, 1, 16384, NOCRED, &bp), 0);
  uint8_t* d = data(bp);
  for (int i = 0; i < 3072; i++) ASSERT_EQ(d[i], pattern(100 * 512 + i)) << i;
  for (int i = 3072; i < 4096; i++) ASSERT_EQ(d[i], 0) << i;
  for (int i = 4096; i < 16384; i++) ASSERT_EQ(d[i], pattern(40 * 512 + 256 + i - 4096)) << i;
  EXPECT_EQ(buf_blkno(bp), 100);
  EXPECT_EQ(buf_lblkno(bp), 1);
  EXPECT_EQ(stats().reads, 2u);  // one request per mapped run
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(vp_), 1);
  EXPECT_EQ(host_buf_count(dev_), 0);  // file buffers are the file's, not the device's
}

TEST_F(FileBufTest, WriteUsesTheWriteMappingAndAContiguousBufferStaysMapped) {
  tf_.read_map = {{0, 8192, -1}};  // beyond the valid length: all hole
  tf_.write_map = {{0, 8192, 300 * 512}};
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(vp_, 0, 8192, NOCRED, &bp), 0);
  EXPECT_EQ(buf_blkno(bp), -1);
  for (int i = 0; i < 8192; i++) ASSERT_EQ(data(bp)[i], 0) << i;
  EXPECT_EQ(stats().reads, 0u);
  memset(data(bp), 0xAB, 8192);
  EXPECT_EQ(buf_bdwrite(bp), 0);
  int calls = tf_.blockmap_calls;
  buf_flushdirtyblks(vp_, 1, 0, "test");
  EXPECT_EQ(device_bytes(300 * 512, 8192), std::vector<uint8_t>(8192, 0xAB));
  EXPECT_EQ(stats().writes, 1u);
  EXPECT_GT(tf_.blockmap_calls, calls);

  // Mapped as one run: a second write goes straight to device block 300.
  ASSERT_EQ(buf_meta_bread(vp_, 0, 8192, NOCRED, &bp), 0);
  EXPECT_EQ(buf_blkno(bp), 300);
  data(bp)[0] = 0xCD;
  calls = tf_.blockmap_calls;
  EXPECT_EQ(buf_bwrite(bp), 0);
  EXPECT_EQ(tf_.blockmap_calls, calls);
  EXPECT_EQ(device_bytes(300 * 512, 1)[0], 0xCD);
}

TEST_F(FileBufTest, WritingIntoAHoleOrAFailedMappingIsAnError) {
  tf_.write_map = {{0, 2048, 500 * 512}, {2048, 2048, -1}};
  buf_t bp = buf_getblk(vp_, 0, 4096, 0, 0, BLK_META);
  buf_clear(bp);
  EXPECT_EQ(buf_bwrite(bp), EIO);
  EXPECT_EQ(host_buf_count(vp_), 0);

  bp = nullptr;
  EXPECT_EQ(buf_meta_bread(vp_, 5, 4096, NOCRED, &bp), EINVAL);  // no extent there
  buf_brelse(bp);
  EXPECT_EQ(host_buf_count(vp_), 0);
}

TEST_F(FileBufTest, ReclaimWritesDirtyBuffersAndDropsThemAll) {
  tf_.read_map = tf_.write_map = {{0, 65536, 600 * 512}};
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(vp_, 0, 4096, NOCRED, &bp), 0);
  buf_brelse(bp);
  bp = buf_getblk(vp_, 1, 4096, 0, 0, BLK_META);
  memset(data(bp), 0x99, 4096);
  buf_bdwrite(bp);
  ASSERT_EQ(host_buf_count(vp_), 2);
  vnode_recycle(vp_);
  vnode_put(vp_);  // the last reference: reclaimed now
  EXPECT_TRUE(host_vnode_isdead(vp_));
  EXPECT_EQ(host_buf_count(vp_), 0);
  vp_ = nullptr;
  EXPECT_EQ(device_bytes(600 * 512 + 4096, 4096), std::vector<uint8_t>(4096, 0x99));
  EXPECT_EQ(host_bufcache_bytes(), 0u);
}

}  // namespace
