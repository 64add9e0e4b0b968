#pragma once
// libexvol: mounting an exFAT volume and asking about it.
//
// A Volume is one mounted exFAT volume, on a disk image or a block device,
// mounted by the exvol driver exactly as a kernel would mount it. All calls
// are thread-safe: any number of threads may query one Volume while another
// unmounts it (the unmount waits for them). Errors are std::error_code
// values in the generic category carrying the driver's errno (EINVAL for a
// volume the driver refuses, EIO for a damaged one, …); nothing throws.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

namespace exvol {

struct MountOptions {
  bool read_only = false;
  // Permission bits reported for every file and directory (low 12 bits).
  uint16_t mask = 0755;
  // The time zone of the volume's local timestamps, in seconds west of UTC.
  // The driver keeps one value for all mounted volumes: the latest mount's.
  int32_t seconds_west = 0;
  // No delayed metadata flush: metadata reaches the disk at sync and unmount.
  bool async = false;
  bool noatime = false;
  // The kernel log lines printed while mounting are passed on to the kernel
  // log (stderr unless redirected) as well as returned through mount's
  // diagnostic argument. Off, they are only returned.
  bool echo_kernel_log = true;
};

// What statfs reports, in clusters.
struct StatFs {
  uint32_t block_size = 0;  // cluster size in bytes
  uint64_t io_size = 0;     // preferred I/O size
  uint64_t blocks = 0;
  uint64_t blocks_free = 0;
  uint64_t blocks_available = 0;
  uint64_t blocks_used = 0;
  uint64_t files = 0;
  uint64_t files_free = 0;
};

// The volume's identity, geometry, space and on-disk state.
struct VolumeInfo {
  std::string label;                 // UTF-8, empty when the volume has none
  std::array<uint8_t, 16> uuid{};    // RFC 4122 byte order
  uint32_t serial_number = 0;
  uint32_t bytes_per_sector = 0;
  uint32_t bytes_per_cluster = 0;
  uint64_t cluster_count = 0;
  uint64_t free_clusters = 0;
  uint64_t io_size = 0;
  // From the boot sector as it is on the device now.
  uint16_t volume_flags = 0;         // bit 1 VolumeDirty, bit 2 MediaFailure
  uint8_t percent_in_use = 0;
  bool read_only = false;

  uint64_t used_clusters() const { return cluster_count - free_clusters; }
  uint64_t total_bytes() const { return cluster_count * bytes_per_cluster; }
  uint64_t free_bytes() const { return free_clusters * bytes_per_cluster; }
  bool dirty() const { return (volume_flags & 0x0002) != 0; }
  bool media_failure() const { return (volume_flags & 0x0004) != 0; }
  // "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case.
  std::string uuid_string() const;
};

class Volume {
 public:
  // Mounts the image file or block device at `path`. On success *out holds
  // the mounted volume. diagnostic, when given, receives the kernel log
  // lines the driver printed while mounting, joined by "; " (why a mount
  // failed, or warnings about a volume that mounted).
  static std::error_code mount(const std::string& path, const MountOptions& options,
                               std::unique_ptr<Volume>* out, std::string* diagnostic = nullptr);

  ~Volume();  // unmounts, forcibly if an ordinary unmount is refused
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;

  std::error_code statfs(StatFs* out) const;
  std::error_code info(VolumeInfo* out) const;
  // Unmounts. Unforced, a busy volume stays mounted and the error is
  // returned; forced, the unmount always completes. Later calls return
  // ENXIO.
  std::error_code unmount(bool force = false);
  bool mounted() const;

  struct Impl;

 private:
  explicit Volume(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace exvol
