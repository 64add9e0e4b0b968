// Block devices: disk ioctls, file-backed devices, and the fault injection
// and power-cut behaviour of in-memory devices.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host_test_util.h"

namespace {

using host_test::cache_flush;
using host_test::dev_io;
using host_test::device_byte;
using host_test::set_blocksize;
using host_test::write_fill;

template <typename T>
int ioctl_get(vnode_t dev, u_long cmd, T* out) {
  return VNOP_IOCTL(dev, cmd, reinterpret_cast<caddr_t>(out), 0, nullptr);
}

class MemdevTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(host_memdev_create(1 << 20, 512, 4096, &dev_), 0); }
  void TearDown() override { host_blkdev_close(dev_); }
  host_devstats stats() { return host_test::devstats(dev_); }
  uint8_t byte_at(uint64_t off) { return device_byte(dev_, off); }
  vnode_t dev_ = nullptr;
};

// Catches sizes misreported, bad sizes accepted, refused changes applied, shared numbers.
TEST_F(MemdevTest, IoctlsReportAndChangeTheBlockSizes) {
  uint32_t bsize = 0, phys = 0;
  EXPECT_EQ(vnode_vtype(dev_), VBLK);
  ASSERT_EQ(ioctl_get(dev_, DKIOCGETBLOCKSIZE, &bsize), 0);
  ASSERT_EQ(ioctl_get(dev_, DKIOCGETPHYSICALBLOCKSIZE, &phys), 0);
  EXPECT_EQ(bsize, 512u);
  EXPECT_EQ(phys, 4096u);

  ASSERT_EQ(set_blocksize(dev_, 4096), 0);
  ASSERT_EQ(ioctl_get(dev_, DKIOCGETBLOCKSIZE, &bsize), 0);
  EXPECT_EQ(bsize, 4096u);
  off_t off = 0;
  EXPECT_EQ(VNOP_BLKTOOFF(dev_, 3, &off), 0);
  EXPECT_EQ(off, 3 * 4096);

  // Block numbers now count 4096-byte blocks.
  ASSERT_EQ(write_fill(dev_, 2, 4096, 0x42), 0);
  EXPECT_EQ(byte_at(2 * 4096), 0x42);
  EXPECT_EQ(byte_at(2 * 4096 - 1), 0);

  for (uint32_t bad : {1000u, 256u, 131072u}) EXPECT_EQ(set_blocksize(dev_, bad), EINVAL) << bad;
  host_memdev_refuse_setblocksize(dev_, ENOTSUP);
  EXPECT_EQ(set_blocksize(dev_, 512), ENOTSUP);
  ASSERT_EQ(ioctl_get(dev_, DKIOCGETBLOCKSIZE, &bsize), 0);
  EXPECT_EQ(bsize, 4096u);
  host_memdev_refuse_setblocksize(dev_, 0);
  EXPECT_EQ(set_blocksize(dev_, 512), 0);

  EXPECT_EQ(VNOP_IOCTL(dev_, 0x1234, nullptr, 0, nullptr), ENOTTY);
  EXPECT_EQ(cache_flush(dev_), 0);
  EXPECT_EQ(stats().flushes, 1u);

  // Every device has its own number (their buffers would mix otherwise).
  vnode_t other = nullptr;
  ASSERT_EQ(host_memdev_create(4096, 512, 512, &other), 0);
  EXPECT_NE(vnode_specrdev(dev_), vnode_specrdev(other));
  host_blkdev_close(other);
  EXPECT_EQ(host_memdev_create(4096, 500, 512, &other), EINVAL);
}

