// Formatting a volume: geometry, boot regions, FAT, allocation bitmap,
// up-case table and root directory. The directory tree of --from is in
// mkfs_tree.cpp.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "api/mkfs_private.h"
#include "exfat_proto.h"
#include "host/utf8.h"

namespace exvol {

namespace {

using detail::DirWriter;
using detail::Formatter;
using detail::MkfsError;
using detail::MkfsLayout;

constexpr uint32_t kMaxClusterBytes = 32u << 20;
constexpr uint64_t kMinVolumeBytes = 1u << 20;
constexpr uint32_t kMaxClusterCount = 0xFFFFFFF5u;
// FAT and cluster heap start on a multiple of the cluster size, but of no
// more than 1 MiB: that lines clusters up with the pages and erase blocks
// of flash media, while a volume of 32 MiB clusters loses at most 1 MiB
// (not 32) before its heap.
constexpr uint32_t kMaxAlignBytes = 1u << 20;

bool fail(MkfsError* e, int error, std::string message) {
  e->error = error;
  e->message = std::move(message);
  return false;
}

uint32_t log2_exact(uint64_t v) {
  uint32_t s = 0;
  while ((uint64_t{1} << s) < v)
    s++;
  return s;
}

uint64_t round_up(uint64_t v, uint64_t unit) {
  return (v + unit - 1) / unit * unit;
}

// Chooses FAT and heap positions and the cluster count for a volume of
// `sectors`. The FAT must cover every cluster; the heap's start moves when
// the FAT's length does, so the count is lowered until both agree.
bool plan_layout(uint64_t bytes, uint32_t sector_bytes, uint32_t cluster_bytes, MkfsLayout* l,
                 MkfsError* e) {
  if (bytes < kMinVolumeBytes)
    return fail(e, EINVAL, "a volume needs at least 1 MiB");
  if (cluster_bytes < sector_bytes || cluster_bytes > kMaxClusterBytes ||
      (cluster_bytes & (cluster_bytes - 1)) != 0)
    return fail(e, EINVAL,
                "cluster size must be a power of two from " + std::to_string(sector_bytes) +
                    " bytes to 32 MiB");
  l->sector_shift = log2_exact(sector_bytes);
  l->cluster_shift = log2_exact(cluster_bytes / sector_bytes);
  l->volume_sectors = bytes >> l->sector_shift;
  uint64_t align = std::min(cluster_bytes, kMaxAlignBytes) / sector_bytes;
  uint64_t fat_offset = round_up(EXFAT_BOOT_REGION_SECTORS * 2, align);
  uint64_t spc = uint64_t{1} << l->cluster_shift;
  if (fat_offset >= l->volume_sectors)
    return fail(e, EINVAL, "the volume is too small for its boot regions");
  uint64_t count = (l->volume_sectors - fat_offset) / spc;
  uint64_t fat_length = 0, heap = 0;
  for (;;) {
    fat_length = round_up((count + 2) * EXFAT_FAT_ENTRY_SIZE, sector_bytes) / sector_bytes;
    heap = round_up(fat_offset + fat_length, align);
    uint64_t fits = heap < l->volume_sectors ? (l->volume_sectors - heap) / spc : 0;
    if (fits >= count)
      break;
    count = fits;
  }
  if (count > kMaxClusterCount || heap > UINT32_MAX)
    return fail(e, EINVAL, "too many clusters for exFAT: choose a larger cluster size");
  l->fat_offset = static_cast<uint32_t>(fat_offset);
  l->fat_length = static_cast<uint32_t>(fat_length);
  l->heap_offset = static_cast<uint32_t>(heap);
  l->cluster_count = static_cast<uint32_t>(count);
  return true;
}

// The boot region (12 sectors) for the finished volume.
std::vector<uint8_t> boot_region(const MkfsLayout& l, uint32_t root_cluster, uint32_t serial,
                                 uint32_t used_clusters) {
  const uint32_t bps = l.sector_bytes();
  std::vector<uint8_t> region(EXFAT_BOOT_REGION_SECTORS * bps, 0);
  auto* bs = reinterpret_cast<struct exfat_boot_sector*>(region.data());
  memcpy(bs, EXFAT_BOOT_SIGNATURE, EXFAT_BOOT_SIGNATURE_LEN);
  le64enc(bs->bsVolumeLength, l.volume_sectors);
  le32enc(bs->bsFatOffset, l.fat_offset);
  le32enc(bs->bsFatLength, l.fat_length);
  le32enc(bs->bsClusterHeapOffset, l.heap_offset);
  le32enc(bs->bsClusterCount, l.cluster_count);
  le32enc(bs->bsFirstClusterOfRootDirectory, root_cluster);
  le32enc(bs->bsVolumeSerialNumber, serial);
  bs->bsFileSystemRevision[1] = 1;  // 1.00
  bs->bsBytesPerSectorShift = static_cast<uint8_t>(l.sector_shift);
  bs->bsSectorsPerClusterShift = static_cast<uint8_t>(l.cluster_shift);
  bs->bsNumberOfFats = 1;
  bs->bsDriveSelect = 0x80;
  bs->percentInUse =
      static_cast<uint8_t>(uint64_t{used_clusters} * 100 / std::max(l.cluster_count, 1u));
  bs->bsBootSignature[0] = 0x55;
  bs->bsBootSignature[1] = 0xAA;
  // Extended boot sectors 1-8 end with their signature; 9 (OEM parameters)
  // and 10 (reserved) stay zero.
  for (uint32_t s = 1; s <= 8; s++)
    le32enc(&region[(s + 1) * bps - 4], 0xAA550000u);
  uint32_t checksum = exfat_boot_checksum(region.data(), bps);
  for (uint32_t i = 0; i < bps; i += 4)
    le32enc(&region[EXFAT_BOOT_CHECKSUM_SECTOR * bps + i], checksum);
  return region;
}

bool encode_label(const std::string& label, std::vector<uint8_t>* entry, MkfsError* e) {
  uint16_t units[EXFAT_LABEL_MAX_CHARS + 1];
  size_t bytes = 0;
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(label.data()), label.size(), units,
                             &bytes, sizeof(units), 0, UTF_PRECOMPOSED);
  size_t count = bytes / 2;
  if (error == EINVAL)
    return fail(e, EINVAL, "the label is not valid UTF-8");
  if (error || count > EXFAT_LABEL_MAX_CHARS)
    return fail(e, EINVAL,
                "the label is too long: at most 11 UTF-16 units (characters outside the "
                "Basic Multilingual Plane take two)");
  entry->assign(EXFAT_ENTRY_SIZE, 0);
  auto* le = reinterpret_cast<struct exfat_label_entry*>(entry->data());
  le->EntryType = EXFAT_ENTRY_LABEL;
  le->CharacterCount = static_cast<uint8_t>(count);
  for (size_t i = 0; i < count; i++)
    le16enc(le->VolumeLabel + 2 * i, units[i]);
  return true;
}

std::vector<uint8_t> system_entry(uint8_t type, uint32_t checksum, uint32_t first,
                                  uint64_t length) {
  std::vector<uint8_t> entry(EXFAT_ENTRY_SIZE, 0);
  entry[0] = type;
  if (type == EXFAT_ENTRY_UPCASE)
    le32enc(&entry[4], checksum);
  le32enc(&entry[20], first);
  le64enc(&entry[24], length);
  return entry;
}

uint32_t random_serial() {
  uint32_t v = 0;
  if (getrandom(&v, sizeof(v), 0) != sizeof(v))
    v = static_cast<uint32_t>(time(nullptr)) ^ static_cast<uint32_t>(getpid() << 16);
  return v;
}

// The bitmap's bytes: clusters 2..next-1 used, the rest free, written in
// fixed-size pieces; the rest of its last cluster zeroed.
bool write_bitmap(Formatter& f, uint32_t first, uint64_t length, MkfsError* e) {
  const uint64_t used = f.next_cluster() - 2;
  std::vector<uint8_t> piece(64 << 10);
  uint64_t start = f.layout().cluster_offset(first);
  for (uint64_t at = 0; at < length; at += piece.size()) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(piece.size(), length - at));
    for (size_t i = 0; i < n; i++) {
      uint64_t bit = (at + i) * 8;
      piece[i] = bit + 8 <= used ? 0xFF
                 : bit >= used   ? 0
                                 : static_cast<uint8_t>((1u << (used - bit)) - 1);
    }
    if (!f.write_at(start + at, piece.data(), n, e))
      return false;
  }
  uint64_t padded = uint64_t{f.layout().clusters_for(length)} * f.layout().cluster_bytes();
  return f.zero(start + length, padded - length, e);
}

