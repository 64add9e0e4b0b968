#include "tests/fuse/mount_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"

#ifndef EXVOL_MOUNT_BIN
#error "EXVOL_MOUNT_BIN must name the mount.exvol program"
#endif

namespace exvol::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kMountTimeout = std::chrono::seconds(20);
// The daemon writes everything back and runs under sanitizers: give it time.
constexpr auto kExitTimeout = std::chrono::seconds(60);

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

std::string find_program(const char* name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = std::string(dir) + name;
    if (access(path.c_str(), X_OK) == 0)
      return path;
  }
  return "";
}

// Starts argv with stdout and stderr going to `log` (or /dev/null).
pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(log.empty() ? "/dev/null" : log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// waitpid with a deadline: the exit status, -1 for a signal, or -2 when
// the process is still running at the deadline.
int wait_until(pid_t pid, Clock::time_point deadline) {
  for (;;) {
    int raw = 0;
    pid_t r = waitpid(pid, &raw, WNOHANG);
    if (r == pid)
      return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    if (r < 0)
      return -1;
    if (Clock::now() >= deadline)
      return -2;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

std::string fuse_unavailable_reason() {
  int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0)
    return std::string("FUSE is not usable here: /dev/fuse: ") + strerror(errno);
  close(fd);
  if (geteuid() != 0 && find_program("fusermount3").empty())
    return "FUSE is not usable here: not root and no fusermount3";
  if (access(EXVOL_MOUNT_BIN, X_OK) != 0)
    return "mount.exvol was not built";
  return "";
}

ScratchDir::ScratchDir() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "exvol-fuse-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

ScratchDir::~ScratchDir() {
  // A mount left on a mount point inside would make remove_all walk into
  // the volume; detach anything first.
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(path_, ec)) {
    if (is_mountpoint(entry.path().string()))
      unmount_dir(entry.path().string(), true);
  }
  std::filesystem::remove_all(path_, ec);
}

void make_builder_image(const std::string& path) {
  Geometry g;
  g.sector_shift = 9;
  g.cluster_shift = 3;
  g.cluster_count = kTestClusterCount;
  ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry().add_label(u"FUSETEST");
  b.write_to(path);
}

bool make_mkfs_image(const std::string& path, uint64_t bytes, const std::string& mkfs_args) {
  std::string mkfs = find_program("mkfs.exfat");
  if (mkfs.empty())
    return false;
  std::filesystem::resize_file(path, bytes);
  std::string command = mkfs + " " + mkfs_args + " '" + path + "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

std::string fsck_problems(const std::string& image) {
  std::string fsck = fsck_program();
  if (fsck.empty())
    return "";
  RunResult r = run_program({fsck, "-n", image});
  return r.status == 0 ? "" : "fsck.exfat status " + std::to_string(r.status) + ": " + r.err;
}

uint16_t volume_flags(const std::string& image) {
  std::ifstream f(image, std::ios::binary);
  uint8_t b[2] = {0, 0};
  f.seekg(106);
  f.read(reinterpret_cast<char*>(b), 2);
  return static_cast<uint16_t>(b[0] | b[1] << 8);
}

RunResult run_program(const std::vector<std::string>& argv) {
  char log[] = "/tmp/exvol-run-XXXXXX";
  int fd = mkstemp(log);
  if (fd >= 0)
    close(fd);
  RunResult r;
  pid_t pid = spawn(argv, log);
  r.status = wait_until(pid, Clock::now() + kExitTimeout);
  if (r.status == -2) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    r.status = -1;
  }
  r.err = slurp(log);
  unlink(log);
  return r;
}

bool is_mountpoint(const std::string& dir) {
  // Read from the mount table rather than by stat: a hung daemon would
  // hang the stat.
  std::ifstream f("/proc/self/mountinfo");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream fields(line);
    std::string id, parent, devno, root, point;
    fields >> id >> parent >> devno >> root >> point;
    if (point == dir)
      return true;
  }
  return false;
}

bool unmount_dir(const std::string& dir, bool lazy) {
  if (geteuid() == 0)
    return umount2(dir.c_str(), lazy ? MNT_DETACH : 0) == 0;
  std::string fusermount = find_program("fusermount3");
  return run_program({fusermount, lazy ? "-uz" : "-u", dir}).status == 0;
}

