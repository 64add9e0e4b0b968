// The progress line of long copies.

#include "progress.h"

#include <unistd.h>

#include <cstdio>

#include "text.h"

namespace exvol::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kSmallest = 1 << 20;
constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr size_t kNameWidth = 32;

// Keeps the end of long names: it is the part that tells files apart.
std::string shortened(const std::string& name) {
  if (name.size() <= kNameWidth)
    return name;
  size_t cut = name.size() - (kNameWidth - 3);
  while (cut < name.size() && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80)
    cut++;  // not inside a UTF-8 sequence
  return "..." + name.substr(cut);
}

}  // namespace

Progress::Progress(std::string name, uint64_t total)
    : name_(shortened(name)), total_(total), enabled_(total >= kSmallest && isatty(STDERR_FILENO) == 1),
      start_(Clock::now()), last_draw_(start_) {}

Progress::~Progress() {
  if (drawn_) {
    fputs("\r\033[K", stderr);
    fflush(stderr);
  }
}

void Progress::advance(uint64_t bytes) {
  done_ += bytes;
  if (!enabled_)
    return;
  Clock::time_point now = Clock::now();
  if (drawn_ && now - last_draw_ < kRedraw && done_ < total_)
    return;
  draw(now);
}

void Progress::draw(Clock::time_point now) {
  double seconds = std::chrono::duration<double>(now - start_).count();
  uint64_t rate = seconds > 0 ? static_cast<uint64_t>(static_cast<double>(done_) / seconds) : 0;
  unsigned percent = total_ ? static_cast<unsigned>(done_ * 100 / total_) : 100;
  fprintf(stderr, "\r\033[K%s  %3u%%  %s / %s  %s/s", name_.c_str(), percent,
          human_size(done_).c_str(), human_size(total_).c_str(), human_size(rate).c_str());
  fflush(stderr);
  drawn_ = true;
  last_draw_ = now;
}

}  // namespace exvol::cli
