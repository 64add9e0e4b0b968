#pragma once
// The file system under test as libexvol in this process: a Volume mounted
// from an image file.

#include <array>
#include <memory>
#include <string>

#include "exvol/volume.h"
#include "tests/model/fs.h"

namespace exvol::model {

class LibFs : public Fs {
 public:
  static constexpr int kSlots = 16;

  LibFs(std::string image, MountOptions options);
  ~LibFs() override;

  int open(int slot, const std::string& path, int oflags) override;
  int close(int slot) override;
  bool slot_open(int slot) const override;
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
  bool mounted() const override { return volume_ != nullptr; }

  void force_unmount() override;
  Volume* volume() { return volume_.get(); }
  // Kernel log lines of the last mount.
  const std::string& diagnostic() const { return diagnostic_; }

 private:
  std::string image_;
  MountOptions options_;
  std::unique_ptr<Volume> volume_;
  std::array<File, kSlots> files_;
  std::string diagnostic_;
};

}  // namespace exvol::model