// FAT entries 0 and 1, and the chains of the system files (contiguous
// clusters first..first+count-1 each).
bool write_fat(Formatter& f, const std::vector<std::pair<uint32_t, uint32_t>>& chains,
               MkfsError* e) {
  const MkfsLayout& l = f.layout();
  uint64_t fat_bytes = uint64_t{l.fat_length} << l.sector_shift;
  if (!f.zero(uint64_t{l.fat_offset} << l.sector_shift, fat_bytes, e))
    return false;
  uint32_t last = 1;
  for (auto [first, count] : chains)
    last = std::max(last, first + count - 1);
  std::vector<uint8_t> fat((last + 1) * EXFAT_FAT_ENTRY_SIZE, 0);
  le32enc(&fat[0], EXFAT_FAT_MEDIA);
  le32enc(&fat[4], EXFAT_FAT_EOC);
  for (auto [first, count] : chains) {
    for (uint32_t c = first; c < first + count; c++)
      le32enc(&fat[c * EXFAT_FAT_ENTRY_SIZE], c + 1 == first + count ? EXFAT_FAT_EOC : c + 1);
  }
  return f.write_at(uint64_t{l.fat_offset} << l.sector_shift, fat.data(), fat.size(), e);
}

// Lays the volume out on an open device: everything but the boot regions
// first, so that a format cut short leaves no valid-looking volume.
bool format(Formatter& f, uint32_t serial, MkfsError* e) {
  const MkfsLayout& l = f.layout();
  const MkfsOptions& o = f.options();
  uint64_t boot_bytes = uint64_t{l.fat_offset} << l.sector_shift;
  if (!f.zero(0, boot_bytes, e))
    return false;

  std::vector<uint8_t> upcase = compress_upcase_table(f.upcase());
  uint64_t bitmap_length = (uint64_t{l.cluster_count} + 7) / 8;
  uint32_t bitmap_first = 0, upcase_first = 0;
  uint32_t bitmap_clusters = l.clusters_for(bitmap_length);
  uint32_t upcase_clusters = l.clusters_for(upcase.size());
  if (!f.allocate(bitmap_clusters, &bitmap_first, e, "the allocation bitmap") ||
      !f.allocate(upcase_clusters, &upcase_first, e, "the up-case table"))
    return false;

  std::vector<uint8_t> system;
  if (!o.label.empty() && !encode_label(o.label, &system, e))
    return false;
  auto append = [&system](const std::vector<uint8_t>& entry) {
    system.insert(system.end(), entry.begin(), entry.end());
  };
  append(system_entry(EXFAT_ENTRY_BITMAP, 0, bitmap_first, bitmap_length));
  append(system_entry(EXFAT_ENTRY_UPCASE,
                      exfat_upcase_checksum(upcase.data(), static_cast<uint32_t>(upcase.size())),
                      upcase_first, upcase.size()));

  uint32_t root_first = 0, root_clusters = 0;
  if (!f.populate_root(system, &root_first, &root_clusters, e))
    return false;

  uint64_t upcase_end = l.cluster_offset(upcase_first) + upcase.size();
  if (!f.write_at(l.cluster_offset(upcase_first), upcase.data(), upcase.size(), e) ||
      !f.zero(upcase_end, uint64_t{upcase_clusters} * l.cluster_bytes() - upcase.size(), e) ||
      !write_bitmap(f, bitmap_first, bitmap_length, e) ||
      !write_fat(f, {{bitmap_first, bitmap_clusters}, {upcase_first, upcase_clusters},
                     {root_first, root_clusters}}, e))
    return false;

  f.result().used_clusters = f.next_cluster() - 2;
  std::vector<uint8_t> region = boot_region(l, root_first, serial, f.result().used_clusters);
  return f.write_at(uint64_t{EXFAT_BACKUP_BOOT_SECTOR} << l.sector_shift, region.data(),
                    region.size(), e) &&
         f.write_at(0, region.data(), region.size(), e);
}

