#pragma once
// FUSE test support: builder images, mount.exvol runs through the real
// kernel, and the checks made after an unmount. A test never leaves a mount
// behind: MountedVolume unmounts in its destructor and kills a hung daemon
// (detaching its mount) after a bounded wait.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"

namespace exvol::test {

using Clock = std::chrono::steady_clock;

// The errno of a call that is expected to fail, or 0 if it succeeded.
#define ERRNO_OF(call) ((call) < 0 ? errno : 0)

#define SKIP_WITHOUT_FUSE()                                      \
  do {                                                           \
    std::string why_ = ::exvol::test::fuse_unavailable_reason(); \
    if (!why_.empty())                                           \
      GTEST_SKIP() << why_;                                      \
  } while (0)

inline constexpr uint32_t kTestClusterBytes = 4096;
inline constexpr uint32_t kTestClusterCount = 16384;

inline std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

inline std::string fusermount() {
  for (const char* path : {"/usr/bin/fusermount3", "/bin/fusermount3"}) {
    if (access(path, X_OK) == 0)
      return path;
  }
  return "";
}

// Why FUSE tests can't run here, or "" when they can.
inline std::string fuse_unavailable_reason() {
  int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0)
    return std::string("FUSE is not usable here: /dev/fuse: ") + strerror(errno);
  close(fd);
  if (geteuid() != 0 && fusermount().empty())
    return "FUSE is not usable here: not root and no fusermount3";
  if (access(EXVOL_MOUNT_BIN, X_OK) != 0)
    return "mount.exvol was not built";
  return "";
}