MountedVolume::MountedVolume(const std::string& image, const std::string& mountpoint,
                             const std::string& options)
    : dir_(mountpoint) {
  std::filesystem::create_directories(dir_);
  char log_name[] = "/tmp/exvol-daemon-XXXXXX";
  int fd = mkstemp(log_name);
  if (fd >= 0)
    close(fd);
  log_path_ = log_name;
  // EXVOL_FUSE_DEBUG=1 in the environment logs every request to the log.
  const char* debug = getenv("EXVOL_FUSE_DEBUG");
  std::vector<std::string> argv = {EXVOL_MOUNT_BIN, image, dir_,
                                   debug != nullptr && *debug == '1' ? "-d" : "-f"};
  if (!options.empty()) {
    argv.push_back("-o");
    argv.push_back(options);
  }
  pid_ = spawn(argv, log_path_);
  auto deadline = Clock::now() + kMountTimeout;
  while (Clock::now() < deadline) {
    if (is_mountpoint(dir_)) {
      mounted_ = true;
      return;
    }
    int status = wait_until(pid_, Clock::now());
    if (status != -2) {
      pid_ = -1;
      ADD_FAILURE() << "mount.exvol exited with " << status << ": " << log();
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ADD_FAILURE() << "mount.exvol did not mount within the time limit: " << log();
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

// A daemon already gone detached its own mount (wait_exit): the mount point
// may carry another volume's mount by now, which must stay.
MountedVolume::~MountedVolume() {
  if (pid_ > 0)
    unmount();
  unlink(log_path_.c_str());
}

std::string MountedVolume::log() const { return slurp(log_path_); }

int MountedVolume::unmount() {
  if (pid_ <= 0)
    return -1;
  // The kernel may still hold a file that a test just closed for a moment
  // (its release is asynchronous): retry a busy unmount briefly.
  auto deadline = Clock::now() + std::chrono::seconds(5);
  while (is_mountpoint(dir_) && !unmount_dir(dir_, false)) {
    if (Clock::now() >= deadline) {
      // Something still has a file open (a test's leak): the daemon can't
      // finish, so don't wait for it.
      ADD_FAILURE() << "the mount stayed busy: " << dir_;
      kill(pid_, SIGKILL);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return wait_exit();
}

int MountedVolume::wait_exit() {
  if (pid_ <= 0)
    return -1;
  int status = wait_until(pid_, Clock::now() + kExitTimeout);
  if (status == -2) {
    ADD_FAILURE() << "mount.exvol did not exit after the unmount: " << log();
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    status = -1;
  }
  pid_ = -1;
  mounted_ = false;
  if (is_mountpoint(dir_))
    unmount_dir(dir_, true);
  return status;
}

std::vector<uint8_t> pattern(size_t length, uint32_t seed) {
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

bool write_file(const std::string& path, const std::vector<uint8_t>& data, size_t chunk) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0)
    return false;
  size_t pos = 0;
  while (pos < data.size()) {
    size_t n = std::min(chunk, data.size() - pos);
    ssize_t w = write(fd, data.data() + pos, n);
    if (w <= 0) {
      close(fd);
      return false;
    }
    pos += static_cast<size_t>(w);
  }
  return close(fd) == 0;
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::vector<uint8_t> out;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0)
    return out;
  uint8_t chunk[1 << 16];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof(chunk))) > 0)
    out.insert(out.end(), chunk, chunk + n);
  close(fd);
  return out;
}

void FuseVolumeTest::SetUp() {
  SKIP_WITHOUT_FUSE();
  image_ = scratch_.sub("volume.img");
  mountpoint_ = scratch_.sub("mnt");
  make_builder_image(image_);
  mount_ = std::make_unique<MountedVolume>(image_, mountpoint_);
  ASSERT_TRUE(mount_->ok());
}

void FuseVolumeTest::TearDown() {
  if (mount_ && mount_->pid() > 0)
    unmount_and_check();
}

void FuseVolumeTest::unmount_and_check() {
  ASSERT_TRUE(mount_);
  EXPECT_EQ(0, mount_->unmount()) << mount_->log();
  EXPECT_FALSE(is_mountpoint(mountpoint_));
  EXPECT_EQ(0, volume_flags(image_) & 0x0002) << "the volume is still marked dirty";
  EXPECT_EQ("", fsck_problems(image_));
}

void FuseVolumeTest::remount(const std::string& options) {
  unmount_and_check();
  mount_ = std::make_unique<MountedVolume>(image_, mountpoint_, options);
  ASSERT_TRUE(mount_->ok());
}

}  // namespace exvol::test
