// mount.exvol: parsing the command line and the -o option lists into a
// Config. Nothing here touches the volume or the kernel, except that the
// two paths must exist.

#include "fuse/options.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>

namespace exvol::fuse {

namespace {

// What the lists said about options whose defaults depend on others: unset
// masks fall back to umask, then to the process's umask; allow_other unset
// follows who mounts.
struct Given {
  std::optional<uint16_t> umask, dmask, fmask;
  bool allow_other_set = false;  // allow_other or noallow_other given
};

// Options that only mean something to mount(8) and /etc/fstab, which
// mount(8) may hand to a helper; they change nothing here.
bool is_userspace_only(const std::string& name) {
  static const char* const kNames[] = {"defaults", "auto",   "noauto", "nofail", "user",
                                       "nouser",   "users",  "owner",  "group",  "_netdev",
                                       "loop",     "relatime", "norelatime",
                                       "strictatime", "nostrictatime", "nodiratime", "diratime",
                                       "lazytime", "nolazytime"};
  for (const char* n : kNames) {
    if (name == n)
      return true;
  }
  return name.rfind("x-", 0) == 0;
}

// Kernel mount flags handed on to the FUSE mount as they are.
bool is_kernel_flag(const std::string& name) {
  static const char* const kNames[] = {"suid",   "nosuid", "dev",     "nodev",
                                       "exec",   "noexec", "dirsync", "auto_unmount",
                                       "allow_root"};
  for (const char* n : kNames) {
    if (name == n)
      return true;
  }
  return false;
}

// Above a day, a periodic write-back is no safer than none.
constexpr unsigned long kMaxCommitSeconds = 86400;

bool parse_unsigned(const std::string& text, int base, unsigned long max, unsigned long* out) {
  if (text.empty() || text[0] == '-' || text[0] == '+')
    return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(text.c_str(), &end, base);
  if (errno != 0 || *end != '\0' || v > max)
    return false;
  *out = v;
  return true;
}

bool parse_signed(const std::string& text, long min, long max, long* out) {
  if (text.empty())
    return false;
  errno = 0;
  char* end = nullptr;
  long v = strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max)
    return false;
  *out = v;
  return true;
}

// libfuse splits its option lists at commas unless they are escaped.
std::string escape_fuse_value(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == ',' || c == '\\')
      out += '\\';
    out += c;
  }
  return out;
}

void append_option(std::string* list, const std::string& option) {
  if (!list->empty())
    *list += ',';
  *list += option;
}

// The local time zone's offset west of UTC now, the default for volumes
// written by machines that keep local time.
int32_t local_seconds_west() {
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr)
    return 0;
  return static_cast<int32_t>(-local.tm_gmtoff);
}

