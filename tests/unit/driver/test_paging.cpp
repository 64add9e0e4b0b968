// Paging through mapped access on mounted builder images: zeros past the
// valid length although the disk holds junk.

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

}  // namespace
