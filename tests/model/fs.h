#pragma once
// The file system under test as the model checker sees it: libexvol in
// this process, or a mount.exvol mount through real system calls. Every
// call returns 0 or an errno; open files live in numbered slots.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "exvol/types.h"

namespace exvol::model {

struct Listed {
  std::string name;
  FileType type = FileType::Unknown;
};

class Fs {
 public:
  virtual ~Fs() = default;

  virtual int open(int slot, const std::string& path, int oflags) = 0;
  virtual int close(int slot) = 0;
  virtual bool slot_open(int slot) const = 0;
  // offset < 0: at the file offset, which then advances.
  virtual int read(int slot, int64_t offset, size_t length, std::vector<uint8_t>* out) = 0;
  virtual int write(int slot, int64_t offset, const std::vector<uint8_t>& data, size_t* done) = 0;
  virtual int seek(int slot, int64_t offset, int whence, int64_t* position) = 0;
  virtual int ftruncate(int slot, int64_t size) = 0;
  virtual int fsync(int slot, bool full) = 0;
  virtual int fstat(int slot, Stat* out) = 0;
  virtual int futimes(int slot, const TimeChange& times) = 0;
  virtual int fchflags(int slot, uint32_t flags) = 0;

  virtual int stat(const std::string& path, bool follow, Stat* out) = 0;
  virtual int truncate(const std::string& path, int64_t size) = 0;
  virtual int unlink(const std::string& path) = 0;
  virtual int mkdir(const std::string& path) = 0;
  virtual int rmdir(const std::string& path) = 0;
  virtual int rename(const std::string& from, const std::string& to, unsigned flags) = 0;
  virtual int symlink(const std::string& target, const std::string& path) = 0;
  virtual int readlink(const std::string& path, std::string* target) = 0;
  virtual int utimes(const std::string& path, const TimeChange& times, bool follow) = 0;
  virtual int chflags(const std::string& path, uint32_t flags, bool follow) = 0;
  virtual int list(const std::string& path, std::vector<Listed>* out) = 0;
  virtual int label(std::string* out) = 0;
  virtual int set_label(const std::string& label) = 0;
  virtual int sync(bool wait) = 0;
  // Free clusters and the cluster size.
  virtual int space(uint64_t* free_clusters, uint32_t* cluster_bytes) = 0;

  // Closes every slot, unmounts, and mounts the image again.
  virtual int unmount() = 0;
  virtual int mount(bool read_only) = 0;
  virtual bool mounted() const = 0;
  // Unmounts whatever state the volume is in (open files revoked).
  virtual void force_unmount() = 0;
};

}  // namespace exvol::model
