#pragma once
// mount.exvol: what errors= asks for once the driver finds the volume
// damaged, or a metadata write fails on the device.
//
// The driver records such a fault on the mount (the volume then stays
// marked dirty) and fails the request at hand; it does not know the
// daemon's policy. A watch thread asks the library every kPollMs whether
// the mount has recorded one and, the first time it has, acts once:
//   continue    says so, and serves on;
//   remount-ro  says so and makes the volume read-only (open writers are
//               revoked: their writes fail from then on); as root, it also
//               remounts the kernel's mount read-only, so that the mount
//               table shows "ro" (retried while files are still open for
//               writing, which makes the kernel refuse with EBUSY);
//   panic       says so and ends the session as SIGTERM does, so that
//               the daemon unmounts as cleanly as the volume allows and
//               exits with status 32.
// Messages go to stderr in the foreground, to the system log otherwise.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "exvol/volume.h"
#include "fuse/options.h"

namespace exvol::fuse {

class ErrorWatch {
 public:
  // How often the mount is asked; a fault waits at most this long.
  static constexpr int kPollMs = 200;

  // `say` prints one message (to the terminal or the system log); `stop`
  // ends the session. Starts the thread.
  ErrorWatch(const Config& config, Volume& volume, std::function<void(const std::string&)> say,
             std::function<void()> stop);
  // Stops the thread. Call before the volume is unmounted.
  ~ErrorWatch();
  ErrorWatch(const ErrorWatch&) = delete;
  ErrorWatch& operator=(const ErrorWatch&) = delete;

  // Whether errors=panic ended the session.
  bool panicked() const;

 private:
  void run();
  void act();
  void remount_kernel_read_only();

  const Config& config_;
  Volume& volume_;
  std::function<void(const std::string&)> say_;
  std::function<void()> stop_;
  mutable std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;  // lock_
  bool panicked_ = false;  // lock_
  bool kernel_remount_pending_ = false;  // the watch thread's own
  std::thread thread_;
};

}  // namespace exvol::fuse
