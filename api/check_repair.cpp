// Writing what a pass found it could fix. The caller holds the image's
// exclusive lock. The order keeps every step safe if the next one never
// happens: the boot region first (the rest is read through it), then FAT
// ends and entry sets, then the bitmap, then PercentInUse and the flags,
// which say the volume is in order only once everything else is.

#include <bit>

#include "api/check_private.h"

namespace exvol::checker {

namespace {

class Repair {
 public:
  Repair(const Image& image, const Pass& pass, std::vector<std::string>* done)
      : image_(image), pass_(pass), g_(pass.geometry()), done_(done) {}

  std::error_code run() {
    std::error_code ec;
    if (!ec)
      ec = boot_regions();
    if (!ec)
      ec = fat_and_entries();
    if (!ec)
      ec = bitmap();
    if (!ec)
      ec = boot_fields();
    if (!ec)
      ec = image_.sync();
    return ec;
  }

 private:
  std::error_code boot_regions() {
    const Fixes& f = pass_.fixes();
    if (f.restore_main_boot) {
      const std::vector<uint8_t>& backup = pass_.boot_backup();
      if (std::error_code ec = image_.write(0, backup.data(), backup.size()))
        return ec;
      done_->push_back("<boot>: main boot region restored from the backup");
    }
    if (f.rewrite_backup_boot) {
      const std::vector<uint8_t>& main = pass_.boot_main();
      uint64_t at = uint64_t{EXFAT_BACKUP_BOOT_SECTOR} * g_.bytes_per_sector;
      if (std::error_code ec = image_.write(at, main.data(), main.size()))
        return ec;
      done_->push_back("<boot>: backup boot region rewritten from the main one");
    }
    return {};
  }

  std::error_code fat_and_entries() {
    const Fixes& f = pass_.fixes();
    uint64_t fat = uint64_t{g_.fat_offset} * g_.bytes_per_sector;
    for (const auto& [cluster, value] : f.fat) {
      uint8_t bytes[EXFAT_FAT_ENTRY_SIZE];
      le32enc(bytes, value);
      if (std::error_code ec = image_.write(fat + uint64_t{cluster} * EXFAT_FAT_ENTRY_SIZE, bytes,
                                            sizeof(bytes)))
        return ec;
    }
    for (const EntryPatch& patch : f.entries)
      if (std::error_code ec = image_.write(patch.offset, patch.bytes.data(), patch.bytes.size()))
        return ec;
    done_->insert(done_->end(), f.done.begin(), f.done.end());
    return {};
  }

  // The bitmap with leaks cleared and owned clusters set, as asked; then
  // written back where the bitmap file's clusters lie.
  std::error_code bitmap() {
    const Fixes& f = pass_.fixes();
    bitmap_ = pass_.bitmap();
    if (bitmap_.empty() || (!f.free_leaks && !f.mark_unmarked))
      return {};
    const std::vector<uint64_t>& owned = pass_.owned();
    uint64_t freed = 0, marked = 0;
    for (uint32_t i = 0; i < g_.cluster_count; i++) {
      bool owner = owned[i / 64] >> (i % 64) & 1;
      uint8_t& byte = bitmap_[i / 8];
      uint8_t bit = static_cast<uint8_t>(1u << (i % 8));
      if (f.free_leaks && !owner && (byte & bit) && pass_.fat_value(i + 2) != EXFAT_FAT_BAD) {
        byte &= static_cast<uint8_t>(~bit);
        freed++;
      } else if (f.mark_unmarked && owner && !(byte & bit)) {
        byte |= bit;
        marked++;
      }
    }
    uint64_t done = 0;
    std::error_code ec;
    pass_.for_each_run(pass_.bitmap_first(), pass_.bitmap_clusters(), false,
                       [&](uint64_t offset, uint64_t length) {
                         uint64_t n = std::min<uint64_t>(length, bitmap_.size() - done);
                         if (!ec && n > 0)
                           ec = image_.write(offset, bitmap_.data() + done, n);
                         done += n;
                       });
    if (ec)
      return ec;
    bitmap_changed_ = freed + marked > 0;
    uint64_t cs = g_.bytes_per_cluster;
    if (freed)
      done_->push_back("<bitmap>: " + clusters_text(freed) + " (" + size_text(freed * cs) +
                       ") freed");
    if (marked)
      done_->push_back("<bitmap>: " + clusters_text(marked) + " marked in use");
    return {};
  }

  // PercentInUse from the bitmap as it is now, and the flags; both lie
  // outside the boot checksum, so sector 0 alone is rewritten.
  std::error_code boot_fields() {
    const Fixes& f = pass_.fixes();
    uint8_t sector[512];
    if (std::error_code ec = image_.read(0, sector, sizeof(sector)))
      return ec;
    uint8_t percent = sector[EXFAT_BOOT_PERCENT_IN_USE_OFFSET];
    uint16_t flags = le16dec(&sector[EXFAT_BOOT_VOLUME_FLAGS_OFFSET]);
    bool changed = false;
    if (!bitmap_.empty() && percent != 0xFF && (f.percent_in_use || bitmap_changed_)) {
      uint64_t used = 0;
      for (uint32_t i = 0; i < g_.cluster_count; i++)
        used += bitmap_[i / 8] >> (i % 8) & 1;
      uint8_t now = static_cast<uint8_t>(used * 100 / g_.cluster_count);
      if (now != percent) {
        sector[EXFAT_BOOT_PERCENT_IN_USE_OFFSET] = now;
        done_->push_back("<boot>: PercentInUse set to " + std::to_string(now));
        changed = true;
      }
    }
    uint16_t clear = EXFAT_VOLUME_DIRTY | EXFAT_VOLUME_MEDIA_FAILURE;
    if (f.clear_flags && (flags & clear)) {
      le16enc(&sector[EXFAT_BOOT_VOLUME_FLAGS_OFFSET], static_cast<uint16_t>(flags & ~clear));
      if (flags & EXFAT_VOLUME_DIRTY)
        done_->push_back("<boot>: VolumeDirty cleared");
      if (flags & EXFAT_VOLUME_MEDIA_FAILURE)
        done_->push_back("<boot>: MediaFailure cleared");
      changed = true;
    }
    return changed ? image_.write(0, sector, sizeof(sector)) : std::error_code();
  }

  const Image& image_;
  const Pass& pass_;
  const Geometry& g_;
  std::vector<std::string>* done_;
  std::vector<uint8_t> bitmap_;
  bool bitmap_changed_ = false;
};

}  // namespace

std::error_code apply_fixes(const Image& image, const Pass& pass, std::vector<std::string>* done) {
  return Repair(image, pass, done).run();
}

}  // namespace exvol::checker
