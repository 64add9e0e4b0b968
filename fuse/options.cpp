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
  std::optional<uint16_t> umask, dmask, fmask, allow_utime;
  bool allow_other_set = false;  // allow_other or noallow_other given
  bool default_permissions_set = false;
};

// Above a day, a periodic write-back is no safer than none.
// (commit='s message below names the limit.)
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

// What one option changes.
struct Target {
  Config* c;
  Given* given;
  std::string* fsname;
};

// An option without a value. `apply` gets its name (for the ones passed
// on to the kernel).
struct FlagOption {
  const char* name;
  void (*apply)(Target&, const std::string& name);
};

void pass_to_kernel(Target& t, const std::string& name) {
  append_option(&t.c->fuse_options, name);
}
// Options that only mean something to mount(8) and /etc/fstab, which
// mount(8) may hand to a helper, and atime variants that mean "atime" here.
void ignore(Target&, const std::string&) {}

const FlagOption kFlagOptions[] = {
    {"ro", [](Target& t, const std::string&) { t.c->volume.read_only = true; }},
    {"rw", [](Target& t, const std::string&) { t.c->volume.read_only = false; }},
    {"noatime", [](Target& t, const std::string&) { t.c->volume.noatime = true; }},
    {"atime", [](Target& t, const std::string&) { t.c->volume.noatime = false; }},
    {"async",
     [](Target& t, const std::string&) {
       t.c->volume.async = true;
       t.c->sync_writes = false;
     }},
    {"sync",
     [](Target& t, const std::string&) {
       t.c->volume.async = false;
       t.c->sync_writes = true;
     }},
    {"allow_other",
     [](Target& t, const std::string&) {
       t.c->allow_other = true;
       t.given->allow_other_set = true;
     }},
    {"noallow_other",
     [](Target& t, const std::string&) {
       t.c->allow_other = false;
       t.given->allow_other_set = true;
     }},
    {"discard", [](Target& t, const std::string&) { t.c->volume.discard = true; }},
    {"nodiscard", [](Target& t, const std::string&) { t.c->volume.discard = false; }},
    // Timestamps in the machine's own time zone: the default, named.
    {"sys_tz", [](Target& t, const std::string&) { t.c->volume.seconds_west = local_seconds_west(); }},
    {"default_permissions",
     [](Target& t, const std::string&) {
       t.c->default_permissions = true;
       t.given->default_permissions_set = true;
     }},
    {"quiet", [](Target& t, const std::string&) { t.c->quiet = true; }},
    {"debug", [](Target& t, const std::string&) { t.c->debug = true; }},
    {"suid", pass_to_kernel}, {"nosuid", pass_to_kernel}, {"dev", pass_to_kernel},
    {"nodev", pass_to_kernel}, {"exec", pass_to_kernel}, {"noexec", pass_to_kernel},
    {"dirsync", pass_to_kernel}, {"auto_unmount", pass_to_kernel}, {"allow_root", pass_to_kernel},
    {"defaults", ignore}, {"auto", ignore}, {"noauto", ignore}, {"nofail", ignore},
    {"user", ignore}, {"nouser", ignore}, {"users", ignore}, {"owner", ignore},
    {"group", ignore}, {"_netdev", ignore}, {"loop", ignore}, {"relatime", ignore},
    {"norelatime", ignore}, {"strictatime", ignore}, {"nostrictatime", ignore},
    {"nodiratime", ignore}, {"diratime", ignore}, {"lazytime", ignore}, {"nolazytime", ignore},
};

// An option with a value. `apply` returns false for a bad value; the
// message then says what `wanted` (when not empty).
struct ValueOption {
  const char* name;
  const char* wanted;
  bool (*apply)(Target&, const std::string& value);
};

bool set_mask(const std::string& value, std::optional<uint16_t>* slot) {
  unsigned long u = 0;
  if (!parse_unsigned(value, 8, 0777, &u))
    return false;
  *slot = static_cast<uint16_t>(u);
  return true;
}

bool set_id(const std::string& value, uint32_t* id) {
  unsigned long u = 0;
  if (!parse_unsigned(value, 10, UINT32_MAX - 1, &u))
    return false;
  *id = static_cast<uint32_t>(u);
  return true;
}

