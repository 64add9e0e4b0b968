#pragma once
// The file system under test through a mount.exvol mount: the kernel's
// system calls on paths below a directory of the mount. Several PosixFs
// may share one mount, each under its own directory.

#include <sys/types.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "tests/model/fs.h"

namespace exvol::test {
class MountedVolume;
}

namespace exvol::model {

// One mount.exvol daemon on an image, remountable.
class FuseMount {
 public:
  FuseMount(std::string image, std::string dir, std::string options);
  ~FuseMount();
  // "" or why the mount failed.
  std::string mount(bool read_only);
  // The daemon's exit status (0 after a clean unmount).
  int unmount();
  bool mounted() const;
  pid_t pid() const;
  const std::string& dir() const { return dir_; }
  std::string log() const;

 private:
  std::string image_, dir_, options_;
  std::unique_ptr<test::MountedVolume> volume_;
  // The daemon's pid for other threads (the memory sampler): volume_
  // changes under them at every remount.
  std::atomic<pid_t> pid_{-1};
};

class PosixFs final : public Fs {
 public:
  static constexpr int kSlots = 16;

  // Paths are taken below `base` (a directory of the mount, "" for its
  // root).
  PosixFs(FuseMount& mount, std::string base);
  ~PosixFs() override;

  int open(int slot, const std::string& path, int oflags) override;
  int close(int slot) override;
  bool slot_open(int slot) const override { return fds_.at(static_cast<size_t>(slot)) >= 0; }
  int read(int slot, int64_t offset, size_t length, std::vector<uint8_t>* out) override;
  int write(int slot, int64_t offset, const std::vector<uint8_t>& data, size_t* done) override;
  int seek(int slot, int64_t offset, int whence, int64_t* position) override;
  int ftruncate(int slot, int64_t size) override;
  int fsync(int slot, bool full) override;
  int fstat(int slot, Stat* out) override;
  int futimes(int slot, const TimeChange& times) override;
  int fchflags(int slot, uint32_t flags) override;

  int stat(const std::string& path, bool follow, Stat* out) override;
  int truncate(const std::string& path, int64_t size) override;
  int unlink(const std::string& path) override;
  int mkdir(const std::string& path) override;
  int rmdir(const std::string& path) override;
  int rename(const std::string& from, const std::string& to, unsigned flags) override;
  int symlink(const std::string& target, const std::string& path) override;
  int readlink(const std::string& path, std::string* target) override;
  int utimes(const std::string& path, const TimeChange& times, bool follow) override;
  int chflags(const std::string& path, uint32_t flags, bool follow) override;
  int list(const std::string& path, std::vector<Listed>* out) override;
  int label(std::string* out) override;
  int set_label(const std::string& label) override;
  int sync(bool wait) override;
  int space(uint64_t* free_clusters, uint32_t* cluster_bytes) override;

  int unmount() override;
  int mount(bool read_only) override;
  bool mounted() const override { return mount_.mounted(); }
  void force_unmount() override;

 private:
  std::string full(const std::string& path) const;
  void close_all();

  FuseMount& mount_;
  std::string base_;
  std::array<int, kSlots> fds_;
};

}  // namespace exvol::model
