// libexvol volumes: loading the driver module, mounting, updating and
// unmounting through the host's mount machinery, and the volume-wide
// calls: statfs, attributes, label and sync.
//
// The library plays the kernel's system-call layer: it reaches the driver
// only through VFS_*/VNOP_* dispatch and host_mount/host_unmount, never by
// calling the driver's functions, with one exception below: starting the
// module.

#include "exvol/volume.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "api/api_private.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"

// The driver module's start routine. A kernel's module loader calls it when
// the module is loaded; the library is that loader here, and this is the one
// place outside the driver that calls one of its functions.
int exfat_module_start(void);

namespace exvol {

using detail::CallGuard;
using detail::make_error;
using detail::MountState;

namespace {

constexpr size_t kMountArgsSize = 24;
constexpr uint32_t kMountArgsMagic = 0xD4C1C6F8u;
constexpr uint32_t kMountArgsDiscard = 0x00000001u;  // flags: discard freed clusters
// The driver's mount ioctl that reports damage seen while mounted.
constexpr u_long kGetState = 0x40045801u;
constexpr uint32_t kStateCorrupt = 0x00000001u;

// Loads the driver once per process. The module stays loaded until exit.
int load_driver_module() {
  static std::once_flag once;
  static int status = 0;
  std::call_once(once, [] { status = exfat_module_start() == 0 ? 0 : EIO; });
  return status;
}

void put_le16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void put_le32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++)
    p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t get_le32(const uint8_t* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// The driver's mount argument record: magic, owner, group, mask, time
// zone, flags.
std::vector<uint8_t> mount_args(const MountOptions& options) {
  std::vector<uint8_t> args(kMountArgsSize, 0);
  put_le32(&args[0], kMountArgsMagic);
  put_le16(&args[12], options.mask);
  put_le32(&args[16], static_cast<uint32_t>(options.seconds_west));
  put_le32(&args[20], options.discard ? kMountArgsDiscard : 0);
  return args;
}

uint64_t mount_flags(const MountOptions& options) {
  uint64_t flags = 0;
  if (options.read_only)
    flags |= MNT_RDONLY;
  if (options.async)
    flags |= MNT_ASYNC;
  if (options.noatime)
    flags |= MNT_NOATIME;
  return flags;
}

// Joins captured kernel log lines into one diagnostic line.
std::string join_lines(const std::vector<std::string>& lines) {
  std::string s;
  for (const std::string& line : lines) {
    if (!s.empty())
      s += "; ";
    s += line;
  }
  return s;
}

// Serialises mounts, so that the kernel log captured during one is that
// mount's.
std::mutex g_mount_lock;

// Opens the device. A read-only mount still opens it for writing when it
// may, so that the volume can later be updated to read-write; the driver
// writes nothing while the mount is read-only.
int open_device(const std::string& path, bool read_only, vnode_t* devvp, bool* writable) {
  *writable = true;
  int error = host_blkdev_open(path.c_str(), 0, devvp);
  if (error == 0 || !read_only)
    return error;
  *writable = false;
  return host_blkdev_open(path.c_str(), 1, devvp);
}

// Whether open files or mappings exist: all of them, or (writers_only)
// those open for writing and writable mappings.
bool in_use(MountState& ms, bool writers_only) {
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  for (detail::OpenFile* f : ms.files)
    if (!writers_only || (f->fmode & FWRITE))
      return true;
  for (detail::MapState* m : ms.maps)
    if (!writers_only || m->writable)
      return true;
  return false;
}

// Revokes open files and mappings, as in_use selects them. The caller
// holds MountState::lock exclusively, so no call is using them.
void revoke(MountState& ms, bool writers_only) {
  std::vector<detail::OpenFile*> files;
  std::vector<detail::MapState*> maps;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    for (detail::OpenFile* f : ms.files)
      if (!writers_only || (f->fmode & FWRITE))
        files.push_back(f);
    for (detail::MapState* m : ms.maps)
      if (!writers_only || m->writable)
        maps.push_back(m);
  }
  for (detail::MapState* m : maps)
    detail::map_revoke(m);
  for (detail::OpenFile* f : files)
    detail::file_revoke(f);
}

uint64_t get_le64(const uint8_t* p) {
  return uint64_t{get_le32(p)} | uint64_t{get_le32(p + 4)} << 32;
}

// "8.0 MiB": sizes in messages.
std::string size_text(uint64_t bytes) {
  const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double v = static_cast<double>(bytes);
  size_t u = 0;
  while (v >= 1024 && u + 1 < std::size(units)) {
    v /= 1024;
    u++;
  }
  char s[32];
  snprintf(s, sizeof(s), u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
  return s;
}

// What the boot sector says about where the volume ends, in sectors: its
// VolumeLength, or the end of the cluster heap when that lies further.
// False when the sector isn't one the driver would take (it then says why
// when mounting).
bool volume_sectors(const uint8_t* boot, uint64_t* sectors) {
  static const uint8_t kSignature[11] = {0xEB, 0x76, 0x90, 'E', 'X', 'F', 'A', 'T', ' ', ' ', ' '};
  uint8_t sector_shift = boot[108], cluster_shift = boot[109];
  if (memcmp(boot, kSignature, sizeof(kSignature)) != 0 || sector_shift < 9 ||
      sector_shift > 16 || cluster_shift > 16)
    return false;
  uint64_t heap_end = get_le32(boot + 88) + (uint64_t{get_le32(boot + 92)} << cluster_shift);
  *sectors = std::max(get_le64(boot + 72), heap_end);
  return true;
}

// Reads the boot sector from the device (through the device's buffer cache,
// which the driver's own boot-sector writes go through as well). *exfat
// says whether it is one the driver would take; only then are the volume's
// size and the rest meaningful. `keep` false drops the buffer from the
// cache (before a mount, which changes the device's block size).
int read_boot_sector(vnode_t devvp, VolumeInfo* out, bool* exfat, bool keep = true) {
  uint32_t block_size = 0;
  uint64_t blocks = 0;
  int error = VNOP_IOCTL(devvp, DKIOCGETBLOCKSIZE, reinterpret_cast<caddr_t>(&block_size), 0,
                         vfs_context_kernel());
  if (error == 0)
    error = VNOP_IOCTL(devvp, DKIOCGETBLOCKCOUNT, reinterpret_cast<caddr_t>(&blocks), 0,
                       vfs_context_kernel());
  if (error)
    return error;
  out->device_bytes = blocks * block_size;
  buf_t bp = nullptr;
  error = buf_meta_bread(devvp, 0, static_cast<int>(block_size), NOCRED, &bp);
  if (error == 0) {
    const uint8_t* boot = reinterpret_cast<const uint8_t*>(buf_dataptr(bp));
    uint64_t sectors = 0;
    *exfat = volume_sectors(boot, &sectors);
    out->serial_number = get_le32(boot + 100);
    out->volume_flags = static_cast<uint16_t>(boot[106] | boot[107] << 8);
    out->bytes_per_sector = 1u << (boot[108] & 31);
    out->percent_in_use = boot[112];
    // Saturates rather than wraps for a length no device has.
    out->volume_bytes = *exfat && sectors <= UINT64_MAX >> boot[108] ? sectors << boot[108]
                                                                       : UINT64_MAX;
  }
  if (bp != nullptr) {
    if (!keep)
      buf_markinvalid(bp);
    buf_brelse(bp);
  }
  return error;
}

// Why the volume on devvp can't be mounted read-write, or "". The driver
// takes the boot sector's geometry as it comes and never looks at
// VolumeLength: on a device shorter than the volume (an image cut short,
// a partial copy) its writes beyond the end would fail long after the
// calls that made them, when they could no longer be reported. So the
// library looks first: read-write is refused, read-only goes ahead with a
// warning, since what the device does hold is still readable.
std::string check_device(vnode_t devvp, bool device_writable, std::string* warning,
                         bool* dirty) {
  VolumeInfo v;
  bool exfat = false;
  bool read = read_boot_sector(devvp, &v, &exfat, false) == 0 && exfat;
  *dirty = read && v.dirty();
  if (!device_writable)
    return "the device is write-protected";
  if (!read || !v.truncated())
    return "";
  uint64_t sector = v.bytes_per_sector;
  std::string claim = "the volume claims " +
                      (v.volume_bytes == UINT64_MAX ? std::string("more")
                                                    : std::to_string(v.volume_bytes / sector)) +
                      " sectors of " + std::to_string(sector) + " bytes (" +
                      size_text(v.volume_bytes) + ") but the device holds only " +
                      std::to_string(v.device_bytes / sector) + " (" +
                      size_text(v.device_bytes) + ")";
  *warning = claim + "; what lies beyond is missing";
  return claim;
}

// An MBR: the boot signature and at least one partition entry in use with
// a valid status byte.
bool has_partition_table(const uint8_t* sector) {
  if (sector[510] != 0x55 || sector[511] != 0xAA)
    return false;
  for (int i = 0; i < 4; i++) {
    const uint8_t* entry = sector + 446 + 16 * i;
    if ((entry[0] == 0x00 || entry[0] == 0x80) && entry[4] != 0)
      return true;
  }
  return false;
}

// What the device holds when it is no exFAT volume, said so that the user
// knows what to do; "" when it starts with exFAT's boot sector. A mount
// that fails on such a device fails with EMEDIUMTYPE and this reason,
// rather than with whatever the driver made of the bytes.
std::string not_exfat_reason(vnode_t devvp) {
  uint32_t block_size = 0;
  uint64_t blocks = 0;
  if (VNOP_IOCTL(devvp, DKIOCGETBLOCKSIZE, reinterpret_cast<caddr_t>(&block_size), 0,
                 vfs_context_kernel()) != 0 ||
      VNOP_IOCTL(devvp, DKIOCGETBLOCKCOUNT, reinterpret_cast<caddr_t>(&blocks), 0,
                 vfs_context_kernel()) != 0)
    return "";
  uint64_t bytes = blocks * block_size;
  constexpr uint64_t kBootRegionBytes = 12 * 512;  // the smallest boot region
  if (bytes < kBootRegionBytes)
    return "it is smaller than the boot region of any exFAT volume (6 KiB)";
  // Enough for the ext2/3/4 superblock's magic at byte 1080.
  uint32_t probe = std::max<uint32_t>(block_size, 4096);
  if (probe > bytes)
    probe = block_size;
  buf_t bp = nullptr;
  std::string reason;
  if (buf_meta_bread(devvp, 0, static_cast<int>(probe), NOCRED, &bp) == 0) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(buf_dataptr(bp));
    uint64_t ignored;
    auto has = [&](size_t at, const char* text) {
      return at + strlen(text) <= probe && memcmp(p + at, text, strlen(text)) == 0;
    };
    if (volume_sectors(p, &ignored) || has(3, "EXFAT   "))
      reason = "";
    else if (probe >= 1082 && p[1080] == 0x53 && p[1081] == 0xEF)
      reason = "it holds an ext2/ext3/ext4 file system; mount it as that type";
    else if (has(3, "NTFS    "))
      reason = "it holds an NTFS file system; mount it as that type";
    else if (has(82, "FAT32   ") || has(54, "FAT16   ") || has(54, "FAT12   "))
      reason = "it holds a FAT file system; mount it with -t vfat";
    else if (std::all_of(p, p + 512, [](uint8_t b) { return b == 0; }))
      reason = "its first sector is empty: it holds no file system (format it with mkfs.exfat)";
    else if (p[0] == 0xEB && p[1] == 0x76 && p[2] == 0x90)
      reason = "its boot sector is damaged (no \"EXFAT\" name at byte 3); fsck.exfat may "
               "restore it from the backup boot sector";
    else if (has_partition_table(p))
      reason = "it starts with a partition table, not a volume; name the partition "
               "(/dev/sdX1, or an image's partition through losetup -P)";
    else
      reason = "it does not start with an exFAT boot sector";
  }
  if (bp != nullptr) {
    buf_markinvalid(bp);
    buf_brelse(bp);
  }
  return reason;
}

// Locks and opens the device for a mount and decides whether it may be
// written; lines receives the reasons and warnings. On failure the caller
// closes what was opened (ms.devvp) and drops the lock.
int take_device(MountState& ms, const std::string& path, bool read_only,
                std::vector<std::string>* lines) {
  std::string message;
  if (int error = ms.device_lock.acquire(path, !read_only, &message)) {
    if (!message.empty())
      lines->push_back(message);
    return error;
  }
  if (int error = open_device(path, read_only, &ms.devvp, &ms.device_writable)) {
    if (error == EROFS)
      lines->push_back("the device is write-protected; it can only be mounted read-only");
    return error;
  }
  std::string warning;
  ms.write_refusal = check_device(ms.devvp, ms.device_writable, &warning, &ms.dirty_at_mount);
  if (!ms.write_refusal.empty() && !read_only) {
    lines->push_back(ms.write_refusal + "; it can only be mounted read-only");
    return EROFS;
  }
  if (!warning.empty())
    lines->push_back(warning);
  return 0;
}

// Closes the device of an unmounted volume and then drops its lock, so
// that whoever waits for the lock finds the volume complete. Returns the
// error of any write that failed on the device while it was mounted,
// delayed ones included: a volume's last writes happen here, at unmount,
// or on timer threads, with nobody else to tell. Caller holds
// MountState::lock exclusively.
int release_device(MountState& ms) {
  if (!ms.read_only)
    VNOP_FSYNC(ms.devvp, MNT_WAIT, vfs_context_kernel());
  int error = host_blkdev_write_error(ms.devvp);
  host_blkdev_close(ms.devvp);
  ms.devvp = nullptr;
  ms.device_lock.release();
  return error;
}

// The error to report for a sync or unmount that returned `error`: a
// write that failed on the device is the cause of whatever the driver made
// of it (it sees only EIO), so its own errno (ENOSPC, EROFS …) comes first.
int device_error_first(const MountState& ms, int error) {
  int device = host_blkdev_write_error(ms.devvp);
  return device != 0 ? device : error;
}

void log_to_handler(const char* line, void* arg) {
  (*static_cast<const LogHandler*>(arg))(line);
}

}  // namespace

