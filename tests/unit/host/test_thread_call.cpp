#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "host/locks.h"
#include "host/thread_call.h"
#include "host/time.h"
#include "host_test_util.h"

namespace {

constexpr uint64_t kMs = 1000000;  // nanoseconds

using host_test::eventually;
using host_test::in_child;

uint64_t in_ms(uint32_t n) {
  uint64_t deadline;
  clock_interval_to_deadline(n, kMs, &deadline);
  return deadline;
}

void sleep_ms(int n) { std::this_thread::sleep_for(std::chrono::milliseconds(n)); }

// Records every run of a call: how many, and when the last one began.
struct Recorder {
  std::atomic<int> runs{0};
  std::atomic<uint64_t> last_run{0};
  static void fire(thread_call_param_t p0, thread_call_param_t p1) {
    auto* r = static_cast<Recorder*>(p0);
    r->last_run = mach_absolute_time();
    r->runs++;
  }
};

}  // namespace

TEST(Clock, DeadlinesAreMonotonicIntervalsAndNanotimeCanBeFixed) {
  uint64_t before = mach_absolute_time();
  uint64_t deadline = in_ms(50);
  uint64_t after = mach_absolute_time();
  EXPECT_GE(deadline, before + 50 * kMs);
  EXPECT_LE(deadline, after + 50 * kMs);

  struct timespec fixed = {1700000000, 123456789}, ts;
  host_set_nanotime(&fixed);
  nanotime(&ts);
  EXPECT_EQ(ts.tv_sec, 1700000000);
  EXPECT_EQ(ts.tv_nsec, 123456789);
  host_set_nanotime(nullptr);
  nanotime(&ts);
  EXPECT_LE(std::abs(static_cast<long>(ts.tv_sec - time(nullptr))), 2);
}

// A call runs once, not early; cancel disarms it; re-arming a pending call moves it.
TEST(ThreadCall, RunsOnceAtItsDeadlineUnlessCancelledOrMoved) {
  Recorder r;
  thread_call_t call = thread_call_allocate(&Recorder::fire, &r);
  EXPECT_FALSE(thread_call_cancel(call));  // never armed
  uint64_t deadline = in_ms(10);
  EXPECT_FALSE(thread_call_enter_delayed(call, deadline));
  ASSERT_TRUE(eventually([&] { return r.runs.load() == 1; }));
  EXPECT_GE(r.last_run.load(), deadline);
  EXPECT_FALSE(thread_call_cancel(call));  // already ran

  thread_call_enter_delayed(call, in_ms(100));
  EXPECT_TRUE(thread_call_cancel(call));
  EXPECT_FALSE(thread_call_cancel(call));

  EXPECT_FALSE(thread_call_enter_delayed(call, in_ms(50)));
  uint64_t later = in_ms(150);
  EXPECT_TRUE(thread_call_enter_delayed(call, later));
  ASSERT_TRUE(eventually([&] { return r.runs.load() == 2; }));
  EXPECT_GE(r.last_run.load(), later);
  sleep_ms(20);
  EXPECT_EQ(r.runs.load(), 2);  // the cancelled arming never ran, nor any twice
  EXPECT_TRUE(thread_call_free(call));
}

TEST(ThreadCall, EarlierDeadlinesRunFirst) {
  Recorder r[3];
  thread_call_t calls[3];
  for (int i = 0; i < 3; i++) calls[i] = thread_call_allocate(&Recorder::fire, &r[i]);
  uint64_t base = in_ms(100);
  thread_call_enter_delayed(calls[0], base + 6 * kMs);
  thread_call_enter_delayed(calls[1], base);
  thread_call_enter_delayed(calls[2], base + 3 * kMs);
  ASSERT_TRUE(eventually([&] { return r[0].runs + r[1].runs + r[2].runs == 3; }));
  EXPECT_LT(r[1].last_run.load(), r[2].last_run.load());
  EXPECT_LT(r[2].last_run.load(), r[0].last_run.load());
  for (auto* c : calls) thread_call_free(c);
}

// The function runs with no host lock held, so it may re-arm its own call.
TEST(ThreadCall, FunctionMayReArmItsOwnCall) {
  struct Self {
    thread_call_t call;
    std::atomic<int> runs{0};
  } self;
  self.call = thread_call_allocate(
      [](thread_call_param_t p0, thread_call_param_t) {
        auto* s = static_cast<Self*>(p0);
        if (s->runs.fetch_add(1) == 0) {
          EXPECT_FALSE(thread_call_enter_delayed(s->call, in_ms(1)));
        }
      },
      &self);
  thread_call_enter_delayed(self.call, in_ms(1));
  ASSERT_TRUE(eventually([&] { return self.runs.load() == 2; }));
  sleep_ms(10);
  EXPECT_EQ(self.runs.load(), 2);
  thread_call_free(self.call);
}

