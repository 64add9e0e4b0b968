#pragma once
// mount.exvol: the command line and the mount options.
//
// The daemon is called by people and by mount(8) alike:
//
//   mount.exvol IMAGE_OR_DEVICE MOUNTPOINT [-o opt[,opt...]] [-f] [-d]
//
// mount(8) runs it as a helper for the types "exvol" and "fuse.exvol" with
// the same arguments, possibly adding -n, -s, -v and "-t TYPE", which are
// accepted and ignored. Options come in Linux spelling; see docs/FUSE.md
// for the list and their meaning.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "exvol/volume.h"

namespace exvol::fuse {

// How often a mounted volume's pending changes are written back unless
// commit= says otherwise: what a writer that keeps its file open (a
// recorder, a log) stands to lose when the device is pulled.
constexpr uint32_t kDefaultCommitSeconds = 5;

struct Config {
  std::string image;       // absolute path of the image file or device
  std::string mountpoint;  // absolute path of the directory to mount on
  bool foreground = false;  // -f: stay attached to the terminal
  bool debug = false;       // -d: log every FUSE request (implies -f)

  // What the library is told. options.mask is the directory mode, the most
  // any file reports; files narrow it further (file_mode).
  MountOptions volume;

  // The owner every file reports: exFAT records none.
  uid_t uid = 0;
  gid_t gid = 0;
  // Permission bits NOT reported for directories and for files.
  uint16_t dmask = 022;
  uint16_t fmask = 022;

  // Open every file with O_SYNC, so that each write reaches the device
  // before it is answered.
  bool sync_writes = false;
  // chmod and chown requests that exFAT can't record succeed silently
  // instead of failing with EPERM.
  bool quiet = false;
  // Let the kernel check access against the reported owner and modes.
  bool default_permissions = false;
  bool allow_other = false;
  // Permission bits that let a user other than the owner set explicit
  // times: 020 members of the group, 002 everyone. Default: ~dmask & 022.
  uint16_t allow_utime = 0;
  // The daemon checks every request against the reported owner and modes
  // (and allow_utime) instead of the kernel: for mounts that serve others
  // and give them more than the kernel's rules would (see access.h).
  bool check_access = false;

  // What to do once the driver finds damage or a metadata write fails
  // (errors=): go on, remount read-only, or unmount and exit.
  enum class OnErrors { kContinue, kRemountReadOnly, kPanic };
  OnErrors on_errors = OnErrors::kContinue;

  // The options handed to the kernel mount through libfuse, joined with
  // commas ("fsname=...,subtype=exvol,ro,..."), ready for "-o".
  std::string fuse_options;
};

// Outcome of parsing: either a Config or a message for the user.
struct ParseResult {
  bool ok = false;
  bool help = false;     // -h/--help: print usage and exit 0
  bool version = false;  // -V/--version
  std::string error;     // one line, without the program name
  Config config;
};

// Parses argv. `umask_now`, `uid_now` and `gid_now` are the caller's
// process mask and identity, the defaults of umask, uid and gid; when
// uid_now is 0 (root mounts), allow_other is on unless the options say
// "noallow_other"; with allow_other, either the kernel (default_permissions)
// or the daemon (check_access) checks permissions. Relative
// paths are made absolute against the working directory (the daemon leaves
// it); a path that does not exist is an error here already.
ParseResult parse_command_line(int argc, char** argv, mode_t umask_now, uid_t uid_now,
                               gid_t gid_now);

// The usage text, for -h and usage errors.
std::string usage_text();

// The permission bits a file or directory reports.
inline uint32_t dir_mode(const Config& c) { return 0777u & ~c.dmask; }
inline uint32_t file_mode(const Config& c) { return 0777u & ~c.fmask; }

}  // namespace exvol::fuse