// Applies one "name" or "name=value" option. Returns "" or the message.
std::string apply_one(const std::string& option, Config* c, Given* given,
                      std::string* fsname) {
  size_t eq = option.find('=');
  std::string name = option.substr(0, eq);
  bool has_value = eq != std::string::npos;
  std::string value = has_value ? option.substr(eq + 1) : "";
  unsigned long u = 0;
  long s = 0;

  auto bad_value = [&] { return "bad value for option '" + name + "': '" + value + "'"; };
  auto mask_option = [&](std::optional<uint16_t>* slot) -> std::string {
    if (!parse_unsigned(value, 8, 0777, &u))
      return bad_value() + " (an octal mask up to 0777)";
    *slot = static_cast<uint16_t>(u);
    return "";
  };

  if (!has_value) {
    if (name == "ro") {
      c->volume.read_only = true;
    } else if (name == "rw") {
      c->volume.read_only = false;
    } else if (name == "noatime") {
      c->volume.noatime = true;
    } else if (name == "atime") {
      c->volume.noatime = false;
    } else if (name == "async") {
      c->volume.async = true;
      c->sync_writes = false;
    } else if (name == "sync") {
      c->volume.async = false;
      c->sync_writes = true;
    } else if (name == "allow_other") {
      c->allow_other = true;
      given->allow_other_set = true;
    } else if (name == "noallow_other") {
      c->allow_other = false;
      given->allow_other_set = true;
    } else if (name == "discard") {
      c->volume.discard = true;
    } else if (name == "nodiscard") {
      c->volume.discard = false;
    } else if (name == "sys_tz") {
      // Timestamps in the machine's own time zone: the default, named.
      c->volume.seconds_west = local_seconds_west();
    } else if (name == "default_permissions") {
      c->default_permissions = true;
    } else if (name == "quiet") {
      c->quiet = true;
    } else if (name == "debug") {
      c->debug = true;
    } else if (is_kernel_flag(name)) {
      append_option(&c->fuse_options, name);
    } else if (!is_userspace_only(name)) {
      return "unknown option '" + name + "'";
    }
    return "";
  }

  if (name == "uid") {
    if (!parse_unsigned(value, 10, UINT32_MAX - 1, &u))
      return bad_value() + " (a numeric user id)";
    c->uid = static_cast<uid_t>(u);
  } else if (name == "gid") {
    if (!parse_unsigned(value, 10, UINT32_MAX - 1, &u))
      return bad_value() + " (a numeric group id)";
    c->gid = static_cast<gid_t>(u);
  } else if (name == "umask") {
    return mask_option(&given->umask);
  } else if (name == "dmask") {
    return mask_option(&given->dmask);
  } else if (name == "fmask") {
    return mask_option(&given->fmask);
  } else if (name == "time_offset") {
    // Minutes east of UTC, the offset of the local time the volume keeps.
    if (!parse_signed(value, -24 * 60, 24 * 60, &s))
      return bad_value() + " (minutes east of UTC, -1440 to 1440)";
    c->volume.seconds_west = static_cast<int32_t>(-s * 60);
  } else if (name == "commit") {
    if (!parse_unsigned(value, 10, kMaxCommitSeconds, &u))
      return bad_value() + " (seconds between write-backs, 0 to " +
             std::to_string(kMaxCommitSeconds) + "; 0: none)";
    c->volume.sync_interval_ms = static_cast<uint32_t>(u * 1000);
  } else if (name == "tz") {
    if (value != "UTC")
      return bad_value() + " (only tz=UTC is known)";
    c->volume.seconds_west = 0;
  } else if (name == "fsname") {
    if (value.empty())
      return bad_value();
    *fsname = value;
  } else if (name == "iocharset") {
    if (value != "utf8" && value != "utf-8")
      return bad_value() +
             " (names are always UTF-8 on exvol mounts; use iocharset=utf8 or leave it out)";
  } else if (name == "allow_utime") {
    // Accepted for fstab lines written for the kernel driver. Through FUSE
    // the kernel itself decides who may change times (default_permissions:
    // the owner any time, whoever may write the file "now"); a daemon can't
    // widen that, so the mask is checked and kept for nothing else.
    std::optional<uint16_t> ignored;
    return mask_option(&ignored);
  } else if (name == "errors") {
    if (value == "continue")
      c->on_errors = Config::OnErrors::kContinue;
    else if (value == "remount-ro")
      c->on_errors = Config::OnErrors::kRemountReadOnly;
    else if (value == "panic")
      c->on_errors = Config::OnErrors::kPanic;
    else
      return bad_value() + " (continue, remount-ro or panic)";
  } else if (name == "max_read") {
    if (!parse_unsigned(value, 10, UINT32_MAX, &u))
      return bad_value();
    append_option(&c->fuse_options, option);
  } else if (name == "comment" || name.rfind("x-", 0) == 0) {
    // fstab bookkeeping for mount(8) and systemd.
  } else {
    return "unknown option '" + name + "'";
  }
  return "";
}

// Splits a -o list at commas that are not escaped with a backslash.
std::vector<std::string> split_list(const std::string& list) {
  std::vector<std::string> out;
  std::string cur;
  for (size_t i = 0; i < list.size(); i++) {
    if (list[i] == '\\' && i + 1 < list.size()) {
      cur += list[++i];
    } else if (list[i] == ',') {
      out.push_back(cur);
      cur.clear();
    } else {
      cur += list[i];
    }
  }
  out.push_back(cur);
  return out;
}

std::string apply_list(const std::string& list, Config* c, Given* given, std::string* fsname) {
  for (const std::string& option : split_list(list)) {
    if (option.empty())
      continue;
    std::string error = apply_one(option, c, given, fsname);
    if (!error.empty())
      return error;
  }
  return "";
}

// Makes `path` absolute and checks that it names something of the right
// kind. Returns "" or the message.
std::string resolve_path(const std::string& path, bool want_dir, std::string* out) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr)
    return path + ": " + strerror(errno);
  struct stat st;
  if (stat(resolved, &st) != 0)
    return path + ": " + strerror(errno);
  if (want_dir && !S_ISDIR(st.st_mode))
    return path + ": not a directory";
  if (!want_dir && !S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
    return path + ": not a regular file or block device";
  *out = resolved;
  return "";
}

