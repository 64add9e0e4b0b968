// mount.exvol: the FUSE operations on names and attributes.
//
// Every node reference the library hands out (lookup, mkdir, symlink,
// create through mknod) is passed to the kernel with the reply, and comes
// back through forget; see daemon.h.

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "fuse/access.h"
#include "fuse/ops.h"

namespace exvol::fuse {

namespace {

// The largest write request: the kernel splits sequential writes into
// requests of this size, so a large copy costs few round trips.
constexpr unsigned kMaxWrite = 1u << 20;

std::error_code errno_code(int error) { return std::error_code(error, std::generic_category()); }

timespec now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts;
}

// chmod. exFAT keeps no permissions, only a ReadOnly attribute on files.
// The mode asked for is first narrowed by the mount's mask; then its read
// and execute bits must be the ones every file shows, and its write bits
// either all of the ones shown (ReadOnly is cleared) or none (ReadOnly is
// set; files only). Anything else can't be kept and fails with EPERM,
// unless the mount is "quiet", which accepts it and keeps only the
// ReadOnly part. Symbolic links have no mode of their own.
std::error_code change_mode(Daemon& d, NodeId node, mode_t mode) {
  Stat st;
  if (std::error_code ec = d.volume().getattr(node, &st))
    return ec;
  if (st.type == FileType::Symlink)
    return {};
  const Config& c = d.config();
  bool dir = st.type == FileType::Directory;
  uint32_t shown = dir ? dir_mode(c) : file_mode(c);
  uint32_t perm = mode & shown;
  bool can_hold_ro = !dir && (shown & 0222) != 0;
  bool read_exec_kept = (perm & 0555) == (shown & 0555);
  bool all_write = (perm & 0222) == (shown & 0222);
  bool no_write = (perm & 0222) == 0;
  if (!c.quiet && !(read_exec_kept && (all_write || (no_write && can_hold_ro))))
    return errno_code(EPERM);
  if (!can_hold_ro)
    return {};
  bool is_ro = (st.flags & kFlagImmutable) != 0;
  if (no_write == is_ro)
    return {};
  return d.volume().chflags(node, st.flags ^ kFlagImmutable);
}

// chown: every file has the mount's owner and group; asking for those is
// a no-op, anything else can't be kept.
std::error_code check_owner(const Config& c, const struct stat* attr, int to_set) {
  bool other_uid = (to_set & FUSE_SET_ATTR_UID) && attr->st_uid != c.uid;
  bool other_gid = (to_set & FUSE_SET_ATTR_GID) && attr->st_gid != c.gid;
  if ((other_uid || other_gid) && !c.quiet)
    return errno_code(EPERM);
  return {};
}

std::error_code change_size(Daemon& d, NodeId node, off_t size, fuse_file_info* fi) {
  // ftruncate comes with the handle; a handle open for writing truncates
  // through the open file, as the descriptor would.
  if (fi != nullptr && fi->fh != 0) {
    Handle& h = Daemon::handle(fi->fh);
    if (!h.directory && (h.file.flags() & O_ACCMODE) != O_RDONLY) {
      h.written.store(true);
      h.ever_written.store(true);
      return h.file.truncate(size);
    }
  }
  return d.volume().truncate(node, size);
}

// The library keeps times set over a modification stamp still pending (a
// file's writes, a new directory's first cluster), so they go straight to
// it, with or without a handle.
std::error_code change_times(Daemon& d, NodeId node, const struct stat* attr, int to_set) {
  TimeChange tc;
  if (to_set & FUSE_SET_ATTR_ATIME_NOW)
    tc.accessed = now();
  else if (to_set & FUSE_SET_ATTR_ATIME)
    tc.accessed = attr->st_atim;
  if (to_set & FUSE_SET_ATTR_MTIME_NOW)
    tc.modified = now();
  else if (to_set & FUSE_SET_ATTR_MTIME)
    tc.modified = attr->st_mtim;
  if (!tc.accessed && !tc.modified)
    return {};
  return d.volume().utimes(node, tc);
}

}  // namespace

void reply_error(fuse_req_t req, std::error_code ec) {
  int error = ec.value();
  if (error <= 0 || error >= 4096)
    error = EIO;
  fuse_reply_err(req, error);
}

