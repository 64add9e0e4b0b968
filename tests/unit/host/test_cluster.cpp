// The cluster layer against a reference model: reads and writes through the
// page cache must match, byte for byte, what a plain array would hold, and
// what reaches the device must match it after a push.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <vector>

#include "blockmapfs.h"
#include "host/blkdev.h"
#include "host/cluster.h"
#include "host/ubc.h"
#include "host/uio.h"
#include "host_test_util.h"

namespace {

class ClusterTest : public ::testing::Test {
 protected:
  BlockMapFs fs;
};

// Catches device bytes past the end cached in the last page, exposed by a growth.
TEST_F(ClusterTest, BytesPastFilesizeInTheLastPageReadAsZerosAfterGrowth) {
  bmfs_file* f = fs.create(4096, {{10, 1}});
  fs.fill(f, char(0xAA));  // the device holds junk past byte 1000
  fs.set_size(f, 1000);
  char buf[4096];
  memset(buf, 'x', sizeof buf);
  size_t resid = 0;
  ASSERT_EQ(fs.read(f, 0, buf, sizeof buf, &resid), 0);
  EXPECT_EQ(resid, 4096u - 1000u);
  EXPECT_EQ(buf[1000], 'x') << "nothing is copied past the file size";
  // The file grows again without a write: the old tail is not file data.
  fs.set_size(f, 4096);
  ASSERT_EQ(fs.read(f, 0, buf, sizeof buf, &resid), 0);
  EXPECT_EQ(resid, 0u);
  for (int i = 1000; i < 4096; i++) ASSERT_EQ(buf[i], 0) << "byte " << i;
  EXPECT_EQ(buf[999], char(0xAA));
}

// Catches any misplaced, torn or lost byte, pages left dirty, an invalidate that keeps,
// appends that lose the previous tail.
TEST_F(ClusterTest, RandomReadsAndWritesMatchAReferenceModel) {
  const off_t size = 3 << 20;
  bmfs_file* f = fs.create(size, {{0, 100}, {-1, 50}, {300, 200}, {200, 20}});
  std::vector<char> model = fs.on_device(f);
  std::mt19937 rng(7);
  for (int op = 0; op < 400; op++)
    ASSERT_EQ(fs.random_op(f, model, rng, 70000, 50), "") << "op " << op;
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
  EXPECT_TRUE(fs.on_device(f) == model);
  // Dropping the cache and reading again comes back from the device.
  ASSERT_EQ(ubc_msync(f->vp, 0, size, nullptr, UBC_INVALIDATE), 0);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 0u);
  std::vector<char> all(static_cast<size_t>(size));
  ASSERT_EQ(fs.read(f, 0, all.data(), all.size()), 0);
  EXPECT_TRUE(all == model);

  // Appends grow the file without losing the previous tail page.
  bmfs_file* g = fs.create(0, {});
  model.clear();
  for (int i = 0; i < 60; i++) {
    size_t len = 1 + rng() % 50000;
    std::vector<char> d = random_bytes(len, uint32_t(i));
    ASSERT_EQ(fs.write(g, off_t(model.size()), d.data(), len), 0);
    model.insert(model.end(), d.begin(), d.end());
  }
  ASSERT_EQ(cluster_push(g->vp, IO_SYNC), 0);
  EXPECT_TRUE(fs.on_device(g) == model);
}

// --- Partial pages and zero-fill ------------------------------------------------

class ZeroFillTest : public ClusterTest {
 protected:
  // A 4-page file whose device blocks hold 0x11; pages 0 and 1 resident
  // (read), page 1 then dirtied with 0x22 at its first byte.
  void SetUp() override { f = make_file(20); }
  bmfs_file* make_file(int64_t dev_block) {
    bmfs_file* nf = fs.create(4 * 4096, {{dev_block, 4}});
    fs.fill(nf, 0x11);
    char buf[8192];
    EXPECT_EQ(fs.read(nf, 0, buf, sizeof buf), 0);
    char two = 0x22;
    EXPECT_EQ(fs.write(nf, 4096, &two, 1), 0);
    return nf;
  }
  // Runs cluster_write with a one-byte write of 0x33 at the start of page 3.
  int write_page3(off_t head, off_t tail, int flags) {
    std::lock_guard<std::mutex> io(f->io_lock);
    char b = 0x33;
    uio_t uio = uio_create(1, 3 * 4096, UIO_SYSSPACE, UIO_WRITE);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(&b), 1);
    int e = cluster_write(f->vp, uio, 4 * 4096, 4 * 4096, head, tail, flags);
    uio_free(uio);
    return e;
  }
  std::vector<char> contents() {
    std::vector<char> v(4 * 4096);
    EXPECT_EQ(fs.read(f, 0, v.data(), v.size()), 0);
    return v;
  }
  bmfs_file* f = nullptr;
};

