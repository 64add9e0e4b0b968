#include "host/thread_call.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "host/kern.h"
#include "host/malloc.h"
#include "host/thread_call_private.h"

// One timer thread serves every deferred call. Armed calls sit in a map
// ordered by (deadline, arming sequence); the thread sleeps until the
// earliest deadline, takes the call off the map, marks it running and calls
// its function with no host lock held.
//
// Locking: the timer lock (TimerQueue::lock) protects the map and every
// call's state fields. It is a leaf: nothing else is taken while it is held,
// and it is never held across a call's function.

struct thread_call {
  thread_call_func_t func;
  thread_call_param_t param0;
  // Protected by the timer lock.
  bool pending = false;
  int running = 0;  // runs in progress (0 or 1: one timer thread)
  uint64_t deadline = 0;
  uint64_t seq = 0;  // arming sequence: FIFO among equal deadlines
};

namespace {

using Key = std::pair<uint64_t, uint64_t>;  // (deadline, seq)

// The call whose function the timer thread is running (on that thread).
thread_local thread_call_t t_current_call = nullptr;

struct TimerQueue {
  std::mutex lock;
  std::condition_variable work;  // the timer thread waits here for a deadline
  // Waits for the timer thread to change state: thread_call_free for a run
  // to end, a fork for the thread to be up and idle, the thread's creator
  // for it to be up.
  std::condition_variable idle;
  std::map<Key, thread_call_t> armed;
  uint64_t next_seq = 1;
  bool thread_started = false;  // a timer thread exists in this process
  bool thread_up = false;       // ... and has entered timer_main
  bool stopping = false;        // the process is exiting: the thread returns
  int forks = 0;                // forks waiting to happen: start no run
  pthread_t thread;
  thread_call_t running = nullptr;  // the call whose function runs now
};

// Never destroyed: the timer thread may still be waiting on it when the
// process exits.
TimerQueue& timers() {
  static TimerQueue* q = new TimerQueue;
  return *q;
}

std::chrono::steady_clock::time_point to_time_point(uint64_t ns) {
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
}

// The timer thread. Runs for the life of the process.
void* timer_main(void*) {
  TimerQueue& q = timers();
  std::unique_lock<std::mutex> guard(q.lock);
  q.thread_up = true;
  q.idle.notify_all();
  for (;;) {
    if (q.stopping) return nullptr;
    if (q.armed.empty() || q.forks != 0) {
      q.work.wait(guard);
      continue;
    }
    auto first = q.armed.begin();
    uint64_t now = mach_absolute_time();
    if (first->first.first > now) {
      q.work.wait_until(guard, to_time_point(first->first.first));
      continue;
    }
    thread_call_t call = first->second;
    q.armed.erase(first);
    call->pending = false;
    call->running++;
    q.running = call;
    thread_call_func_t func = call->func;
    thread_call_param_t param0 = call->param0;
    guard.unlock();
    t_current_call = call;
    func(param0, nullptr);
    t_current_call = nullptr;
    guard.lock();
    q.running = nullptr;
    call->running--;
    q.idle.notify_all();
  }
}

void start_thread_locked(TimerQueue& q);

// Fork handlers. A child inherits memory but only the thread that forked.
// The timer lock is held across the fork so that the child's copy of the
// queue is consistent, and the fork first waits until the timer thread is
// up and runs no function:
//  - a function cut off half-way would stay half done in the child, with
//    whatever locks it held held for ever, and its call, already off the
//    queue, would never run there;
//  - a thread caught while it is being started leaves the thread library's
//    (or a sanitizer's) bookkeeping of threads half changed in the child,
//    where the next thread created may then never run.
// Once the fork happens, every call is either done (its effects are in the
// child's memory too) or still armed, and the child starts its own timer
// thread for the armed ones: a daemon that forks after mounting keeps its
// delayed flushes. So a fork may wait for a deferred call's function: the
// forking thread must hold nothing such a function waits for, and a
// function must not fork.
void atfork_prepare() {
  TimerQueue& q = timers();
  std::unique_lock<std::mutex> guard(q.lock);
  if (t_current_call != nullptr) panic("thread_call: call %p forks from its function", t_current_call);
  q.forks++;
  while ((q.thread_started && !q.thread_up) || q.running != nullptr) q.idle.wait(guard);
  guard.release();  // held until the parent's or the child's handler
}
void atfork_parent() {
  TimerQueue& q = timers();
  q.forks--;
  q.work.notify_one();
  q.lock.unlock();
}
void atfork_child() {
  TimerQueue& q = timers();
  new (&q.work) std::condition_variable;
  new (&q.idle) std::condition_variable;
  q.forks = 0;
  q.thread_started = false;
  q.thread_up = false;
  if (!q.armed.empty()) start_thread_locked(q);
  q.lock.unlock();
}

// At exit the timer thread is stopped and joined, so that the process ends
// with no thread of ours still running. Calls still pending do not run. Not
// when exit is called from a call's function: the thread cannot join
// itself, and it is the one running anyway.
void stop_timer_thread() {
  TimerQueue& q = timers();
  std::unique_lock<std::mutex> guard(q.lock);
  if (!q.thread_started || pthread_equal(q.thread, pthread_self())) return;
  q.stopping = true;
  q.work.notify_one();
  guard.unlock();
  pthread_join(q.thread, nullptr);
  guard.lock();
  q.thread_started = false;
  q.thread_up = false;
}

// Creates the timer thread. Caller holds the timer lock.
void start_thread_locked(TimerQueue& q) {
  host_thread_call_register_atfork();
  // Armed during exit, after the thread was stopped: the call stays pending
  // and never runs, as it would if the process had ended a moment sooner.
  if (q.stopping) return;
  if (pthread_create(&q.thread, nullptr, timer_main, nullptr) != 0)
    panic("thread_call: cannot start the timer thread");
  q.thread_started = true;
}

// Starts the timer thread if this process has none and waits until it is
// up, so that no fork finds it half started (see the fork handlers). The
// caller holds the timer lock through `guard`; it is dropped while waiting.
void ensure_thread(TimerQueue& q, std::unique_lock<std::mutex>& guard) {
  if (q.thread_started) return;
  start_thread_locked(q);
  while (q.thread_started && !q.thread_up) q.idle.wait(guard);
}

// Takes a pending call off the map. Caller holds the timer lock.
void disarm_locked(TimerQueue& q, thread_call_t call) {
  q.armed.erase(Key(call->deadline, call->seq));
  call->pending = false;
}

}  // namespace