void reply_entry(fuse_req_t req, NodeId node, const Stat& st) {
  Daemon& d = daemon_of(req);
  fuse_entry_param e = d.entry(node, st);
  if (fuse_reply_entry(req, &e) != 0)
    d.volume().unref(node, 1);
}

void reply_attr(fuse_req_t req, NodeId node) {
  Daemon& d = daemon_of(req);
  Stat st;
  if (std::error_code ec = d.volume().getattr(node, &st)) {
    reply_error(req, ec);
    return;
  }
  struct stat attr = d.to_kernel(node, st);
  fuse_reply_attr(req, &attr, Daemon::kAttrTimeout);
}

void op_init(void*, fuse_conn_info* conn) {
  conn->max_write = kMaxWrite;
  conn->max_background = 64;
  conn->congestion_threshold = 48;
  // O_TRUNC arrives with open, so truncating opens are one request.
  if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC)
    conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
  // Always list with attributes: the ids in a listing are then the ones
  // stat reports, which plain listings can't promise (see op_readdir).
  if (conn->capable & FUSE_CAP_READDIRPLUS) {
    conn->want |= FUSE_CAP_READDIRPLUS;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  }
  // Every change of a file comes through the kernel, so a new size or
  // modification time is no reason to drop its cached pages: dropping them
  // would send every read after a write to the daemon.
  conn->want &= ~FUSE_CAP_AUTO_INVAL_DATA;
  // Writes go through to the volume as they come, not through the
  // kernel's writeback cache: see docs/FUSE.md for why.
  conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;
  // Lookups and directory operations in one directory run in parallel:
  // the library locks what it needs.
  if (conn->capable & FUSE_CAP_PARALLEL_DIROPS)
    conn->want |= FUSE_CAP_PARALLEL_DIROPS;
}

// The name asked for may be another spelling of the stored one: the kernel
// keeps it briefly, and the daemon remembers it (see Spellings).
void op_lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
  if (access::refused(req, access::may_lookup(req, parent)))
    return;
  Daemon& d = daemon_of(req);
  d.initialized();
  NodeId node;
  Stat st;
  if (std::error_code ec = d.volume().lookup(node_of(parent), name, &node, &st)) {
    reply_error(req, ec);
    return;
  }
  d.spellings().looked_up(node_of(parent), name);
  fuse_entry_param e = d.entry(node, st, true);
  if (fuse_reply_entry(req, &e) != 0)
    d.volume().unref(node, 1);
}

void op_forget(fuse_req_t req, fuse_ino_t ino, uint64_t nlookup) {
  daemon_of(req).volume().unref(node_of(ino), nlookup);
  fuse_reply_none(req);
}

void op_forget_multi(fuse_req_t req, size_t count, fuse_forget_data* forgets) {
  Volume& v = daemon_of(req).volume();
  for (size_t i = 0; i < count; i++)
    v.unref(node_of(forgets[i].ino), forgets[i].nlookup);
  fuse_reply_none(req);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
  if (access::refused(req, access::may_getattr(req, ino)))
    return;
  daemon_of(req).initialized();
  reply_attr(req, node_of(ino));
}

// The checks come first, so that a refused request changes nothing. The
// ReadOnly attribute is set last: a read-only file can't be truncated.
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int to_set,
                fuse_file_info* fi) {
  if (access::refused(req, access::may_setattr(req, ino, to_set, fi)))
    return;
  Daemon& d = daemon_of(req);
  NodeId node = node_of(ino);
  std::error_code ec = check_owner(d.config(), attr, to_set);
  if (!ec && (to_set & FUSE_SET_ATTR_SIZE))
    ec = change_size(d, node, attr->st_size, fi);
  if (!ec)
    ec = change_times(d, node, attr, to_set);
  if (!ec && (to_set & FUSE_SET_ATTR_MODE))
    ec = change_mode(d, node, attr->st_mode);
  if (ec)
    reply_error(req, ec);
  else
    reply_attr(req, node);
}

void op_readlink(fuse_req_t req, fuse_ino_t ino) {
  std::string target;
  if (std::error_code ec = daemon_of(req).volume().readlink(node_of(ino), &target))
    reply_error(req, ec);
  else
    fuse_reply_readlink(req, target.c_str());
}

