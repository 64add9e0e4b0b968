#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "host/locks.h"
#include "host_test_util.h"

namespace {

// A lock group with one attribute set, torn down after each test; tearing
// down also checks that the test freed every mutex it made.
class LockTest : public testing::Test {
 protected:
  void SetUp() override {
    grp_attr_ = lck_grp_attr_alloc_init();
    grp_ = lck_grp_alloc_init("test", grp_attr_);
    attr_ = lck_attr_alloc_init();
  }
  void TearDown() override {
    EXPECT_EQ(host_lck_grp_mutexes(grp_), 0);
    lck_attr_free(attr_);
    lck_grp_free(grp_);
    lck_grp_attr_free(grp_attr_);
  }
  lck_mtx_t* make() {
    lck_mtx_t* m = lck_mtx_alloc_init(grp_, attr_);
    EXPECT_NE(m, nullptr);
    return m;
  }

  lck_grp_attr_t* grp_attr_ = nullptr;
  lck_grp_t* grp_ = nullptr;
  lck_attr_t* attr_ = nullptr;
};

using host_test::eventually;

struct timespec ms(long n) { return {n / 1000, (n % 1000) * 1000000}; }

}  // namespace

using Locks = LockTest;
using LocksDeathTest = LockTest;
using LocksConcurrency = LockTest;

// The owner is recorded per thread (an assertion elsewhere sees "not
// owned"), threads have distinct stable identities, and the group counts
// its mutexes.
TEST_F(Locks, OwnerIsRecordedPerThread) {
  lck_mtx_t* m = make();
  lck_mtx_t* other_mutex = make();
  EXPECT_EQ(host_lck_grp_mutexes(grp_), 2);
  lck_mtx_free(other_mutex, grp_);
  EXPECT_EQ(host_lck_grp_mutexes(grp_), 1);
  lck_mtx_assert(m, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(m);
  lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
  thread_t mine = current_thread();
  EXPECT_EQ(current_thread(), mine);
  thread_t other = nullptr;
  std::thread([&] {
    lck_mtx_assert(m, LCK_MTX_ASSERT_NOTOWNED);  // held, but not by this thread
    EXPECT_EQ(lck_mtx_try_lock(m), 0);
    other = current_thread();
  }).join();
  EXPECT_NE(other, nullptr);
  EXPECT_NE(other, mine);
  lck_mtx_unlock(m);
  EXPECT_EQ(lck_mtx_try_lock(m), 1);
  lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
  lck_mtx_unlock(m);
  lck_mtx_free(m, grp_);
}

// A wakeup reaches only its own channel; a timed sleep ends with
// EWOULDBLOCK, no earlier than asked, with the mutex held again.
TEST_F(Locks, WakeupReachesOnlyItsOwnChannel) {
  lck_mtx_t* m = make();
  int chan_a = 0, chan_b = 0;
  std::atomic<int> result{-100};
  std::thread sleeper([&] {
    lck_mtx_lock(m);
    struct timespec ts = ms(300);
    auto start = std::chrono::steady_clock::now();
    result = msleep(&chan_a, m, PINOD, "t_chan", &ts);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
    lck_mtx_unlock(m);
  });
  ASSERT_TRUE(eventually([] { return host_sleepers("t_chan") == 1; }));
  wakeup(&chan_b);  // another channel: the sleeper times out
  sleeper.join();
  EXPECT_EQ(result.load(), EWOULDBLOCK);
  EXPECT_EQ(host_sleepers("t_chan"), 0);

  std::thread sleeper2([&] {
    lck_mtx_lock(m);
    result = msleep(&chan_a, m, PINOD, "t_chan", nullptr);
    lck_mtx_unlock(m);
  });
  ASSERT_TRUE(eventually([] { return host_sleepers("t_chan") == 1; }));
  wakeup(&chan_a);
  sleeper2.join();
  EXPECT_EQ(result.load(), 0);
  lck_mtx_free(m, grp_);
}

TEST_F(LocksDeathTest, MisuseIsFatal) {
  lck_mtx_t* m = make();
  EXPECT_DEATH(lck_mtx_unlock(m), "panic: lck_mtx_unlock: mutex .* not held by this thread");
  EXPECT_DEATH(lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED), "panic: lck_mtx_assert: mutex .* not owned");
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
  int chan;
  EXPECT_DEATH(msleep(&chan, m, PWAIT, "t_unheld", nullptr), "not owned");
  EXPECT_DEATH(
      {
        lck_mtx_lock(m);
        msleep(&chan, m, PWAIT | 0x400, "t_pdrop", nullptr);
      },
      "panic: msleep: unsupported priority flags 0x400");
  lck_mtx_free(m, grp_);
}

// Threads pass a token around a ring, each sleeping until the token names
// it. A lost wakeup shows as a sleep that ends only by its timeout; the ring
// then stops, so that the failure is quick.
TEST_F(LocksConcurrency, TokenRingLosesNoWakeups) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 300;
  lck_mtx_t* m = make();
  int token = 0;         // protected by m
  bool stopped = false;  // protected by m
  int timeouts = 0;      // protected by m
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
  lck_mtx_free(m, grp_);
}

TEST_F(LocksConcurrency, WakeupOneWakesTheSleepersOneAtATime) {
  constexpr int kSleepers = 5;
  lck_mtx_t* m = make();
  int chan = 0;
  std::atomic<int> woken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kSleepers; i++) {
    threads.emplace_back([&] {
      lck_mtx_lock(m);
      EXPECT_EQ(msleep(&chan, m, PWAIT, "t_one", nullptr), 0);
      lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
      woken++;
      lck_mtx_unlock(m);
    });
  }
  ASSERT_TRUE(eventually([] { return host_sleepers("t_one") == kSleepers; }));
  for (int n = 1; n < kSleepers; n++) {
    wakeup_one(&chan);
    ASSERT_TRUE(eventually([&] { return woken.load() == n; }));
    EXPECT_EQ(host_sleepers("t_one"), kSleepers - n);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(woken.load(), kSleepers - 1);  // no extra thread woke
  wakeup(&chan);
  for (auto& t : threads) t.join();
  EXPECT_EQ(woken.load(), kSleepers);
  lck_mtx_free(m, grp_);
}

// Threads mix lock and try_lock on one mutex; the plain counter is
// protected only by the mutex, so a broken exclusion shows as a lost
// increment (and as a race under TSan).
TEST_F(LocksConcurrency, TryLockUnderContentionKeepsExclusion) {
  constexpr int kThreads = 4;
  constexpr int kIters = 5000;
  lck_mtx_t* m = make();
  long counter = 0;
  std::atomic<int> inside{0};
  std::atomic<long> taken{0}, refused{0};
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; id++) {
    threads.emplace_back([&, id] {
      for (int i = 0; i < kIters; i++) {
        bool got;
        if ((i + id) % 2 == 0) {
          lck_mtx_lock(m);
          got = true;
        } else {
          got = lck_mtx_try_lock(m) == 1;
        }
        if (!got) {
          refused++;
          continue;
        }
        EXPECT_EQ(inside.fetch_add(1), 0);
        lck_mtx_assert(m, LCK_MTX_ASSERT_OWNED);
        counter++;
        taken++;
        inside.fetch_sub(1);
        lck_mtx_unlock(m);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, taken.load());
  EXPECT_EQ(taken.load() + refused.load(), long{kThreads} * kIters);
  EXPECT_GE(taken.load(), long{kThreads} * kIters / 2);  // every plain lock succeeds
  lck_mtx_free(m, grp_);
}
