// VNOP_READ and VNOP_WRITE on mounted builder images: refused and clipped
// requests, extensions against a model on a nearly full volume, far writes
// with bounded memory, write-behind errors at close, and threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;  // 512-byte sectors, 8 per cluster

class RwTest : public VolumeTest {
 protected:
  explicit RwTest(uint32_t cluster_count = 256) : VolumeTest(geometry_with_clusters(cluster_count)) {}
};

// Reads stop at the size (also with a sector-aligned valid length); reads at
// or past it move nothing; a negative offset is refused.
TEST_F(RwTest, ReadStopsAtTheSizeAndRefusesNegativeOffsets) {
  File f = junk_file(u"f", 2 * kCluster - 300, 1024);
  mount_built();
  vnode_t vp = get(f.offset);

  Transfer t = vn_read(vp, 1000, 3 * kCluster);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(2 * kCluster - 300 - 1000, t.data.size());
  EXPECT_EQ(pattern_bytes(1000, 24), std::vector<uint8_t>(t.data.begin(), t.data.begin() + 24));
  EXPECT_TRUE(all_zero(t.data, 24));
  EXPECT_EQ(2 * kCluster - 300, static_cast<uint64_t>(t.offset));

  for (off_t at : {off_t(2 * kCluster - 300), off_t(2 * kCluster), off_t(1) << 40}) {
    t = vn_read(vp, at, 100);
    EXPECT_EQ(0, t.error) << at;
    EXPECT_EQ(0u, t.data.size()) << at;
    EXPECT_EQ(100, t.resid) << at;
  }
  EXPECT_EQ(EINVAL, vn_read(vp, -1, 10).error);
  EXPECT_EQ(0, vn_read(vp, 0, 0).error);
}

class RwFullTest : public RwTest {
 protected:
  RwFullTest() : RwTest(64) {}
};

// Refused writes, with their log lines.
TEST_F(RwTest, RefusedWritesSayWhy) {
  File f = junk_file(u"f", 100, 100);
  File g = junk_file(u"g", 100, 100);
  mount_built();
  vnode_t vp = get(f.offset);
  struct exfat_node* node = node_of(vp);
  KernLogCapture log;

  EXPECT_EQ(EINVAL, vn_write(vp, -5, pattern_bytes(0, 10)).error);
  EXPECT_EQ(1u, log.count("exfat_vnop_write: invalid offset (-5)"));
  EXPECT_EQ(EISDIR, vn_write(root_vp_, 0, pattern_bytes(0, 10)).error);
  vnode_t link = get(g.offset, VLNK);
  EXPECT_EQ(EINVAL, vn_write(link, 0, pattern_bytes(0, 10)).error);
  EXPECT_EQ(1u, log.count("exfat_vnop_write: invalid vnode type (5)"));

  Transfer t = vn_write(vp, INT64_MAX - 5, pattern_bytes(0, 10));
  EXPECT_EQ(EFBIG, t.error);
  EXPECT_EQ(1u, log.count("exfat_vnop_write: end of write overflow"));
  EXPECT_EQ(100u, node->x_size);

  // A size past any offset (only corrupt metadata makes one) stops an append.
  exfat_node_lock(node);
  node->x_size = uint64_t(1) << 63;
  exfat_node_unlock(node);
  EXPECT_EQ(EFBIG, vn_write(vp, 0, pattern_bytes(0, 10), IO_APPEND).error);
  EXPECT_EQ(1u, log.count("exfat_vnop_write: file offset overflow (append)"));
  exfat_node_lock(node);
  node->x_size = 100;
  exfat_node_unlock(node);

  EXPECT_EQ(0, vn_write(vp, 0, {}).error);
  EXPECT_EQ(4u, log.lines().size()) << "nothing else was logged";
}

// A model of the files of the generator below: their bytes, and how much a
// write can take on the volume it sees.
struct SpaceModel {
  std::vector<std::vector<uint8_t>> files;
  uint32_t initial_free = 0;

  static uint64_t clusters(uint64_t bytes) { return (bytes + kCluster - 1) / kCluster; }
  uint32_t free() const {
    uint64_t used = 0;
    for (const auto& f : files)
      used += clusters(f.size());
    return initial_free - static_cast<uint32_t>(used);
  }
  // The bytes a write of `len` at `off` writes into file i, or -1 for
  // ENOSPC: with IO_UNIT all or nothing, otherwise what fits, and nothing
  // (an error) when not even the first byte does.
  int64_t fits(size_t i, uint64_t off, uint64_t len, bool unit) const {
    uint64_t have = clusters(files[i].size());
    uint64_t cap = (have + free()) * kCluster;
    uint64_t end = off + len;
    if (end <= std::max<uint64_t>(files[i].size(), have * kCluster))
      return static_cast<int64_t>(len);
    if (unit)
      return end <= cap ? static_cast<int64_t>(len) : -1;
    return off < cap ? static_cast<int64_t>(std::min(end, cap) - off) : -1;
  }
  void write(size_t i, uint64_t off, const std::vector<uint8_t>& data, uint64_t n) {
    std::vector<uint8_t>& f = files[i];
    if (f.size() < off + n)
      f.resize(off + n, 0);
    std::copy(data.begin(), data.begin() + static_cast<ptrdiff_t>(n), f.begin() + off);
  }
};