// Opens and locks the target and finds its size (options.size when given)
// and sector size. A missing image file is created when a size is given.
bool open_target(const std::string& path, const MkfsOptions& o, int* fd, bool* regular,
                 uint64_t* bytes, uint32_t* sector, MkfsError* e) {
  // O_EXCL on a block device fails while it is mounted or held by another
  // exclusive opener.
  struct stat before;
  bool block = stat(path.c_str(), &before) == 0 && S_ISBLK(before.st_mode);
  int flags = O_RDWR | O_CLOEXEC | (o.size && !block ? O_CREAT : 0) | (block ? O_EXCL : 0);
  *fd = ::open(path.c_str(), flags, 0644);
  if (*fd < 0)
    return fail(e, errno, path + (errno == EBUSY ? ": the device is in use (mounted?)"
                                                 : std::string(": ") + strerror(errno)));
  if (flock(*fd, LOCK_EX | LOCK_NB) != 0)
    return fail(e, errno == EWOULDBLOCK ? EBUSY : errno,
                path + ": in use by another program (mounted, or an exvol command)");
  struct stat st;
  if (fstat(*fd, &st) != 0)
    return fail(e, errno, path + ": " + strerror(errno));
  *regular = S_ISREG(st.st_mode);
  *sector = 512;
  if (S_ISBLK(st.st_mode)) {
    int logical = 0;
    if (ioctl(*fd, BLKGETSIZE64, bytes) != 0 || ioctl(*fd, BLKSSZGET, &logical) != 0)
      return fail(e, errno, path + ": " + strerror(errno));
    *sector = static_cast<uint32_t>(logical);
    if (o.size > *bytes)
      return fail(e, ENOSPC, path + ": the device is smaller than the size asked for");
  } else if (!*regular) {
    return fail(e, ENODEV, path + ": neither an image file nor a block device");
  } else {
    *bytes = static_cast<uint64_t>(st.st_size);
  }
  if (o.size)
    *bytes = o.size;
  return true;
}

