#pragma once
// The consistency checker's insides, shared by api/check*.cpp.
//
// One Pass reads a volume from an Image and fills a CheckPass:
//   check_boot.cpp    boot region, backup, geometry, flags, PercentInUse
//   check_alloc.cpp   the FAT, cluster runs and chains, cluster ownership,
//                     the bitmap comparison, naming both owners of a cluster
//   check_system.cpp  the root directory's system entries and the up-case table
//   check_tree.cpp    directories, entry sets, names
//   check_repair.cpp  writing the fixes a pass collected
//   check.cpp         the passes and repairs of one check() call
//
// The checker is the oracle the driver is tested against, so it shares no
// code with the driver beyond the on-disk layouts: the checksums, the name
// hash and the up-case expansion are its own. A bug in the driver's versions
// can't then hide itself.
//
// Memory: the whole FAT and bitmap (read once, in one request each), one
// bit per cluster for ownership, a bounded read buffer per directory level
// being read, and per directory the hashes of its names.

#include <array>
#include <cstdint>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "exfat_format.h"
#include "exvol/check.h"

namespace exvol::checker {

// An image opened for checking. Reads past its end return zeros: a
// truncated image is a finding, not a reason to stop.
class Image {
 public:
  Image() = default;
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  std::error_code open(const std::string& path, bool writable);
  std::error_code read(uint64_t offset, void* buffer, size_t length) const;
  std::error_code write(uint64_t offset, const void* buffer, size_t length) const;
  std::error_code sync() const;
  uint64_t size() const { return size_; }

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

struct Geometry {
  uint32_t bytes_per_sector = 0;
  uint32_t bytes_per_cluster = 0;
  uint64_t volume_length = 0;  // sectors
  uint32_t fat_offset = 0;     // sectors
  uint32_t fat_length = 0;     // sectors
  uint32_t heap_offset = 0;    // sectors
  uint32_t cluster_count = 0;
  uint32_t root_cluster = 0;
  uint32_t max_cluster = 0;    // highest cluster the heap and the FAT both hold

  bool valid_cluster(uint32_t c) const { return c >= 2 && c <= max_cluster; }
  uint64_t cluster_offset(uint32_t c) const {
    return uint64_t{heap_offset} * bytes_per_sector + uint64_t{c - 2} * bytes_per_cluster;
  }
};

// What one copy of the boot region says.
struct BootRegion {
  bool usable = false;       // signature and geometry good enough to check by
  bool checksum_ok = false;
  Geometry geo;
  std::vector<Finding> problems;
  bool valid() const { return usable && checksum_ok; }
};

// Bytes of an image changed by a repair: one directory entry.
struct EntryPatch {
  uint64_t offset = 0;
  std::array<uint8_t, EXFAT_ENTRY_SIZE> bytes{};
};

// What a pass found it could repair, written by apply_fixes().
struct Fixes {
  std::vector<EntryPatch> entries;
  std::vector<std::pair<uint32_t, uint32_t>> fat;  // cluster, new FAT value
  std::vector<std::string> done;       // descriptions of the entry and FAT fixes
  bool restore_main_boot = false;      // main boot region <- backup
  bool rewrite_backup_boot = false;    // backup boot region <- main
  bool free_leaks = false;
  bool mark_unmarked = false;
  bool percent_in_use = false;
  bool clear_flags = false;            // VolumeDirty and MediaFailure

  bool any() const {
    return !entries.empty() || !fat.empty() || restore_main_boot || rewrite_backup_boot ||
           free_leaks || mark_unmarked || percent_in_use || clear_flags;
  }
};

// Collects the findings of a pass, keeping at most `max`.
class FindingSink {
 public:
  FindingSink(CheckPass* pass, size_t max, RepairMode mode)
      : pass_(pass), max_(max), mode_(mode) {}
  // Quiet while the tree is walked again to name the owners of shared
  // clusters: nothing is recorded.
  void set_quiet(bool quiet) { quiet_ = quiet; }
  bool quiet() const { return quiet_; }
  // Returns the finding's index, or -1 when it was not kept.
  long add(Finding finding);
  Finding* at(long index) { return index < 0 ? nullptr : &pass_->findings[index]; }
  // Findings so far that this run's repair mode can't fix.
  uint64_t unfixable() const { return unfixable_; }
  RepairMode mode() const { return mode_; }

