#include "host/locks.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "host/kern.h"
#include "host/malloc.h"

// Mutexes are std::mutex with an owner field beside them, so that "caller
// holds X" can be asserted and an unlock by a stranger caught. Sleep queues
// are kept in a small table of buckets hashed by channel address; every
// sleeper waits on its own condition variable under its bucket's lock.

// --- Threads -----------------------------------------------------------------

// A thread's identity is the address of a per-thread object: unique among
// live threads, and cheap to compare. Nothing is stored in it.
struct thread {
  char unused;
};

thread_t current_thread(void) {
  static thread_local struct thread self;
  return &self;
}

// --- Groups and attributes -----------------------------------------------------

struct lck_grp_attr {
  char unused;
};

struct lck_attr {
  char unused;
};

struct lck_grp {
  std::string name;
  std::atomic<int> mutexes{0};  // allocated from this group and not freed
};

lck_grp_attr_t* lck_grp_attr_alloc_init(void) { return new lck_grp_attr_t; }

void lck_grp_attr_free(lck_grp_attr_t* attr) { delete attr; }

lck_grp_t* lck_grp_alloc_init(const char* name, lck_grp_attr_t* attr) {
  auto* grp = new lck_grp_t;
  grp->name = name != nullptr ? name : "";
  return grp;
}

void lck_grp_free(lck_grp_t* grp) {
  int left = grp->mutexes.load();
  if (left != 0) panic("lck_grp_free: group %s still has %d mutexes", grp->name.c_str(), left);
  delete grp;
}

lck_attr_t* lck_attr_alloc_init(void) { return new lck_attr_t; }

void lck_attr_free(lck_attr_t* attr) { delete attr; }

int host_lck_grp_mutexes(lck_grp_t* grp) { return grp->mutexes.load(); }

// --- Mutexes -----------------------------------------------------------------

struct lck_mtx {
  std::mutex m;
  // The holder, or NULL. Written only by the holder (after taking m, and
  // before releasing it); read by anyone, which is why it is atomic: a
  // thread that reads its own identity there knows it holds the mutex.
  std::atomic<thread_t> owner{nullptr};
  lck_grp_t* grp;
};

lck_mtx_t* lck_mtx_alloc_init(lck_grp_t* grp, lck_attr_t* attr) {
  if (host_alloc_should_fail()) return nullptr;
  auto* mtx = new (std::nothrow) lck_mtx_t;
  if (mtx == nullptr) return nullptr;
  mtx->grp = grp;
  grp->mutexes.fetch_add(1);
  return mtx;
}

void lck_mtx_free(lck_mtx_t* mtx, lck_grp_t* grp) {
  if (mtx->grp != grp) panic("lck_mtx_free: mutex %p freed under the wrong group", mtx);
  if (mtx->owner.load() != nullptr) panic("lck_mtx_free: mutex %p is held", mtx);
  grp->mutexes.fetch_sub(1);
  delete mtx;
}

void lck_mtx_lock(lck_mtx_t* mtx) {
  thread_t self = current_thread();
  if (mtx->owner.load(std::memory_order_relaxed) == self)
    panic("lck_mtx_lock: mutex %p already held by this thread", mtx);
  mtx->m.lock();
  mtx->owner.store(self, std::memory_order_relaxed);
}

// The mutex may be freed by another thread as soon as m is released, so
// nothing touches *mtx after the unlock.
void lck_mtx_unlock(lck_mtx_t* mtx) {
  if (mtx->owner.load(std::memory_order_relaxed) != current_thread())
    panic("lck_mtx_unlock: mutex %p not held by this thread", mtx);
  mtx->owner.store(nullptr, std::memory_order_relaxed);
  mtx->m.unlock();
}

int lck_mtx_try_lock(lck_mtx_t* mtx) {
  thread_t self = current_thread();
  if (mtx->owner.load(std::memory_order_relaxed) == self)
    panic("lck_mtx_try_lock: mutex %p already held by this thread", mtx);
  if (!mtx->m.try_lock()) return 0;
  mtx->owner.store(self, std::memory_order_relaxed);
  return 1;
}

void lck_mtx_assert(lck_mtx_t* mtx, unsigned int type) {
  bool mine = mtx->owner.load(std::memory_order_relaxed) == current_thread();
  switch (type) {
    case LCK_MTX_ASSERT_OWNED:
      if (!mine) panic("lck_mtx_assert: mutex %p not owned", mtx);
      break;
    case LCK_MTX_ASSERT_NOTOWNED:
      if (mine) panic("lck_mtx_assert: mutex %p owned", mtx);
      break;
    default:
      panic("lck_mtx_assert: unsupported assertion %u", type);
  }
}

// --- Sleep and wakeup ------------------------------------------------------------

