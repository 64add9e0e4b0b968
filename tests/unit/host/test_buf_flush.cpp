// A waiting flush of a device's buffers also waits for a write another
// thread has under way: its caller flushes the device's cache next, and a
// write that lands after that flush is not durable.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "host/buf.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host_test_util.h"

namespace {

// A device whose writes wait at a gate until the test opens it.
struct Gate {
  std::mutex lock;
  std::condition_variable opened;
  bool open = false;
  std::atomic<int> writes_started{0}, writes_done{0};
} g_gate;

int gated_strategy(void* ap) {
  buf_t bp = static_cast<struct vnop_strategy_args*>(ap)->a_bp;
  if (!(buf_flags(bp) & B_READ)) {
    g_gate.writes_started++;
    std::unique_lock<std::mutex> lk(g_gate.lock);
    g_gate.opened.wait(lk, [] { return g_gate.open; });
    g_gate.writes_done++;
  }
  buf_setresid(bp, 0);
  buf_biodone(bp);
  return 0;
}

VOPFUNC* gated_device_ops() {
  static std::vector<VOPFUNC> ops = [] {
    std::vector<VOPFUNC> v(vnop_desc_count(), vn_default_error);
    v[vnop_strategy_desc.vdesc_offset] = gated_strategy;
    v[vnop_reclaim_desc.vdesc_offset] = [](void*) { return 0; };
    return v;
  }();
  return ops.data();
}

TEST(BufFlushConcurrency, WaitingFlushWaitsForAWriteUnderWay) {
  vnode_t dev = nullptr;
  ASSERT_EQ(0, host_test::create_vnode(host_test::fsparam(VBLK, gated_device_ops()), &dev));
  buf_t bp = buf_getblk(dev, 3, 512, 0, 0, BLK_META);
  buf_clear(bp);
  buf_bdwrite(bp);
  // A non-waiting flush takes the block off the dirty list and writes it.
  std::thread writer([dev] { buf_flushdirtyblks(dev, 0, 0, "writer"); });
  ASSERT_TRUE(host_test::eventually([] { return g_gate.writes_started.load() == 1; }));

  std::atomic<bool> flushed{false};
  std::thread sync([&] {
    buf_flushdirtyblks(dev, 1, 0, "sync");
    flushed = true;
  });
  ASSERT_TRUE(host_test::eventually([] { return host_buf_waiters() == 1; }));
  EXPECT_FALSE(flushed.load());
  {
    std::lock_guard<std::mutex> guard(g_gate.lock);
    g_gate.open = true;
  }
  g_gate.opened.notify_all();
  writer.join();
  sync.join();
  EXPECT_EQ(1, g_gate.writes_done.load());
  EXPECT_EQ(1, g_gate.writes_started.load());  // written once, not again by the sync
  host_test::discard(dev);
}

}  // namespace