bool check_options(const MkfsOptions& o, MkfsError* e) {
  std::vector<uint8_t> label;
  if (!o.label.empty() && !encode_label(o.label, &label, e))
    return false;
  struct stat st;
  if (!o.from.empty() && stat(o.from.c_str(), &st) != 0)
    return fail(e, errno, o.from + ": " + strerror(errno));
  if (!o.from.empty() && !S_ISDIR(st.st_mode))
    return fail(e, ENOTDIR, o.from + ": " + strerror(ENOTDIR));
  return true;
}

// An image file shorter than the volume grows to it (a hole: sparse).
bool extend_image(int fd, bool regular, uint64_t bytes, const std::string& path, MkfsError* e) {
  struct stat st;
  if (!regular || (fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= bytes))
    return true;
  if (ftruncate(fd, static_cast<off_t>(bytes)) != 0)
    return fail(e, errno, path + ": " + strerror(errno));
  return true;
}

}  // namespace

uint32_t default_cluster_size(uint64_t bytes) {
  if (bytes <= (uint64_t{256} << 20))
    return 4096;
  if (bytes <= (uint64_t{32} << 30))
    return 32768;
  return 131072;
}

const std::vector<uint16_t>& upcase_mapping() {
  static const std::vector<uint16_t> table = [] {
    std::vector<uint16_t> t(EXFAT_UPCASE_ENTRIES);
    for (uint32_t c = 0; c < EXFAT_UPCASE_ENTRIES; c++) {
      // Surrogate halves are no characters, and a mapping out of the BMP
      // can't be stored: both map to themselves. Nothing but U+FFFF itself
      // may map to 0xFFFF, the run mark of the compressed form.
      bool surrogate = c >= 0xD800 && c <= 0xDFFF;
      utf8proc_int32_t u = surrogate ? static_cast<utf8proc_int32_t>(c)
                                     : utf8proc_toupper(static_cast<utf8proc_int32_t>(c));
      bool storable = u >= 0 && u < 0xFFFF && !(u >= 0xD800 && u <= 0xDFFF);
      t[c] = static_cast<uint16_t>(storable ? u : static_cast<utf8proc_int32_t>(c));
    }
    return t;
  }();
  return table;
}