// Catches IO_NOZEROVALID or IO_NOZERODIRTY ignored or applied to the other kind of page.
TEST_F(ZeroFillTest, HeadZeroFillSparesWhatItsFlagsProtect) {
  const struct {
    int flags;
    off_t head;
    char page0, page1_first, page1_rest;  // bytes 5, 4096 and 4097
  } cases[] = {
      {0, 100, 0x11, 0, 0},
      {IO_NOZEROVALID, 0, 0x11, 0, 0},  // page 1 is dirty: not protected
      {IO_NOZERODIRTY, 0, 0, 0x22, 0x11},
      {IO_NOZEROVALID | IO_NOZERODIRTY, 0, 0x11, 0x22, 0x11},
  };
  for (size_t i = 0; i < std::size(cases); i++) {
    const auto& c = cases[i];
    SCOPED_TRACE(testing::Message() << "flags " << c.flags);
    f = make_file(100 + int64_t(i) * 4);
    ASSERT_EQ(write_page3(c.head, 0, IO_HEADZEROFILL | c.flags), 0);
    std::vector<char> v = contents();
    for (int k = 0; k < c.head; k++) ASSERT_EQ(v[k], 0x11) << k;
    EXPECT_EQ(v[5], c.page0);
    EXPECT_EQ(v[4096], c.page1_first);
    EXPECT_EQ(v[4097], c.page1_rest);
    for (int k = 2 * 4096; k < 3 * 4096; k++) ASSERT_EQ(v[k], 0) << "absent page 2, byte " << k;
    for (int k = int(c.head); c.head > 0 && k < 2 * 4096; k++) ASSERT_EQ(v[k], 0) << k;
    EXPECT_EQ(v[3 * 4096], 0x33);
    EXPECT_EQ(v[3 * 4096 + 1], 0x11) << "the rest of a partly written page is read first";
  }
}

// Catches a tail zero-fill that runs past its end or fills the head, and a zero-fill
// without data not written with IO_SYNC or zeroing a dirty page.
TEST_F(ZeroFillTest, TailZeroFillZeroesAfterTheWriteOnly) {
  ASSERT_EQ(write_page3(0, 3 * 4096 + 3000, IO_TAILZEROFILL), 0);
  std::vector<char> v = contents();
  EXPECT_EQ(v[3 * 4096], 0x33);
  for (int i = 3 * 4096 + 1; i < 3 * 4096 + 3000; i++) ASSERT_EQ(v[i], 0) << i;
  EXPECT_EQ(v[3 * 4096 + 3000], 0x11);
  EXPECT_EQ(v[0], 0x11) << "no head zero-fill without its flag";

  // Without data only the zero-fill is done, and IO_SYNC writes it.
  f = make_file(40);
  {
    std::lock_guard<std::mutex> io(f->io_lock);
    ASSERT_EQ(cluster_write(f->vp, nullptr, 4096 + 10, 3 * 4096 + 5, 4096 + 10, 0,
                            IO_HEADZEROFILL | IO_NOZEROVALID | IO_NOZERODIRTY | IO_SYNC),
              0);
  }
  std::vector<char> d = fs.on_device(f);
  EXPECT_EQ(d[4096], 0x22) << "the dirty page was left alone (and written with IO_SYNC)";
  EXPECT_EQ(d[4096 + 10], 0x11) << "dirty page not zeroed";
  for (int i = 2 * 4096; i < 3 * 4096 + 5; i++) ASSERT_EQ(d[i], 0) << i;
}

// --- Reaching the device ----------------------------------------------------------