const ValueOption kValueOptions[] = {
    {"uid", "a numeric user id",
     [](Target& t, const std::string& v) { return set_id(v, &t.c->uid); }},
    {"gid", "a numeric group id",
     [](Target& t, const std::string& v) { return set_id(v, &t.c->gid); }},
    {"umask", "an octal mask up to 0777",
     [](Target& t, const std::string& v) { return set_mask(v, &t.given->umask); }},
    {"dmask", "an octal mask up to 0777",
     [](Target& t, const std::string& v) { return set_mask(v, &t.given->dmask); }},
    {"fmask", "an octal mask up to 0777",
     [](Target& t, const std::string& v) { return set_mask(v, &t.given->fmask); }},
    {"allow_utime", "an octal mask up to 0777",
     [](Target& t, const std::string& v) { return set_mask(v, &t.given->allow_utime); }},
    // Minutes east of UTC, the offset of the local time the volume keeps.
    {"time_offset", "minutes east of UTC, -1440 to 1440",
     [](Target& t, const std::string& v) {
       long minutes = 0;
       if (!parse_signed(v, -24 * 60, 24 * 60, &minutes))
         return false;
       t.c->volume.seconds_west = static_cast<int32_t>(-minutes * 60);
       return true;
     }},
    {"commit", "seconds between write-backs, 0 to 86400; 0: none",
     [](Target& t, const std::string& v) {
       unsigned long seconds = 0;
       if (!parse_unsigned(v, 10, kMaxCommitSeconds, &seconds))
         return false;
       t.c->volume.sync_interval_ms = static_cast<uint32_t>(seconds * 1000);
       return true;
     }},
    {"tz", "only tz=UTC is known",
     [](Target& t, const std::string& v) {
       if (v != "UTC")
         return false;
       t.c->volume.seconds_west = 0;
       return true;
     }},
    {"fsname", "",
     [](Target& t, const std::string& v) {
       *t.fsname = v;
       return !v.empty();
     }},
    {"iocharset", "names are always UTF-8 on exvol mounts; use iocharset=utf8 or leave it out",
     [](Target&, const std::string& v) { return v == "utf8" || v == "utf-8"; }},
    {"errors", "continue, remount-ro or panic",
     [](Target& t, const std::string& v) {
       static const std::pair<const char*, Config::OnErrors> kPolicies[] = {
           {"continue", Config::OnErrors::kContinue},
           {"remount-ro", Config::OnErrors::kRemountReadOnly},
           {"panic", Config::OnErrors::kPanic}};
       for (const auto& [name, policy] : kPolicies) {
         if (v == name) {
           t.c->on_errors = policy;
           return true;
         }
       }
       return false;
     }},
    {"max_read", "",
     [](Target& t, const std::string& v) {
       unsigned long u = 0;
       if (!parse_unsigned(v, 10, UINT32_MAX, &u))
         return false;
       append_option(&t.c->fuse_options, "max_read=" + v);
       return true;
     }},
    // fstab bookkeeping for mount(8) and systemd.
    {"comment", "", [](Target&, const std::string&) { return true; }},
};

// Applies one "name" or "name=value" option. Returns "" or the message.
std::string apply_one(const std::string& option, Target& t) {
  size_t eq = option.find('=');
  std::string name = option.substr(0, eq);
  // x-systemd.automount and the like: for mount(8) and systemd.
  if (name.rfind("x-", 0) == 0)
    return "";
  for (const FlagOption& f : kFlagOptions) {
    if (name != f.name)
      continue;
    if (eq != std::string::npos)
      return "option '" + name + "' takes no value";
    f.apply(t, name);
    return "";
  }
  for (const ValueOption& o : kValueOptions) {
    if (name != o.name)
      continue;
    if (eq == std::string::npos)
      return "option '" + name + "' needs a value (" + name + "=...)";
    std::string value = option.substr(eq + 1);
    if (o.apply(t, value))
      return "";
    std::string message = "bad value for option '" + name + "': '" + value + "'";
    return *o.wanted ? message + " (" + o.wanted + ")" : message;
  }
  return "unknown option '" + name + "'";
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
  Target t{c, given, fsname};
  for (const std::string& option : split_list(list)) {
    if (option.empty())
      continue;
    std::string error = apply_one(option, t);
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
  // As with the kernel's FAT and exFAT drivers, directories anyone but the
  // owner may write let them set times too, unless allow_utime says.
  c.allow_utime = given.allow_utime.value_or(static_cast<uint16_t>(~c.dmask & 022));
  // A mount others may use must enforce the owner and modes it reports.
  // The kernel's checks (default_permissions) let only the owner set
  // explicit times and refuse before the daemon hears of it; so when
  // allow_utime lets others do that, the daemon checks everything itself
  // (fuse/access.h), unless default_permissions was asked for by name.
  if (c.allow_other) {
    c.check_access = (c.allow_utime & 022) != 0 && !given.default_permissions_set;
    c.default_permissions = !c.check_access;
  }

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
