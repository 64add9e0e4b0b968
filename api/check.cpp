// The consistency checker's entry: the image, the finding sink, the
// format's checksums, and the check-repair-check sequence of check().

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "api/check_private.h"
#include "api/device_lock.h"

namespace exvol {

namespace checker {

namespace {

std::error_code errno_error(int error) {
  return std::error_code(error, std::generic_category());
}

}  // namespace

Image::~Image() {
  if (fd_ >= 0)
    close(fd_);
}

std::error_code Image::open(const std::string& path, bool writable) {
  fd_ = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
  if (fd_ < 0)
    return errno_error(errno);
  struct stat st;
  if (fstat(fd_, &st) != 0)
    return errno_error(errno);
  if (S_ISDIR(st.st_mode))
    return errno_error(EISDIR);
  // A block device's size comes from seeking to its end.
  off_t end = lseek(fd_, 0, SEEK_END);
  if (end < 0)
    return errno_error(errno);
  size_ = static_cast<uint64_t>(end);
  return {};
}

std::error_code Image::read(uint64_t offset, void* buffer, size_t length) const {
  auto* p = static_cast<uint8_t*>(buffer);
  while (length > 0) {
    if (offset >= size_) {
      std::fill(p, p + length, 0);
      return {};
    }
    ssize_t n = pread(fd_, p, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno_error(errno);
    if (n == 0) {
      std::fill(p, p + length, 0);
      return {};
    }
    p += n;
    offset += static_cast<uint64_t>(n);
    length -= static_cast<size_t>(n);
  }
  return {};
}

std::error_code Image::write(uint64_t offset, const void* buffer, size_t length) const {
  const auto* p = static_cast<const uint8_t*>(buffer);
  while (length > 0) {
    ssize_t n = pwrite(fd_, p, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return errno_error(n < 0 ? errno : EIO);
    p += n;
    offset += static_cast<uint64_t>(n);
    length -= static_cast<size_t>(n);
  }
  return {};
}

std::error_code Image::sync() const {
  return fsync(fd_) == 0 ? std::error_code() : errno_error(errno);
}

long FindingSink::add(Finding finding) {
  if (quiet_)
    return -1;
  bool fixable = finding.repairable || (mode_ == RepairMode::Aggressive && finding.aggressive);
  if (!fixable)
    unfixable_++;
  if (pass_->findings.size() >= max_) {
    pass_->findings_dropped++;
    return -1;
  }
  pass_->findings.push_back(std::move(finding));
  return static_cast<long>(pass_->findings.size() - 1);
}

Finding make_finding(std::string path, FindingKind kind, std::string what, std::string where,
                     uint64_t offset) {
  Finding f;
  f.path = std::move(path);
  f.kind = kind;
  f.what = std::move(what);
  f.where = std::move(where);
  f.offset = offset;
  return f;
}

std::string at_byte(uint64_t offset) {
  return "entry at byte " + std::to_string(offset);
}

std::string size_text(uint64_t bytes) {
  static const char* const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  unsigned u = 0;
  while (u + 1 < 5 && bytes >= 1024 && bytes % 1024 == 0) {
    bytes /= 1024;
    u++;
  }
  return std::to_string(bytes) + " " + units[u];
}

std::string clusters_text(uint64_t count) {
  return std::to_string(count) + (count == 1 ? " cluster" : " clusters");
}

// Sectors 0-10, rotate right and add, without VolumeFlags and PercentInUse.
uint32_t boot_checksum(const uint8_t* region, uint32_t bytes_per_sector) {
  uint32_t sum = 0;
  uint64_t length = uint64_t{bytes_per_sector} * EXFAT_BOOT_CHECKSUM_SECTOR;
  for (uint64_t i = 0; i < length; i++) {
    if (i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET || i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET + 1 ||
        i == EXFAT_BOOT_PERCENT_IN_USE_OFFSET)
      continue;
    sum = ((sum >> 1) | (sum << 31)) + region[i];
  }
  return sum;
}

// 16-bit rotate and add over the set, without the SetChecksum field.
uint16_t entry_set_checksum(const uint8_t* set, unsigned entries) {
  uint16_t sum = 0;
  size_t length = size_t{entries} * EXFAT_ENTRY_SIZE;
  for (size_t i = 0; i < length; i++) {
    if (i == 2 || i == 3)
      continue;
    sum = static_cast<uint16_t>(((sum >> 1) | (sum << 15)) + set[i]);
  }
  return sum;
}

uint32_t table_checksum(const uint8_t* data, size_t length) {
  uint32_t sum = 0;
  for (size_t i = 0; i < length; i++)
    sum = ((sum >> 1) | (sum << 31)) + data[i];
  return sum;
}

// The up-cased name hashed byte by byte, low byte of each unit first.
uint16_t name_hash(const uint16_t* upcase, const uint16_t* name, unsigned length) {
  uint16_t hash = 0;
  for (unsigned i = 0; i < length; i++) {
    uint16_t c = upcase[name[i]];
    hash = static_cast<uint16_t>(((hash >> 1) | (hash << 15)) + (c & 0xFF));
    hash = static_cast<uint16_t>(((hash >> 1) | (hash << 15)) + (c >> 8));
  }
  return hash;
}

Pass::Pass(const Image& image, const CheckOptions& options, CheckPass* out)
    : image_(image), options_(options), out_(out), sink_(out, options.max_findings, options.repair) {}

std::error_code Pass::run() {
  if (std::error_code ec = check_boot())
    return ec;
  if (!out_->complete)
    return {};
  if (std::error_code ec = load_fat())
    return ec;
  if (!out_->complete)
    return {};
  if (std::error_code ec = walk_tree())
    return ec;
  if (!shared_.empty())
    name_first_owners();
  compare_bitmap();
  check_flags_and_percent();
  return {};
}

}  // namespace checker

const char* finding_kind_name(FindingKind kind) {
  switch (kind) {
    case FindingKind::BootSignature: return "boot_signature";
    case FindingKind::BootChecksum: return "boot_checksum";
    case FindingKind::BootGeometry: return "boot_geometry";
    case FindingKind::BackupBoot: return "backup_boot";
    case FindingKind::VolumeDirty: return "volume_dirty";
    case FindingKind::MediaFailure: return "media_failure";
    case FindingKind::PercentInUse: return "percent_in_use";
    case FindingKind::SystemEntry: return "system_entry";
    case FindingKind::UpcaseTable: return "upcase_table";
    case FindingKind::EntryType: return "entry_type";
    case FindingKind::SetShape: return "set_shape";
    case FindingKind::SetChecksum: return "set_checksum";
    case FindingKind::NameHash: return "name_hash";
    case FindingKind::NameLength: return "name_length";
    case FindingKind::BadName: return "bad_name";
    case FindingKind::DuplicateName: return "duplicate_name";
    case FindingKind::ValidLength: return "valid_length";
    case FindingKind::DataLength: return "data_length";
    case FindingKind::FirstCluster: return "first_cluster";
    case FindingKind::ChainBroken: return "chain_broken";
    case FindingKind::ChainLoop: return "chain_loop";
    case FindingKind::ChainLength: return "chain_length";
    case FindingKind::CrossLink: return "cross_link";
    case FindingKind::Unmarked: return "unmarked";
    case FindingKind::Leak: return "leak";
    case FindingKind::Depth: return "depth";
    case FindingKind::SharedFile: return "shared_file";
  }
  return "unknown";
}

namespace {

// A repair runs at most this many rounds of fixing and checking again: a
// fix can uncover another (a truncated chain leaves leaked clusters
// behind), but never endlessly.
constexpr int kRepairRounds = 3;

}  // namespace

namespace {

std::error_code check_and_repair(const std::string& path, const CheckOptions& options,
                                 CheckReport* report) {
  bool repair = options.repair != RepairMode::None;
  // The same lock a mount takes: a repair is a writer, a check a reader
  // (checking beside a read-write mount would judge a volume whose newest
  // metadata is still in that program's caches).
  detail::DeviceLock lock;
  if (int error = lock.acquire(path, repair, &report->error_message))
    return std::error_code(error, std::generic_category());
  checker::Image image;
  if (std::error_code ec = image.open(path, repair))
    return ec;
  std::error_code ec;

  auto pass = std::make_unique<checker::Pass>(image, options, &report->first);
  if ((ec = pass->run()))
    return ec;
  if (!repair || !pass->fixes().any())
    return {};

  for (int round = 0; round < kRepairRounds; round++) {
    if ((ec = checker::apply_fixes(image, *pass, &report->repairs)))
      return ec;
    report->after_repair.emplace();
    pass = std::make_unique<checker::Pass>(image, options, &*report->after_repair);
    if ((ec = pass->run()))
      return ec;
    if (!pass->fixes().any())
      break;
  }
  return image.sync();
}

}  // namespace

std::error_code check(const std::string& path, const CheckOptions& options, CheckReport* report) {
  *report = CheckReport();
  // The FAT, the bitmap and the ownership bits of a large volume are big;
  // running out of memory is an error of this call, not a crash.
  try {
    return check_and_repair(path, options, report);
  } catch (const std::bad_alloc&) {
    return std::error_code(ENOMEM, std::generic_category());
  }
}

}  // namespace exvol