// Only regular files can live on exFAT; devices, FIFOs and sockets can't.
void op_mknod(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  if (!S_ISREG(mode)) {
    fuse_reply_err(req, EPERM);
    return;
  }
  Daemon& d = daemon_of(req);
  File file;
  NodeId node;
  Stat st;
  std::error_code ec =
      d.volume().create(node_of(parent), name, O_WRONLY | O_CREAT | O_EXCL, &file, &node, &st);
  if (ec) {
    reply_error(req, ec);
    return;
  }
  file.close();
  reply_entry(req, node, st);
}

void op_mkdir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  NodeId node;
  Stat st;
  if (std::error_code ec = daemon_of(req).volume().mkdir(node_of(parent), name, &node, &st))
    reply_error(req, ec);
  else
    reply_entry(req, node, st);
}

void op_unlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  Daemon& d = daemon_of(req);
  std::vector<std::string> stale = d.other_spellings(node_of(parent), name);
  std::error_code ec = d.volume().unlink(node_of(parent), name);
  fuse_reply_err(req, ec.value());
  if (!ec)
    d.drop_entries(node_of(parent), std::move(stale));
}

void op_rmdir(fuse_req_t req, fuse_ino_t parent, const char* name) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  Daemon& d = daemon_of(req);
  std::vector<std::string> stale = d.other_spellings(node_of(parent), name);
  std::error_code ec = d.volume().rmdir(node_of(parent), name);
  fuse_reply_err(req, ec.value());
  if (!ec)
    d.drop_entries(node_of(parent), std::move(stale));
}

void op_symlink(fuse_req_t req, const char* link, fuse_ino_t parent, const char* name) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  NodeId node;
  Stat st;
  std::error_code ec = daemon_of(req).volume().symlink(link, node_of(parent), name, &node, &st);
  if (ec)
    reply_error(req, ec);
  else
    reply_entry(req, node, st);
}

// RENAME_EXCHANGE would need both names swapped at once, which the
// volume can't do.
void op_rename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newparent,
               const char* newname, unsigned int flags) {
  if (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) {
    fuse_reply_err(req, EINVAL);
    return;
  }
  if (access::refused(req, access::may_rename(req, parent, newparent)))
    return;
  unsigned how = (flags & RENAME_NOREPLACE) ? kRenameNoReplace : 0;
  Daemon& d = daemon_of(req);
  // Both the file renamed and a file it replaces may be known to the
  // kernel under their stored spellings.
  std::vector<std::string> from = d.other_spellings(node_of(parent), name);
  std::vector<std::string> to = d.other_spellings(node_of(newparent), newname);
  std::error_code ec =
      d.volume().rename(node_of(parent), name, node_of(newparent), newname, how);
  fuse_reply_err(req, ec.value());
  if (!ec) {
    d.drop_entries(node_of(parent), std::move(from));
    d.drop_entries(node_of(newparent), std::move(to));
  }
}

// A file has exactly one directory entry on exFAT.
void op_link(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) { fuse_reply_err(req, EPERM); }

void op_statfs(fuse_req_t req, fuse_ino_t) {
  StatFs fs;
  if (std::error_code ec = daemon_of(req).volume().statfs(&fs)) {
    reply_error(req, ec);
    return;
  }
  struct statvfs out {};
  out.f_bsize = fs.block_size;
  out.f_frsize = fs.block_size;
  out.f_blocks = fs.blocks;
  out.f_bfree = fs.blocks_free;
  out.f_bavail = fs.blocks_available;
  out.f_files = fs.files;
  out.f_ffree = fs.files_free;
  out.f_favail = fs.files_free;
  out.f_namemax = 255;
  fuse_reply_statfs(req, &out);
}

// Called only without default_permissions, for access(2). Writing is
// refused on a read-only volume and on a ReadOnly file whatever the modes.
void op_access(fuse_req_t req, fuse_ino_t ino, int mask) {
  Daemon& d = daemon_of(req);
  Stat st;
  if (std::error_code ec = d.volume().getattr(node_of(ino), &st)) {
    reply_error(req, ec);
    return;
  }
  if ((mask & W_OK) && d.config().volume.read_only) {
    fuse_reply_err(req, EROFS);
    return;
  }
  struct stat attr = d.to_kernel(node_of(ino), st);
  bool ro_file = st.type == FileType::Regular && (st.flags & kFlagImmutable);
  bool ok = mask == F_OK || (access::permitted(req, d.config(), attr, mask) &&
                             !((mask & W_OK) && ro_file));
  fuse_reply_err(req, ok ? 0 : EACCES);
}

}  // namespace exvol::fuse
