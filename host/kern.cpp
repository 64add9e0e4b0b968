#include "host/kern.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_log_lock;
kern_log_sink_t g_sink = nullptr;
void* g_sink_arg = nullptr;

void emit_locked(const char* text) {
  size_t n = strlen(text);
  std::string line(text, n);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (g_sink != nullptr) {
    g_sink(line.c_str(), g_sink_arg);
  } else {
    fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace

void vkprintf(const char* fmt, va_list ap) {
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  std::lock_guard<std::mutex> guard(g_log_lock);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    emit_locked(small);
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, ap);
  emit_locked(big.c_str());
}

void kprintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vkprintf(fmt, ap);
  va_end(ap);
}

void panic(const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  kprintf("panic: %s", msg);
  // Also straight to stderr: a death test matches on the process's stderr,
  // whatever sink the log has.
  fprintf(stderr, "panic: %s\n", msg);
  fflush(stderr);
  abort();
}

void host_log_set_sink(kern_log_sink_t sink, void* arg) {
  std::lock_guard<std::mutex> guard(g_log_lock);
  g_sink = sink;
  g_sink_arg = arg;
}

struct KernLogCapture::State {
  mutable std::mutex lock;
  std::vector<std::string> lines;
};

KernLogCapture::KernLogCapture() : state_(new State) {
  std::lock_guard<std::mutex> guard(g_log_lock);
  prev_sink_ = g_sink;
  prev_arg_ = g_sink_arg;
  g_sink = &KernLogCapture::sink;
  g_sink_arg = this;
}

KernLogCapture::~KernLogCapture() {
  {
    std::lock_guard<std::mutex> guard(g_log_lock);
    g_sink = prev_sink_;
    g_sink_arg = prev_arg_;
  }
  delete state_;
}

void KernLogCapture::sink(const char* line, void* arg) {
  auto* self = static_cast<KernLogCapture*>(arg);
  std::lock_guard<std::mutex> guard(self->state_->lock);
  self->state_->lines.emplace_back(line);
}

std::vector<std::string> KernLogCapture::lines() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->lines;
}

size_t KernLogCapture::count(const std::string& line) const {
  std::lock_guard<std::mutex> guard(state_->lock);
  size_t n = 0;
  for (const auto& l : state_->lines) n += (l == line);
  return n;
}

size_t KernLogCapture::count_prefix(const std::string& prefix) const {
  std::lock_guard<std::mutex> guard(state_->lock);
  size_t n = 0;
  for (const auto& l : state_->lines) n += (l.compare(0, prefix.size(), prefix) == 0);
  return n;
}

void KernLogCapture::clear() {
  std::lock_guard<std::mutex> guard(state_->lock);
  state_->lines.clear();
}
