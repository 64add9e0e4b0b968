// The buffer cache under several threads: one holder per buffer, waits
// that end at release, and eviction beside buffers in use.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host_test_util.h"

namespace {

uint8_t* data(buf_t bp) { return reinterpret_cast<uint8_t*>(buf_dataptr(bp)); }

uint32_t load32(buf_t bp, size_t at) {
  uint32_t v;
  memcpy(&v, data(bp) + at, 4);
  return v;
}

void store32(buf_t bp, size_t at, uint32_t v) { memcpy(data(bp) + at, &v, 4); }

// Waits until `n` threads sleep on busy buffers.
bool await_waiters(int n) {
  return host_test::eventually([n] { return host_buf_waiters() == n; });
}

class BufConcurrency : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(host_memdev_create(4 << 20, 512, 512, &dev_), 0); }
  void TearDown() override {
    host_bufcache_set_limit(0);
    host_blkdev_close(dev_);
  }
  uint32_t device_word(uint64_t off) {
    uint32_t v = 0;
    EXPECT_EQ(host_memdev_read(dev_, &v, 4, off), 0);
    return v;
  }
  vnode_t dev_ = nullptr;
};

// Catches a second holder let in early, a stale copy, a flush of a buffer mid-update,
// a buffer dropped from under its holder, and no EBUSY without BUF_WAIT.
TEST_F(BufConcurrency, GetblkFlushAndInvalblknoOfAHeldBlockWaitForItsRelease) {
  buf_t bp = buf_getblk(dev_, 9, 512, 0, 0, BLK_META);
  buf_clear(bp);
  buf_bdwrite(bp);
  buf_t held = buf_getblk(dev_, 9, 512, 0, 0, BLK_META);
  std::atomic<bool> got{false};
  uint32_t seen = 0;
  std::thread flusher([&] { buf_flushdirtyblks(dev_, 1, 0, "test"); });
  std::thread getter([&] {
    buf_t bp = buf_getblk(dev_, 9, 512, 0, 0, BLK_META);
    got = true;
    seen = load32(bp, 0);
    buf_brelse(bp);
  });
  ASSERT_TRUE(await_waiters(2));
  EXPECT_FALSE(got.load());
  store32(held, 0, 0xC0FFEE);
  buf_bdwrite(held);
  flusher.join();
  getter.join();
  EXPECT_EQ(seen, 0xC0FFEEu);
  EXPECT_EQ(device_word(9 * 512), 0xC0FFEEu);  // the flush wrote the holder's version

  ASSERT_EQ(buf_meta_bread(dev_, 7, 512, NOCRED, &held), 0);
  int nowait = -1, waited = -1;
  std::thread dropper([&] {
    nowait = buf_invalblkno(dev_, 7, 0);
    waited = buf_invalblkno(dev_, 7, BUF_WAIT);
  });
  ASSERT_TRUE(await_waiters(1));
  EXPECT_EQ(nowait, EBUSY);
  store32(held, 0, 1);
  buf_bdwrite(held);
  dropper.join();
  EXPECT_EQ(waited, 0);
  EXPECT_EQ(buf_getblk(dev_, 7, 512, 0, 0, BLK_META | BLK_ONLYVALID), nullptr);  // dropped
  buf_flushdirtyblks(dev_, 1, 0, "test");
  EXPECT_EQ(device_word(7 * 512), 0u);
}

// Catches lost updates and half-written reads while eviction writes dirty buffers.
TEST_F(BufConcurrency, ReadersAndWritersOfDifferentBlocksUnderEviction) {
  // Room for 16 of the 4 x 8 blocks the writers use: eviction, with dirty
  // buffers written first, runs all the time.
  host_bufcache_set_limit(16 * 1024);
  constexpr int kThreads = 4, kBlocks = 8, kRounds = 160;
  std::vector<std::thread> threads;
  std::atomic<int> bad_reads{0};
  for (int i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      for (int r = 0; r < kRounds; r++) {
        daddr64_t blk = 100 + (i * kBlocks + r % kBlocks) * 2;
        buf_t bp = nullptr;
        ASSERT_EQ(buf_meta_bread(dev_, blk, 1024, NOCRED, &bp), 0);
        store32(bp, 0, load32(bp, 0) + 1);
        store32(bp, 1020, static_cast<uint32_t>(blk));
        if (r % 7 == 0)
          ASSERT_EQ(buf_bwrite(bp), 0);
        else
          buf_bdwrite(bp);
        // A block nobody writes reads the same from cache or device.
        ASSERT_EQ(buf_bread(dev_, 2000 + r % 16, 512, NOCRED, &bp), 0);
        if (load32(bp, 0) != 0) bad_reads++;
        buf_brelse(bp);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(bad_reads.load(), 0);
  EXPECT_LE(host_bufcache_bytes(), 16u * 1024);
  buf_flushdirtyblks(dev_, 1, 0, "test");
  for (int i = 0; i < kThreads * kBlocks; i++) {
    uint64_t off = static_cast<uint64_t>(100 + i * 2) * 512;
    EXPECT_EQ(device_word(off), static_cast<uint32_t>(kRounds / kBlocks)) << "block " << i;
    EXPECT_EQ(device_word(off + 1020), static_cast<uint32_t>(100 + i * 2));
  }
}

}  // namespace
