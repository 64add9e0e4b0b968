#pragma once
// libexvol: mounting an exFAT volume and working with its files.
//
// A Volume is one mounted exFAT volume, on a disk image or a block device,
// mounted by the exvol driver exactly as a kernel would mount it. The
// library plays the kernel's system-call and VFS layer: it resolves paths
// one component at a time, follows symbolic links, holds open files, and
// refuses changes to a read-only volume before they reach the driver.
//
// All calls are thread-safe: any number of threads may work in one Volume
// at once, also while another unmounts it (the unmount waits for the calls
// under way; later calls fail with ENXIO). Errors are std::error_code
// values in the generic category carrying the errno (see exvol/types.h);
// nothing throws.
//
// Paths name files from the volume's root: "/docs/a.txt" and "docs/a.txt"
// are the same file, "/" is the root. Components are compared the volume's
// way, without regard to case. Symbolic links are followed (at most 32 on
// one path, else ELOOP), except as the last component of lstat, readlink,
// unlink, rmdir, rename, symlink and mkdir, and of open with O_NOFOLLOW or
// O_CREAT|O_EXCL. A link's absolute target is taken from the volume's root.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "exvol/file.h"
#include "exvol/types.h"

namespace exvol {

struct MountOptions {
  bool read_only = false;
  // Permission bits reported for every file and directory (low 12 bits).
  uint16_t mask = 0755;
  // The time zone of the volume's local timestamps, in seconds west of UTC.
  // Each mounted volume keeps its own.
  int32_t seconds_west = 0;
  // No delayed metadata flush: metadata reaches the disk at sync and unmount.
  bool async = false;
  bool noatime = false;
  // Every this many milliseconds, what the volume holds in memory is
  // written back, as a kernel's periodic sync does: without waiting for the
  // writes and without flushing the device's cache. 0: only sync, fsync,
  // memory pressure and unmount write it.
  uint32_t sync_interval_ms = 0;
  // Names in listings in decomposed form (NFD), as the driver lists them.
  // By default they are composed (NFC), the form the volume holds and Linux
  // programs expect. Lookups find a name typed in either form.
  bool decomposed_names = false;
  // Clusters freed by remove and truncate are discarded on the device: an
  // image file gets holes (it stays sparse), a block device a discard.
  bool discard = false;
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
  // What the boot sector claims (VolumeLength, or the end of the cluster
  // heap when that lies further) and what the device holds, in bytes.
  uint64_t volume_bytes = 0;
  uint64_t device_bytes = 0;
  // VolumeDirty was set when the volume was mounted: it was not unmounted
  // cleanly (a crash, a pulled device) and may be damaged.
  bool dirty_at_mount = false;
  // The driver found damage, or a metadata write failed, while mounted:
  // the volume will be left marked dirty.
  bool corrupt = false;

  uint64_t used_clusters() const { return cluster_count - free_clusters; }
  uint64_t total_bytes() const { return cluster_count * bytes_per_cluster; }
  uint64_t free_bytes() const { return free_clusters * bytes_per_cluster; }
  bool dirty() const { return (volume_flags & 0x0002) != 0; }
  bool media_failure() const { return (volume_flags & 0x0004) != 0; }
  // The device is shorter than the volume: what lies beyond is missing.
  bool truncated() const { return device_bytes < volume_bytes; }
  // "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case.
  std::string uuid_string() const;
  // The serial number as blkid shows it and /dev/disk/by-uuid names the
  // volume: "1234-ABCD", upper case.
  std::string serial_string() const;
};

// Where the driver's messages go: damage it finds on a volume, I/O that
// fails, write-backs that fail. The handler gets one message per call,
// without a trailing newline, on whichever thread printed it, never two at
// once. Process-wide; an empty handler restores the default, standard
// error. Set it while no Volume::mount is under way: a mount puts back the
// handler it found when it ends. Mount diagnostics also come back through
// Volume::mount.
using LogHandler = std::function<void(const std::string& message)>;
void set_log_handler(LogHandler handler);

class Volume {
 public:
  // Mounts the image file or block device at `path`. On success *out holds
  // the mounted volume. diagnostic, when given, receives the reasons and
  // warnings of the mount, joined by "; ": the library's and the kernel log
  // lines the driver printed while mounting (why a mount failed, or
  // warnings about a volume that mounted).
  //
  // The volume is locked for as long as it is mounted (flock(2) on the
  // image or device, and on a loop device's backing file): exclusively
  // for read-write, shared for read-only. A volume that another program
  // (or another Volume) holds fails with EBUSY, the diagnostic naming the
  // holder where the system tells. A read-write mount fails with EROFS when
  // the device is write-protected, or when the boot sector claims more
  // sectors than the device holds (writes would fail beyond its end); a
  // read-only mount of such a volume goes ahead with a warning. A device
  // that holds no exFAT volume (another file system, nothing, a partition
  // table) fails with EMEDIUMTYPE, the diagnostic starting "not an exFAT
  // volume: " and saying what it holds.
  static std::error_code mount(const std::string& path, const MountOptions& options,
                               std::unique_ptr<Volume>* out, std::string* diagnostic = nullptr);

  ~Volume();  // unmounts, forcibly if an ordinary unmount is refused
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;

  // --- The volume -------------------------------------------------------------

