// The boot region: both copies read and judged, the geometry taken from a
// valid one, the backup compared with the main region; at the end of a
// pass, the volume flags and PercentInUse against the bitmap.

#include <cstring>

#include "api/check_private.h"

namespace exvol::checker {

namespace {

constexpr uint32_t kMaxClusterBytes = 32u << 20;  // the format's largest cluster
constexpr unsigned kFormatMaxSectorShift = 12;
constexpr unsigned kFirstFatSector = 24;          // after both boot regions

bool has_signature(const std::vector<uint8_t>& region) {
  return region.size() >= EXFAT_BOOT_SIGNATURE_LEN &&
         memcmp(region.data(), EXFAT_BOOT_SIGNATURE, EXFAT_BOOT_SIGNATURE_LEN) == 0;
}

std::string at(uint32_t byte) {
  return "sector 0 byte " + std::to_string(byte);
}

// Judges one copy of the boot region (12 sectors of bytes_per_sector).
class BootJudge {
 public:
  BootJudge(const std::vector<uint8_t>& region, uint32_t bytes_per_sector, uint64_t base)
      : r_(region), bps_(bytes_per_sector), base_(base) {}

  BootRegion judge() {
    if (!has_signature(r_)) {
      hard(FindingKind::BootSignature, "no exFAT signature", 0);
      return out_;
    }
    out_.usable = true;
    unsigned shift = r_[108];
    if (shift < EXFAT_MIN_SECTOR_SHIFT || shift > EXFAT_MAX_SECTOR_SHIFT)
      hard(FindingKind::BootGeometry, "sector size shift " + std::to_string(shift) + " out of range",
           108);
    else if (shift > kFormatMaxSectorShift)
      soft(FindingKind::BootGeometry, "sector size " + std::to_string(1u << shift) +
           " above the format's 4096", 108);
    if (!out_.usable)
      return out_;
    check_checksum();
    if (r_[510] != 0x55 || r_[511] != 0xAA)
      soft(FindingKind::BootSignature, "boot signature 55 AA missing", 510);
    for (unsigned i = 11; i < 64; i++) {
      if (r_[i] != 0) {
        soft(FindingKind::BootGeometry, "must-be-zero bytes 11-63 are not zero", i);
        break;
      }
    }
    check_geometry(shift);
    return out_;
  }

 private:
  void add(FindingKind kind, const std::string& what, uint32_t byte) {
    out_.problems.push_back(make_finding("<boot>", kind, what, at(byte), base_ + byte));
  }
  void hard(FindingKind kind, const std::string& what, uint32_t byte) {
    add(kind, what, byte);
    out_.usable = false;
  }
  void soft(FindingKind kind, const std::string& what, uint32_t byte) { add(kind, what, byte); }

  void check_checksum() {
    uint32_t sum = boot_checksum(r_.data(), bps_);
    const uint8_t* sector = r_.data() + size_t{EXFAT_BOOT_CHECKSUM_SECTOR} * bps_;
    for (uint32_t i = 0; i < bps_; i += 4) {
      uint32_t stored = le32dec(sector + i);
      if (stored != sum) {
        char what[96];
        snprintf(what, sizeof(what), "checksum sector holds 0x%08X, sectors 0-10 sum to 0x%08X",
                 stored, sum);
        out_.problems.push_back(make_finding("<boot>", FindingKind::BootChecksum, what,
                                             "sector 11 byte " + std::to_string(i),
                                             base_ + uint64_t{EXFAT_BOOT_CHECKSUM_SECTOR} * bps_ + i));
        return;
      }
    }
    out_.checksum_ok = true;
  }