// Catches faults on the wrong requests, failed writes that change the medium,
// transfers past the end, and an off-by-one in the write budget.
TEST_F(MemdevTest, InjectedReadAndWriteFaultsHitOnlyTheChosenBytes) {
  host_memdev_faults f;
  f.fail_read_bytes = {10 * 512};
  f.fail_write_bytes = {20 * 512 + 511};
  host_memdev_set_faults(dev_, f);
  std::vector<uint8_t> v(1024);
  EXPECT_EQ(dev_io(dev_, false, 9, v.data(), 1024), EIO);  // covers byte 10*512
  EXPECT_EQ(dev_io(dev_, false, 11, v.data(), 1024), 0);
  EXPECT_EQ(dev_io(dev_, false, 9, v.data(), 512), 0);
  EXPECT_EQ(write_fill(dev_, 20, 512, 1), EIO);
  EXPECT_EQ(byte_at(20 * 512), 0);  // a failed write changes nothing
  EXPECT_EQ(write_fill(dev_, 21, 512, 1), 0);
  EXPECT_EQ(dev_io(dev_, false, 20, v.data(), 512), 0);  // reads of it still work
  EXPECT_EQ(stats().reads, 4u);                          // failed requests count too
  EXPECT_EQ(stats().writes, 2u);

  // Off-by-one bounds checks at the device's end.
  EXPECT_EQ(dev_io(dev_, false, 2047, v.data(), 512), 0);
  EXPECT_EQ(dev_io(dev_, false, 2047, v.data(), 1024), EIO);
  EXPECT_EQ(dev_io(dev_, true, 4096, v.data(), 512), EIO);
  std::vector<uint8_t> big(2 << 20);
  EXPECT_EQ(host_memdev_load(dev_, big.data(), big.size(), 0), EINVAL);
  EXPECT_EQ(host_memdev_read(dev_, big.data(), 1, 1 << 20), EINVAL);

  // Writes fail after the chosen number, also beside power cuts.
  f = host_memdev_faults{};
  f.fail_writes_after = 2;
  host_memdev_set_faults(dev_, f);
  EXPECT_EQ(write_fill(dev_, 0, 512, 1), 0);
  EXPECT_EQ(write_fill(dev_, 1, 512, 1), 0);
  EXPECT_EQ(write_fill(dev_, 2, 512, 1), EIO);
  EXPECT_EQ(write_fill(dev_, 3, 512, 1), EIO);
  EXPECT_EQ(byte_at(2 * 512), 0);
  EXPECT_EQ(dev_io(dev_, false, 0, v.data(), 512), 0);

  f.power_cut_mode = true;
  f.fail_writes_after = 3;
  host_memdev_set_faults(dev_, f);  // new faults start a new count
  ASSERT_EQ(write_fill(dev_, 10, 512, 0xA0), 0);
  ASSERT_EQ(cache_flush(dev_), 0);
  ASSERT_EQ(write_fill(dev_, 11, 512, 0xA1), 0);
  ASSERT_EQ(write_fill(dev_, 12, 512, 0xA2), 0);
  EXPECT_EQ(write_fill(dev_, 13, 512, 0xA3), EIO);
  host_memdev_power_cut(dev_);
  host_memdev_set_faults(dev_, host_memdev_faults{});
  EXPECT_EQ(byte_at(10 * 512), 0xA0);
  EXPECT_EQ(host_test::device_bytes(dev_, 11 * 512, 1536), std::vector<uint8_t>(1536, 0));
  for (int i = 0; i < 10; i++) EXPECT_EQ(write_fill(dev_, 20 + i, 512, 1), 0);
}

// Catches a cut that keeps unflushed writes, loses flushed or overlapping ones.
TEST_F(MemdevTest, PowerCutDropsWritesSinceTheLastCacheFlush) {
  ASSERT_EQ(write_fill(dev_, 0, 512, 0x01), 0);  // before power-cut mode: durable
  host_memdev_faults f;
  f.power_cut_mode = true;
  host_memdev_set_faults(dev_, f);

  ASSERT_EQ(write_fill(dev_, 1, 512, 0x11), 0);
  ASSERT_EQ(cache_flush(dev_), 0);
  // Overlapping unflushed writes: the cut must restore the flushed bytes.
  ASSERT_EQ(write_fill(dev_, 1, 1024, 0x22), 0);
  ASSERT_EQ(write_fill(dev_, 0, 1024, 0x33), 0);
  ASSERT_EQ(write_fill(dev_, 5, 512, 0x44), 0);
  EXPECT_EQ(byte_at(512), 0x33);  // reads see the volatile data before the cut

  host_memdev_power_cut(dev_);
  EXPECT_EQ(byte_at(0), 0x01);
  EXPECT_EQ(byte_at(512), 0x11);
  EXPECT_EQ(byte_at(1024), 0);
  EXPECT_EQ(byte_at(5 * 512), 0);

  // A device fsync that waits is a flush too; one that doesn't wait isn't.
  ASSERT_EQ(write_fill(dev_, 6, 512, 0x55), 0);
  ASSERT_EQ(VNOP_FSYNC(dev_, MNT_WAIT, nullptr), 0);
  ASSERT_EQ(write_fill(dev_, 7, 512, 0x66), 0);
  ASSERT_EQ(VNOP_FSYNC(dev_, MNT_NOWAIT, nullptr), 0);
  host_memdev_power_cut(dev_);
  EXPECT_EQ(byte_at(6 * 512), 0x55);
  EXPECT_EQ(byte_at(7 * 512), 0);
}

