#pragma once
// A progress line for long copies, on stderr when it is a terminal.

#include <chrono>
#include <cstdint>
#include <string>

namespace exvol::cli {

// Shows "NAME  37%  12.0 MiB / 32.0 MiB  8.5 MiB/s" on one terminal line
// for files of 1 MiB or more, redrawn at most ten times a second and once
// more at 100%, and erased when the copy ends. Nothing is drawn when stderr
// is not a terminal, so scripts and logs never see it.
class Progress {
 public:
  Progress(std::string name, uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(uint64_t bytes);

 private:
  void draw(std::chrono::steady_clock::time_point now);

  std::string name_;
  uint64_t total_;
  uint64_t done_ = 0;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

}  // namespace exvol::cli
