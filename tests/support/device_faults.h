#pragma once
// The devices under a volume misbehaving, for tests of the library and the
// programs: writes that fail past a byte offset of an image file (no
// privileges needed), loop devices over images (root only; read-only ones
// too), and another process holding an image's lock.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace exvol::test {

// While it lives, every write of this process, and of the programs it
// starts meanwhile (they keep the limit), at or beyond `bytes` into any
// regular file fails with EFBIG: an image file then fails the device writes
// beyond that offset, as a disk with bad sectors or a full file system
// under a sparse image would. Keep it above the size of the files a test
// writes for itself.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    old_handler_ = signal(SIGXFSZ, SIG_IGN);  // EFBIG instead of being killed
    struct rlimit limit = saved_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, old_handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  struct rlimit saved_ = {};
  sighandler_t old_handler_ = SIG_DFL;
};

// Another process holding flock(2) on a file, shared or exclusive, until
// the object goes. pid() is -1 when the lock couldn't be taken.
class ForeignLock {
 public:
  ForeignLock(const std::string& path, bool exclusive) {
    int ready[2], stop[2];
    if (pipe(ready) != 0 || pipe(stop) != 0)
      return;
    pid_t pid = fork();
    if (pid == 0) {
      close(ready[0]);
      close(stop[1]);
      int fd = open(path.c_str(), O_RDONLY);
      char ok = fd >= 0 && flock(fd, exclusive ? LOCK_EX | LOCK_NB : LOCK_SH | LOCK_NB) == 0;
      ssize_t w = write(ready[1], &ok, 1);
      char c;
      while (read(stop[0], &c, 1) < 0 && errno == EINTR) {
      }
      _exit(w == 1 ? 0 : 1);
    }
    close(ready[1]);
    close(stop[0]);
    stop_ = stop[1];
    char ok = 0;
    if (pid > 0 && read(ready[0], &ok, 1) == 1 && ok)
      pid_ = pid;
    child_ = pid;
    close(ready[0]);
  }
  ~ForeignLock() {
    if (stop_ >= 0)
      close(stop_);
    if (child_ > 0)
      waitpid(child_, nullptr, 0);
  }
  ForeignLock(const ForeignLock&) = delete;
  ForeignLock& operator=(const ForeignLock&) = delete;

  pid_t pid() const { return pid_; }
  // How the lock's holder is named in messages: "NAME, pid N".
  std::string holder() const {
    std::ifstream comm("/proc/self/comm");  // the child's name is ours
    std::string name;
    std::getline(comm, name);
    return name + ", pid " + std::to_string(pid_);
  }

 private:
  pid_t child_ = -1;
  pid_t pid_ = -1;
  int stop_ = -1;
};

inline std::string losetup_program() {
  for (const char* path : {"/usr/sbin/losetup", "/sbin/losetup"}) {
    if (access(path, X_OK) == 0)
      return path;
  }
  return "";
}

// A loop device over a file, detached again by the destructor. When
// attaching fails (not root, no loop devices), why() says so: the test
// skips.
class LoopAttachment {
 public:
  LoopAttachment(const std::string& file, bool read_only) {
    std::string losetup = losetup_program();
    if (losetup.empty()) {
      why_ = "losetup is not installed";
      return;
    }
    if (geteuid() != 0) {
      why_ = "loop devices need root";
      return;
    }
    std::string command =
        losetup + " -f --show " + (read_only ? "-r " : "") + "'" + file + "' 2>&1";
    FILE* p = popen(command.c_str(), "r");
    char line[256] = {};
    bool got = p != nullptr && fgets(line, sizeof(line), p) != nullptr;
    int status = p != nullptr ? pclose(p) : -1;
    std::string out = got ? line : "";
    if (!out.empty() && out.back() == '\n')
      out.pop_back();
    if (status != 0 || out.rfind("/dev/", 0) != 0) {
      why_ = "no loop device here: " + out;
      return;
    }
    device_ = out;
  }
  ~LoopAttachment() {
    if (!device_.empty())
      std::system((losetup_program() + " -d " + device_).c_str());
  }
  LoopAttachment(const LoopAttachment&) = delete;
  LoopAttachment& operator=(const LoopAttachment&) = delete;

  const std::string& device() const { return device_; }
  const std::string& why() const { return why_; }

 private:
  std::string device_;
  std::string why_;
};

#define ATTACH_LOOP_OR_SKIP(name, file, read_only) \
  ::exvol::test::LoopAttachment name(file, read_only); \
  if (name.device().empty())                         \
  GTEST_SKIP() << name.why()

}  // namespace exvol::test
