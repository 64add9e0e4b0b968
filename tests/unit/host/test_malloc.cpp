#include <gtest/gtest.h>

#include "host/kern.h"
#include "host/locks.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/thread_call.h"
#include "host/uio.h"

// Bytes are accounted per tag; freeing a tag with memory outstanding is reported.
TEST(OSMallocTags, AccountOutstandingBytesPerTagAndReportLeaks) {
  OSMallocTag a = OSMalloc_Tagalloc("test-a", OSMT_DEFAULT);
  OSMallocTag b = OSMalloc_Tagalloc("leaky", OSMT_DEFAULT);
  void* p = OSMalloc(100, a);
  void* q = OSMalloc(10, b);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(host_malloc_outstanding("test-a"), 100u);
  EXPECT_EQ(host_malloc_outstanding("leaky"), 10u);
  OSFree(p, 100, a);
  EXPECT_EQ(host_malloc_outstanding("test-a"), 0u);
  OSMalloc_Tagfree(a);
  KernLogCapture cap;
  OSMalloc_Tagfree(b);
  EXPECT_EQ(cap.count("OSMalloc_Tagfree: tag leaky: 10 bytes outstanding"), 1u);
  free(static_cast<char*>(q) - 32);  // the header precedes the block
}

TEST(OSMallocDeathTest, WrongSizePanics) {
  OSMallocTag t = OSMalloc_Tagalloc("sizes", OSMT_DEFAULT);
  void* p = OSMalloc(64, t);
  EXPECT_DEATH(OSFree(p, 32, t), "OSFree: .* freed with size 32, allocated with 64");
  OSFree(p, 64, t);
  OSMalloc_Tagfree(t);
}

// Every host allocator takes part, so that the driver's ENOMEM paths are reachable.
TEST(MallocFailureSwitch, FailsExactlyTheNthAllocationOfEveryAllocator) {
  OSMallocTag t = OSMalloc_Tagalloc("failing", OSMT_DEFAULT);
  host_malloc_fail_nth(3);
  void* a = OSMalloc(8, t);
  void* b = _MALLOC(8, M_TEMP, M_WAITOK);
  EXPECT_EQ(OSMalloc(8, t), nullptr);
  void* d = OSMalloc(8, t);
  EXPECT_NE(b, nullptr);
  EXPECT_NE(d, nullptr);
  EXPECT_EQ(host_malloc_outstanding("failing"), 16u);
  OSFree(a, 8, t);
  OSFree(d, 8, t);
  _FREE(b, M_TEMP);
  OSMalloc_Tagfree(t);

  lck_grp_t* grp = lck_grp_alloc_init("failing", nullptr);
  auto fire = [](thread_call_param_t, thread_call_param_t) {};
  host_malloc_fail_nth(1);
  EXPECT_EQ(uio_create(1, 0, UIO_SYSSPACE, UIO_READ), nullptr);
  host_malloc_fail_nth(1);
  EXPECT_EQ(thread_call_allocate(fire, nullptr), nullptr);
  host_malloc_fail_nth(1);
  EXPECT_EQ(vfs_context_create(nullptr), nullptr);
  host_malloc_fail_nth(1);
  EXPECT_EQ(lck_mtx_alloc_init(grp, nullptr), nullptr);
  EXPECT_EQ(host_lck_grp_mutexes(grp), 0);
  host_malloc_fail_nth(0);
  lck_grp_free(grp);
}

TEST(MallocTypes, AccountingAndHashinitSizes) {
  uint64_t before = host_malloc_type_outstanding(M_TEMP);
  void* p = _MALLOC(256, M_TEMP, M_WAITOK);
  EXPECT_EQ(host_malloc_type_outstanding(M_TEMP), before + 256);
  _FREE(p, M_TEMP);
  EXPECT_EQ(host_malloc_type_outstanding(M_TEMP), before);
  for (auto [n, want] : {std::pair<int, u_long>{1000, 511}, {1, 0}}) {
    u_long mask = 99;
    void** table = static_cast<void**>(hashinit(n, M_TEMP, &mask));
    EXPECT_EQ(mask, want);  // largest power of two not above n, minus one
    for (u_long i = 0; i <= mask; i++) ASSERT_EQ(table[i], nullptr);
    hashdestroy(table, M_TEMP, mask);
  }
}