TEST(ThreadCallDeathTest, FreeingAPendingCallPanics) {
  Recorder r;
  thread_call_t call = thread_call_allocate(&Recorder::fire, &r);
  thread_call_enter_delayed(call, in_ms(60000));
  EXPECT_DEATH(thread_call_free(call), "panic: thread_call_free: call .* is still pending");
  EXPECT_TRUE(thread_call_cancel(call));
  thread_call_free(call);
}

// A daemon forks after mounting: whatever state a deferred call is in at the
// fork, its work is done exactly once on each side. Armed and not due, it
// runs in the child (and in the parent); running, the fork waits for it to
// finish, so the child neither loses it (it is off the queue already) nor
// inherits it half done.
TEST(ThreadCallFork, ArmedAndRunningCallsAreNotLostInTheChild) {
  Recorder armed;
  thread_call_t call = thread_call_allocate(&Recorder::fire, &armed);
  thread_call_enter_delayed(call, in_ms(50));
  EXPECT_TRUE(in_child([&] { return eventually([&] { return armed.runs.load() == 1; }); }));
  ASSERT_TRUE(eventually([&] { return armed.runs.load() == 1; }));
  thread_call_free(call);

  struct Slow {
    std::atomic<bool> started{false};
    std::atomic<int> runs{0};
  } slow;
  call = thread_call_allocate(
      [](thread_call_param_t p0, thread_call_param_t) {
        auto* s = static_cast<Slow*>(p0);
        s->started = true;
        sleep_ms(200);
        s->runs++;
      },
      &slow);
  thread_call_enter_delayed(call, in_ms(0));
  ASSERT_TRUE(eventually([&] { return slow.started.load(); }));
  EXPECT_TRUE(in_child([&] {
    sleep_ms(300);  // long enough for a run left pending to happen here
    return slow.runs.load() == 1;
  }));
  ASSERT_TRUE(eventually([&] { return slow.runs.load() == 1; }));
  thread_call_free(call);
}

namespace {

// A mount-like owner of a delayed call, following the driver's protocol:
// the function runs under the owner's lock, clears "scheduled" and wakes a
// waiter; teardown cancels, or sleeps until a running function is done.
struct Owner {
  lck_mtx_t* lock;
  int scheduled = 0;  // protected by lock
  int runs = 0;       // protected by lock
  std::atomic<bool> started{false};
  thread_call_t call;

  Owner(lck_grp_t* grp) : lock(lck_mtx_alloc_init(grp, nullptr)) {
    call = thread_call_allocate(&Owner::fire, this);
  }
  static void fire(thread_call_param_t p0, thread_call_param_t) {
    auto* o = static_cast<Owner*>(p0);
    o->started = true;
    lck_mtx_lock(o->lock);
    o->runs++;
    o->scheduled = 0;
    wakeup(&o->scheduled);
    lck_mtx_unlock(o->lock);
  }
  // Under the lock: ends the arming; returns whether it was cancelled.
  bool teardown() {
    if (!scheduled) return false;
    if (thread_call_cancel(call)) {
      scheduled = 0;
      return true;
    }
    while (scheduled) msleep(&scheduled, lock, PWAIT, "t_teardown", nullptr);
    return false;
  }
  void free(lck_grp_t* grp) {
    thread_call_free(call);  // the function may still be between wakeup and return
    lck_mtx_free(lock, grp);
  }
};

}  // namespace

// Teardown meets the call pending, running and done; a function outliving it
// shows (ASan/TSan). A cancel of a started call must not wait for it.
TEST(ThreadCallConcurrency, TeardownRacesTheTimer) {
  lck_grp_t* grp = lck_grp_alloc_init("tc", nullptr);
  for (int i = 0; i < 200; i++) {
    auto* o = new Owner(grp);
    lck_mtx_lock(o->lock);
    o->scheduled = 1;
    thread_call_enter_delayed(o->call, in_ms(0) + static_cast<uint64_t>(i % 5) * 100000);
    if (i == 0) {
      // Started, waiting for our lock: a cancel that waited would deadlock.
      ASSERT_TRUE(eventually([&] { return o->started.load(); }));
    } else {
      lck_mtx_unlock(o->lock);
      if (i % 3 == 0) std::this_thread::sleep_for(std::chrono::microseconds(100 * (i % 7)));
      lck_mtx_lock(o->lock);
    }
    bool cancelled = o->teardown();
    EXPECT_TRUE(i != 0 || !cancelled);
    EXPECT_EQ(o->runs, cancelled ? 0 : 1);  // a cancelled arming never ran
    lck_mtx_unlock(o->lock);
    o->free(grp);
    delete o;
  }
  EXPECT_EQ(host_lck_grp_mutexes(grp), 0);
  lck_grp_free(grp);
}