// The kernel's part of the options, once everything is known.
void finish_fuse_options(Config* c, const std::string& fsname) {
  std::string list = "subtype=exvol,fsname=" + escape_fuse_value(fsname);
  append_option(&list, c->volume.read_only ? "ro" : "rw");
  if (c->volume.noatime)
    append_option(&list, "noatime");
  if (c->allow_other)
    append_option(&list, "allow_other");
  if (c->default_permissions)
    append_option(&list, "default_permissions");
  if (!c->fuse_options.empty())
    append_option(&list, c->fuse_options);
  c->fuse_options = list;
}

}  // namespace

std::string usage_text() {
  return "usage: mount.exvol IMAGE_OR_DEVICE MOUNTPOINT [-o option[,option...]] [-f] [-d]\n"
         "  -f  stay in the foreground        -d  log every request (implies -f)\n"
         "options: ro rw uid=N gid=N umask=M dmask=M fmask=M noatime atime sync async\n"
         "         commit=SECONDS allow_other default_permissions quiet fsname=NAME\n"
         "         time_offset=MINUTES tz=UTC sys_tz iocharset=utf8 discard\n"
         "         errors=continue|remount-ro|panic allow_utime=M noallow_other\n"
         "         suid nosuid dev nodev exec noexec dirsync auto_unmount max_read=N\n";
}

ParseResult parse_command_line(int argc, char** argv, mode_t umask_now, uid_t uid_now,
                               gid_t gid_now) {
  ParseResult r;
  Config& c = r.config;
  c.uid = uid_now;
  c.gid = gid_now;
  c.volume.seconds_west = local_seconds_west();
  c.volume.sync_interval_ms = kDefaultCommitSeconds * 1000;
  std::string lists;
  std::vector<std::string> positional;

  for (int i = 1; i < argc; i++) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      r.help = true;
      return r;
    }
    if (arg == "-V" || arg == "--version") {
      r.version = true;
      return r;
    }
    if (arg == "-o" || arg == "-t") {
      if (i + 1 >= argc) {
        r.error = "option " + arg + " needs an argument";
        return r;
      }
      // -t names the type mount(8) was asked for: exvol or fuse.exvol.
      if (arg == "-o")
        lists += std::string(lists.empty() ? "" : ",") + argv[i + 1];
      i++;
    } else if (arg.rfind("-o", 0) == 0) {
      lists += std::string(lists.empty() ? "" : ",") + arg.substr(2);
    } else if (arg == "-f") {
      c.foreground = true;
    } else if (arg == "-d") {
      c.debug = true;
    } else if (arg == "-n" || arg == "-s" || arg == "-v") {
      // mount(8)'s helper flags: no mtab, sloppy, verbose.
    } else if (arg.size() > 1 && arg[0] == '-') {
      r.error = "unknown argument '" + arg + "'";
      return r;
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() != 2) {
    r.error = positional.size() < 2 ? "an image and a mount point are needed"
                                    : "unexpected argument '" + positional[2] + "'";
    return r;
  }

  Given given;
  std::string fsname;
  if (std::string error = apply_list(lists, &c, &given, &fsname); !error.empty()) {
    r.error = error;
    return r;
  }
  uint16_t base = static_cast<uint16_t>(umask_now & 0777);
  uint16_t um = given.umask.value_or(base);
  c.dmask = given.dmask.value_or(um);
  c.fmask = given.fmask.value_or(um);
  c.volume.mask = static_cast<uint16_t>(dir_mode(c));
  if (c.debug)
    c.foreground = true;
  // Root mounts from fstab name the user the files belong to (uid=1000);
  // like the kernel's own file systems, they serve everyone the modes
  // allow, not only root.
  if (uid_now == 0 && !given.allow_other_set)
    c.allow_other = true;
  // A mount others may use must enforce the owner and modes it reports.
  if (c.allow_other)
    c.default_permissions = true;

  if (std::string error = resolve_path(positional[0], false, &c.image); !error.empty()) {
    r.error = error;
    return r;
  }
  if (std::string error = resolve_path(positional[1], true, &c.mountpoint); !error.empty()) {
    r.error = error;
    return r;
  }
  finish_fuse_options(&c, fsname.empty() ? c.image : fsname);
  r.ok = true;
  return r;
}

}  // namespace exvol::fuse