// The fork and exit handlers are registered the first time a timer thread
// is needed (before, there is nothing a fork could disturb), or earlier
// when another service asks, so that its own handlers run first.
void host_thread_call_register_atfork(void) {
  static std::once_flag hooks;
  std::call_once(hooks, [] {
    pthread_atfork(atfork_prepare, atfork_parent, atfork_child);
    atexit(stop_timer_thread);
  });
}

thread_call_t thread_call_allocate(thread_call_func_t func, thread_call_param_t param0) {
  if (host_alloc_should_fail()) return nullptr;
  auto* call = new (std::nothrow) thread_call;
  if (call == nullptr) return nullptr;
  call->func = func;
  call->param0 = param0;
  return call;
}

// A call that is running may be armed again: it then runs once more at the
// new deadline.
bool thread_call_enter_delayed(thread_call_t call, uint64_t deadline) {
  TimerQueue& q = timers();
  std::unique_lock<std::mutex> guard(q.lock);
  ensure_thread(q, guard);
  bool was_pending = call->pending;
  if (was_pending) disarm_locked(q, call);
  call->deadline = deadline;
  call->seq = q.next_seq++;
  call->pending = true;
  q.armed.emplace(Key(deadline, call->seq), call);
  // Only a new earliest deadline changes how long the timer thread sleeps.
  if (q.armed.begin()->second == call) q.work.notify_one();
  return was_pending;
}

// Does not wait for a run in progress: the caller that must know when the
// function is done arranges that itself (with msleep/wakeup), because it may
// hold a lock the function needs.
bool thread_call_cancel(thread_call_t call) {
  TimerQueue& q = timers();
  std::lock_guard<std::mutex> guard(q.lock);
  if (!call->pending) return false;
  disarm_locked(q, call);
  return true;
}

// A caller can learn that the function has done its work (by a wakeup) a
// moment before the function has returned to the timer thread, so a run
// still in progress is waited for here rather than treated as an error.
// Called from the call's own function this would wait forever; that panics.
bool thread_call_free(thread_call_t call) {
  TimerQueue& q = timers();
  std::unique_lock<std::mutex> guard(q.lock);
  if (call->pending) panic("thread_call_free: call %p is still pending", call);
  if (t_current_call == call) panic("thread_call_free: call %p freed by its own function", call);
  while (call->running != 0) q.idle.wait(guard);
  guard.unlock();
  delete call;
  return true;
}

void clock_interval_to_deadline(uint32_t interval, uint32_t scale_factor, uint64_t* result) {
  *result = mach_absolute_time() + static_cast<uint64_t>(interval) * scale_factor;
}

uint64_t mach_absolute_time(void) {
  // steady_clock is CLOCK_MONOTONIC here; the timer thread waits on the same
  // clock, so deadlines and waits agree.
  auto d = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count());
}
