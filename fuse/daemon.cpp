// mount.exvol: the shared state of the FUSE operations: handles, the
// kernel's view of attributes, and the final unmount.

#include "fuse/daemon.h"

#include <sys/stat.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "fuse/ops.h"

namespace exvol::fuse {

Daemon::Daemon(Config config, std::unique_ptr<Volume> volume)
    : config_(std::move(config)), volume_(std::move(volume)) {}

Daemon::~Daemon() {
  if (volume_ && volume_->mounted())
    shut_down();
}

namespace {

// What the kernel reads ahead of a sequential reader of this mount, when
// the daemon may set it (root). The kernel reads a FUSE mount's files
// ahead by 128 KiB by default, and in requests no larger than that window.
constexpr unsigned kReadAheadKiB = 8192;

// The connection's device ("0:53") as the mount table has it for `dir`.
std::string mount_device(const std::string& dir) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line, id, parent, devno, root, point;
  while (std::getline(f, line)) {
    std::istringstream(line) >> id >> parent >> devno >> root >> point;
    if (point == dir)
      return devno;
  }
  return "";
}

// The mount's read-ahead setting; "" where the daemon can't set it.
std::string read_ahead_file(const std::string& mountpoint) {
  if (geteuid() != 0)
    return "";
  char* real = realpath(mountpoint.c_str(), nullptr);
  std::string dev = mount_device(real != nullptr ? real : mountpoint);
  free(real);
  return dev.empty() ? "" : "/sys/class/bdi/" + dev + "/read_ahead_kb";
}

// Case folded and composed: equal for spellings the volume takes as one
// name (for its standard up-case table).
std::string folded(const std::string& name) {
  utf8proc_uint8_t* out = nullptr;
  utf8proc_ssize_t n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                    static_cast<utf8proc_ssize_t>(name.size()), &out,
                                    static_cast<utf8proc_option_t>(UTF8PROC_STABLE |
                                                                   UTF8PROC_COMPOSE |
                                                                   UTF8PROC_CASEFOLD));
  std::string result = n >= 0 ? std::string(reinterpret_cast<char*>(out), static_cast<size_t>(n))
                              : name;
  free(out);
  return result;
}

}  // namespace

void Daemon::mounted(fuse_session* se) {
  se_ = se;
  invalidator_.start(se);
  read_ahead_file_ = read_ahead_file(config_.mountpoint);
}

// The kernel lowers the mount's read-ahead to what the init reply offers
// (at most its default), so it is raised after that, at the first request
// that can lead to a read. Without sysfs the default stays.
void Daemon::initialized() {
  std::call_once(read_ahead_once_, [&] {
    if (read_ahead_file_.empty())
      return;
    if (FILE* f = fopen(read_ahead_file_.c_str(), "w")) {
      fprintf(f, "%u\n", kReadAheadKiB);
      fclose(f);
    }
  });
}

// Decision: the directory is listed in full. This runs only for a name a
// lookup handed out of late, just before it is removed or renamed away,
// and a listing is what can tell the stored spelling.
std::vector<std::string> Daemon::other_spellings(NodeId dir, const std::string& name) {
  std::vector<std::string> found = spellings_.recent(dir, name);
  if (found.empty())
    return found;
  std::erase(found, name);
  File listing;
  if (volume_->open(dir, O_RDONLY | O_DIRECTORY, &listing))
    return found;
  std::string want = folded(name);
  listing.readdir(0, [&](const DirEntry& e) {
    if (e.name != name && e.name != "." && e.name != ".." && folded(e.name) == want &&
        std::find(found.begin(), found.end(), e.name) == found.end())
      found.push_back(e.name);
    return true;
  });
  listing.close();
  return found;
}

std::string Spellings::key(NodeId parent, const std::string& name) {
  std::string k = std::to_string(static_cast<uint64_t>(parent));
  k += '/';
  k += folded(name);
  return k;
}

void Spellings::prune(Clock::time_point now) {
  if (now - pruned_ < kRemembered)
    return;
  pruned_ = now;
  for (auto it = recent_.begin(); it != recent_.end();)
    it = now - it->second.when > kRemembered ? recent_.erase(it) : std::next(it);
}

void Spellings::looked_up(NodeId parent, const std::string& name) {
  std::string k = key(parent, name);
  Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> guard(lock_);
  Seen& seen = recent_[k];
  seen.when = now;
  if (std::find(seen.spellings.begin(), seen.spellings.end(), name) == seen.spellings.end())
    seen.spellings.push_back(name);
  prune(now);
}

std::vector<std::string> Spellings::recent(NodeId parent, const std::string& name) {
  {
    // Most removals follow no lookup (`rm -rf` names what a listing
    // returned): they skip the folding.
    std::lock_guard<std::mutex> guard(lock_);
    if (recent_.empty())
      return {};
  }
  std::string k = key(parent, name);
  Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> guard(lock_);
  prune(now);
  auto it = recent_.find(k);
  return it != recent_.end() ? it->second.spellings : std::vector<std::string>{};
}

void Invalidator::start(fuse_session* se) {
  se_ = se;
  thread_ = std::thread([this] { run(); });
}

void Invalidator::stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void Invalidator::drop(NodeId parent, std::vector<std::string> names) {
  if (names.empty())
    return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (stopping_ || se_ == nullptr)
      return;
    for (std::string& n : names)
      queue_.emplace_back(parent, std::move(n));
  }
  wake_.notify_one();
}