// Random writes (anywhere, far past the end included, with and without
// IO_UNIT and IO_APPEND) and size changes on a small volume that is always
// nearly full, against a model. Catches an extending write or size change
// that fails but leaves a size, valid length, allocation or free count
// behind (a valid length past the size in particular), short writes that
// write the wrong amount, and gaps that read back as anything but zeros;
// the checker passes the volume in the end.
TEST_F(RwFullTest, FailingAndShortExtensionsAgainstAModel) {
  uint32_t offsets[2] = {empty_file(u"a"), empty_file(u"b")};
  mount_built();
  vnode_t vps[2] = {get(offsets[0]), get(offsets[1])};
  SpaceModel model;
  model.files.resize(2);
  model.initial_free = free_clusters();
  const uint64_t volume = uint64_t(model.initial_free) * kCluster;
  std::mt19937 rng(2024);

  for (int op = 0; op < 400; op++) {
    size_t i = rng() % 2;
    struct exfat_node* node = node_of(vps[i]);
    const uint64_t size = model.files[i].size();
    std::string what;
    int error;
    if (rng() % 5 == 0) {
      uint64_t to = rng() % (volume + volume / 2);
      what = "size " + std::to_string(to);
      error = vn_set_size(vps[i], to);
      bool room = SpaceModel::clusters(to) <= SpaceModel::clusters(size) + model.free();
      ASSERT_EQ(room ? 0 : ENOSPC, error) << op << ": " << what;
      if (!error)
        model.files[i].resize(to, 0);
    } else {
      uint64_t off;
      switch (rng() % 4) {
        case 0: off = rng() % (2 * volume); break;        // anywhere, often past the end
        case 1: off = size == 0 ? 0 : rng() % size; break;  // inside
        default: off = size + rng() % (3 * kCluster); break;
      }
      int flags = (rng() % 3 == 0 ? IO_UNIT : 0) | (rng() % 4 == 0 ? IO_APPEND : 0);
      if (flags & IO_APPEND)
        off = size;
      std::vector<uint8_t> data = pattern_bytes(off, 1 + rng() % (3 * kCluster), uint8_t(op));
      int64_t n = model.fits(i, off, data.size(), flags & IO_UNIT);
      off_t asked = (flags & IO_APPEND) ? off_t(rng() % 100) : off_t(off);
      what = "write " + std::to_string(data.size()) + " at " + std::to_string(off) + " flags " +
             std::to_string(flags);
      Transfer t = vn_write(vps[i], asked, data, flags);
      error = t.error;
      ASSERT_EQ(n < 0 ? ENOSPC : 0, t.error) << op << ": " << what;
      if (n < 0) {
        EXPECT_EQ(asked, t.offset) << op << ": the uio as it was";
        EXPECT_EQ(off_t(data.size()), t.resid) << op;
      } else {
        EXPECT_EQ(off_t(off) + n, t.offset) << op << ": " << what;
        model.write(i, off, data, uint64_t(n));
      }
    }
    ASSERT_EQ(model.files[i].size(), node->x_size) << op << ": " << what;
    ASSERT_LE(node->x_valid_size, node->x_size) << op << ": " << what;
    // A failed write gives its clusters back once the file's entry is
    // written.
    ASSERT_EQ(0, VNOP_FSYNC(vps[i], MNT_WAIT, ctx_)) << op;
    settle_frees();
    ASSERT_EQ(model.free(), free_clusters()) << op << ": " << what;
    if (op % 20 == 0 || error) {
      std::vector<uint8_t> got;
      ASSERT_EQ(0, vn_read_all(vps[i], &got, 1u << 22, 7 * kCluster)) << op;
      ASSERT_TRUE(got == model.files[i]) << op << ": " << what;
    }
  }
  unmount_and_check();
}

class RwLargeTest : public RwTest {
 protected:
  RwLargeTest() : RwTest(12288) {}  // 48 MiB
};