  std::error_code statfs(StatFs* out) const;
  std::error_code info(VolumeInfo* out) const;
  std::error_code label(std::string* out) const;
  // Renames the volume (UTF-8, at most 11 UTF-16 units; "" removes the
  // label). EROFS on a read-only volume.
  std::error_code set_label(const std::string& label);
  // Writes everything pending to the device; with `wait`, waits for it.
  // Once a write to the device has failed, whenever it was made (a delayed
  // metadata flush, a write-behind of file data), sync and unmount return
  // that write's error (EIO, ENOSPC, EROFS …): the volume on the device
  // lacks something it was given.
  std::error_code sync(bool wait = true);
  // Changes the options of the mounted volume: read-only or read-write,
  // mask, time zone, asynchronous, no access times, sync interval, name
  // form (echo_kernel_log is not used). Going read-only refuses with EBUSY while
  // files are open for writing or mapped writable, unless `force`, which
  // revokes them first.
  // Going read-write fails with EROFS when the volume can't be written
  // (as mount refuses it), and with EBUSY while others share the volume
  // read-only; diagnostic, when given, receives the reason.
  std::error_code update(const MountOptions& options, bool force = false,
                         std::string* diagnostic = nullptr);
  // Unmounts. Unforced, a volume with open files or mappings stays mounted
  // and EBUSY is returned; forced, they are revoked and the unmount always
  // completes. Node references (see lookup) are dropped either way. Later
  // calls return ENXIO. A completed unmount still returns the error of a
  // failed device write (see sync); the volume's lock is released last,
  // once everything is on the device.
  std::error_code unmount(bool force = false);
  bool mounted() const;

  // --- Files by path ------------------------------------------------------------

  // open(2): oflags are O_RDONLY, O_WRONLY or O_RDWR with O_CREAT, O_EXCL,
  // O_TRUNC, O_APPEND, O_SYNC, O_NOFOLLOW, O_DIRECTORY. A directory opens
  // only for reading. EROFS for writing, creating or truncating on a
  // read-only volume; EPERM for writing an immutable file.
  std::error_code open(const std::string& path, int oflags, File* out);
  std::error_code stat(const std::string& path, Stat* out);
  std::error_code lstat(const std::string& path, Stat* out);
  std::error_code mkdir(const std::string& path);
  std::error_code rmdir(const std::string& path);
  std::error_code unlink(const std::string& path);
  // Moves `from` to `to`, replacing what `to` names (a file by a file, an
  // empty directory by a directory). Renaming a name to another case of
  // itself changes its case. EINVAL: a directory into itself or below.
  std::error_code rename(const std::string& from, const std::string& to, unsigned flags = 0);
  // Makes `path` a symbolic link to `target` (at most 1024 bytes).
  std::error_code symlink(const std::string& target, const std::string& path);
  std::error_code readlink(const std::string& path, std::string* target);
  std::error_code truncate(const std::string& path, int64_t size);
  std::error_code utimes(const std::string& path, const TimeChange& times, bool follow = true);
  std::error_code chflags(const std::string& path, uint32_t flags, bool follow = true);
  // Lists a directory from `cookie` (kDirStart for the beginning, then the
  // cookie of the last entry taken, or *next_cookie). "." and ".." come
  // first. *next_cookie receives the cookie at which to continue, *end
  // whether the listing reached the end of the directory. The callback runs
  // with no lock of the library held, so it may call the library.
  std::error_code readdir(const std::string& path, uint64_t cookie, const DirCallback& callback,
                          uint64_t* next_cookie = nullptr, bool* end = nullptr);
  // The whole listing without "." and "..".
  std::error_code list(const std::string& path, std::vector<DirEntry>* out);

  // --- Nodes, for front ends that keep their own references -----------------
  //
  // A FUSE daemon maps its inode numbers to NodeIds: every call that hands
  // out a NodeId (lookup, create, mkdir, symlink, ref) adds one reference to
  // the node, and unref drops them (FUSE's forget). A referenced node holds
  // its vnode in use, so a node removed meanwhile still answers getattr and
  // open. Names are single components (no '/'; EINVAL). A NodeId not held
  // (never handed out or fully unreferenced) is ESTALE. All references are
  // dropped at unmount. The NodeId doubles as a unique inode number.

  std::error_code lookup(NodeId parent, const std::string& name, NodeId* out, Stat* st = nullptr);
  std::error_code ref(NodeId node);
  std::error_code unref(NodeId node, uint64_t count = 1);
  std::error_code getattr(NodeId node, Stat* out);
  std::error_code open(NodeId node, int oflags, File* out);
  // Creates and opens a regular file (O_CREAT is implied; O_EXCL fails with
  // EEXIST on an existing name, otherwise an existing file is opened).
  std::error_code create(NodeId parent, const std::string& name, int oflags, File* file,
                         NodeId* out, Stat* st = nullptr);
  std::error_code mkdir(NodeId parent, const std::string& name, NodeId* out, Stat* st = nullptr);
  std::error_code symlink(const std::string& target, NodeId parent, const std::string& name,
                          NodeId* out, Stat* st = nullptr);
  std::error_code unlink(NodeId parent, const std::string& name);
  std::error_code rmdir(NodeId parent, const std::string& name);
  std::error_code rename(NodeId parent, const std::string& name, NodeId new_parent,
                         const std::string& new_name, unsigned flags = 0);
  std::error_code readlink(NodeId node, std::string* target);
  std::error_code truncate(NodeId node, int64_t size);
  std::error_code utimes(NodeId node, const TimeChange& times);
  std::error_code chflags(NodeId node, uint32_t flags);
  std::error_code readdir(NodeId node, uint64_t cookie, const DirCallback& callback,
                          uint64_t* next_cookie = nullptr, bool* end = nullptr);
  // Nodes held now (the root not counted).
  size_t node_count() const;

  struct Impl;

 private:
  explicit Volume(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace exvol
