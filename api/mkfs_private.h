#pragma once
// The formatter's shared state: the geometry, the device, the cluster
// allocator and the writer of directory contents. Used by one thread.

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "exvol/mkfs.h"

namespace exvol::detail {

struct MkfsLayout {
  uint32_t sector_shift = 9;
  uint32_t cluster_shift = 3;  // sectors per cluster, as a shift
  uint64_t volume_sectors = 0;
  uint32_t fat_offset = 0;     // sectors
  uint32_t fat_length = 0;     // sectors
  uint32_t heap_offset = 0;    // sectors
  uint32_t cluster_count = 0;

  uint32_t sector_bytes() const { return 1u << sector_shift; }
  uint32_t cluster_bytes() const { return 1u << (sector_shift + cluster_shift); }
  uint64_t cluster_offset(uint32_t cluster) const {
    return (static_cast<uint64_t>(heap_offset) << sector_shift) +
           (static_cast<uint64_t>(cluster - 2) << (sector_shift + cluster_shift));
  }
  uint32_t clusters_for(uint64_t bytes) const {
    return static_cast<uint32_t>((bytes + cluster_bytes() - 1) >> (sector_shift + cluster_shift));
  }
};

// A failure: the errno and the line that explains it.
struct MkfsError {
  int error = 0;
  std::string message;
};

class Formatter {
 public:
  Formatter(int fd, bool regular_file, const MkfsLayout& layout, const MkfsOptions& options);

  // The image itself, which a tree that holds it must not copy into it.
  bool is_target(uint64_t dev, uint64_t ino) const { return dev == target_dev_ && ino == target_ino_; }

  const MkfsLayout& layout() const { return layout_; }
  const MkfsOptions& options() const { return options_; }
  MkfsResult& result() { return result_; }
  const std::vector<uint16_t>& upcase() const { return upcase_; }

  // Clusters are handed out in order from cluster 2: everything the volume
  // holds is contiguous, and the used clusters are exactly 2..next-1.
  bool allocate(uint32_t count, uint32_t* first, MkfsError* error, const std::string& what);
  uint32_t next_cluster() const { return next_cluster_; }

  bool write_at(uint64_t offset, const void* data, size_t length, MkfsError* error);
  bool zero(uint64_t offset, uint64_t length, MkfsError* error);
  // A 1 MiB buffer for copying file data.
  std::vector<uint8_t>& copy_buffer() { return copy_buffer_; }

  // Fills the root directory from options().from (or leaves it with only
  // the system entries). Sets *root_first and *root_clusters.
  bool populate_root(const std::vector<uint8_t>& system_entries, uint32_t* root_first,
                     uint32_t* root_clusters, MkfsError* error);

 private:
  int fd_;
  bool regular_file_;
  MkfsLayout layout_;
  const MkfsOptions& options_;
  MkfsResult result_;
  const std::vector<uint16_t>& upcase_;
  uint32_t next_cluster_ = 2;
  uint64_t target_dev_ = 0, target_ino_ = 0;
  std::vector<uint8_t> copy_buffer_;
};

// Writes a directory's contents sequentially from its first byte: entries
// are appended and the rest of its clusters zeroed at finish(). Holds a
// fixed buffer, whatever the directory's size.
class DirWriter {
 public:
  DirWriter(Formatter& f, uint64_t offset, uint64_t capacity);
  bool append(const uint8_t* entries, size_t length, MkfsError* error);
  bool finish(MkfsError* error);

 private:
  bool flush(MkfsError* error);

  Formatter& f_;
  uint64_t offset_;    // of the buffer's first byte on the device
  uint64_t end_;       // end of the directory on the device
  std::vector<uint8_t> buffer_;
};

}  // namespace exvol::detail
