// The page cache proper: page lists, sizes, mapped access and the page-out
// role.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "blockmapfs.h"
#include "host/cluster.h"
#include "host/malloc.h"
#include "host/ubc.h"
#include "host/uio.h"
#include "host_test_util.h"

namespace {

class UbcTest : public ::testing::Test {
 protected:
  // An 8-page file on device blocks 100..107 holding 0x11; page 1 and 2
  // resident and clean, page 4 dirty with 0x44.
  void SetUp() override {
    f = fs.create(8 * 4096, {{100, 8}});
    fs.fill(f, 0x11);
    std::vector<char> buf(2 * 4096);
    ASSERT_EQ(fs.read(f, 4096, buf.data(), buf.size()), 0);
    std::vector<char> four(4096, 0x44);
    ASSERT_EQ(fs.write(f, 4 * 4096, four.data(), four.size()), 0);
    ASSERT_EQ(host_ubc_vnode_pages(f->vp), 3u);
  }
  BlockMapFs fs;
  bmfs_file* f = nullptr;
};

// Catches lists holding resident pages for a page-in, clean ones for a page-out, and
// failures that leave busy pages behind.
TEST_F(UbcTest, ListsHoldExactlyTheAbsentOrDirtyPages) {
  upl_t upl;
  upl_page_info_t* pl;
  ASSERT_EQ(ubc_create_upl(f->vp, 0, 8 * 4096, &upl, &pl, UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT), 0);
  for (int i = 0; i < 8; i++) {
    bool absent = i != 1 && i != 2 && i != 4;
    EXPECT_EQ(upl_page_present(pl, i), absent) << i;
  }
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 8u) << "absent pages are entered busy";
  ubc_upl_abort(upl, UPL_ABORT_FREE_ON_EMPTY);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 3u) << "aborting drops what the list created";

  ASSERT_EQ(ubc_create_upl(f->vp, 0, 8 * 4096, &upl, &pl, UPL_UBC_PAGEOUT | UPL_RET_ONLY_DIRTY), 0);
  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(upl_page_present(pl, i), i == 4) << i;
    EXPECT_EQ(upl_dirty_page(pl, i), i == 4) << i;
  }
  ASSERT_EQ(ubc_upl_abort_range(upl, 0, 8 * 4096, UPL_ABORT_FREE_ON_EMPTY), 0);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 1u) << "abort leaves the page dirty";

  host_malloc_fail_nth(1);
  EXPECT_EQ(ubc_create_upl(f->vp, 0, 8 * 4096, &upl, nullptr, UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT),
            ENOMEM);
  host_malloc_fail_nth(0);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 3u);
  EXPECT_EQ(ubc_create_upl(f->vp, 100, 4096, &upl, nullptr, 0), EINVAL) << "unaligned";
  uintptr_t addr;
  EXPECT_EQ(ubc_page_fault(f->vp, 9 * 4096, 0, &addr), EINVAL) << "past the end";
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 3u);
}

// Catches readers let at a page a list still holds (half filled).
TEST_F(UbcTest, PagesInAListAreBusyUntilCommitted) {
  upl_t upl;
  ASSERT_EQ(ubc_create_upl(f->vp, 4 * 4096, 4096, &upl, nullptr, 0), 0);
  std::atomic<bool> done{false};
  std::thread reader([&] {
    char b;
    uio_t uio = uio_create(1, 4 * 4096, UIO_SYSSPACE, UIO_READ);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(&b), 1);
    EXPECT_EQ(cluster_read(f->vp, uio, 8 * 4096, 0), 0);
    uio_free(uio);
    EXPECT_EQ(b, 0x44);
    done = true;
  });
  usleep(50000);
  EXPECT_FALSE(done.load()) << "a reader waits for a busy page";
  ASSERT_EQ(ubc_upl_commit_range(upl, 0, 4096, UPL_COMMIT_SET_DIRTY), 0);
  reader.join();
  ubc_upl_abort(upl, 0);  // an empty list is still freed by a whole abort
}