// Starts argv with stdout and stderr going to `log`.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_TRUNC);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// The exit status, -1 for a signal, or -2 when still running at `deadline`
// (then killed if `kill_late`).
inline int wait_until(pid_t pid, Clock::time_point deadline, bool kill_late = false) {
  for (;;) {
    int raw = 0;
    pid_t r = waitpid(pid, &raw, WNOHANG);
    if (r == pid)
      return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    if (r < 0)
      return -1;
    if (Clock::now() >= deadline) {
      if (kill_late) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
      return -2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// The daemon writes everything back and runs under sanitizers: give it time.
inline int wait_exit_of(pid_t pid) {
  return wait_until(pid, Clock::now() + std::chrono::seconds(60), true);
}

struct RunResult {
  int status = -1;  // exit status; -1 when killed, -2 when it hung
  std::string err;  // standard output and error
};

inline RunResult run_program(const std::vector<std::string>& argv) {
  TempFile log;
  int status = wait_exit_of(spawn(argv, log.path()));
  return {status, slurp(log.path())};
}

// Read from the mount table: a stat of a hung mount would hang.
inline bool is_mountpoint(const std::string& dir) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line, id, parent, devno, root, point;
  while (std::getline(f, line)) {
    std::istringstream(line) >> id >> parent >> devno >> root >> point;
    if (point == dir)
      return true;
  }
  return false;
}

inline bool unmount_dir(const std::string& dir, bool lazy = false) {
  if (geteuid() == 0)
    return umount2(dir.c_str(), lazy ? MNT_DETACH : 0) == 0;
  return run_program({fusermount(), lazy ? "-uz" : "-u", dir}).status == 0;
}

// A scratch directory, removed with everything in it (mounts detached
// first, so that the removal does not walk into a volume).
class ScratchDir {
 public:
  ScratchDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "exvol-fuse-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr)
      throw std::runtime_error("mkdtemp failed");
    path_ = templ;
  }
  ~ScratchDir() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(path_, ec)) {
      if (is_mountpoint(entry.path().string()))
        unmount_dir(entry.path().string(), true);
    }
    std::filesystem::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string sub(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A builder volume of the tests' geometry (512-byte sectors, 4 KiB
// clusters, kTestClusterCount of them) with its bitmap and up-case table.
inline ImageBuilder test_builder() {
  Geometry g;
  g.sector_shift = 9;
  g.cluster_shift = 3;
  g.cluster_count = kTestClusterCount;
  ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry();
  return b;
}

inline void make_builder_image(const std::string& path) {
  ImageBuilder b = test_builder();
  b.add_label(u"FUSETEST");
  b.write_to(path);
}

// fsck.exfat -n over an image: "" when clean (or without the checker).
inline std::string fsck_problems(const std::string& image) {
  std::string fsck = fsck_program();
  RunResult r = fsck.empty() ? RunResult{0, ""} : run_program({fsck, "-n", image});
  return r.status == 0 ? "" : "fsck.exfat status " + std::to_string(r.status) + ": " + r.err;
}

inline bool volume_dirty(const std::string& image) {
  char flags = 0;
  std::ifstream(image, std::ios::binary).seekg(106).read(&flags, 1);
  return (flags & 0x02) != 0;  // VolumeFlags bit 1
}

// mount.exvol in the foreground on an image, mounted by the constructor
// (ASSERT on ok()), unmounted by unmount() or the destructor.
class MountedVolume {
 public:
  MountedVolume(const std::string& image, const std::string& mountpoint,
                const std::string& options = "")
      : dir_(mountpoint) {
    std::filesystem::create_directories(dir_);
    // EXVOL_FUSE_DEBUG=1 logs every request.
    const char* debug = getenv("EXVOL_FUSE_DEBUG");
    std::vector<std::string> argv = {EXVOL_MOUNT_BIN, image, dir_,
                                     debug != nullptr && *debug == '1' ? "-d" : "-f"};
    if (!options.empty())
      argv.insert(argv.end(), {"-o", options});
    pid_ = spawn(argv, log_.path());
    for (auto deadline = Clock::now() + std::chrono::seconds(20); !is_mountpoint(dir_);) {
      int status = wait_until(pid_, Clock::now(), Clock::now() >= deadline);
      if (status != -2 || Clock::now() >= deadline) {
        ADD_FAILURE() << "mount.exvol did not mount (" << status << "): " << log();
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    mounted_ = true;
  }
  // A daemon already gone detached its own mount (wait_exit): the mount
  // point may carry another volume's mount by now, which must stay.
  ~MountedVolume() {
    if (pid_ > 0)
      unmount();
  }
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  bool ok() const { return mounted_; }
  const std::string& dir() const { return dir_; }
  std::string path(const std::string& rel) const { return dir_ + "/" + rel; }
  pid_t pid() const { return pid_; }
  std::string log() const { return slurp(log_.path()); }

  // Unmounts as a user does and returns the daemon's exit status (-1 if it
  // was killed or hung).
  int unmount() {
    if (pid_ <= 0)
      return -1;
    // The kernel releases a file just closed asynchronously: retry a busy
    // unmount briefly before calling it a leak.
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (is_mountpoint(dir_) && !unmount_dir(dir_)) {
      if (Clock::now() >= deadline) {
        ADD_FAILURE() << "the mount stayed busy: " << dir_;
        kill(pid_, SIGKILL);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return wait_exit();
  }

  // Waits for the daemon after something else ended the mount (a signal).
  int wait_exit() {
    if (pid_ <= 0)
      return -1;
    int status = wait_exit_of(pid_);
    EXPECT_NE(-2, status) << "mount.exvol did not exit after the unmount: " << log();
    pid_ = -1;
    mounted_ = false;
    if (is_mountpoint(dir_))
      unmount_dir(dir_, true);
    return status;
  }

 private:
  std::string dir_;
  TempFile log_;
  pid_t pid_ = -1;
  bool mounted_ = false;
};

inline std::vector<uint8_t> pattern(size_t length, uint32_t seed) {
  std::vector<uint8_t> out(length);
  uint64_t x = 0x9E3779B97F4A7C15ull ^ seed;
  for (size_t i = 0; i < length; i++) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    out[i] = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

inline bool write_file(const std::string& path, const std::vector<uint8_t>& data,
                       size_t chunk = 1 << 20) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  for (size_t pos = 0; fd >= 0 && pos < data.size();) {
    ssize_t w = write(fd, data.data() + pos, std::min(chunk, data.size() - pos));
    if (w <= 0) {
      close(fd);
      return false;
    }
    pos += static_cast<size_t>(w);
  }
  return fd >= 0 && close(fd) == 0;
}

inline std::vector<uint8_t> read_file(const std::string& path) {
  std::string s = slurp(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

// A fresh builder image and a mount point's name (the directory is not
// made) in a scratch directory, for tests that mount it themselves.
class FuseImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_FUSE();
    image_ = scratch_.sub("volume.img");
    mountpoint_ = scratch_.sub("mnt");
    make_builder_image(image_);
  }

  ScratchDir scratch_;
  std::string image_;
  std::string mountpoint_;
};

// A fresh builder volume mounted read-write for the test body. TearDown
// unmounts and expects what every test must leave: a daemon that exited
// with 0 and a volume marked clean that the checker passes.
class FuseVolumeTest : public FuseImageTest {
 protected:
  void SetUp() override {
    FuseImageTest::SetUp();
    if (IsSkipped())
      return;
    mount_ = std::make_unique<MountedVolume>(image_, mountpoint_);
    ASSERT_TRUE(mount_->ok());
  }
  void TearDown() override {
    if (mount_ && mount_->pid() > 0)
      unmount_and_check();
  }

  void unmount_and_check() {
    EXPECT_EQ(0, mount_->unmount()) << mount_->log();
    EXPECT_FALSE(is_mountpoint(mountpoint_));
    EXPECT_FALSE(volume_dirty(image_));
    EXPECT_EQ("", fsck_problems(image_));
  }
  // Unmounts (checking as TearDown does) and mounts again with `options`.
  void remount(const std::string& options = "") {
    unmount_and_check();
    mount_ = std::make_unique<MountedVolume>(image_, mountpoint_, options);
    ASSERT_TRUE(mount_->ok());
  }
  std::string path(const std::string& rel) const { return mount_->path(rel); }

  std::unique_ptr<MountedVolume> mount_;
};

}  // namespace exvol::test