// An entry the kernel no longer has answers ENOENT, which is fine.
void Invalidator::run() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    wake_.wait(guard, [&] { return stopping_ || !queue_.empty(); });
    if (queue_.empty())
      return;
    auto [parent, name] = std::move(queue_.front());
    queue_.pop_front();
    guard.unlock();
    fuse_lowlevel_notify_inval_entry(se_, static_cast<fuse_ino_t>(parent), name.c_str(),
                                     name.size());
    guard.lock();
  }
}

uint64_t Daemon::add_handle(std::unique_ptr<Handle> handle) {
  Handle* raw = handle.release();
  std::lock_guard<std::mutex> guard(handles_lock_);
  handles_.insert(raw);
  return reinterpret_cast<uint64_t>(raw);
}

std::error_code Daemon::close_handle(uint64_t fh) {
  Handle* raw = reinterpret_cast<Handle*>(fh);
  {
    std::lock_guard<std::mutex> guard(handles_lock_);
    handles_.erase(raw);
  }
  return close(std::unique_ptr<Handle>(raw));
}

std::error_code Daemon::close(std::unique_ptr<Handle> h) {
  std::error_code ec = h->file.close();
  if (h->ever_written.load() || h->ever_read.load())
    drop_attrs(h->node);
  return ec;
}

void Daemon::drop_attrs(NodeId node) {
  if (se_ != nullptr)
    fuse_lowlevel_notify_inval_inode(se_, static_cast<fuse_ino_t>(node), -1, 0);
}

std::error_code Daemon::shut_down() {
  // The kernel releases every file before the unmount completes, but a
  // daemon stopped by a signal, or a connection that was aborted, leaves
  // handles behind. Their Files must close first: an open file keeps the
  // volume busy and its pending directory entry unwritten. The session
  // has ended: nothing more is sent to the kernel.
  invalidator_.stop();
  se_ = nullptr;
  std::vector<Handle*> left;
  {
    std::lock_guard<std::mutex> guard(handles_lock_);
    left.assign(handles_.begin(), handles_.end());
    handles_.clear();
  }
  for (Handle* h : left)
    close(std::unique_ptr<Handle>(h));
  std::error_code ec = volume_->unmount(false);
  if (ec == std::errc::device_or_resource_busy)
    ec = volume_->unmount(true);
  return ec;
}

struct stat Daemon::to_kernel(NodeId node, const Stat& st) const {
  struct stat out {};
  out.st_ino = static_cast<ino_t>(node);
  out.st_nlink = st.nlink;  // 0 for a removed file still open
  out.st_uid = config_.uid;
  out.st_gid = config_.gid;
  out.st_size = static_cast<off_t>(st.size);
  out.st_blocks = static_cast<blkcnt_t>((st.allocated + 511) / 512);
  out.st_blksize = st.io_size != 0 ? static_cast<blksize_t>(st.io_size) : 4096;
  out.st_atim = st.accessed;
  out.st_mtim = st.modified;
  out.st_ctim = st.changed;
  switch (st.type) {
    case FileType::Directory:
      out.st_mode = S_IFDIR | dir_mode(config_);
      break;
    case FileType::Symlink:
      out.st_mode = S_IFLNK | 0777;
      break;
    default:
      // A ReadOnly file shows no write bits, which is also how chmod sets
      // the attribute (see setattr).
      out.st_mode = S_IFREG | file_mode(config_);
      if (st.flags & kFlagImmutable)
        out.st_mode &= ~static_cast<mode_t>(0222);
      break;
  }
  return out;
}

fuse_entry_param Daemon::entry(NodeId node, const Stat& st, bool looked_up) {
  fuse_entry_param e{};
  e.ino = static_cast<fuse_ino_t>(node);
  e.generation = 0;  // ids are never reused while the daemon runs
  e.attr = to_kernel(node, st);
  e.attr_timeout = kAttrTimeout;
  e.entry_timeout = looked_up ? kLookupEntryTimeout : kEntryTimeout;
  return e;
}

const fuse_lowlevel_ops& operations() {
  static const fuse_lowlevel_ops ops = [] {
    fuse_lowlevel_ops o{};
    o.init = op_init;
    o.lookup = op_lookup;
    o.forget = op_forget;
    o.forget_multi = op_forget_multi;
    o.getattr = op_getattr;
    o.setattr = op_setattr;
    o.readlink = op_readlink;
    o.mknod = op_mknod;
    o.mkdir = op_mkdir;
    o.unlink = op_unlink;
    o.rmdir = op_rmdir;
    o.symlink = op_symlink;
    o.rename = op_rename;
    o.link = op_link;
    o.open = op_open;
    o.read = op_read;
    o.write = op_write;
    o.flush = op_flush;
    o.release = op_release;
    o.fsync = op_fsync;
    o.opendir = op_opendir;
    o.readdir = op_readdir;
    o.releasedir = op_releasedir;
    o.fsyncdir = op_fsyncdir;
    o.statfs = op_statfs;
    o.access = op_access;
    o.create = op_create;
    o.readdirplus = op_readdirplus;
    return o;
  }();
  return ops;
}

}  // namespace exvol::fuse
