#include <gtest/gtest.h>

#include "host/kern.h"

// One record per call, no trailing newline, long records whole, nested sinks restored.
TEST(KernLog, RecordsAndNestedCaptures) {
  KernLogCapture outer;
  std::string big(3000, 'x');
  {
    KernLogCapture cap;
    kprintf("exfat_vnop_write: invalid offset (%lld)\n", -5LL);
    kprintf("%s", big.c_str());
    EXPECT_EQ(cap.lines(),
              (std::vector<std::string>{"exfat_vnop_write: invalid offset (-5)", big}));
    EXPECT_EQ(cap.count_prefix("exfat_"), 1u);
  }
  kprintf("outer");
  EXPECT_EQ(outer.lines(), std::vector<std::string>{"outer"});
}

TEST(KernPanicDeathTest, PanicLogsAndAborts) {
  EXPECT_DEATH(panic("exfat_lock_two: node1 == node2\n"), "panic: exfat_lock_two: node1 == node2");
}