 private:
  CheckPass* pass_;
  size_t max_;
  RepairMode mode_;
  bool quiet_ = false;
  uint64_t unfixable_ = 0;
};

Finding make_finding(std::string path, FindingKind kind, std::string what, std::string where,
                     uint64_t offset = kNoOffset);
std::string at_byte(uint64_t offset);       // "entry at byte N"
std::string size_text(uint64_t bytes);      // "48 KiB"
std::string clusters_text(uint64_t count);  // "1 cluster", "12 clusters"

// The checksums and the name hash of the format.
uint32_t boot_checksum(const uint8_t* region, uint32_t bytes_per_sector);
uint16_t entry_set_checksum(const uint8_t* set, unsigned entries);
uint32_t table_checksum(const uint8_t* data, size_t length);
uint16_t name_hash(const uint16_t* upcase, const uint16_t* name, unsigned length);

// The result of claiming a file's clusters, with the truncation that would
// end its problems (an aggressive repair).
struct Claim {
  uint32_t clusters = 0;      // clusters taken, in order, from the first
  bool whole = true;          // every cluster the data length needs was taken
  bool conflict = false;      // stopped at a cluster owned before
  // Truncation: keep this many bytes, end the chain after `end_after`
  // (0: no clusters kept, the first cluster is cleared).
  bool truncate = false;
  uint64_t keep_bytes = 0;
  uint32_t end_after = 0;
  bool fat_end = false;       // write the end mark into end_after's FAT entry
  std::string why;
};

class Pass {
 public:
  Pass(const Image& image, const CheckOptions& options, CheckPass* out);
  // Runs the whole check. The error is an I/O error of the image.
  std::error_code run();

  const Image& image() const { return image_; }
  const Geometry& geometry() const { return geo_; }
  const Fixes& fixes() const { return fixes_; }
  const std::vector<uint8_t>& bitmap() const { return bitmap_; }
  const std::vector<uint64_t>& owned() const { return owned_; }
  const std::vector<uint8_t>& boot_main() const { return boot_main_; }
  const std::vector<uint8_t>& boot_backup() const { return boot_backup_; }
  uint32_t bitmap_first() const { return bitmap_first_; }
  uint32_t bitmap_clusters() const { return bitmap_clusters_; }
  bool boot_from_backup() const { return use_backup_; }
  uint32_t fat_value(uint32_t c) const { return c < fat_.size() ? fat_[c] : 0; }
  uint32_t next_cluster(uint32_t c, bool contiguous) const {
    return contiguous ? c + 1 : fat_value(c);
  }
  // Calls fn(image offset, bytes) for each run of adjacent clusters of a
  // file of `clusters` clusters, which claim() has walked.
  template <typename Fn>
  void for_each_run(uint32_t first, uint32_t clusters, bool contiguous, Fn fn) const;

 private:
  friend class TreeWalk;

  // check_boot.cpp
  std::error_code check_boot();
  std::error_code read_backup_boot(uint32_t main_sector_size);
  void choose_boot(BootRegion& main, BootRegion& backup);
  void check_flags_and_percent();
  // check_alloc.cpp
  std::error_code load_fat();
  // can_truncate: an aggressive repair may cut this owner's chain.
  Claim claim(const std::string& path, uint32_t first, uint64_t length, bool contiguous,
              bool to_end, bool can_truncate);
  Claim claim_run(const std::string& path, uint32_t first, uint64_t length);
  Claim claim_chain(const std::string& path, uint32_t first, uint64_t length, bool to_end);
  void conflict(const std::string& path, uint32_t cluster, uint32_t kept, uint32_t prev,
                bool is_loop, Claim* claim);
  bool take(uint32_t cluster);
  void odd_end_mark(const std::string& path, uint32_t cluster, uint32_t value);
  uint64_t bad_clusters(uint64_t word, uint64_t leaked) const;
  long add_claim_finding(Finding finding);
  void compare_bitmap();
  void name_first_owners();
  std::error_code read_file(uint32_t first, uint32_t clusters, bool contiguous, uint64_t bytes,
                            std::vector<uint8_t>* out) const;
  // check_system.cpp
  std::error_code scan_system_entries(uint32_t root_clusters);
  std::error_code load_bitmap(const uint8_t* entry, uint64_t offset);
  std::error_code load_upcase(const uint8_t* entry, uint64_t offset);
  // check_tree.cpp
  std::error_code walk_tree();