// Catches early write-behind, pages left dirty, IO_SYNC or async pushes not finishing.
TEST_F(ClusterTest, DirtyDataReachesTheDeviceOnPushOrImmediatelyWithIoSync) {
  bmfs_file* f = fs.create(8 * 4096, {{40, 8}});
  std::vector<char> d = random_bytes(3 * 4096, 9);
  ASSERT_EQ(fs.write(f, 0, d.data(), d.size()), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 3u);
  EXPECT_NE(0, memcmp(fs.on_device(f).data(), d.data(), d.size())) << "written behind too early";
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
  EXPECT_EQ(0, memcmp(fs.on_device(f).data(), d.data(), d.size()));

  std::vector<char> e = random_bytes(100, 10);
  ASSERT_EQ(fs.write(f, 5 * 4096 + 7, e.data(), e.size(), IO_SYNC), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
  EXPECT_EQ(0, memcmp(fs.on_device(f).data() + 5 * 4096 + 7, e.data(), e.size()));

  // An asynchronous push completes without another call.
  d = random_bytes(8 * 4096, 11);
  ASSERT_EQ(fs.write(f, 0, d.data(), d.size()), 0);
  ASSERT_EQ(cluster_push(f->vp, 0), 0);
  EXPECT_TRUE(host_test::eventually([&] { return host_ubc_vnode_dirty_pages(f->vp) == 0; }));
  EXPECT_TRUE(fs.on_device(f) == d);
  EXPECT_EQ(f->pageouts.load(), 0) << "the writer's pages never go through pageout";
}

// Catches I/O errors swallowed, failed writes marked clean, failed reads left valid.
TEST_F(ClusterTest, IoErrorsAreReportedAndLoseNothing) {
  bmfs_file* f = fs.create(8 * 4096, {{70, 8}});
  host_memdev_faults faults;
  faults.fail_write_bytes.push_back(71 * 4096 + 512);
  faults.fail_read_bytes.push_back(76 * 4096);
  host_memdev_set_faults(fs.devvp(), faults);
  std::vector<char> d = random_bytes(4 * 4096, 12);
  ASSERT_EQ(fs.write(f, 0, d.data(), d.size()), 0);
  EXPECT_EQ(cluster_push(f->vp, IO_SYNC), EIO);
  EXPECT_GT(host_ubc_vnode_dirty_pages(f->vp), 0u);
  std::vector<char> buf(4 * 4096);
  EXPECT_EQ(fs.read(f, 4 * 4096, buf.data(), buf.size()), EIO);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 4u) << "only the written pages";
  host_memdev_set_faults(fs.devvp(), host_memdev_faults());
  EXPECT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_EQ(0, memcmp(fs.on_device(f).data(), d.data(), d.size()));
  EXPECT_EQ(fs.read(f, 4 * 4096, buf.data(), buf.size()), 0);
}

// --- Request sizes -------------------------------------------------------------------

// Catches I/O split per page, whole-page overwrites that read first, and an advisory
// read that does nothing.
TEST_F(ClusterTest, SequentialEightMegabytesTakeFewLargeRequests) {
  const off_t size = 8 << 20;
  bmfs_file* f = fs.create(size, {{1000, uint32_t(size / 4096)}});
  std::vector<char> d = random_bytes(size_t(size), 13);
  ASSERT_EQ(host_memdev_load(fs.devvp(), d.data(), d.size(), 1000 * 4096), 0);

  host_blkdev_reset_stats(fs.devvp());
  std::vector<char> got(static_cast<size_t>(size));
  ASSERT_EQ(fs.read(f, 0, got.data(), got.size()), 0);
  host_devstats st = host_test::devstats(fs.devvp());
  EXPECT_TRUE(got == d);
  EXPECT_LE(st.reads, 10u) << "one request per maximal transfer, not per page";
  EXPECT_EQ(st.bytes_read, uint64_t(size));

  // An advisory read fills the cache ahead: reading after it needs no request.
  ASSERT_EQ(ubc_msync(f->vp, 0, size, nullptr, UBC_INVALIDATE), 0);
  ASSERT_EQ(advisory_read(f->vp, size, 0, 64 * 4096), 0);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 64u) << "pages under way are resident (busy)";
  ASSERT_EQ(ubc_msync(f->vp, 0, 64 * 4096, nullptr, UBC_SYNC), 0);  // waits for them
  host_blkdev_reset_stats(fs.devvp());
  ASSERT_EQ(fs.read(f, 0, got.data(), 64 * 4096), 0);
  EXPECT_EQ(host_test::devstats(fs.devvp()).reads, 0u);

  ASSERT_EQ(ubc_msync(f->vp, 0, size, nullptr, UBC_INVALIDATE), 0);
  host_blkdev_reset_stats(fs.devvp());
  for (off_t off = 0; off < size; off += 65536)
    ASSERT_EQ(fs.read(f, off, got.data() + off, 65536), 0);
  st = host_test::devstats(fs.devvp());
  EXPECT_TRUE(got == d);
  EXPECT_LE(st.reads, 24u) << "small sequential reads are gathered by read-ahead";

  std::vector<char> w = random_bytes(size_t(size), 14);
  ASSERT_EQ(ubc_msync(f->vp, 0, size, nullptr, UBC_INVALIDATE), 0);
  host_blkdev_reset_stats(fs.devvp());
  for (off_t off = 0; off < size; off += 65536)
    ASSERT_EQ(fs.write(f, off, w.data() + off, 65536), 0);
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  st = host_test::devstats(fs.devvp());
  EXPECT_LE(st.writes, 12u);
  EXPECT_EQ(st.bytes_written, uint64_t(size));
  EXPECT_EQ(st.reads, 0u) << "whole pages are never read before being overwritten";
  EXPECT_TRUE(fs.on_device(f) == w);
}

