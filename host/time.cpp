#include "host/time.h"

#include <sys/time.h>

#include <mutex>

// The fixed clock of tests. g_fixed_lock protects both fields; it is a leaf.
namespace {
std::mutex g_fixed_lock;
bool g_fixed = false;
struct timespec g_fixed_ts;
}  // namespace

void nanotime(struct timespec* ts) {
  {
    std::lock_guard<std::mutex> guard(g_fixed_lock);
    if (g_fixed) {
      *ts = g_fixed_ts;
      return;
    }
  }
  clock_gettime(CLOCK_REALTIME, ts);
}

void microtime(struct timeval* tv) {
  struct timespec ts;
  nanotime(&ts);
  tv->tv_sec = ts.tv_sec;
  tv->tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
}

void host_set_nanotime(const struct timespec* ts) {
  std::lock_guard<std::mutex> guard(g_fixed_lock);
  g_fixed = ts != nullptr;
  if (ts != nullptr) g_fixed_ts = *ts;
}