// A write far past the end of a file whose clusters hold junk. Catches a gap
// held in the page cache all at once (the memory grows with the gap),
// zeroed page by page, or left with junk on the device.
TEST_F(RwLargeTest, WriteFarPastTheEndHoldsBoundedPagesAndZeroesInLargeRequests) {
  File f = junk_file(u"f", 16 << 20, 1000);
  mount_built();
  vnode_t vp = get(f.offset);
  std::vector<uint8_t> junk(24 << 20, 0xEE);  // the free clusters after the file
  ASSERT_EQ(0, host_memdev_load(devvp, junk.data(), junk.size(),
                                builder_.cluster_byte_offset(f.first_cluster + 4096)));
  settle();
  host_ubc_reset_resident_peak();
  const size_t resident = host_ubc_resident_bytes();
  const off_t at = 40 << 20;

  ASSERT_EQ(0, vn_write_at(vp, at, {'z'}));
  host_devstats st;
  host_blkdev_stats(devvp, &st);
  EXPECT_LE(host_ubc_resident_peak_bytes(), resident + (3u << 20)) << "pages held for the gap";
  EXPECT_LE(st.writes, uint64_t(at >> 20) + 6) << "the gap in maximal requests";
  EXPECT_GE(st.bytes_written, uint64_t(at) - 2 * kCluster);
  struct exfat_node* node = node_of(vp);
  EXPECT_EQ(uint64_t(at) + 1, node->x_size);
  EXPECT_EQ(uint64_t(at) + 1, node->x_valid_size);
  ASSERT_TRUE(node->x_flags & X_CONTIGUOUS);

  ASSERT_EQ(0, VNOP_FSYNC(vp, MNT_WAIT, ctx_));
  std::vector<uint8_t> disk = disk_data(f.first_cluster, 0, size_t(at) + 1);
  EXPECT_EQ(pattern_bytes(0, 1000), std::vector<uint8_t>(disk.begin(), disk.begin() + 1000));
  EXPECT_TRUE(all_zero(disk, 1000, size_t(at))) << "junk left in the gap";
  EXPECT_EQ('z', disk.back());
  unmount_and_check();
}

// A write-behind that fails on the device, after the write returned.
// Catches a close that does not report it, and an error reported again
// once the data reached the disk.
TEST_F(RwLargeTest, CloseReportsAFailedWriteBehindOnce) {
  File f = junk_file(u"f", 2 << 20, 0);
  mount_built();
  vnode_t vp = get(f.offset);
  host_memdev_faults faults;
  faults.fail_write_bytes = {builder_.cluster_byte_offset(f.first_cluster) + 100};
  host_memdev_set_faults(devvp, faults);
  std::vector<uint8_t> data = pattern_bytes(0, 2 << 20, 9);

  ASSERT_EQ(0, vn_write_at(vp, 0, data)) << "written behind, not waited for";
  EXPECT_EQ(EIO, VNOP_CLOSE(vp, FWRITE, ctx_));
  EXPECT_EQ(EIO, VNOP_FSYNC(vp, MNT_WAIT, ctx_)) << "the data is still not on the disk";
  host_memdev_set_faults(devvp, host_memdev_faults{});
  EXPECT_EQ(0, VNOP_FSYNC(vp, MNT_WAIT, ctx_));
  EXPECT_EQ(0, VNOP_CLOSE(vp, FWRITE, ctx_));
  EXPECT_EQ(data, disk_data(f.first_cluster, 0, data.size()));
  unmount_and_check();
}

class RwConcurrency : public RwTest {
 protected:
  RwConcurrency() : RwTest(1024) {}
};

constexpr uint32_t kRecord = 1536;  // crosses pages and sectors unevenly
constexpr uint32_t kRecords = 48;

// Two writers fill disjoint records of one file while two readers read it.
TEST_F(RwConcurrency, ReadersAndWritersOnOneFile) {
  File shared = junk_file(u"shared", 0, 0);
  mount_built();
  vnode_t vp = get(shared.offset);
  std::atomic<int> failures{0};
  std::atomic<bool> writers_done{false};
  auto record = [](uint32_t r) { return pattern_bytes(uint64_t(r) * kRecord, kRecord, 3); };
  auto writer = [&](uint32_t which) {
    for (uint32_t k = 0; k < kRecords / 2; k++) {
      uint32_t r = 2 * ((k * 7) % (kRecords / 2)) + which;  // scrambled, disjoint
      if (vn_write(vp, off_t(r) * kRecord, record(r)).error != 0)
        failures++;
    }
  };
  auto reader = [&](unsigned seed) {
    std::mt19937 rng(seed);
    while (!writers_done.load()) {
      uint32_t r = rng() % kRecords;
      Transfer t = vn_read(vp, off_t(r) * kRecord, 3 * kRecord);
      if (t.error != 0) {
        failures++;
        return;
      }
      for (size_t at = 0; at + kRecord <= t.data.size(); at += kRecord) {
        std::vector<uint8_t> got(t.data.begin() + at, t.data.begin() + at + kRecord);
        if (!all_zero(got) && got != record(r + uint32_t(at / kRecord)))
          failures++;
      }
    }
  };
  std::thread w0(writer, 0u), w1(writer, 1u), r0(reader, 11u), r1(reader, 12u);
  w0.join();
  w1.join();
  writers_done = true;
  r0.join();
  r1.join();
  EXPECT_EQ(0, failures.load());

  Transfer all = vn_read(vp, 0, kRecords * kRecord);
  ASSERT_EQ(0, all.error);
  ASSERT_EQ(kRecords * kRecord, all.data.size());
  for (uint32_t r = 0; r < kRecords; r++)
    EXPECT_TRUE(std::equal(all.data.begin() + r * kRecord, all.data.begin() + (r + 1) * kRecord,
                           record(r).begin()))
        << "record " << r;
  unmount_and_check();
}

}  // namespace
