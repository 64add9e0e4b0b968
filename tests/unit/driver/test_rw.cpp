// VNOP_READ and VNOP_WRITE on mounted builder images: zeros from the valid
// length on whatever the disk holds, the zero fill of writes past it, growth,
// full volumes, appends, synchronous writes and refused requests.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/mount.h"
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

// Reads across the valid length, or starting past it with nothing cached,
// get zeros after it although the disk holds junk there; a write past the
// pages read puts the zeros on the device.
TEST_F(RwTest, ReadsZerosFromTheValidLengthOn) {
  File f = junk_file(u"f", 3 * kCluster, 1000);
  File g = junk_file(u"g", 3 * kCluster, 1000);
  mount_built();
  vnode_t vp = get(f.offset);
  vnode_t cold = get(g.offset);

  Transfer t = vn_read(vp, 900, 200);
  ASSERT_EQ(0, t.error);
  ASSERT_EQ(200u, t.data.size());
  EXPECT_EQ(pattern_bytes(900, 100), std::vector<uint8_t>(t.data.begin(), t.data.begin() + 100));
  EXPECT_TRUE(all_zero(t.data, 100)) << "bytes 1000-1099 must be zeros";

  t = vn_read(cold, 1024, 3 * kCluster - 1024);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(3 * kCluster - 1024, t.data.size());
  EXPECT_TRUE(all_zero(t.data)) << "a cold read past the valid length saw the disk's junk";

  t = vn_read(cold, 0, 3 * kCluster);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(pattern_bytes(0, 1000), std::vector<uint8_t>(t.data.begin(), t.data.begin() + 1000));
  EXPECT_TRUE(all_zero(t.data, 1000));

  // Those zeros are only in the page cache: a write past them must still
  // put zeros on the device.
  ASSERT_EQ(0, vn_write(cold, 9000, pattern_bytes(9000, 10)).error);
  ASSERT_EQ(0, VNOP_FSYNC(cold, MNT_WAIT, ctx_));
  std::vector<uint8_t> disk = disk_data(g.first_cluster, 0, 9010);
  EXPECT_EQ(pattern_bytes(0, 1000), std::vector<uint8_t>(disk.begin(), disk.begin() + 1000));
  EXPECT_TRUE(all_zero(disk, 1000, 9000)) << "junk left under the new valid length";
  unmount_and_check();
}

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

// A write at 5,000 past a valid length of 1,000 zero-fills the gap on the
// device and moves the valid length; the size stays.
TEST_F(RwTest, WritePastTheValidLengthZeroFillsTheGap) {
  File f = junk_file(u"f", 3 * kCluster, 1000);
  mount_built();
  vnode_t vp = get(f.offset);
  struct exfat_node* node = node_of(vp);
  std::vector<uint8_t> data = pattern_bytes(0, 100, 77);

  Transfer t = vn_write(vp, 5000, data);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(0, t.resid);
  EXPECT_EQ(5100, t.offset);
  EXPECT_EQ(5100u, node->x_valid_size);
  EXPECT_EQ(3u * kCluster, node->x_size);
  EXPECT_EQ(X_DIRTY | X_STREAM_DIRTY, node->x_flags & (X_DIRTY | X_STREAM_DIRTY));

  t = vn_read(vp, 0, 3 * kCluster);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(pattern_bytes(0, 1000), std::vector<uint8_t>(t.data.begin(), t.data.begin() + 1000));
  EXPECT_TRUE(all_zero(t.data, 1000, 5000));
  EXPECT_EQ(data, std::vector<uint8_t>(t.data.begin() + 5000, t.data.begin() + 5100));
  EXPECT_TRUE(all_zero(t.data, 5100)) << "past the new valid length";

  ASSERT_EQ(0, VNOP_FSYNC(vp, MNT_WAIT, ctx_));
  std::vector<uint8_t> disk = disk_data(f.first_cluster, 0, 5100);
  EXPECT_TRUE(all_zero(disk, 1000, 5000)) << "the gap must be zeros on the device";
  EXPECT_EQ(data, std::vector<uint8_t>(disk.begin() + 5000, disk.end()));
  unmount_and_check();
  std::vector<uint8_t> stream = disk_stream(f.offset);
  EXPECT_EQ(5100u, le64dec(&stream[8]));
  EXPECT_EQ(3u * kCluster, le64dec(&stream[24]));
}