// Catches a shrink that keeps pages past the end or stale bytes a growth exposes.
TEST_F(UbcTest, ShrinkingDropsPagesAndZeroesThePartialTail) {
  ASSERT_EQ(ubc_setsize(f->vp, 4 * 4096 + 100), 1);
  EXPECT_EQ(ubc_getsize(f->vp), 4 * 4096 + 100);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 3u) << "page 4 holds the new end and stays";
  ASSERT_EQ(ubc_setsize(f->vp, 2 * 4096), 1);
  EXPECT_EQ(host_ubc_vnode_pages(f->vp), 1u) << "only page 1 lies below the new end";
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u) << "dirty pages past the end are dropped";
  ASSERT_EQ(ubc_setsize(f->vp, 4096 + 10), 1);
  ASSERT_EQ(fs.set_size(f, 8 * 4096), 1);
  char buf[4096];
  ASSERT_EQ(fs.read(f, 4096, buf, sizeof buf), 0);
  EXPECT_EQ(buf[9], 0x11);
  for (int i = 10; i < 4096; i++) ASSERT_EQ(buf[i], 0) << i;

  // A page still mapped survives the truncate until unpinned (ASan shows a use after free).
  uintptr_t addr;
  ASSERT_EQ(ubc_page_fault(f->vp, 7 * 4096, 1, &addr), 0);
  ubc_setsize(f->vp, 4096);
  memset(reinterpret_cast<char*>(addr), 1, 4096);
  ubc_page_dirty(f->vp, 7 * 4096);
  ubc_page_unpin(f->vp, 7 * 4096);
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
}

// --- Mapped access and the page-out role -------------------------------------------------

// Catches faults that bypass pagein or page in twice, msync or reclaim missing dirty pages.
TEST_F(UbcTest, FaultsPageInThroughTheFileSystemAndMsyncPagesOut) {
  uintptr_t addr;
  ASSERT_EQ(ubc_page_fault(f->vp, 6 * 4096 + 17, 1, &addr), 0);
  EXPECT_EQ(f->pageins.load(), 1);
  EXPECT_EQ(*reinterpret_cast<char*>(addr), 0x11);
  memset(reinterpret_cast<char*>(addr), 0x77, 4096);
  ubc_page_dirty(f->vp, 6 * 4096);
  ubc_page_unpin(f->vp, 6 * 4096);
  ASSERT_EQ(ubc_page_fault(f->vp, 1 * 4096, 0, &addr), 0);
  EXPECT_EQ(f->pageins.load(), 1) << "a resident page faults without a page-in";
  ubc_page_unpin(f->vp, 1 * 4096);

  off_t resid = -1;
  ASSERT_EQ(ubc_msync(f->vp, 0, 8 * 4096, &resid, UBC_PUSHDIRTY | UBC_SYNC), 0);
  EXPECT_EQ(resid, 8 * 4096);
  EXPECT_GE(f->pageouts.load(), 1);
  EXPECT_EQ(f->pageout_pages.load(), 2) << "pages 4 and 6";
  EXPECT_EQ(host_ubc_vnode_dirty_pages(f->vp), 0u);
  std::vector<char> d = fs.on_device(f);
  EXPECT_EQ(d[6 * 4096 + 100], 0x77);
  EXPECT_EQ(d[4 * 4096], 0x44);

  // A reclaim pushes what is dirty through pageout.
  ASSERT_EQ(ubc_page_fault(f->vp, 3 * 4096, 1, &addr), 0);
  memset(reinterpret_cast<char*>(addr), 0x33, 4096);
  ubc_page_dirty(f->vp, 3 * 4096);
  ubc_page_unpin(f->vp, 3 * 4096);
  int pageouts = f->pageouts.load();
  fs.release(f);
  EXPECT_GT(f->pageouts.load(), pageouts);
  EXPECT_EQ(fs.on_device(f)[3 * 4096], 0x33);
}

}  // namespace
