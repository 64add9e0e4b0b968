// The commands that change names and attributes on an image: mkdir,
// rmdir, rm, ln, touch and attrib. Each mounts its images read-write and
// leaves them clean when it exits.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "cli.h"
#include "copy.h"
#include "session.h"
#include "text.h"

namespace exvol::cli {

namespace {

// mkdir -p: every missing directory on the way; existing ones are fine.
void make_parents(Reporter& reporter, Volume& volume, const Address& a) {
  std::string path;
  size_t start = 1;
  while (start <= a.path.size()) {
    size_t slash = a.path.find('/', start);
    if (slash == std::string::npos)
      slash = a.path.size();
    path = a.path.substr(0, slash);
    start = slash + 1;
    std::error_code ec = volume.mkdir(path);
    if (ec == std::errc::file_exists) {
      Stat st;
      ec = volume.stat(path, &st);
      if (!ec && st.type != FileType::Directory)
        ec = errno_code(ENOTDIR);
    }
    if (ec) {
      reporter.error(a.image + ":" + path, ec);
      return;
    }
  }
}

TimeChange both_times(const timespec& t) {
  TimeChange change;
  change.accessed = t;
  change.modified = t;
  return change;
}

}  // namespace

int mkdir_command(const std::vector<std::string>& raw) {
  return for_each_image_operand("mkdir", OptionTable{.flags = "p"}, true, raw,
                                [](Reporter& reporter, const Args& args, Volume& volume,
                                   const Address& a, size_t) {
    if (args.has('p'))
      make_parents(reporter, volume, a);
    else if (std::error_code ec = volume.mkdir(a.path))
      reporter.error(a.display(), ec);
    return true;
  });
}

int rmdir_command(const std::vector<std::string>& raw) {
  return for_each_image_operand("rmdir", OptionTable{}, true, raw,
                                [](Reporter& reporter, const Args&, Volume& volume,
                                   const Address& a, size_t) {
    if (std::error_code ec = volume.rmdir(a.path))
      reporter.error(a.display(), ec);
    return true;
  });
}

int rm_command(const std::vector<std::string>& raw) {
  return for_each_image_operand("rm", OptionTable{.flags = "rRf"}, true, raw,
                                [](Reporter& reporter, const Args& args, Volume& volume,
                                   const Address& a, size_t) {
    const bool force = args.has('f');
    if (a.path == "/") {
      reporter.error(a.display() + ": cannot remove the root directory");
      return true;
    }
    Stat st;
    if (std::error_code ec = volume.lstat(a.path, &st)) {
      if (!(force && ec == std::errc::no_such_file_or_directory))
        reporter.error(a.display(), ec);
      return true;
    }
    // "file/" names a directory, as for rm(1): a file or a link to one
    // there is ENOTDIR.
    Stat target;
    if (a.trailing_slash && st.type != FileType::Directory &&
        (volume.stat(a.path, &target) || target.type != FileType::Directory)) {
      reporter.error(a.display() + "/", errno_code(ENOTDIR));
      return true;
    }
    if (st.type == FileType::Directory && !args.has('r') && !args.has('R')) {
      reporter.error(a.display(), errno_code(EISDIR));
      return true;
    }
    std::unique_ptr<Tree> tree = image_tree(&volume, a.image);
    remove_tree(reporter, *tree, a.path, force);
    return !interrupted();
  });
}

int touch_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("touch");
  Args probe;
  int status;
  if (!parse_args(info, OptionTable{.flags = "c", .valued = "d"}, raw, &probe, &status))
    return status;
  std::optional<timespec> when;
  if (probe.values.count('d') && !(when = parse_time(probe.values['d'])))
    return Reporter("touch").usage("bad date " + probe.values['d']);
  return for_each_image_operand("touch", OptionTable{.flags = "c", .valued = "d"}, true, raw,
                                [when](Reporter& reporter, const Args& args, Volume& volume,
                                       const Address& a, size_t) {
    Stat st;
    std::error_code ec = volume.stat(a.path, &st);
    if (ec == std::errc::no_such_file_or_directory) {
      if (args.has('c'))
        return true;
      File file;
      ec = volume.open(a.path, O_WRONLY | O_CREAT, &file);
      if (!ec)
        ec = file.close();
      if (!ec && when)
        ec = volume.utimes(a.path, both_times(*when));
    } else if (!ec) {
      timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      ec = volume.utimes(a.path, both_times(when.value_or(now)));
    }
    if (ec)
      reporter.error(a.display(), ec);
    return true;
  });
}