// Handlers are kept for the life of the process: a mount under way has
// saved the sink it found and puts it back when done, so a replaced
// handler may still be called after this returns.
void set_log_handler(LogHandler handler) {
  static std::mutex lock;
  static std::vector<std::unique_ptr<LogHandler>> installed;
  std::lock_guard<std::mutex> guard(lock);
  if (!handler) {
    host_log_set_sink(nullptr, nullptr);
    return;
  }
  installed.push_back(std::make_unique<LogHandler>(std::move(handler)));
  host_log_set_sink(log_to_handler, installed.back().get());
}

std::string VolumeInfo::serial_string() const {
  char s[10];
  snprintf(s, sizeof(s), "%04X-%04X", serial_number >> 16, serial_number & 0xFFFF);
  return s;
}

std::string VolumeInfo::uuid_string() const {
  char s[37];
  const uint8_t* u = uuid.data();
  snprintf(s, sizeof(s), "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13],
           u[14], u[15]);
  return s;
}

Volume::Volume(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Volume::~Volume() {
  if (mounted() && unmount(false))
    unmount(true);
}

std::error_code Volume::mount(const std::string& path, const MountOptions& options,
                              std::unique_ptr<Volume>* out, std::string* diagnostic) {
  out->reset();
  if (diagnostic != nullptr)
    diagnostic->clear();
  if (int error = load_driver_module())
    return make_error(error);

  auto ms = std::make_shared<MountState>();
  ms->read_only = options.read_only;
  ms->decomposed_names = options.decomposed_names;
  std::vector<std::string> lines;
  int error = take_device(*ms, path, options.read_only, &lines);
  if (error == 0) {
    std::vector<uint8_t> args = mount_args(options);
    std::lock_guard<std::mutex> guard(g_mount_lock);
    KernLogCapture capture;
    error = host_mount("exfat", ms->devvp, mount_flags(options), args.data(), args.size(),
                       &ms->mp);
    for (const std::string& line : capture.lines())
      lines.push_back(line);
    if (error) {
      std::string reason = not_exfat_reason(ms->devvp);
      if (!reason.empty()) {
        lines.insert(lines.begin(), "not an exFAT volume: " + reason);
        error = EMEDIUMTYPE;
      }
    }
  }
  // Passed on to whoever listened before the capture (stderr by default).
  if (options.echo_kernel_log) {
    for (const std::string& line : lines)
      kprintf("%s", line.c_str());
  }
  if (diagnostic != nullptr)
    *diagnostic = join_lines(lines);
  if (error) {
    if (ms->devvp != nullptr)
      host_blkdev_close(ms->devvp);
    ms->device_lock.release();
    return make_error(error);
  }
  host_set_sync_interval(ms->mp, options.sync_interval_ms);
  auto impl = std::make_unique<Impl>();
  impl->ms = std::move(ms);
  out->reset(new Volume(std::move(impl)));
  return {};
}

bool Volume::mounted() const {
  std::shared_lock<std::shared_mutex> guard(impl_->ms->lock);
  return impl_->ms->mp != nullptr;
}

// Open files and mappings make an unforced unmount fail before anything is
// touched; node references are the front end's cache and go either way.
std::error_code Volume::unmount(bool force) {
  MountState& ms = *impl_->ms;
  std::unique_lock<std::shared_mutex> guard(ms.lock);
  if (ms.mp == nullptr)
    return make_error(ENXIO);
  if (!force && in_use(ms, false))
    return make_error(EBUSY);
  revoke(ms, false);
  detail::nodes_release_all(ms);
  int error = host_unmount(ms.mp, force ? MNT_FORCE : 0);
  if (error)
    return make_error(device_error_first(ms, error));
  ms.mp = nullptr;
  return make_error(release_device(ms));
}

// A downgrade first settles the files that could still write: EBUSY while
// any is open unless forced, then they are revoked so that the driver's
// own flush of writers finds none. An upgrade first makes the volume's
// lock exclusive; the lock follows whatever state the update leaves.
std::error_code Volume::update(const MountOptions& options, bool force,
                               std::string* diagnostic) {
  MountState& ms = *impl_->ms;
  std::unique_lock<std::shared_mutex> guard(ms.lock);
  if (diagnostic != nullptr)
    diagnostic->clear();
  if (ms.mp == nullptr)
    return make_error(ENXIO);
  if (!options.read_only && ms.read_only) {
    std::string why = ms.write_refusal;
    int error = why.empty() ? ms.device_lock.set_exclusive(true, &why) : EROFS;
    if (error) {
      if (diagnostic != nullptr)
        *diagnostic = why;
      return make_error(error);
    }
  }
  if (options.read_only && !ms.read_only) {
    if (!force && in_use(ms, true))
      return make_error(EBUSY);
    revoke(ms, true);
  }
  std::vector<uint8_t> args = mount_args(options);
  uint64_t flags = mount_flags(options) | (force ? MNT_FORCE : 0);
  int error = host_mount_update(ms.mp, flags, args.data(), args.size());
  ms.read_only = vfs_isrdonly(ms.mp) != 0;
  ms.device_lock.set_exclusive(!ms.read_only, nullptr);  // giving up a lock can't fail
  if (error == 0) {
    host_set_sync_interval(ms.mp, options.sync_interval_ms);
    ms.decomposed_names = options.decomposed_names;
  }
  return make_error(error);
}

std::error_code Volume::statfs(StatFs* out) const {
  CallGuard guard(*impl_->ms);
  if (int error = guard.error())
    return make_error(error);
  struct vfs_attr va;
  VFSATTR_INIT(&va);
  if (int error = VFS_GETATTR(impl_->ms->mp, &va, vfs_context_kernel()))
    return make_error(error);
  out->block_size = va.f_bsize;
  out->io_size = va.f_iosize;
  out->blocks = va.f_blocks;
  out->blocks_free = va.f_bfree;
  out->blocks_available = va.f_bavail;
  out->blocks_used = va.f_bused;
  out->files = va.f_files;
  out->files_free = va.f_ffree;
  return {};
}

std::error_code Volume::info(VolumeInfo* out) const {
  CallGuard guard(*impl_->ms);
  if (int error = guard.error())
    return make_error(error);
  MountState& ms = *impl_->ms;
  struct vfs_attr va;
  VFSATTR_INIT(&va);
  std::vector<char> name(MAXPATHLEN, '\0');
  va.f_vol_name = name.data();
  VFSATTR_WANTED(&va, f_vol_name);
  VFSATTR_WANTED(&va, f_uuid);
  if (int error = VFS_GETATTR(ms.mp, &va, vfs_context_kernel()))
    return make_error(error);
  *out = VolumeInfo{};
  out->label = name.data();
  memcpy(out->uuid.data(), va.f_uuid, out->uuid.size());
  out->bytes_per_cluster = va.f_bsize;
  out->cluster_count = va.f_blocks;
  out->free_clusters = va.f_bfree;
  out->io_size = va.f_iosize;
  out->read_only = ms.read_only;
  out->dirty_at_mount = ms.dirty_at_mount;
  uint32_t state = 0;
  if (VFS_IOCTL(ms.mp, kGetState, reinterpret_cast<caddr_t>(&state), 0, vfs_context_kernel()) == 0)
    out->corrupt = (state & kStateCorrupt) != 0;
  bool exfat = false;
  return make_error(read_boot_sector(ms.devvp, out, &exfat));
}

std::error_code Volume::label(std::string* out) const {
  VolumeInfo info;
  std::error_code ec = this->info(&info);
  if (!ec)
    *out = info.label;
  return ec;
}

std::error_code Volume::set_label(const std::string& label) {
  CallGuard guard(*impl_->ms);
  if (int error = guard.error())
    return make_error(error);
  if (impl_->ms->read_only)
    return make_error(EROFS);
  if (label.size() >= MAXPATHLEN || label.find('\0') != std::string::npos)
    return make_error(EINVAL);
  std::vector<char> name(MAXPATHLEN, '\0');
  memcpy(name.data(), label.data(), label.size());
  struct vfs_attr va;
  VFSATTR_INIT(&va);
  va.f_vol_name = name.data();
  VFSATTR_WANTED(&va, f_vol_name);
  return make_error(VFS_SETATTR(impl_->ms->mp, &va, vfs_context_kernel()));
}

std::error_code Volume::sync(bool wait) {
  CallGuard guard(*impl_->ms);
  if (int error = guard.error())
    return make_error(error);
  int error = host_sync(impl_->ms->mp, wait ? MNT_WAIT : MNT_NOWAIT);
  return make_error(device_error_first(*impl_->ms, error));
}

}  // namespace exvol
