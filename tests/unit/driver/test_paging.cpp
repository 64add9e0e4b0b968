// Paging through mapped access on mounted builder images: zeros past the
// valid length although the disk holds junk, and the zero fill of the gap
// before a page stored beyond it.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;

bool holds_pattern(const uint8_t* p, uint64_t offset, size_t length) {
  for (size_t i = 0; i < length; i++)
    if (p[i] != pattern(offset + i))
      return false;
  return true;
}

class PagingTest : public VolumeTest {
 protected:
  // A copy of the page at `offset` as mapped access sees it.
  std::vector<uint8_t> fault(vnode_t vp, off_t offset) {
    uintptr_t addr = 0;
    EXPECT_EQ(0, ubc_page_fault(vp, offset, 0, &addr));
    if (addr == 0)
      return {};
    std::vector<uint8_t> page(reinterpret_cast<uint8_t*>(addr),
                              reinterpret_cast<uint8_t*>(addr) + PAGE_SIZE);
    ubc_page_unpin(vp, offset);
    return page;
  }

  // A store of the pattern over the whole page at `offset`, through a mapping.
  void store(vnode_t vp, off_t offset) {
    uintptr_t addr = 0;
    ASSERT_EQ(0, ubc_page_fault(vp, offset, 1, &addr));
    auto* p = reinterpret_cast<uint8_t*>(addr);
    for (uint32_t i = 0; i < PAGE_SIZE; i++)
      p[i] = pattern(static_cast<uint64_t>(offset) + i);
    ubc_page_dirty(vp, offset);
    ubc_page_unpin(vp, offset);
  }
};

// Valid length 5,000, inside the second page.
TEST_F(PagingTest, MappedPagesReadZerosPastTheValidLength) {
  File f = junk_file(u"f", 4 * kCluster, 5000);
  mount_built();
  vnode_t vp = get(f.offset);

  std::vector<uint8_t> page = fault(vp, 4096);
  ASSERT_EQ(size_t(PAGE_SIZE), page.size());
  EXPECT_TRUE(holds_pattern(page.data(), 4096, 5000 - 4096));
  EXPECT_TRUE(all_zero(page, 5000 - 4096));
  for (off_t at : {off_t(8192), off_t(12288)}) {
    page = fault(vp, at);
    EXPECT_TRUE(all_zero(page)) << at;
  }
  page = fault(vp, 0);
  EXPECT_TRUE(holds_pattern(page.data(), 0, PAGE_SIZE));
}

// A store through a mapping two pages beyond the valid length, paged out
// by msync, or left to fsync (which must not write it without moving the
// valid length over it).
TEST_F(PagingTest, StoreBeyondTheValidLengthPagesOutWithTheGapZeroed) {
  File f = junk_file(u"f", 4 * kCluster, 1000);
  File g = junk_file(u"g", 10000, 1000);
  File h = junk_file(u"h", 4 * kCluster, 1000);
  mount_built();
  vnode_t vp = get(f.offset);
  vnode_t short_vp = get(g.offset);
  vnode_t synced_vp = get(h.offset);

  store(synced_vp, 8192);
  ASSERT_EQ(0, VNOP_FSYNC(synced_vp, MNT_WAIT, ctx_));
  EXPECT_EQ(12288u, node_of(synced_vp)->x_valid_size);
  std::vector<uint8_t> synced = disk_data(h.first_cluster, 0, 12288);
  EXPECT_TRUE(all_zero(synced, 1000, 8192));
  EXPECT_TRUE(holds_pattern(synced.data() + 8192, 8192, 4096));

  store(vp, 8192);
  ASSERT_EQ(0, ubc_msync(vp, 0, 4 * kCluster, nullptr, UBC_PUSHDIRTY | UBC_SYNC));
  EXPECT_EQ(12288u, node_of(vp)->x_valid_size);
  EXPECT_EQ(X_DIRTY | X_STREAM_DIRTY, node_of(vp)->x_flags & (X_DIRTY | X_STREAM_DIRTY));
  ASSERT_EQ(0, VNOP_FSYNC(vp, MNT_WAIT, ctx_));
  std::vector<uint8_t> disk = disk_data(f.first_cluster, 0, 12288);
  EXPECT_TRUE(holds_pattern(disk.data(), 0, 1000));
  EXPECT_TRUE(all_zero(disk, 1000, 8192)) << "the gap on the device";
  EXPECT_TRUE(holds_pattern(disk.data() + 8192, 8192, 4096));

  store(short_vp, 8192);
  ASSERT_EQ(0, ubc_msync(short_vp, 0, 10000, nullptr, UBC_PUSHDIRTY | UBC_SYNC));
  EXPECT_EQ(10000u, node_of(short_vp)->x_valid_size);

  unmount_and_check();
  EXPECT_EQ(12288u, le64dec(&disk_stream(f.offset)[8]));
  EXPECT_EQ(10000u, le64dec(&disk_stream(g.offset)[8]));
  EXPECT_EQ(12288u, le64dec(&disk_stream(h.offset)[8]));
}

}  // namespace