// Catches a failed write that is forgotten once its buffer is gone (a
// delayed write flushed by someone who doesn't look), one that a later
// success wipes out, and failed reads counted as lost writes.
TEST_F(MemdevTest, TheFirstFailedWriteIsRemembered) {
  host_memdev_faults f;
  f.fail_read_bytes = {0};
  f.fail_write_bytes = {30 * 512};
  host_memdev_set_faults(dev_, f);
  std::vector<uint8_t> v(512);
  EXPECT_EQ(dev_io(dev_, false, 0, v.data(), 512), EIO);
  EXPECT_EQ(write_fill(dev_, 29, 512, 1), 0);
  EXPECT_EQ(host_blkdev_write_error(dev_), 0);

  // A delayed write fails inside a flush that reports nothing.
  buf_t bp = buf_getblk(dev_, 30, 512, 0, 0, BLK_META);
  memset(reinterpret_cast<void*>(buf_dataptr(bp)), 0x5A, 512);
  buf_bdwrite(bp);
  VNOP_FSYNC(dev_, MNT_WAIT, nullptr);
  EXPECT_EQ(host_blkdev_write_error(dev_), EIO);
  EXPECT_EQ(write_fill(dev_, 31, 512, 1), 0);
  EXPECT_EQ(host_blkdev_write_error(dev_), EIO) << "a later write that works changes nothing";
}

// --- Devices over files --------------------------------------------------------------

class FiledevTest : public ::testing::Test {
 protected:
  // A 256 KiB file whose every byte holds the number of its 512-byte block.
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "exvol-blkdev-XXXXXX";
    int fd = mkstemp(tmpl.data());
    ASSERT_GE(fd, 0);
    path_ = tmpl;
    std::vector<uint8_t> img(256 * 1024);
    for (size_t i = 0; i < img.size(); i++) img[i] = static_cast<uint8_t>(i / 512);
    ASSERT_EQ(write(fd, img.data(), img.size()), static_cast<ssize_t>(img.size()));
    close(fd);
  }
  void TearDown() override { unlink(path_.c_str()); }
  // The file's bytes, read past the device.
  std::vector<uint8_t> file_bytes(off_t off, size_t len) {
    std::vector<uint8_t> v(len);
    int fd = open(path_.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(pread(fd, v.data(), len, off), static_cast<ssize_t>(len));
    close(fd);
    return v;
  }
  std::string path_;
};

