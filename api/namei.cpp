// Path resolution: a path is walked one component at a time with
// VNOP_LOOKUP, as a kernel's namei does, so that the driver sees the
// component names, lookup operations and flags its design expects and
// consults the name cache itself.

#include <sched.h>
#include <utility>

#include "api/api_private.h"
#include "host/uio.h"

namespace exvol::detail {

namespace {

// A kernel follows at most this many symbolic links while resolving one
// path before it gives up with ELOOP.
constexpr int kMaxSymlinks = 32;
// Longest path and component accepted. A component may hold 255 UTF-16
// units, which can take up to 765 bytes of UTF-8; the driver checks the
// real limit, this only keeps absurd input away.
constexpr size_t kPathMax = 4096;
constexpr size_t kComponentMax = 1023;
// How often a call is redone after ERESTART before it gives up. A restart
// means another thread changed the node in between; many in a row mean
// something keeps changing it, and the caller may try again.
constexpr int kMaxRestarts = 64;

// The kernel hashes component names for the name cache and for
// vnode_update_identity; any good string hash does (FNV-1a here).
uint32_t name_hash(std::string_view name) {
  uint32_t h = 2166136261u;
  for (unsigned char c : name) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

// Reads the target of the symbolic link vp into *out.
int read_link(vnode_t vp, std::string* out) { return vn_readlink(vp, out); }

int root_vnode(MountState& ms, IoRef* out) {
  vnode_t vp = NULLVP;
  int error = VFS_ROOT(ms.mp, &vp, vfs_context_kernel());
  if (error == 0)
    out->reset(vp);
  return error;
}

// Takes another I/O reference on vp.
int dup_ref(vnode_t vp, IoRef* out) {
  int error = vnode_get(vp);
  if (error == 0)
    out->reset(vp);
  return error;
}

// The lookup flags of one component. Deleting and renaming lookups of the
// last component make no name-cache entry: the name is about to change.
uint32_t component_flags(std::string_view name, bool last, uint32_t nameiop) {
  uint32_t flags = MAKEENTRY;
  if (last) {
    flags |= ISLASTCN;
    if (nameiop == DELETE || nameiop == RENAME)
      flags &= ~static_cast<uint32_t>(MAKEENTRY);
  }
  if (name == "..")
    flags |= ISDOTDOT;
  return flags;
}

}  // namespace

Component::Component(std::string_view name, uint32_t nameiop, uint32_t flags) : name_(name) {
  cn_.cn_nameiop = nameiop;
  cn_.cn_flags = flags;
  cn_.cn_pnbuf = name_.data();
  cn_.cn_pnlen = static_cast<int>(name_.size());
  cn_.cn_nameptr = name_.data();
  cn_.cn_namelen = static_cast<int>(name_.size());
  cn_.cn_hash = name_hash(name_);
}

// The walk keeps the path still to resolve in `rest`; a symbolic link met
// on the way is replaced by its target followed by what remained after it,
// and an absolute target sends the walk back to the root.
int namei(MountState& ms, vnode_t start, std::string_view path, uint32_t nameiop, int flags,
          Nameidata* nd) {
  if (path.empty())
    return ENOENT;
  if (path.size() > kPathMax)
    return ENAMETOOLONG;
  IoRef dir;
  int error = start == NULLVP || path.front() == '/' ? root_vnode(ms, &dir) : dup_ref(start, &dir);
  if (error)
    return error;

  std::string rest(path);
  size_t pos = 0;
  int links = 0;
  for (;;) {
    while (pos < rest.size() && rest[pos] == '/')
      pos++;
    if (pos == rest.size()) {
      // Only slashes were left: the path names the directory reached.
      nd->vp = std::move(dir);
      nd->last.clear();
      nd->trailing_slash = true;
      return 0;
    }
    size_t end = rest.find('/', pos);
    if (end == std::string::npos)
      end = rest.size();
    std::string name = rest.substr(pos, end - pos);
    size_t next = end;
    while (next < rest.size() && rest[next] == '/')
      next++;
    bool last = next == rest.size();
    bool trailing = last && end < rest.size();
    if (name.size() > kComponentMax)
      return ENAMETOOLONG;
    if (!vnode_isdir(dir.get()))
      return ENOTDIR;

    Component c(name, last ? nameiop : LOOKUP, component_flags(name, last, nameiop));
    vnode_t found = NULLVP;
    error = VNOP_LOOKUP(dir.get(), &found, c.cn(), vfs_context_kernel());
    if (error == EJUSTRETURN && last) {
      nd->dvp = std::move(dir);
      nd->last = name;
      nd->trailing_slash = trailing;
      return 0;
    }
    if (error)
      return error == EJUSTRETURN ? ENOENT : error;
    IoRef child(found);

    if (vnode_islnk(child.get()) && (!last || (flags & kFollow) || trailing)) {
      if (++links > kMaxSymlinks)
        return ELOOP;
      std::string target;
      if ((error = read_link(child.get(), &target)))
        return error;
      if (target.empty())
        return ENOENT;
      // The link's target takes the component's place; what followed it
      // (or the trailing slash of the last one) is kept.
      if (!last) {
        target += '/';
        target.append(rest, next, std::string::npos);
      } else if (trailing) {
        target += '/';
      }
      rest = std::move(target);
      if (rest.size() > kPathMax)
        return ENAMETOOLONG;
      pos = 0;
      if (rest.front() == '/' && (error = root_vnode(ms, &dir)))
        return error;
      continue;
    }

    if (last) {
      if (trailing && !vnode_isdir(child.get()))
        return ENOTDIR;
      if (flags & kWantParent)
        nd->dvp = std::move(dir);
      nd->vp = std::move(child);
      nd->last = name;
      nd->trailing_slash = trailing;
      return 0;
    }
    dir = std::move(child);
    pos = next;
  }
}

int restartable(const std::function<int()>& op) {
  for (int round = 0;; round++) {
    int error = op();
    if (error != ERESTART)
      return error;
    if (round == kMaxRestarts)
      return EAGAIN;
    // Let whoever keeps changing the node finish before looking again.
    if (round >= 4)
      sched_yield();
  }
}

}  // namespace exvol::detail