  void check_geometry(unsigned sector_shift) {
    Geometry& g = out_.geo;
    unsigned cluster_shift = r_[109];
    g.bytes_per_sector = bps_;
    if (sector_shift + cluster_shift > 25 || (uint64_t{bps_} << cluster_shift) > kMaxClusterBytes) {
      hard(FindingKind::BootGeometry, "cluster size above 32 MiB (shift " +
           std::to_string(cluster_shift) + ")", 109);
      return;
    }
    g.bytes_per_cluster = bps_ << cluster_shift;
    g.volume_length = le64dec(&r_[72]);
    g.fat_offset = le32dec(&r_[80]);
    g.fat_length = le32dec(&r_[84]);
    g.heap_offset = le32dec(&r_[88]);
    g.cluster_count = le32dec(&r_[92]);
    g.root_cluster = le32dec(&r_[96]);
    unsigned fats = r_[110];
    if (fats != 1 && fats != 2)
      soft(FindingKind::BootGeometry, std::to_string(fats) + " FATs (1 or 2)", 110);
    if (g.fat_offset < kFirstFatSector)
      soft(FindingKind::BootGeometry, "FAT at sector " + std::to_string(g.fat_offset) +
           ", inside the boot regions", 80);
    if (g.cluster_count == 0 || g.cluster_count > 0xFFFFFFF5u) {
      hard(FindingKind::BootGeometry, "cluster count " + std::to_string(g.cluster_count), 92);
      return;
    }
    g.max_cluster = g.cluster_count + 1;
    uint64_t fat_entries = uint64_t{g.fat_length} * bps_ / EXFAT_FAT_ENTRY_SIZE;
    if (fat_entries < uint64_t{g.cluster_count} + 2) {
      soft(FindingKind::BootGeometry, "FAT of " + std::to_string(fat_entries) +
           " entries can't describe " + std::to_string(g.cluster_count) + " clusters", 84);
      if (fat_entries < 3) {
        out_.usable = false;
        return;
      }
      g.max_cluster = static_cast<uint32_t>(fat_entries - 1);
    }
    uint64_t fat_end = uint64_t{g.fat_offset} + uint64_t{g.fat_length} * (fats ? fats : 1);
    if (g.heap_offset < fat_end)
      soft(FindingKind::BootGeometry, "cluster heap at sector " + std::to_string(g.heap_offset) +
           " overlaps the FAT", 88);
    uint64_t heap_end = g.heap_offset + (uint64_t{g.cluster_count} << cluster_shift);
    if (heap_end > g.volume_length)
      soft(FindingKind::BootGeometry, "cluster heap ends at sector " + std::to_string(heap_end) +
           ", past the volume's " + std::to_string(g.volume_length), 92);
    if (!g.valid_cluster(g.root_cluster))
      hard(FindingKind::BootGeometry, "root directory cluster " + std::to_string(g.root_cluster) +
           " outside the heap", 96);
  }

  const std::vector<uint8_t>& r_;
  uint32_t bps_;
  uint64_t base_;
  BootRegion out_;
};

// First byte where two boot regions differ, skipping the fields that
// change in use (VolumeFlags, PercentInUse); -1 when they agree.
long first_difference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size())
    return 0;
  for (size_t i = 0; i < a.size(); i++) {
    if (i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET || i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET + 1 ||
        i == EXFAT_BOOT_PERCENT_IN_USE_OFFSET)
      continue;
    if (a[i] != b[i])
      return static_cast<long>(i);
  }
  return -1;
}

}  // namespace

// The backup region starts at sector 12, whose place depends on the sector
// size; a damaged main region can't be trusted to give it, so each size
// the format allows is tried, the main region's first.
std::error_code Pass::read_backup_boot(uint32_t main_sector_size) {
  std::vector<uint32_t> sizes;
  if (main_sector_size)
    sizes.push_back(main_sector_size);
  for (unsigned s = EXFAT_MIN_SECTOR_SHIFT; s <= kFormatMaxSectorShift; s++)
    if ((1u << s) != main_sector_size)
      sizes.push_back(1u << s);
  for (uint32_t bps : sizes) {
    std::vector<uint8_t> region(size_t{EXFAT_BOOT_REGION_SECTORS} * bps);
    if (std::error_code ec = image_.read(uint64_t{EXFAT_BACKUP_BOOT_SECTOR} * bps, region.data(),
                                         region.size()))
      return ec;
    if (has_signature(region) && (1u << (region[108] & 31)) == bps) {
      boot_backup_ = std::move(region);
      backup_sector_size_ = bps;
      return {};
    }
  }
  return {};
}

std::error_code Pass::check_boot() {
  uint8_t first[512];
  if (std::error_code ec = image_.read(0, first, sizeof(first)))
    return ec;
  unsigned shift = first[108];
  uint32_t bps = 0;
  if (shift >= EXFAT_MIN_SECTOR_SHIFT && shift <= EXFAT_MAX_SECTOR_SHIFT)
    bps = 1u << shift;
  boot_main_.assign(size_t{EXFAT_BOOT_REGION_SECTORS} * (bps ? bps : 512), 0);
  if (std::error_code ec = image_.read(0, boot_main_.data(), boot_main_.size()))
    return ec;
  if (std::error_code ec = read_backup_boot(bps))
    return ec;

  BootRegion main = BootJudge(boot_main_, bps ? bps : 512, 0).judge();
  BootRegion backup;
  if (!boot_backup_.empty())
    backup = BootJudge(boot_backup_, backup_sector_size_,
                       uint64_t{EXFAT_BACKUP_BOOT_SECTOR} * backup_sector_size_).judge();
  else
    backup.problems.push_back(make_finding("<boot>", FindingKind::BackupBoot,
                                           "no backup boot region", "sector 12"));
  choose_boot(main, backup);
  return {};
}

