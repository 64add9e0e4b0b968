#pragma once
// Test support for FUSE tests: exFAT images, mount.exvol runs through the
// real kernel, and the checks made after an unmount.
//
// A test never leaves a mount behind: MountedVolume unmounts in its
// destructor, waits a bounded time for the daemon to finish, and kills a
// hung daemon (detaching its mount) rather than wait for ever.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace exvol::test {

// Why FUSE tests can't run here, or "" when they can.
std::string fuse_unavailable_reason();

#define SKIP_WITHOUT_FUSE()                                        \
  do {                                                             \
    std::string why_ = ::exvol::test::fuse_unavailable_reason();   \
    if (!why_.empty())                                             \
      GTEST_SKIP() << why_;                                        \
  } while (0)

// An image file in a scratch directory, removed with it.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string sub(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Geometry of the images made by make_builder_image: 4 KiB clusters.
inline constexpr uint32_t kTestClusterBytes = 4096;
inline constexpr uint32_t kTestClusterCount = 16384;  // 64 MiB of cluster heap

// Writes an empty volume made by the test image builder to `path`.
void make_builder_image(const std::string& path);
// Formats `path` (created with `bytes`) with mkfs.exfat; false when the
// tool is missing.
bool make_mkfs_image(const std::string& path, uint64_t bytes, const std::string& mkfs_args = "");

// fsck.exfat -n over an image file: "" when clean (or the checker is not
// installed), else its output.
std::string fsck_problems(const std::string& image);
// The VolumeFlags field of the image's boot sector.
uint16_t volume_flags(const std::string& image);

// Runs a program to completion: its exit status (-1 if killed) and its
// standard error.
struct RunResult {
  int status = -1;
  std::string err;
};
RunResult run_program(const std::vector<std::string>& argv);

// mount.exvol running on an image: mounted in the foreground by the
// constructor (ASSERT on ok() in the test), unmounted by unmount() or the
// destructor.
class MountedVolume {
 public:
  MountedVolume(const std::string& image, const std::string& mountpoint,
                const std::string& options = "");
  ~MountedVolume();
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  bool ok() const { return mounted_; }
  const std::string& dir() const { return dir_; }
  std::string path(const std::string& rel) const { return dir_ + "/" + rel; }
  pid_t pid() const { return pid_; }
  // What the daemon wrote to stderr so far.
  std::string log() const;

  // Unmounts the way a user does (umount / fusermount3 -u) and waits for
  // the daemon. Returns its exit status; -1 if it was killed or hung.
  int unmount();
  // Waits for the daemon after something else ended the mount (a signal).
  int wait_exit();

 private:
  std::string dir_;
  std::string log_path_;
  pid_t pid_ = -1;
  bool mounted_ = false;
};

// Whether something is mounted on `dir` (its device differs from its
// parent's).
bool is_mountpoint(const std::string& dir);
// Unmounts whatever is mounted on `dir`; `lazy` detaches a busy mount.
bool unmount_dir(const std::string& dir, bool lazy = false);

// Deterministic bytes for file contents: the same seed gives the same data.
std::vector<uint8_t> pattern(size_t length, uint32_t seed);
// Whole-file helpers through the mount (plain POSIX calls).
bool write_file(const std::string& path, const std::vector<uint8_t>& data, size_t chunk = 1 << 20);
std::vector<uint8_t> read_file(const std::string& path);

// A test on a freshly made volume, mounted read-write for the test body.
// TearDown unmounts and checks what every writing test must leave: a
// daemon that exited with 0, a volume marked clean, and a checker that
// finds nothing wrong.
class FuseVolumeTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Unmounts (checking as TearDown does) and mounts again with `options`.
  void remount(const std::string& options = "");
  // Unmounts and checks; the test goes on without a mount.
  void unmount_and_check();
  std::string path(const std::string& rel) const { return mount_->path(rel); }

  ScratchDir scratch_;
  std::string image_;
  std::string mountpoint_;
  std::unique_ptr<MountedVolume> mount_;
};

}  // namespace exvol::test