namespace {

// One sleeping thread. It lives on the sleeper's stack and is linked into
// its channel's bucket for the duration of the sleep.
struct Sleeper {
  void* chan;
  const char* wmesg;
  int pri;
  bool woken = false;  // protected by the bucket's lock
  std::condition_variable cv;
  Sleeper* next = nullptr;
  Sleeper* prev = nullptr;
};

// A bucket: a FIFO list of sleepers on the channels that hash here, so that
// wakeup_one wakes the longest sleeper.
struct SleepBucket {
  std::mutex lock;
  Sleeper* head = nullptr;  // protected by lock
  Sleeper* tail = nullptr;  // protected by lock
};

constexpr size_t kSleepBuckets = 64;

SleepBucket* sleep_buckets() {
  // Never destroyed: a thread may still sleep or wake while the process
  // exits.
  static SleepBucket* table = new SleepBucket[kSleepBuckets];
  return table;
}

SleepBucket& bucket_of(const void* chan) {
  auto a = reinterpret_cast<uintptr_t>(chan);
  return sleep_buckets()[(a >> 3 ^ a >> 11) % kSleepBuckets];
}

void enqueue_locked(SleepBucket& b, Sleeper* s) {
  s->prev = b.tail;
  s->next = nullptr;
  if (b.tail != nullptr) b.tail->next = s;
  else b.head = s;
  b.tail = s;
}

void dequeue_locked(SleepBucket& b, Sleeper* s) {
  if (s->prev != nullptr) s->prev->next = s->next;
  else b.head = s->next;
  if (s->next != nullptr) s->next->prev = s->prev;
  else b.tail = s->prev;
  s->next = s->prev = nullptr;
}

// Wakes the sleepers on chan (all, or the first when only_one). The woken
// sleeper is unlinked here, so that a second wakeup_one picks the next one.
void wakeup_common(void* chan, bool only_one) {
  SleepBucket& b = bucket_of(chan);
  std::lock_guard<std::mutex> guard(b.lock);
  Sleeper* s = b.head;
  while (s != nullptr) {
    Sleeper* next = s->next;
    if (s->chan == chan) {
      dequeue_locked(b, s);
      s->woken = true;
      s->cv.notify_one();
      if (only_one) return;
    }
    s = next;
  }
}

// Priority bits beyond the level: PCATCH (0x100), PDROP (0x400), PSPIN
// (0x800). None of them is supported.
constexpr int kPriMask = 0xff;

}  // namespace

// The sleeper is queued before the interlock is released, and wakeup takes
// the bucket lock, so a wakeup issued by a thread that took the interlock
// after us always finds us queued: no wakeup is lost.
int msleep(void* chan, lck_mtx_t* mtx, int pri, const char* wmesg, struct timespec* ts) {
  if (pri & ~kPriMask) panic("msleep: unsupported priority flags 0x%x", pri & ~kPriMask);
  if (mtx != nullptr) lck_mtx_assert(mtx, LCK_MTX_ASSERT_OWNED);

  // A zero timeout means no timeout, as for the kernel's msleep.
  bool timed = ts != nullptr && (ts->tv_sec != 0 || ts->tv_nsec != 0);
  auto deadline = std::chrono::steady_clock::now();
  if (timed) deadline += std::chrono::seconds(ts->tv_sec) + std::chrono::nanoseconds(ts->tv_nsec);

  Sleeper self;
  self.chan = chan;
  self.wmesg = wmesg;
  self.pri = pri;
  SleepBucket& b = bucket_of(chan);
  int error = 0;
  {
    std::unique_lock<std::mutex> guard(b.lock);
    enqueue_locked(b, &self);
    if (mtx != nullptr) lck_mtx_unlock(mtx);
    while (!self.woken) {
      if (!timed) {
        self.cv.wait(guard);
      } else if (self.cv.wait_until(guard, deadline) == std::cv_status::timeout && !self.woken) {
        dequeue_locked(b, &self);
        error = EWOULDBLOCK;
        break;
      }
    }
  }
  if (mtx != nullptr) lck_mtx_lock(mtx);
  return error;
}

void wakeup(void* chan) { wakeup_common(chan, false); }

void wakeup_one(void* chan) { wakeup_common(chan, true); }

int host_sleepers(const char* wmesg) {
  int n = 0;
  SleepBucket* table = sleep_buckets();
  for (size_t i = 0; i < kSleepBuckets; i++) {
    std::lock_guard<std::mutex> guard(table[i].lock);
    for (Sleeper* s = table[i].head; s != nullptr; s = s->next) {
      if (s->wmesg != nullptr && wmesg != nullptr && strcmp(s->wmesg, wmesg) == 0) n++;
    }
  }
  return n;
}
