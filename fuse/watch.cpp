// mount.exvol: the errors= policy (see watch.h).

#include "fuse/watch.h"

#include <chrono>

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
  while (!stopping_) {
    wake_.wait_for(guard, std::chrono::milliseconds(kPollMs));
    if (stopping_)
      break;
    guard.unlock();
    VolumeInfo info;
    bool corrupt = !volume_.info(&info) && info.corrupt;
    if (corrupt)
      act();
    guard.lock();
    if (corrupt)
      return;  // once per mount: the fault stays recorded
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
