#include <gtest/gtest.h>

#include "host/kern.h"
#include "host/locks.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/thread_call.h"
#include "host/uio.h"

TEST(OSMallocTags, AccountOutstandingBytesPerTag) {
  OSMallocTag a = OSMalloc_Tagalloc("test-a", OSMT_DEFAULT);
  OSMallocTag b = OSMalloc_Tagalloc("test-b", OSMT_DEFAULT);
  void* p = OSMalloc(100, a);
  void* q = OSMalloc(4096, b);
  ASSERT_NE(p, nullptr);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(host_malloc_outstanding("test-a"), 100u);
  EXPECT_EQ(host_malloc_outstanding("test-b"), 4096u);
  OSFree(p, 100, a);
  EXPECT_EQ(host_malloc_outstanding("test-a"), 0u);
  OSFree(q, 4096, b);
  OSMalloc_Tagfree(a);
  OSMalloc_Tagfree(b);
}

TEST(OSMallocTags, FreeingATagWithOutstandingMemoryIsReported) {
  KernLogCapture cap;
  OSMallocTag t = OSMalloc_Tagalloc("leaky", OSMT_DEFAULT);
  void* p = OSMalloc(10, t);
  OSMalloc_Tagfree(t);
  EXPECT_EQ(cap.count("OSMalloc_Tagfree: tag leaky: 10 bytes outstanding"), 1u);
  free(static_cast<char*>(p) - 32);  // the header precedes the block
}

TEST(OSMallocDeathTest, WrongSizeOrDoubleFreePanics) {
  OSMallocTag t = OSMalloc_Tagalloc("sizes", OSMT_DEFAULT);
  void* p = OSMalloc(64, t);
  EXPECT_DEATH(OSFree(p, 32, t), "OSFree: .* freed with size 32, allocated with 64");
  OSFree(p, 64, t);
  OSMalloc_Tagfree(t);
}

TEST(MallocFailureSwitch, FailsExactlyTheNthAllocation) {
  OSMallocTag t = OSMalloc_Tagalloc("failing", OSMT_DEFAULT);
  host_malloc_fail_nth(3);
  void* a = OSMalloc(8, t);
  void* b = _MALLOC(8, M_TEMP, M_WAITOK);
  void* c = OSMalloc(8, t);
  void* d = OSMalloc(8, t);
  EXPECT_NE(a, nullptr);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_NE(d, nullptr);
  EXPECT_EQ(host_malloc_outstanding("failing"), 16u);
  OSFree(a, 8, t);
  OSFree(d, 8, t);
  _FREE(b, M_TEMP);
  OSMalloc_Tagfree(t);
}

// Every host object whose allocation can fail takes part in the switch, so
// that the driver's ENOMEM paths can be reached through each: the Nth
// allocation fails, the next one succeeds.
TEST(MallocFailureSwitch, HostAllocatorsTakePart) {
  lck_grp_t* grp = lck_grp_alloc_init("failing", nullptr);
  host_malloc_fail_nth(1);
  EXPECT_EQ(uio_create(1, 0, UIO_SYSSPACE, UIO_READ), nullptr);
  uio_free(uio_create(1, 0, UIO_SYSSPACE, UIO_READ));
  host_malloc_fail_nth(1);
  auto fire = [](thread_call_param_t, thread_call_param_t) {};
  EXPECT_EQ(thread_call_allocate(fire, nullptr), nullptr);
  thread_call_free(thread_call_allocate(fire, nullptr));
  host_malloc_fail_nth(1);
  EXPECT_EQ(vfs_context_create(nullptr), nullptr);
  EXPECT_EQ(vfs_context_rele(vfs_context_create(nullptr)), 0);
  host_malloc_fail_nth(1);
  EXPECT_EQ(lck_mtx_alloc_init(grp, nullptr), nullptr);
  EXPECT_EQ(host_lck_grp_mutexes(grp), 0);
  lck_mtx_free(lck_mtx_alloc_init(grp, nullptr), grp);
  host_malloc_fail_nth(0);
  lck_grp_free(grp);
}

TEST(MallocTypes, ZeroFillAndHashinitSizes) {
  uint64_t before = host_malloc_type_outstanding(M_TEMP);
  auto* p = static_cast<unsigned char*>(_MALLOC(256, M_TEMP, M_ZERO));
  for (int i = 0; i < 256; i++) ASSERT_EQ(p[i], 0);
  EXPECT_EQ(host_malloc_type_outstanding(M_TEMP), before + 256);
  _FREE(p, M_TEMP);
  EXPECT_EQ(host_malloc_type_outstanding(M_TEMP), before);

  u_long mask = 0;
  void** table = static_cast<void**>(hashinit(1000, M_TEMP, &mask));
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(mask, 511u);  // largest power of two not above 1000, minus one
  for (u_long i = 0; i <= mask; i++) ASSERT_EQ(table[i], nullptr);
  hashdestroy(table, M_TEMP, mask);
  void* one = hashinit(1, M_TEMP, &mask);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(mask, 0u);
  hashdestroy(one, M_TEMP, mask);
}