// A write ending in the last cluster takes no cluster; IO_APPEND writes at
// the size whatever the uio's offset says.
TEST_F(RwTest, WriteInsideTheLastClusterOnlyMovesTheSize) {
  File f = junk_file(u"f", 100, 100);
  mount_built();
  vnode_t vp = get(f.offset);
  struct exfat_node* node = node_of(vp);
  uint32_t free_before = xm->xm_free_clusters;

  ASSERT_EQ(0, vn_write(vp, 100, pattern_bytes(100, 3000)).error);
  EXPECT_EQ(3100u, node->x_size);
  EXPECT_EQ(3100u, node->x_valid_size);
  EXPECT_EQ(free_before, xm->xm_free_clusters);
  EXPECT_EQ(f.first_cluster, node->x_start_cluster);
  EXPECT_EQ(0u, xm->xm_bitmap_cache_dirty);

  Transfer t = vn_write(vp, 10, pattern_bytes(3100, 2000), IO_APPEND);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(5100, t.offset);
  EXPECT_EQ(5100u, node->x_size);
  EXPECT_EQ(free_before - 1, xm->xm_free_clusters) << "the second cluster";
  EXPECT_EQ(pattern_bytes(0, 5100), vn_read(vp, 0, 8192).data);
  unmount_and_check();
}

class RwFullTest : public RwTest {
 protected:
  RwFullTest() : RwTest(64) {}
};

// On a full volume IO_UNIT fails before anything changes; without it the
// write fills what is free and leaves the rest in the uio.
TEST_F(RwFullTest, WritesOnAFullVolume) {
  File f = junk_file(u"f", 100, 100);
  leave_free(3);
  mount_built();
  vnode_t vp = get(f.offset);
  struct exfat_node* node = node_of(vp);
  ASSERT_EQ(3u, xm->xm_free_clusters);

  std::vector<uint8_t> data = pattern_bytes(0, 5 * kCluster);
  Transfer t = vn_write(vp, 0, data, IO_UNIT);
  EXPECT_EQ(ENOSPC, t.error);
  EXPECT_EQ(0, t.offset);
  EXPECT_EQ(5 * kCluster, t.resid);
  EXPECT_EQ(100u, node->x_size);
  EXPECT_EQ(100u, node->x_valid_size);
  EXPECT_EQ(3u, xm->xm_free_clusters);
  EXPECT_EQ(pattern_bytes(0, 100), vn_read(vp, 0, 4096).data);

  t = vn_write(vp, 0, data);
  ASSERT_EQ(0, t.error);
  EXPECT_EQ(4 * kCluster, t.offset);
  EXPECT_EQ(kCluster, t.resid);
  EXPECT_EQ(4u * kCluster, node->x_size);
  EXPECT_EQ(4u * kCluster, node->x_valid_size);
  EXPECT_EQ(0u, xm->xm_free_clusters);
  EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 4 * kCluster),
            vn_read(vp, 0, 5 * kCluster).data);

  t = vn_write(vp, 4 * kCluster, pattern_bytes(0, 10));
  EXPECT_EQ(ENOSPC, t.error);
  EXPECT_EQ(10, t.resid);
  unmount_and_check();
}

// IO_SYNC: on return the device holds the data and the entry the new sizes.
TEST_F(RwTest, SynchronousWriteUpdatesTheEntry) {
  File f = junk_file(u"f", 0, 0);
  mount_built(MNT_ASYNC);  // no delayed flush: what is on disk came from the write
  vnode_t vp = get(f.offset);
  std::vector<uint8_t> data = pattern_bytes(0, 2 * kCluster + 10);

  ASSERT_EQ(0, vn_write(vp, 0, data, IO_SYNC).error);
  std::vector<uint8_t> stream = disk_stream(f.offset);
  EXPECT_EQ(data.size(), le64dec(&stream[8])) << "ValidDataLength";
  EXPECT_EQ(data.size(), le64dec(&stream[24])) << "DataLength";
  uint32_t first = le32dec(&stream[20]);
  ASSERT_EQ(node_of(vp)->x_start_cluster, first);
  EXPECT_EQ(data, disk_data(first, 0, data.size()));
  EXPECT_EQ(0u, node_of(vp)->x_flags & (X_DIRTY | X_STREAM_DIRTY));
  unmount_and_check();
}

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
