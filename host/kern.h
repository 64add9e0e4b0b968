#pragma once
// Kernel log and panic.
//
// kprintf() formats one record and hands it to the log sink (stderr unless a
// sink is installed). One call is one record: a trailing newline is removed,
// so "exfat: x\n" and "exfat: x" are the same line to a reader of the log.
// panic() logs "panic: <message>" and aborts the process.

#include <cstdarg>
#include <string>
#include <vector>

#include "host/types.h"

void kprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void vkprintf(const char* fmt, va_list ap) __attribute__((format(printf, 1, 0)));
[[noreturn]] void panic(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A log sink receives each record, without its trailing newline. The sink is
// called with the host's log lock held: it must not call kprintf itself.
typedef void (*kern_log_sink_t)(const char* line, void* arg);

// Installs a sink (NULL restores stderr). KernLogCapture keeps the previous
// sink and restores it; plain callers that need that do the same.
void host_log_set_sink(kern_log_sink_t sink, void* arg);

// Captures the kernel log for the lifetime of the object (tests). Captures
// nest: the innermost receives the lines and passes nothing on.
class KernLogCapture {
 public:
  KernLogCapture();
  ~KernLogCapture();
  KernLogCapture(const KernLogCapture&) = delete;
  KernLogCapture& operator=(const KernLogCapture&) = delete;

  std::vector<std::string> lines() const;
  // Number of captured lines equal to `line`.
  size_t count(const std::string& line) const;
  // Number of captured lines that start with `prefix`.
  size_t count_prefix(const std::string& prefix) const;
  void clear();

 private:
  static void sink(const char* line, void* arg);
  struct State;
  State* state_;
  kern_log_sink_t prev_sink_;
  void* prev_arg_;
};
