// Threads on the page cache: readers and a writer of one file, mapped stores
// beside writes, with a pool small enough that eviction, write-behind and the
// page-out thread all run while they do.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "blockmapfs.h"
#include "host/cluster.h"
#include "host/ubc.h"
#include "host/uio.h"
#include "host_test_util.h"

namespace {

using host_test::PoolLimit;

// Every 4 KiB block of the file holds (version, block) stamped over it, so a
// reader can tell a whole block of one version from a torn one.
void stamp(char* p, uint32_t version, uint32_t block) {
  for (int i = 0; i < 4096; i += 8) {
    memcpy(p + i, &version, 4);
    memcpy(p + i + 4, &block, 4);
  }
}

// Returns the version of a block, or -1 when the block is torn or misplaced.
int64_t version_of(const char* p, uint32_t block) {
  uint32_t v, b;
  memcpy(&v, p, 4);
  for (int i = 0; i < 4096; i += 8) {
    uint32_t vi;
    memcpy(&vi, p + i, 4);
    memcpy(&b, p + i + 4, 4);
    if (vi != v || (v != 0 && b != block)) return -1;
  }
  return v;
}

// Catches readers that see a page a writer is filling, and writes lost under eviction.
TEST(ClusterConcurrency, ReadersOfOneFileSeeWholeBlocksWhileItIsWritten) {
  PoolLimit limit(32 * 4096);
  BlockMapFs fs;
  constexpr uint32_t kBlocks = 96;
  bmfs_file* f = fs.create(off_t(kBlocks) * 4096, {{3000, kBlocks}});
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::atomic<uint32_t> last_version{0};
  std::thread writer([&] {
    std::vector<char> buf(8 * 4096);
    for (uint32_t v = 1; v <= 40; v++) {
      for (uint32_t b = 0; b < kBlocks; b += 8) {
        for (uint32_t k = 0; k < 8; k++) stamp(buf.data() + k * 4096, v, b + k);
        ASSERT_EQ(fs.write(f, off_t(b) * 4096, buf.data(), buf.size()), 0);
      }
      last_version = v;
    }
    stop = true;
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; r++) {
    readers.emplace_back([&, r] {
      std::mt19937 rng(uint32_t(r + 10));
      std::vector<char> buf(4 * 4096);
      while (!stop) {
        uint32_t b = rng() % (kBlocks - 4);
        // Readers go through the cluster layer without the file's I/O lock:
        // the page cache alone must keep each page whole.
        uio_t uio = uio_create(1, off_t(b) * 4096, UIO_SYSSPACE, UIO_READ);
        uio_addiov(uio, reinterpret_cast<user_addr_t>(buf.data()), buf.size());
        EXPECT_EQ(cluster_read(f->vp, uio, off_t(kBlocks) * 4096, 0), 0);
        uio_free(uio);
        for (uint32_t k = 0; k < 4; k++)
          if (version_of(buf.data() + k * 4096, b + k) < 0) torn++;
      }
    });
  }
  writer.join();
  for (auto& th : readers) th.join();
  EXPECT_EQ(torn.load(), 0);
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  std::vector<char> d = fs.on_device(f);
  for (uint32_t b = 0; b < kBlocks; b++) EXPECT_EQ(version_of(d.data() + b * 4096, b), 40) << b;
}

// Catches deadlocks and lost stores between page-out and a writer holding its I/O lock,
// a pool over its bound, and mapped dirty pages evicted without a pageout.
TEST(ClusterConcurrency, MappedStoresAndWritesShareATinyPool) {
  PoolLimit limit(16 * 4096);
  BlockMapFs fs;
  constexpr int kPages = 48;
  bmfs_file* mapped = fs.create(kPages * 4096, {{5000, kPages}});
  bmfs_file* written = fs.create(kPages * 4096, {{6000, kPages}});
  std::thread mapper([&] {
    for (int round = 1; round <= 3; round++) {
      for (int i = 0; i < kPages; i++) {
        uintptr_t addr;
        ASSERT_EQ(ubc_page_fault(mapped->vp, off_t(i) * 4096, 1, &addr), 0);
        memset(reinterpret_cast<char*>(addr), char(round * 16 + i % 16), 4096);
        ubc_page_dirty(mapped->vp, off_t(i) * 4096);
        ubc_page_unpin(mapped->vp, off_t(i) * 4096);
      }
    }
  });
  std::thread writer([&] {
    std::vector<char> buf(4096);
    for (int round = 1; round <= 3; round++) {
      for (int i = 0; i < kPages; i++) {
        memset(buf.data(), char(round * 16 + i % 16), buf.size());
        ASSERT_EQ(fs.write(written, off_t(i) * 4096, buf.data(), buf.size()), 0);
      }
    }
  });
  mapper.join();
  writer.join();
  // The page-out thread keeps the bound without any call from us.
  EXPECT_TRUE(host_test::eventually([] { return host_ubc_resident_bytes() <= 16 * 4096; }));
  EXPECT_GT(mapped->pageouts.load(), 0);
  ASSERT_EQ(ubc_msync(mapped->vp, 0, kPages * 4096, nullptr, UBC_PUSHDIRTY | UBC_SYNC), 0);
  ASSERT_EQ(cluster_push(written->vp, IO_SYNC), 0);
  std::vector<char> a = fs.on_device(mapped), b = fs.on_device(written);
  for (int i = 0; i < kPages; i++) {
    EXPECT_EQ(a[size_t(i) * 4096 + 5], char(48 + i % 16)) << i;
    EXPECT_EQ(b[size_t(i) * 4096 + 5], char(48 + i % 16)) << i;
  }
}

}  // namespace