void Pass::choose_boot(BootRegion& main, BootRegion& backup) {
  main_valid_ = main.valid();
  auto report = [&](std::vector<Finding>& problems, bool repairable) {
    for (Finding& f : problems) {
      f.repairable = repairable;
      sink_.add(f);
    }
  };
  auto backup_finding = [&](const std::string& what, bool repairable) {
    Finding f = make_finding("<boot>", FindingKind::BackupBoot, what, "sector 12");
    f.repairable = repairable;
    sink_.add(f);
  };

  if (main.valid()) {
    geo_ = main.geo;
    report(main.problems, false);
    long diff = first_difference(boot_main_, boot_backup_);
    if (!backup.valid() || diff >= 0) {
      std::string what = !backup.valid() ? "backup boot region damaged: " + backup.problems[0].what
                                         : "backup boot region differs from the main one at byte " +
                                               std::to_string(diff);
      backup_finding(what, true);
      fixes_.rewrite_backup_boot = true;
    }
  } else if (backup.valid()) {
    geo_ = backup.geo;
    use_backup_ = true;
    report(main.problems, true);
    report(backup.problems, false);
    fixes_.restore_main_boot = true;
  } else if (main.usable || backup.usable) {
    // Both copies fail their checksums (or the main one is unusable):
    // nothing says which bytes are right, so nothing is restored.
    use_backup_ = !main.usable;
    geo_ = main.usable ? main.geo : backup.geo;
    report(main.problems, false);
    backup_finding("backup boot region damaged too: " + backup.problems[0].what, false);
  } else {
    report(main.problems, false);
    backup_finding("backup boot region unusable too", false);
    out_->complete = false;
    return;
  }
  uint64_t volume_bytes = geo_.volume_length * geo_.bytes_per_sector;
  if (volume_bytes > image_.size())
    sink_.add(make_finding("<boot>", FindingKind::BootGeometry,
                           "volume of " + std::to_string(volume_bytes) +
                               " bytes is longer than the image (" + std::to_string(image_.size()) +
                               " bytes)",
                           at(72), 72));
  out_->bytes_per_cluster = geo_.bytes_per_cluster;
  out_->cluster_count = geo_.cluster_count;
}

// After the tree and the bitmap: PercentInUse against the bitmap's count,
// then the flags, which a repair clears only when it fixes everything else.
void Pass::check_flags_and_percent() {
  const std::vector<uint8_t>& region = use_backup_ ? boot_backup_ : boot_main_;
  uint8_t percent = region[EXFAT_BOOT_PERCENT_IN_USE_OFFSET];
  if (!bitmap_.empty() && percent != 0xFF) {
    // Formatters and drivers round differently (mkfs.exfat writes 0 for a
    // volume 1.2 % full): one point either way is not a problem.
    uint64_t expected = out_->clusters_in_use * 100 / geo_.cluster_count;
    if (uint64_t{percent} + 1 < expected || percent > expected + 1) {
      Finding f = make_finding("<boot>", FindingKind::PercentInUse,
                               "PercentInUse " + std::to_string(percent) + ", the bitmap says " +
                                   std::to_string(expected),
                               at(EXFAT_BOOT_PERCENT_IN_USE_OFFSET),
                               EXFAT_BOOT_PERCENT_IN_USE_OFFSET);
      f.repairable = true;
      sink_.add(f);
      fixes_.percent_in_use = true;
    }
  }
  uint16_t flags = le16dec(&region[EXFAT_BOOT_VOLUME_FLAGS_OFFSET]);
  bool all_fixable = sink_.unfixable() == 0;
  auto flag = [&](uint16_t bit, FindingKind kind, const char* what) {
    if (!(flags & bit))
      return;
    Finding f = make_finding("<boot>", kind, what, at(EXFAT_BOOT_VOLUME_FLAGS_OFFSET),
                             EXFAT_BOOT_VOLUME_FLAGS_OFFSET);
    f.repairable = all_fixable;
    sink_.add(f);
    fixes_.clear_flags = all_fixable;
  };
  flag(EXFAT_VOLUME_DIRTY, FindingKind::VolumeDirty,
       "VolumeDirty set: not unmounted cleanly, or mounted now");
  flag(EXFAT_VOLUME_MEDIA_FAILURE, FindingKind::MediaFailure,
       "MediaFailure set: a driver saw damage or failing media");
}

}  // namespace exvol::checker
