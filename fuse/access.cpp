// mount.exvol: permission checks done by the daemon (see access.h).

#include "fuse/access.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "fuse/ops.h"

namespace exvol::fuse::access {

namespace {

// Whether `gid` is among the caller's supplementary groups. The kernel
// caps a process's groups (NGROUPS_MAX), so the buffer, one per session
// thread, stays within that whatever the caller. A caller whose groups
// can't be read is taken to have none.
bool in_supplementary(fuse_req_t req, gid_t gid) {
  thread_local std::vector<gid_t> groups(32);
  int n = fuse_req_getgroups(req, static_cast<int>(groups.size()), groups.data());
  if (n > static_cast<int>(groups.size()) && n <= NGROUPS_MAX) {
    groups.resize(static_cast<size_t>(n));
    n = fuse_req_getgroups(req, n, groups.data());
  }
  if (n <= 0)
    return false;
  auto end = groups.begin() + std::min<ptrdiff_t>(n, static_cast<ptrdiff_t>(groups.size()));
  return std::find(groups.begin(), end, gid) != end;
}

// The caller of one request, against the mount's single owner and group.
class Caller {
 public:
  Caller(fuse_req_t req, const Config& c) : req_(req), c_(c), ctx_(fuse_req_ctx(req)) {}

  bool root() const { return ctx_->uid == 0; }
  bool owner() const { return ctx_->uid == c_.uid; }

  // The three bits of a rwxrwxrwx pattern that apply to the caller: the
  // owner's, else the group's for a member, else the others'. Membership
  // is looked up only when group and others differ.
  unsigned pick(unsigned nine) {
    if (owner())
      return (nine >> 6) & 07;
    unsigned group = (nine >> 3) & 07, other = nine & 07;
    if (group == other)
      return other;
    return in_group() ? group : other;
  }

 private:
  bool in_group() { return ctx_->gid == c_.gid || in_supplementary(req_, c_.gid); }

  fuse_req_t req_;
  const Config& c_;
  const fuse_ctx* ctx_;
};

bool allowed(Caller& who, mode_t mode, int mask) {
  if (who.root())
    return !(mask & X_OK) || S_ISDIR(mode) || (mode & 0111) != 0;
  return (static_cast<unsigned>(mask) & ~who.pick(mode & 0777) & 07) == 0;
}

// Every directory reports the same mode, so a directory's check needs no
// look at the directory.
int check_dirs(fuse_req_t req, int mask) {
  const Config& c = daemon_of(req).config();
  if (!c.check_access)
    return 0;
  Caller who(req, c);
  return allowed(who, S_IFDIR | dir_mode(c), mask) ? 0 : EACCES;
}

// The mode a node reports; 0 or the errno of reading it.
int reported_mode(fuse_req_t req, fuse_ino_t ino, mode_t* mode) {
  Daemon& d = daemon_of(req);
  Stat st;
  if (std::error_code ec = d.volume().getattr(node_of(ino), &st))
    return ec.value() > 0 ? ec.value() : EIO;
  *mode = d.to_kernel(node_of(ino), st).st_mode;
  return 0;
}

int open_mask(int flags) {
  int mask = 0;
  switch (flags & O_ACCMODE) {
    case O_RDONLY: mask = R_OK; break;
    case O_WRONLY: mask = W_OK; break;
    default: mask = R_OK | W_OK; break;
  }
  return (flags & O_TRUNC) ? mask | W_OK : mask;
}

// Setting times by someone who is neither root nor the owner: explicit
// times as allow_utime grants, "now" for both times also to whoever may
// write the file. Decision: allow_utime grants "now" as well; whoever may
// set any time may set this one.
int check_times(Caller& who, const Config& c, mode_t mode, int to_set) {
  if (who.pick(c.allow_utime & 077) & W_OK)
    return 0;
  constexpr int kBothNow =
      FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_ATIME_NOW | FUSE_SET_ATTR_MTIME_NOW;
  if ((to_set & kBothNow) != kBothNow)
    return EPERM;
  return allowed(who, mode, W_OK) ? 0 : EACCES;
}

}  // namespace

bool permitted(fuse_req_t req, const Config& c, const struct stat& st, int mask) {
  Caller who(req, c);
  return allowed(who, st.st_mode, mask);
}

int may_lookup(fuse_req_t req, fuse_ino_t) {
  return check_dirs(req, X_OK);
}

// Any node but the root is reached through the root, which a caller that
// may not search directories can't pass.
int may_getattr(fuse_req_t req, fuse_ino_t ino) {
  return ino == FUSE_ROOT_ID ? 0 : check_dirs(req, X_OK);
}

int may_change_dir(fuse_req_t req, fuse_ino_t) {
  return check_dirs(req, W_OK | X_OK);
}

// A directory moved to another parent has its ".." rewritten, which needs
// write on it too: directories all share one mode, so the check of the
// parents covers it.
int may_rename(fuse_req_t req, fuse_ino_t from, fuse_ino_t to) {
  if (int error = may_change_dir(req, from))
    return error;
  return may_change_dir(req, to);
}

int may_open(fuse_req_t req, fuse_ino_t ino, int flags) {
  const Config& c = daemon_of(req).config();
  if (!c.check_access)
    return 0;
  mode_t mode = 0;
  if (int error = reported_mode(req, ino, &mode))
    return error;
  Caller who(req, c);
  return allowed(who, mode, open_mask(flags)) ? 0 : EACCES;
}

int may_opendir(fuse_req_t req, fuse_ino_t) {
  return check_dirs(req, R_OK);
}

// A handle (ftruncate) was opened for writing already; truncating by name
// needs write permission.
int may_setattr(fuse_req_t req, fuse_ino_t ino, int to_set, const fuse_file_info* fi) {
  const Config& c = daemon_of(req).config();
  if (!c.check_access)
    return 0;
  Caller who(req, c);
  if (who.root())
    return 0;
  bool owner = who.owner();
  if ((to_set & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) && !owner)
    return EPERM;
  bool truncate = (to_set & FUSE_SET_ATTR_SIZE) && fi == nullptr;
  bool times = (to_set & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) && !owner;
  if (!truncate && !times)
    return 0;
  mode_t mode = 0;
  if (int error = reported_mode(req, ino, &mode))
    return error;
  if (truncate && !allowed(who, mode, W_OK))
    return EACCES;
  return times ? check_times(who, c, mode, to_set) : 0;
}

}  // namespace exvol::fuse::access