std::vector<uint8_t> compress_upcase_table(const std::vector<uint16_t>& mapping) {
  std::vector<uint8_t> out;
  auto item = [&out](uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
  };
  uint32_t d = 0;
  while (d < mapping.size()) {
    uint32_t run = 0;
    while (d + run < mapping.size() && mapping[d + run] == d + run)
      run++;
    // A run item pair costs two items: shorter identity stretches are
    // stored as values, except a stretch that reaches U+FFFF, whose value
    // would read as a run mark.
    if (run >= 3 || (run > 0 && d + run == mapping.size())) {
      while (run > 0) {
        uint32_t n = std::min<uint32_t>(run, 0xFFFF);
        item(EXFAT_UPCASE_RUN_MARK);
        item(static_cast<uint16_t>(n));
        d += n;
        run -= n;
      }
    } else {
      item(mapping[d]);
      d++;
    }
  }
  return out;
}

std::error_code mkfs(const std::string& path, const MkfsOptions& options, MkfsResult* result,
                     std::string* diagnostic) {
  MkfsError e;
  int fd = -1;
  bool regular = false;
  uint64_t bytes = 0;
  uint32_t sector = 512;
  MkfsLayout layout;
  // Everything that can be refused is refused before the first write, so
  // that a mistyped command leaves an existing volume alone.
  bool ok = check_options(options, &e) &&
            open_target(path, options, &fd, &regular, &bytes, &sector, &e) &&
            plan_layout(bytes, sector,
                        options.cluster_size ? options.cluster_size : default_cluster_size(bytes),
                        &layout, &e) &&
            extend_image(fd, regular, bytes, path, &e);
  uint32_t serial = options.serial ? *options.serial : random_serial();
  if (ok) {
    Formatter f(fd, regular, layout, options);
    ok = format(f, serial, &e);
    if (ok && fsync(fd) != 0)
      ok = fail(&e, errno, path + ": " + strerror(errno));
    if (ok && result) {
      *result = f.result();
      result->bytes_per_sector = layout.sector_bytes();
      result->bytes_per_cluster = layout.cluster_bytes();
      result->cluster_count = layout.cluster_count;
      result->fat_offset = layout.fat_offset;
      result->heap_offset = layout.heap_offset;
      result->serial = serial;
    }
  }
  if (fd >= 0 && close(fd) != 0 && ok)
    ok = fail(&e, errno, path + ": " + strerror(errno));
  if (ok)
    return {};
  if (diagnostic)
    *diagnostic = e.message;
  return std::error_code(e.error ? e.error : EIO, std::generic_category());
}

}  // namespace exvol