namespace {

// The symbolic link's path: inside `at` when `at` is a directory, under
// the target's last component, as ln does.
std::string link_path(Volume& volume, const Address& at, const std::string& target) {
  Stat st;
  if (volume.stat(at.path, &st) || st.type != FileType::Directory)
    return at.path;
  std::string base = copy_basename(target);
  return base.empty() ? at.path : image_join(at.path, base);
}

}  // namespace

int ln_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("ln");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "sf"}, raw, &args, &status))
    return status;
  Reporter reporter("ln");
  if (!args.has('s'))
    return reporter.usage("exFAT has no hard links; use -s for a symbolic link");
  if (args.operands.size() != 2)
    return reporter.usage("need TARGET and IMG:PATH");
  std::optional<Address> at = parse_image_operand(args.operands[1]);
  if (!at)
    return reporter.usage(args.operands[1] + ": not an image address (IMG:PATH)");
  Session session(reporter, args.mount);
  if (Volume* volume = session.volume(at->image, true)) {
    const std::string& target = args.operands[0];
    std::string path = link_path(*volume, *at, target);
    Stat st;
    if (args.has('f') && !volume->lstat(path, &st) && st.type != FileType::Directory)
      volume->unlink(path);
    if (std::error_code ec = volume->symlink(target, path))
      reporter.error(at->image + ":" + path, ec);
  }
  return session.finish();
}

namespace {

// attrib's changes, from operands such as "+r", "-h", "+ha".
struct AttributeChange {
  uint32_t set = 0;    // flags to set
  uint32_t clear = 0;  // flags to clear
  bool any() const { return set || clear; }
};

bool is_change(const std::string& arg) {
  return arg.size() >= 2 && (arg[0] == '+' || arg[0] == '-') &&
         arg.find_first_not_of("rha", 1) == std::string::npos;
}

// Archive is the absence of kFlagArchived: "+a" clears the flag.
void add_change(const std::string& arg, AttributeChange* change) {
  bool plus = arg[0] == '+';
  for (size_t i = 1; i < arg.size(); i++) {
    uint32_t flag = arg[i] == 'r' ? kFlagImmutable : arg[i] == 'h' ? kFlagHidden : kFlagArchived;
    bool set = arg[i] == 'a' ? !plus : plus;
    (set ? change->set : change->clear) |= flag;
    (set ? change->clear : change->set) &= ~flag;
  }
}

void apply_change(Reporter& reporter, Volume& volume, const Address& a,
                  const AttributeChange& change) {
  Stat st;
  if (std::error_code ec = volume.lstat(a.path, &st)) {
    reporter.error(a.display(), ec);
    return;
  }
  if (!change.any()) {
    printf("%s  %s\n", attribute_letters(st).c_str(), a.display().c_str());
    return;
  }
  const uint32_t file_only = kFlagImmutable | kFlagArchived;
  if (st.type == FileType::Directory && ((change.set | change.clear) & file_only)) {
    reporter.error(a.display() + ": a directory has only the hidden attribute");
    return;
  }
  uint32_t flags = (st.flags & ~change.clear) | change.set;
  if (flags == st.flags)
    return;
  if (std::error_code ec = volume.chflags(a.path, flags, false))
    reporter.error(a.display(), ec);
}

}  // namespace

int attrib_command(const std::vector<std::string>& raw) {
  AttributeChange change;
  std::vector<std::string> rest;
  for (const std::string& arg : raw) {
    if (is_change(arg))
      add_change(arg, &change);
    else
      rest.push_back(arg);
  }
  return for_each_image_operand("attrib", OptionTable{}, change.any(), rest,
                                [change](Reporter& reporter, const Args&, Volume& volume,
                                         const Address& a, size_t) {
    apply_change(reporter, volume, a, change);
    return true;
  });
}

}  // namespace exvol::cli
