#include "tests/model/faulty_io.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>

namespace exvol::model {

namespace {

struct Undo {
  uint64_t offset;
  std::vector<uint8_t> old;
};

// The attached image and its faults. g_active is read without the lock on
// every request, so that unrelated I/O pays one atomic load.
std::atomic<bool> g_active{false};
std::mutex g_lock;
dev_t g_dev;               // guarded by g_lock
ino_t g_ino;               // guarded by g_lock
int g_fd_for_undo = -1;    // guarded by g_lock: a descriptor of the image, for restoring
DeviceFaults g_faults;     // guarded by g_lock
DeviceStats g_stats;       // guarded by g_lock
std::vector<Undo> g_undo;  // guarded by g_lock

using rw_fn = ssize_t (*)(int, const struct iovec*, int, off_t);
using sync_fn = int (*)(int);

template <typename Fn>
Fn real(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

rw_fn real_preadv() {
  static rw_fn fn = real<rw_fn>("preadv");
  return fn;
}
rw_fn real_pwritev() {
  static rw_fn fn = real<rw_fn>("pwritev");
  return fn;
}
sync_fn real_fdatasync() {
  static sync_fn fn = real<sync_fn>("fdatasync");
  return fn;
}

// Called with g_lock held.
bool is_image(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_dev == g_dev && st.st_ino == g_ino;
}

bool hits(const std::vector<uint64_t>& bytes, uint64_t offset, uint64_t length) {
  return std::any_of(bytes.begin(), bytes.end(),
                     [&](uint64_t b) { return b >= offset && b - offset < length; });
}

uint64_t iov_bytes(const struct iovec* iov, int count) {
  uint64_t n = 0;
  for (int i = 0; i < count; i++)
    n += iov[i].iov_len;
  return n;
}

ssize_t fail_eio() {
  errno = EIO;
  return -1;
}

// Called with g_lock held: the power is gone for this write.
bool power_gone() {
  if (g_faults.cut_after_writes < 0 ||
      g_stats.writes < static_cast<uint64_t>(g_faults.cut_after_writes))
    return false;
  g_stats.cut = true;
  return true;
}

void restore_undo_locked() {
  for (auto it = g_undo.rbegin(); it != g_undo.rend(); ++it) {
    struct iovec v = {it->old.data(), it->old.size()};
    real_pwritev()(g_fd_for_undo, &v, 1, static_cast<off_t>(it->offset));
  }
  g_undo.clear();
}

void detach_locked() {
  g_active = false;
  g_undo.clear();
  if (g_fd_for_undo >= 0)
    close(g_fd_for_undo);
  g_fd_for_undo = -1;
}

}  // namespace

void faulty_attach(const std::string& image, const DeviceFaults& faults) {
  std::lock_guard<std::mutex> guard(g_lock);
  detach_locked();
  struct stat st;
  if (stat(image.c_str(), &st) != 0)
    throw std::runtime_error("can't stat " + image);
  g_dev = st.st_dev;
  g_ino = st.st_ino;
  g_fd_for_undo = open(image.c_str(), O_RDWR | O_CLOEXEC);
  g_faults = faults;
  g_stats = DeviceStats{};
  g_active = true;
}

void faulty_cut_now() {
  std::lock_guard<std::mutex> guard(g_lock);
  g_faults.cut_after_writes = static_cast<int64_t>(g_stats.writes);
}

void faulty_detach() {
  std::lock_guard<std::mutex> guard(g_lock);
  detach_locked();
}

void faulty_power_cut() {
  std::lock_guard<std::mutex> guard(g_lock);
  restore_undo_locked();
  detach_locked();
}

DeviceStats faulty_stats() {
  std::lock_guard<std::mutex> guard(g_lock);
  return g_stats;
}

}  // namespace exvol::model

using namespace exvol::model;

// The interposed calls. The host's device makes one such call per request,
// so a request fails or succeeds as a whole, as on a disk.
extern "C" ssize_t preadv(int fd, const struct iovec* iov, int count, off_t offset) {
  if (g_active.load()) {
    std::lock_guard<std::mutex> guard(g_lock);
    if (g_active.load() && is_image(fd) &&
        hits(g_faults.fail_reads, static_cast<uint64_t>(offset), iov_bytes(iov, count))) {
      g_stats.faults++;
      return fail_eio();
    }
  }
  return real_preadv()(fd, iov, count, offset);
}

extern "C" ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset) {
  if (!g_active.load())
    return real_pwritev()(fd, iov, count, offset);
  std::lock_guard<std::mutex> guard(g_lock);
  if (!g_active.load() || !is_image(fd))
    return real_pwritev()(fd, iov, count, offset);
  uint64_t length = iov_bytes(iov, count);
  if (power_gone())
    return fail_eio();
  if (hits(g_faults.fail_writes, static_cast<uint64_t>(offset), length)) {
    g_stats.faults++;
    g_stats.write_faults++;
    return fail_eio();
  }
  if (g_faults.write_cache) {
    Undo u{static_cast<uint64_t>(offset), std::vector<uint8_t>(length)};
    struct iovec v = {u.old.data(), u.old.size()};
    ssize_t got = real_preadv()(fd, &v, 1, offset);
    u.old.resize(got > 0 ? static_cast<size_t>(got) : 0);
    g_undo.push_back(std::move(u));
  }
  g_stats.writes++;
  return real_pwritev()(fd, iov, count, offset);
}

extern "C" int fdatasync(int fd) {
  if (g_active.load()) {
    std::lock_guard<std::mutex> guard(g_lock);
    if (g_active.load() && is_image(fd)) {
      if (power_gone()) {
        errno = EIO;
        return -1;
      }
      g_undo.clear();
      g_stats.flushes++;
    }
  }
  return real_fdatasync()(fd);
}