// Catches write-behind of every short run a random writer leaves (a device request
// per small write), and a long run left dirty when its writer moves on.
TEST_F(ClusterTest, ShortRunsWaitForAPushAndLongOnesAreWrittenBehind) {
  const off_t size = 4 << 20;
  bmfs_file* f = fs.create(size, {{1000, uint32_t(size / 4096)}});
  std::vector<char> model = fs.on_device(f);
  auto write_pages = [&](uint64_t first, uint64_t n, uint32_t seed) {
    for (uint64_t pg = first; pg < first + n; pg++) {
      std::vector<char> d = random_bytes(4096, seed + uint32_t(pg));
      ASSERT_EQ(fs.write(f, off_t(pg) * 4096, d.data(), d.size()), 0);
      std::copy(d.begin(), d.end(), model.begin() + off_t(pg) * 4096);
    }
  };
  host_blkdev_reset_stats(fs.devvp());
  for (uint64_t pg = 0; pg < 128; pg += 2) write_pages(pg, 1, 20);  // 64 scattered pages
  EXPECT_EQ(host_test::devstats(fs.devvp()).writes, 0u) << "a request per scattered page";
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 64u);
  write_pages(200, 40, 21);  // 160 KiB in 4 KiB writes, then a write elsewhere
  write_pages(300, 1, 22);
  EXPECT_TRUE(host_test::eventually([&] { return host_ubc_vnode_dirty_pages(f->vp) == 65u; }))
      << "the long run was left dirty";
  EXPECT_EQ(host_test::devstats(fs.devvp()).writes, 1u) << "the long run in one request";
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
  EXPECT_TRUE(fs.on_device(f) == model);
}

// Catches random small writes whose dirty pages are bounded by nothing but the pool:
// a file's dirty pages stay within the dirty limit, and every write reaches the device.
TEST_F(ClusterTest, RandomSmallWritesKeepDirtyPagesBounded) {
  host_test::PoolLimit limit(1 << 20);  // 256 pages, dirty limit 128
  const off_t size = 4 << 20;
  bmfs_file* f = fs.create(size, {{1000, uint32_t(size / 4096)}});
  std::vector<char> model = fs.on_device(f);
  std::mt19937 rng(23);
  size_t peak = 0;
  host_ubc_reset_resident_peak();
  for (int i = 0; i < 3000; i++) {
    off_t off = off_t(rng() % (size / 4096)) * 4096 + off_t(rng() % 2 ? 0 : rng() % 4096);
    size_t len = std::min<size_t>(4096, size_t(size - off));
    std::vector<char> d = random_bytes(len, uint32_t(i));
    ASSERT_EQ(fs.write(f, off, d.data(), d.size()), 0);
    std::copy(d.begin(), d.end(), model.begin() + off);
    peak = std::max(peak, host_ubc_vnode_dirty_pages(f->vp));
  }
  EXPECT_LE(peak, 128u) << "dirty pages of one random writer";
  EXPECT_LE(host_ubc_resident_peak_bytes(), size_t(1 << 20) + (1u << 20));
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_TRUE(fs.on_device(f) == model);
}

// --- Memory bounds ------------------------------------------------------------------

