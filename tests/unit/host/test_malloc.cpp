#include <gtest/gtest.h>

#include "host/kern.h"
#include "host/malloc.h"

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