// Catches a file device that sizes, splits, places or closes wrongly, or ignores read-only.
TEST_F(FiledevTest, ReadsAndWritesTheFileInOneRequestEach) {
  vnode_t dev = nullptr;
  ASSERT_EQ(host_blkdev_open(path_.c_str(), 0, &dev), 0);
  uint32_t bsize = 0;
  ASSERT_EQ(ioctl_get(dev, DKIOCGETBLOCKSIZE, &bsize), 0);
  EXPECT_EQ(bsize, 512u);
  buf_t bp = nullptr;
  ASSERT_EQ(buf_meta_bread(dev, 8, 65536, NOCRED, &bp), 0);
  auto* d = reinterpret_cast<uint8_t*>(buf_dataptr(bp));
  for (int i = 0; i < 65536; i++) ASSERT_EQ(d[i], static_cast<uint8_t>(8 + i / 512)) << i;
  memset(d + 512, 0xEE, 512);
  ASSERT_EQ(buf_bwrite(bp), 0);
  host_devstats s = host_test::devstats(dev);
  EXPECT_EQ(s.reads, 1u);
  EXPECT_EQ(s.writes, 1u);
  bp = buf_getblk(dev, 3, 512, 0, 0, BLK_META);
  memset(reinterpret_cast<void*>(buf_dataptr(bp)), 0x7E, 512);
  buf_bdwrite(bp);
  host_blkdev_close(dev);
  EXPECT_EQ(file_bytes(9 * 512 - 1, 2), (std::vector<uint8_t>{8, 0xEE}));
  EXPECT_EQ(file_bytes(3 * 512 + 100, 1)[0], 0x7E);

  ASSERT_EQ(host_blkdev_open(path_.c_str(), 1, &dev), 0);
  ASSERT_EQ(buf_meta_bread(dev, 0, 512, NOCRED, &bp), 0);
  EXPECT_EQ(host_blkdev_write_error(dev), 0);
  EXPECT_EQ(buf_bwrite(bp), EROFS);
  EXPECT_EQ(host_blkdev_write_error(dev), EROFS);
  host_blkdev_close(dev);
  EXPECT_EQ(host_blkdev_open((path_ + "-missing").c_str(), 0, &dev), ENOENT);
  EXPECT_EQ(host_blkdev_open(::testing::TempDir().c_str(), 1, &dev), ENODEV);
}

int unmap(vnode_t dev, std::vector<dk_extent_t> extents) {
  dk_unmap_t u{extents.data(), static_cast<uint32_t>(extents.size()), 0};
  return VNOP_IOCTL(dev, DKIOCUNMAP, reinterpret_cast<caddr_t>(&u), 0, nullptr);
}

// Catches a discard that lands beside its range, a bad request that
// discards part of itself, and a read-only device that discards.
TEST_F(FiledevTest, UnmapPunchesHolesOfWholeBlocksOnly) {
  vnode_t dev = nullptr;
  ASSERT_EQ(host_blkdev_open(path_.c_str(), 0, &dev), 0);
  struct stat before {};
  ASSERT_EQ(stat(path_.c_str(), &before), 0);
  struct Case {
    std::vector<dk_extent_t> extents;
    int error;
  } cases[] = {
      {{{4096, 512}, {1000, 512}}, EINVAL},  // one misaligned range: nothing
      {{{4096, 512}, {255 * 1024, 2048}}, EINVAL},  // one past the end: nothing
      {{{64 * 1024, 128 * 1024}, {512, 0}}, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(unmap(dev, c.extents), c.error);
  host_devstats s = host_test::devstats(dev);
  EXPECT_EQ(s.discards, 1u);
  EXPECT_EQ(s.bytes_discarded, 128u * 1024);
  host_blkdev_close(dev);
  EXPECT_EQ(file_bytes(4096, 1)[0], 8) << "a refused request discarded";
  EXPECT_EQ(file_bytes(64 * 1024 - 1, 2), (std::vector<uint8_t>{127, 0}));
  EXPECT_EQ(file_bytes(192 * 1024 - 1, 2), (std::vector<uint8_t>{0, 128}));  // block 384
  struct stat after {};
  ASSERT_EQ(stat(path_.c_str(), &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_LE(after.st_blocks, before.st_blocks - 128 * 1024 / 512) << "no hole was punched";

  ASSERT_EQ(host_blkdev_open(path_.c_str(), 1, &dev), 0);
  EXPECT_EQ(unmap(dev, {{0, 512}}), EROFS);
  host_blkdev_close(dev);
}

TEST_F(MemdevTest, UnmapZeroesAndAPowerCutBringsTheBytesBack) {
  write_fill(dev_, 0, 8192, 0xAB);
  ASSERT_EQ(cache_flush(dev_), 0);
  host_memdev_set_faults(dev_, host_memdev_faults{.power_cut_mode = true});
  ASSERT_EQ(unmap(dev_, {{4096, 4096}}), 0);
  EXPECT_EQ(byte_at(4095), 0xAB);
  EXPECT_EQ(byte_at(4096), 0);
  host_memdev_power_cut(dev_);
  EXPECT_EQ(byte_at(4096), 0xAB);
}

}  // namespace
