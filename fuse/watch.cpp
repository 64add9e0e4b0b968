// mount.exvol: the errors= policy (see watch.h).

#include "fuse/watch.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace exvol::fuse {

ErrorWatch::ErrorWatch(const Config& config, Volume& volume,
                       std::function<void(const std::string&)> say, std::function<void()> stop)
    : config_(config), volume_(volume), say_(std::move(say)), stop_(std::move(stop)) {
  thread_ = std::thread([this] { run(); });
}

ErrorWatch::~ErrorWatch() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

bool ErrorWatch::panicked() const {
  std::lock_guard<std::mutex> guard(lock_);
  return panicked_;
}

void ErrorWatch::run() {
  std::unique_lock<std::mutex> guard(lock_);
  bool acted = false;
  while (!stopping_) {
    wake_.wait_for(guard, std::chrono::milliseconds(kPollMs));
    if (stopping_)
      break;
    guard.unlock();
    if (!acted) {
      VolumeInfo info;
      acted = !volume_.info(&info) && info.corrupt;
      if (acted)
        act();
    } else if (kernel_remount_pending_) {
      remount_kernel_read_only();
    }
    guard.lock();
    if (acted && !kernel_remount_pending_)
      return;  // once per mount: the fault stays recorded
  }
}

namespace {

constexpr long kFuseSuperMagic = 0x65735546;

// The mount flags a remount must give again: MS_REMOUNT sets the mount's
// flags to exactly those passed.
unsigned long kept_mount_flags(unsigned long st_flags) {
  static const struct {
    unsigned long st, ms;
  } kFlags[] = {{ST_NOSUID, MS_NOSUID},         {ST_NODEV, MS_NODEV},
                {ST_NOEXEC, MS_NOEXEC},         {ST_SYNCHRONOUS, MS_SYNCHRONOUS},
                {ST_NOATIME, MS_NOATIME},       {ST_NODIRATIME, MS_NODIRATIME},
                {ST_RELATIME, MS_RELATIME}};
  unsigned long ms = 0;
  for (const auto& f : kFlags) {
    if (st_flags & f.st)
      ms |= f.ms;
  }
  return ms;
}

}  // namespace

// Runs on the watch thread only, which alone touches
// kernel_remount_pending_. The daemon has made the volume read-only
// already; this makes the kernel's mount say so (mount table, EROFS from
// the kernel itself). The mount point is opened anew each time, not held:
// an open descriptor on the mount would make umount fail with EBUSY.
void ErrorWatch::remount_kernel_read_only() {
  int fd = open(config_.mountpoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  struct statfs fs {};
  if (fd < 0 || fstatfs(fd, &fs) != 0 || fs.f_type != kFuseSuperMagic) {
    // The mount is gone (or something else is mounted there now).
    kernel_remount_pending_ = false;
    if (fd >= 0)
      close(fd);
    return;
  }
  std::string self = "/proc/self/fd/" + std::to_string(fd);
  unsigned long flags = MS_REMOUNT | MS_RDONLY | kept_mount_flags(fs.f_flags);
  int rc = mount(nullptr, self.c_str(), nullptr, flags, nullptr);
  int error = errno;
  close(fd);
  if (rc == 0) {
    kernel_remount_pending_ = false;
    say_("the kernel's mount is read-only now (errors=remount-ro)");
  } else if (error != EBUSY) {
    // EBUSY: files are still open for writing (their writes fail); the
    // next poll tries again. Anything else will not change.
    kernel_remount_pending_ = false;
    say_(std::string("the kernel's mount stays read-write: ") + strerror(error) +
         "; every write fails with 'Read-only file system' all the same");
  }
}

// Runs on the watch thread with no lock held; the library serialises the
// update with the requests under way.
void ErrorWatch::act() {
  const std::string what = "the volume is damaged or a write to it failed; it stays marked "
                           "dirty: unmount it and run 'exvol check " +
                           config_.image + "'";
  switch (config_.on_errors) {
    case Config::OnErrors::kContinue:
      say_(what);
      return;
    case Config::OnErrors::kRemountReadOnly: {
      MountOptions ro = config_.volume;
      ro.read_only = true;
      std::error_code ec = volume_.update(ro, true);
      say_(what + (ec ? "; switching to read-only failed: " + ec.message()
                      : "; remounted read-only (errors=remount-ro)"));
      // Only root may remount; for anyone else the mount table keeps
      // saying rw while the daemon refuses every write. A mount made ro
      // is read-only in the kernel already.
      if (!ec && geteuid() == 0 && !config_.volume.read_only) {
        kernel_remount_pending_ = true;
        remount_kernel_read_only();
      }
      return;
    }
    case Config::OnErrors::kPanic:
      say_(what + "; unmounting and stopping (errors=panic)");
      {
        std::lock_guard<std::mutex> guard(lock_);
        panicked_ = true;
      }
      stop_();
      return;
  }
}

}  // namespace exvol::fuse
