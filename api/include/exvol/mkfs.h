#pragma once
// libexvol: formatting a volume, optionally filled from a host directory.
//
// mkfs writes a complete exFAT volume onto an image file or block device
// without mounting anything: the main and backup boot regions, the FAT, the
// allocation bitmap, the up-case table, the root directory and, with
// MkfsOptions::from, every directory, file and symbolic link below a host
// directory. Files and directories are laid out contiguously (NoFatChain),
// one after the other, so the FAT holds chains only for the bitmap, the
// up-case table and the root directory.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace exvol {

struct MkfsOptions {
  // Volume size in bytes. 0: the block device's size or the image file's
  // current size. An image file shorter than `size` is extended (sparse);
  // a missing one is created.
  uint64_t size = 0;
  // Cluster size in bytes, a power of two from the sector size to 32 MiB.
  // 0: by volume size (see default_cluster_size).
  uint32_t cluster_size = 0;
  std::string label;              // UTF-8, at most 11 UTF-16 units; "" none
  std::optional<uint32_t> serial; // volume serial number; unset: random
  // A host directory whose contents become the volume's root directory.
  std::string from;
  // The time zone in which the copied files' times are stored (seconds
  // west of UTC), as a mount with that zone would store them.
  int32_t seconds_west = 0;
  // Receives one line per thing skipped (sockets, devices, FIFOs, the
  // image itself when it lies inside `from`).
  std::function<void(const std::string&)> warn;
  // Asked before each file is copied: true stops the format (ECANCELED).
  std::function<bool()> cancelled;
};

// What mkfs made.
struct MkfsResult {
  uint32_t bytes_per_sector = 0;
  uint32_t bytes_per_cluster = 0;
  uint32_t cluster_count = 0;
  uint32_t fat_offset = 0;    // sectors
  uint32_t heap_offset = 0;   // sectors
  uint32_t serial = 0;
  uint32_t used_clusters = 0;
  uint64_t files = 0;         // regular files and links copied
  uint64_t directories = 0;   // directories made below the root
  uint64_t bytes = 0;         // file data copied
};

// Formats `path`, which is locked (flock, exclusive) meanwhile: an image or
// device another program holds fails with EBUSY, as does a block device
// that is mounted or otherwise opened exclusively. Errors: EINVAL for an impossible geometry or label (the
// diagnostic says which), ENOSPC when the tree does not fit, ENAMETOOLONG
// for a name of more than 255 UTF-16 units, EEXIST for two names of one
// directory that differ only in case, and the errors of the host's calls.
// *diagnostic, when given, receives one line saying what went wrong and
// where (a host path for --from trees).
std::error_code mkfs(const std::string& path, const MkfsOptions& options,
                     MkfsResult* result = nullptr, std::string* diagnostic = nullptr);

// The cluster size mkfs picks for a volume of `bytes`: 4 KiB up to 256 MiB,
// 32 KiB up to 32 GiB, 128 KiB above.
uint32_t default_cluster_size(uint64_t bytes);

// The up-case mapping mkfs stores (65,536 entries, index = UTF-16 unit),
// generated from the Unicode simple upper-case mappings, and its compressed
// on-disk form (identity stretches as runs).
const std::vector<uint16_t>& upcase_mapping();
std::vector<uint8_t> compress_upcase_table(const std::vector<uint16_t>& mapping);

}  // namespace exvol
