// Image addresses and the images a command has mounted.

#include "session.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "text.h"

namespace exvol::cli {

namespace {

bool names_image(const std::string& prefix) {
  struct stat st;
  return !prefix.empty() && ::stat(prefix.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

Address image_address(const std::string& image, const std::string& rest) {
  Address a;
  a.on_image = true;
  a.image = image;
  a.path = normalize_image_path(rest);
  a.trailing_slash = rest.size() > 1 && rest.back() == '/';
  return a;
}

}  // namespace

std::string Address::display() const {
  return on_image ? image + ":" + path : path;
}

Address parse_operand(const std::string& arg) {
  for (size_t colon = arg.find(':'); colon != std::string::npos; colon = arg.find(':', colon + 1)) {
    if (names_image(arg.substr(0, colon)))
      return image_address(arg.substr(0, colon), arg.substr(colon + 1));
  }
  Address host;
  host.path = arg;
  host.trailing_slash = arg.size() > 1 && arg.back() == '/';
  return host;
}

std::optional<Address> parse_image_operand(const std::string& arg) {
  Address a = parse_operand(arg);
  if (a.on_image)
    return a;
  size_t colon = arg.find(':');
  if (colon == std::string::npos || colon == 0)
    return std::nullopt;
  return image_address(arg.substr(0, colon), arg.substr(colon + 1));
}

std::string why_not_an_image(const std::string& operand) {
  size_t colon = operand.find(':');
  if (colon == std::string::npos || colon == 0)
    return "";
  std::string image = operand.substr(0, colon);
  std::string problem = image_path_problem(image);
  if (problem.empty())
    return "";
  return problem + " ('" + operand + "' names a path on the image " + image + ")";
}

std::string image_path_problem(const std::string& image) {
  struct stat st;
  if (::stat(image.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode))
      return image + ": is a directory; give an image file or a block device holding an "
                     "exFAT volume";
    return "";
  }
  if (errno != ENOENT)
    return image + ": " + strerror(errno);
  size_t colon = image.rfind(':');
  if (colon != std::string::npos && colon > 0 &&
      ::stat(image.substr(0, colon).c_str(), &st) == 0)
    return image + ": no such image; the image is '" + image.substr(0, colon) +
           "' (this command takes IMG, not IMG:PATH)";
  return image + ": no such image file; check the name, or create the volume first "
                 "(mkfs.exfat)";
}

int image_operands(const Reporter& reporter, const Args& args, std::vector<Address>* out) {
  if (args.operands.empty())
    return reporter.usage("missing operand");
  for (const std::string& operand : args.operands) {
    std::optional<Address> a = parse_image_operand(operand);
    if (!a)
      return reporter.usage(operand + ": not an image address (IMG:PATH)");
    out->push_back(*a);
  }
  return 0;
}

std::string normalize_image_path(const std::string& path) {
  std::string out = "/";
  for (char c : path) {
    if (c == '/' && out.back() == '/')
      continue;
    out += c;
  }
  if (out.size() > 1 && out.back() == '/')
    out.pop_back();
  return out;
}

std::string image_join(const std::string& dir, const std::string& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string image_dirname(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string image_basename(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  return base.empty() ? "/" : base;
}

Session::~Session() {
  // Volume's destructor unmounts, forcibly if it must: nothing is lost
  // when a command returns early without finish().
  mounted_.clear();
}

MountOptions Session::options(bool writable) const {
  MountOptions o;
  o.read_only = !writable || settings_.read_only;
  o.mask = settings_.mask;
  o.seconds_west = settings_.seconds_west.value_or(0);
  o.noatime = settings_.noatime;
  o.echo_kernel_log = false;
  return o;
}

Volume* Session::volume(const std::string& image, bool writable) {
  struct stat st;
  if (std::string problem = image_path_problem(image); !problem.empty()) {
    reporter_.error(problem);
    return nullptr;
  }
  if (::stat(image.c_str(), &st) != 0) {
    reporter_.error(image, std::error_code(errno, std::generic_category()));
    return nullptr;
  }
  for (Mounted& m : mounted_) {
    if (m.dev != st.st_dev || m.ino != st.st_ino)
      continue;
    if (!m.volume)
      return nullptr;  // the mount failed and was reported already
    if (writable && !m.writable && !settings_.read_only)
      return remount_writable(m);
    return m.volume.get();
  }
  Mounted m{st.st_dev, st.st_ino, image, writable, nullptr};
  std::string diagnostic;
  std::error_code ec = Volume::mount(image, options(writable), &m.volume, &diagnostic);
  if (ec) {
    report_mount_failure(reporter_, image, ec, diagnostic);
    m.volume.reset();
  } else {
    warn_if_unclean(reporter_.command(), image, *m.volume);
    if (options(writable).read_only)
      warn_if_truncated(reporter_, image, *m.volume);
  }
  mounted_.push_back(std::move(m));
  return mounted_.back().volume.get();
}

std::unique_ptr<Tree> Session::tree(const Address& address, bool writable) {
  if (!address.on_image)
    return host_tree();
  Volume* v = volume(address.image, writable);
  return v ? image_tree(v, address.image) : nullptr;
}

Volume* Session::remount_writable(Mounted& m) {
  std::string why;
  std::error_code ec = m.volume->update(options(true), false, &why);
  if (ec == std::errc::device_or_resource_busy && !why.empty()) {
    reporter_.error(why);
    return nullptr;
  }
  if (ec) {
    reporter_.error(m.image + ": cannot mount read-write: " + ec.message() +
                    (why.empty() ? "" : " (" + why + ")"));
    return nullptr;
  }
  m.writable = true;
  return m.volume.get();
}

// A sync first, on volumes that were written: unmount writes the caches
// and the clean mark but leaves percentInUse as the volume's last flush had
// it, and other systems show that figure. Both report a write that failed
// on the device at any time before; one message says so.
int Session::finish() {
  for (Mounted& m : mounted_) {
    if (!m.volume)
      continue;
    std::error_code ec = m.writable ? m.volume->sync(true) : std::error_code();
    std::error_code unmounted = m.volume->unmount();
    if (unmounted == std::errc::device_or_resource_busy)
      unmounted = m.volume->unmount(true);
    if (!ec)
      ec = unmounted;
    if (ec)
      reporter_.error(m.image + ": not everything could be written", ec);
  }
  mounted_.clear();
  return reporter_.status();
}

std::string mount_failure_text(const std::string& image, std::error_code ec,
                               const std::string& diagnostic) {
  // The diagnostic of a volume in use names the image and its holder; that
  // of a device without exFAT says what it holds instead.
  if (ec == std::errc::device_or_resource_busy && !diagnostic.empty())
    return diagnostic;
  if (ec.value() == EMEDIUMTYPE && !diagnostic.empty())
    return image + ": cannot mount: " + diagnostic;
  return image + ": cannot mount: " + ec.message() +
         (diagnostic.empty() ? "" : " (" + diagnostic + ")");
}

void report_mount_failure(Reporter& reporter, const std::string& image, std::error_code ec,
                          const std::string& diagnostic) {
  reporter.error(mount_failure_text(image, ec, diagnostic));
}

void warn_if_unclean(const std::string& command, const std::string& image, Volume& volume) {
  VolumeInfo info;
  if (volume.info(&info) || !info.dirty_at_mount)
    return;
  std::string message = image + ": the volume was not cleanly unmounted and may be damaged; "
                        "run 'exvol check " + image + "'";
  fprintf(stderr, "exvol: %s%swarning: %s\n", command.c_str(), command.empty() ? "" : ": ",
          message.c_str());
  openlog("exvol", 0, LOG_USER);
  syslog(LOG_WARNING, "%s", message.c_str());
  closelog();
}

void warn_if_truncated(Reporter& reporter, const std::string& image, Volume& volume) {
  VolumeInfo info;
  if (!volume.info(&info) && info.truncated())
    reporter.warn(image + ": the image holds " + human_size(info.device_bytes) + " of a " +
                  human_size(info.volume_bytes) + " volume; what lies beyond is missing");
}

}  // namespace exvol::cli