  const Image& image_;
  CheckOptions options_;
  CheckPass* out_;
  FindingSink sink_;
  Fixes fixes_;
  Geometry geo_;
  std::vector<uint8_t> boot_main_, boot_backup_;  // 12 sectors each; empty if unreadable
  uint32_t backup_sector_size_ = 0;
  bool main_valid_ = false;
  bool use_backup_ = false;       // the geometry comes from the backup region
  std::vector<uint32_t> fat_;
  std::vector<uint8_t> bitmap_;   // the bitmap file's bytes; empty without one
  uint32_t bitmap_first_ = 0;
  uint32_t bitmap_clusters_ = 0;
  std::vector<uint16_t> upcase_;  // 65,536 entries; empty when not usable
  std::vector<uint64_t> owned_;   // bit (c - 2): cluster c has an owner

  // Shared clusters found while claiming, with the finding that names the
  // later owner; name_first_owners() fills in the first.
  // A later owner whose first cluster is the first owner's first cluster,
  // with the same data length, holds a second entry for the same file.
  struct SharedCluster {
    uint32_t cluster;
    long finding;
    bool at_start;      // the later owner's first cluster
    uint64_t length;    // the later owner's data length
    std::string first_owner;
    bool owner_at_start = false;  // the first owner's first cluster
    uint64_t owner_length = 0;
  };
  std::vector<SharedCluster> shared_;
  bool naming_owners_ = false;
  bool can_truncate_ = false;  // of the owner claim() is walking for
  const std::string* claiming_ = nullptr;  // the owner claim() is walking for
  uint64_t claiming_length_ = 0;            // its data length
  uint64_t claimed_ = 0;                    // clusters it has taken so far
  // Leaked clusters are freed only when every owner could be read: no
  // unreadable entry set, no directory left unread, no shared cluster.
  bool owners_unknown_ = false;
};

template <typename Fn>
void Pass::for_each_run(uint32_t first, uint32_t clusters, bool contiguous, Fn fn) const {
  uint32_t c = first;
  uint32_t left = clusters;
  while (left > 0) {
    uint32_t start = c;
    uint32_t run = 1;
    left--;
    uint32_t next = next_cluster(c, contiguous);
    while (left > 0 && next == start + run) {
      c = next;
      run++;
      left--;
      next = next_cluster(c, contiguous);
    }
    fn(geo_.cluster_offset(start), uint64_t{run} * geo_.bytes_per_cluster);
    c = next;
  }
}

// Reads a directory's entries in order, in requests of up to 256 KiB.
class EntryReader {
 public:
  EntryReader(const Pass& pass, uint32_t first, uint32_t clusters, bool contiguous);
  // Moves to the next entry; false at the end of the clusters or on a read
  // error (see error()).
  bool next();
  // Makes the current entry come again from the next call of next().
  void unread();
  const uint8_t* entry() const { return buffer_.data() + pos_ - EXFAT_ENTRY_SIZE; }
  uint64_t dir_offset() const { return dir_offset_ - EXFAT_ENTRY_SIZE; }
  uint64_t image_offset() const { return buffer_image_ + pos_ - EXFAT_ENTRY_SIZE; }
  std::error_code error() const { return error_; }

 private:
  bool fill();

  const Pass& pass_;
  bool contiguous_;
  uint32_t cluster_;       // first cluster of the next run
  uint32_t left_;          // clusters not yet in a run
  uint64_t run_image_ = 0, run_bytes_ = 0, run_pos_ = 0;
  std::vector<uint8_t> buffer_;
  uint64_t buffer_image_ = 0;
  size_t length_ = 0, pos_ = 0;
  uint64_t dir_offset_ = 0;
  std::error_code error_;
};

// Writes the fixes a pass collected (only those its repair mode allows).
// Appends a line per repair made to `done`.
std::error_code apply_fixes(const Image& image, const Pass& pass, std::vector<std::string>* done);

}  // namespace exvol::checker
