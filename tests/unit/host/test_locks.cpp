#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "host/locks.h"
#include "host_test_util.h"

namespace {

// A lock group torn down after each test, checking that every mutex the
// test made was freed.
class LockTest : public testing::Test {
 protected:
  void TearDown() override {
    lck_mtx_free(m, grp_);
    EXPECT_EQ(host_lck_grp_mutexes(grp_), 0);
    lck_grp_free(grp_);
  }

  lck_grp_t* grp_ = lck_grp_alloc_init("test", nullptr);
  lck_mtx_t* m = lck_mtx_alloc_init(grp_, nullptr);
};

using host_test::eventually;

struct timespec ms(long n) {
  return {n / 1000, (n % 1000) * 1000000};
}

}  // namespace

using Locks = LockTest;
using LocksDeathTest = LockTest;
using LocksConcurrency = LockTest;

// Owners are per thread; a timed sleep ends with EWOULDBLOCK, not early, mutex held.
TEST_F(Locks, OwnerIsPerThreadAndATimedSleepTimesOut) {
  lck_mtx_t* other = lck_mtx_alloc_init(grp_, nullptr);
  EXPECT_EQ(host_lck_grp_mutexes(grp_), 2);
  lck_mtx_free(other, grp_);
  EXPECT_EQ(host_lck_grp_mutexes(grp_), 1);
  lck_mtx_assert(m, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(m);
  lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
  thread_t theirs = nullptr;
  std::thread([&] {
    lck_mtx_assert(m, LCK_MTX_ASSERT_NOTOWNED);  // held, but not by this thread
    EXPECT_EQ(lck_mtx_try_lock(m), 0);
    theirs = current_thread();
  }).join();
  EXPECT_NE(theirs, current_thread());
  int chan;
  struct timespec ts = ms(50);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(msleep(&chan, m, PINOD, "t_timed", &ts), EWOULDBLOCK);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
  lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
  lck_mtx_unlock(m);
  EXPECT_EQ(lck_mtx_try_lock(m), 1);
  lck_mtx_unlock(m);
}

TEST_F(LocksDeathTest, MisuseIsFatal) {
  EXPECT_DEATH(lck_mtx_unlock(m), "panic: lck_mtx_unlock: mutex .* not held by this thread");
  EXPECT_DEATH(
      {
        lck_mtx_lock(m);
        lck_mtx_lock(m);
      },
      "panic: lck_mtx_lock: mutex .* already held by this thread");
  EXPECT_DEATH(
      {
        lck_mtx_lock(m);
        lck_mtx_free(m, grp_);
      },
      "panic: lck_mtx_free: mutex .* is held");
  EXPECT_DEATH(lck_grp_free(grp_), "panic: lck_grp_free: group test still has 1 mutexes");
}

// A token passed around a ring of sleepers: a lost wakeup shows as a timeout.
TEST_F(LocksConcurrency, TokenRingLosesNoWakeups) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 300;
  int token = 0, timeouts = 0;  // protected by m
  bool stopped = false;         // protected by m
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; id++) {
    threads.emplace_back([&, id] {
      lck_mtx_lock(m);
      for (int r = 0; r < kRounds && !stopped; r++) {
        while (token % kThreads != id && !stopped) {
          struct timespec ts = ms(2000);
          if (msleep(&token, m, PWAIT, "t_ring", &ts) == EWOULDBLOCK) {
            timeouts++;
            stopped = true;
          }
        }
        if (stopped) break;
        token++;
        wakeup(&token);
      }
      wakeup(&token);
      lck_mtx_unlock(m);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(timeouts, 0);
  EXPECT_EQ(token, kThreads * kRounds);
  EXPECT_EQ(host_sleepers("t_ring"), 0);
}
