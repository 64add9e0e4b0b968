// mount.exvol: the shared state of the FUSE operations: handles, the
// kernel's view of attributes, and the final unmount.

#include "fuse/daemon.h"

#include <sys/stat.h>

#include <vector>

#include "fuse/ops.h"

namespace exvol::fuse {

Daemon::Daemon(Config config, std::unique_ptr<Volume> volume)
    : config_(std::move(config)), volume_(std::move(volume)) {}

Daemon::~Daemon() {
  if (volume_ && volume_->mounted())
    shut_down();
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

std::error_code Daemon::close(std::unique_ptr<Handle> h) { return h->file.close(); }

std::error_code Daemon::shut_down() {
  // The kernel releases every file before the unmount completes, but a
  // daemon stopped by a signal, or a connection that was aborted, leaves
  // handles behind. Their Files must close first: an open file keeps the
  // volume busy and its pending directory entry unwritten.
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

fuse_entry_param Daemon::entry(NodeId node, const Stat& st) const {
  fuse_entry_param e{};
  e.ino = static_cast<fuse_ino_t>(node);
  e.generation = 0;  // ids are never reused while the daemon runs
  e.attr = to_kernel(node, st);
  e.attr_timeout = kAttrTimeout;
  e.entry_timeout = kEntryTimeout;
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