// Catches a zero fill or a copy that holds all its pages before any is written: the
// pages a write holds must not grow with a gap or with its length, and a long gap
// must reach the device as zeros in maximal requests.
TEST_F(ClusterTest, LongGapsAndLongWritesHoldBoundedPages) {
  const off_t gap_end = 28 << 20;  // inside the half of the device the test lays out
  bmfs_file* f = fs.create(1000, {{100, uint32_t(gap_end / 4096) + 1}});
  fs.fill(f, char(0xAA));
  host_ubc_reset_resident_peak();
  size_t before = host_ubc_resident_bytes();
  host_blkdev_reset_stats(fs.devvp());
  char z = 'z';
  ASSERT_EQ(fs.write(f, gap_end, &z, 1), 0);
  host_devstats st = host_test::devstats(fs.devvp());
  EXPECT_LE(host_ubc_resident_peak_bytes(), before + (2u << 20)) << "pages held for the gap";
  EXPECT_LE(st.writes, uint64_t(gap_end >> 20) + 2) << "the gap in maximal requests";
  EXPECT_GE(st.bytes_written, uint64_t(gap_end) - 2 * 4096);
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  std::vector<char> disk = fs.on_device(f);
  ASSERT_EQ(disk.size(), size_t(gap_end) + 1);
  EXPECT_EQ(disk[999], char(0xAA));
  EXPECT_EQ(size_t(std::find_if(disk.begin() + 1000, disk.end() - 1, [](char c) { return c != 0; }) -
                   disk.begin()),
            size_t(gap_end))
      << "the first byte of the gap that is not zero on the device";
  EXPECT_EQ(disk.back(), 'z');

  // One long write into a small pool: written behind as it goes.
  host_test::PoolLimit limit(4 << 20);
  std::vector<char> d = random_bytes(24 << 20, 15);
  host_ubc_reset_resident_peak();
  ASSERT_EQ(fs.write(f, 0, d.data(), d.size()), 0);
  EXPECT_LE(host_ubc_resident_peak_bytes(), size_t(4 << 20) + (2u << 20));
  ASSERT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  disk = fs.on_device(f);
  EXPECT_TRUE(std::equal(d.begin(), d.end(), disk.begin()));
}

// --- Writes nobody waits for ------------------------------------------------------

// Catches a failed write-behind or page-out that no later fsync or close reports,
// an error reported twice, and stores through a mapping pushed past the file
// system's page-out.
TEST_F(ClusterTest, FailedWritesNobodyWaitedForAreReportedOnce) {
  bmfs_file* f = fs.create(2 << 20, {{2000, 512}});
  host_memdev_faults faults;
  faults.fail_write_bytes.push_back(2000 * 4096 + 5000);
  host_memdev_set_faults(fs.devvp(), faults);
  std::vector<char> d = random_bytes(2 << 20, 16);
  ASSERT_EQ(fs.write(f, 0, d.data(), d.size()), 0) << "written behind, not waited for";
  EXPECT_EQ(cluster_push(f->vp, IO_CLOSE), EIO);
  EXPECT_EQ(cluster_push(f->vp, IO_SYNC), EIO) << "the pages stay dirty and fail again";
  host_memdev_set_faults(fs.devvp(), host_memdev_faults());
  EXPECT_EQ(cluster_push(f->vp, IO_SYNC), 0);
  EXPECT_EQ(cluster_push(f->vp, IO_CLOSE), 0) << "reported once";
  EXPECT_TRUE(fs.on_device(f) == d);

  // A store through a mapping is left to pageout by pushes; the page-out
  // thread's failure is reported by the next close.
  bmfs_file* g = fs.create(2 << 20, {{3000, 512}});
  auto store = [&](off_t off) {
    uintptr_t addr = 0;
    ASSERT_EQ(ubc_page_fault(g->vp, off, 1, &addr), 0);
    reinterpret_cast<char*>(addr)[7] = 'm';
    ubc_page_dirty(g->vp, off);
    ubc_page_unpin(g->vp, off);
  };
  store(0);
  ASSERT_EQ(cluster_push(g->vp, IO_SYNC), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(g->vp), 1u);
  EXPECT_EQ(g->pageouts.load(), 0);
  ASSERT_EQ(ubc_msync(g->vp, 0, 4096, nullptr, UBC_PUSHDIRTY | UBC_SYNC), 0);
  EXPECT_EQ(g->pageouts.load(), 1);
  EXPECT_EQ(fs.on_device(g)[7], 'm');

  faults.fail_write_bytes = {3000 * 4096 + 100};
  host_memdev_set_faults(fs.devvp(), faults);
  host_test::PoolLimit limit(1 << 20);
  for (off_t off = 0; off < (2 << 20); off += 4096) store(off);
  EXPECT_TRUE(host_test::eventually([&] { return cluster_push(g->vp, IO_CLOSE) == EIO; }));
  host_memdev_set_faults(fs.devvp(), host_memdev_faults());
}

}  // namespace
