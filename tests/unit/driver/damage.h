#pragma once
// Random damage for the damaged-volume tests: a few bytes of one structure
// changed per variant, the variant named in a report when the process dies
// on it, and the seed and count knobs from the environment.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include <unistd.h>

#if __has_include(<sanitizer/common_interface_defs.h>)
#include <sanitizer/common_interface_defs.h>
#define EXVOL_HAVE_SANITIZER_DEATH_CALLBACK 1
#endif

namespace exvol::test {

inline uint32_t env_or(const char* name, uint32_t fallback) {
  const char* s = getenv(name);
  return s != nullptr ? static_cast<uint32_t>(strtoul(s, nullptr, 0)) : fallback;
}

// A structure of the image that damage may hit.
struct Region {
  const char* name;
  uint64_t offset;
  uint64_t length;
};

// Changes 1 to 8 random bytes of one random region; returns the region.
template <size_t N>
const Region& damage(std::vector<uint8_t>& image, const Region (&regions)[N], std::mt19937& rng) {
  const Region& r = regions[rng() % N];
  int changes = 1 + static_cast<int>(rng() % 8);
  for (int k = 0; k < changes; k++)
    image[r.offset + rng() % r.length] = static_cast<uint8_t>(rng());
  return r;
}

// While armed, an abort or a sanitizer report first prints the variant
// being tried (crash_case), so that it can be rerun.
inline char crash_case[160];

inline void print_crash_case() {
  fprintf(stderr, "\ndamaged-volume test: stopped on %s\n", crash_case);
}

inline void on_crash_abort(int) {
  print_crash_case();
  signal(SIGABRT, SIG_DFL);
  raise(SIGABRT);
}

inline void arm_crash_report(bool armed) {
  signal(SIGABRT, armed ? on_crash_abort : SIG_DFL);
#ifdef EXVOL_HAVE_SANITIZER_DEATH_CALLBACK
  __sanitizer_set_death_callback(armed ? print_crash_case : nullptr);
#endif
}

inline void on_watchdog(int) {
  fprintf(stderr, "\ndamaged-volume test: no progress for too long\n");
  print_crash_case();
  signal(SIGABRT, SIG_DFL);
  abort();
}

// A variant that does not finish within `seconds` is taken for a hang: the
// process stops, naming it. 0 disarms.
inline void arm_watchdog(unsigned seconds) {
  signal(SIGALRM, seconds != 0 ? on_watchdog : SIG_DFL);
  alarm(seconds);
}

}  // namespace exvol::test
