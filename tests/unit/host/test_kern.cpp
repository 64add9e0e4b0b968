#include <gtest/gtest.h>

#include "host/kern.h"

TEST(KernLog, OneRecordPerCallWithoutTrailingNewline) {
  KernLogCapture cap;
  kprintf("exfat_vnop_write: invalid offset (%lld)\n", -5LL);
  kprintf("exfat_scan_root_dir: No upcase table!");
  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "exfat_vnop_write: invalid offset (-5)");
  EXPECT_EQ(lines[1], "exfat_scan_root_dir: No upcase table!");
  EXPECT_EQ(cap.count_prefix("exfat_"), 2u);
}

TEST(KernLog, LongRecordsAreNotTruncated) {
  KernLogCapture cap;
  std::string big(3000, 'x');
  kprintf("%s", big.c_str());
  ASSERT_EQ(cap.lines().size(), 1u);
  EXPECT_EQ(cap.lines()[0], big);
}

TEST(KernLog, NestedCapturesRestoreTheOuterSink) {
  KernLogCapture outer;
  {
    KernLogCapture inner;
    kprintf("inner");
    EXPECT_EQ(inner.count("inner"), 1u);
  }
  kprintf("outer");
  EXPECT_EQ(outer.count("inner"), 0u);
  EXPECT_EQ(outer.count("outer"), 1u);
}

TEST(KernPanicDeathTest, PanicLogsAndAborts) {
  EXPECT_DEATH(panic("exfat_lock_two: node1 == node2\n"), "panic: exfat_lock_two: node1 == node2");
}
