// The namespace calls: open (with creation), mkdir, symlink, unlink, rmdir
// and rename, as a kernel's system-call layer makes them: the path is
// resolved with the lookup operation the call needs (CREATE, DELETE,
// RENAME for the last component), the checks a kernel makes before the
// file system sees the request are made here (a read-only volume refuses
// every change with EROFS; "." and ".." can't be removed or renamed), the
// driver's operation runs on the vnodes the lookups returned, and a
// request the driver finds stale under its locks (ERESTART) is redone from
// the resolution on.

#include <fcntl.h>

#include "api/api_private.h"

namespace exvol::detail {

namespace {

vfs_context_t ctx() { return vfs_context_kernel(); }

bool immutable(vnode_t vp) { return (vn_flags(vp) & kFlagImmutable) != 0; }

// Makes the file or directory named by the free last component of nd.
// Returns 0 with *made holding the new vnode, or the driver's error.
int create_regular(Nameidata& nd, IoRef* made) {
  Component c(nd.last, CREATE, ISLASTCN | MAKEENTRY);
  struct vnode_attr va;
  VATTR_INIT(&va);
  vnode_t vp = NULLVP;
  int error = VNOP_CREATE(nd.dvp.get(), &vp, c.cn(), &va, ctx());
  if (error == 0)
    made->reset(vp);
  return error;
}

int take(IoRef& from, IoRef* to) {
  if (to != nullptr)
    *to = std::move(from);
  return 0;
}

// The checks of rename that need both lookups' results. The driver makes
// the rest (a directory moved below itself, a non-empty target directory).
int rename_checks(const Nameidata& f, const Nameidata& t, unsigned flags, bool* nothing_to_do) {
  vnode_t fvp = f.vp.get();
  vnode_t tvp = t.vp.get();
  *nothing_to_do = false;
  if (t.trailing_slash && !vnode_isdir(fvp))
    return ENOTDIR;
  // A directory moved into itself; the driver checks deeper descendants.
  if (fvp == t.dvp.get())
    return EINVAL;
  if (tvp != NULLVP && tvp == fvp) {
    // One file under two names can only be a name and another case of it:
    // renaming it to the same bytes changes nothing.
    *nothing_to_do = f.dvp.get() == t.dvp.get() && f.last == t.last;
    // Another case of the name is a change like any other rename.
    return !*nothing_to_do && immutable(fvp) ? EPERM : 0;
  }
  if (tvp != NULLVP) {
    if (flags & kRenameNoReplace)
      return EEXIST;
    if (vnode_isdir(fvp) && !vnode_isdir(tvp))
      return ENOTDIR;
    if (!vnode_isdir(fvp) && vnode_isdir(tvp))
      return EISDIR;
    // Replacing the source's own directory: it holds the source.
    if (tvp == f.dvp.get())
      return ENOTEMPTY;
    if (immutable(tvp))
      return EPERM;
  }
  return immutable(fvp) ? EPERM : 0;
}

}  // namespace

int op_lookup(MountState& ms, vnode_t start, std::string_view path, bool follow, IoRef* out) {
  Nameidata nd;
  int error = namei(ms, start, path, LOOKUP, follow ? kFollow : 0, &nd);
  if (error == 0)
    *out = std::move(nd.vp);
  return error;
}

int op_open(const std::shared_ptr<MountState>& ms, vnode_t start, std::string_view path,
            int oflags, std::shared_ptr<OpenFile>* file, IoRef* made) {
  return restartable([&] {
    Nameidata nd;
    bool created = false;
    int error;
    if (oflags & O_CREAT) {
      // O_EXCL refuses whatever the name is, a symbolic link included.
      int flags = kWantParent | ((oflags & (O_EXCL | O_NOFOLLOW)) ? 0 : kFollow);
      if ((error = namei(*ms, start, path, CREATE, flags, &nd)))
        return error;
      if (!nd.vp) {
        if (nd.trailing_slash)
          return EISDIR;
        if (ms->read_only)
          return EROFS;
        error = create_regular(nd, &nd.vp);
        // Made by someone else since the lookup: open theirs.
        if (error == EEXIST && !(oflags & O_EXCL))
          return ERESTART;
        if (error)
          return error;
        created = true;
      } else if (oflags & O_EXCL) {
        return EEXIST;
      } else if (vnode_isdir(nd.vp.get())) {
        return EISDIR;
      }
    } else if ((error = namei(*ms, start, path, LOOKUP, (oflags & O_NOFOLLOW) ? 0 : kFollow,
                              &nd))) {
      return error;
    }
    if ((error = vn_open(ms, nd.vp.get(), oflags, created, file)))
      return error;
    return take(nd.vp, made);
  });
}

namespace {

// Resolves `path` to a name that does not exist yet and makes it with
// `make` (VNOP_MKDIR, VNOP_SYMLINK), from the lookup again after ERESTART.
// EEXIST when the name exists; ENOENT for a trailing slash unless
// `slash_ok`; EROFS on a read-only volume.
template <typename Make>
int make_name(MountState& ms, vnode_t start, std::string_view path, bool slash_ok, IoRef* made,
              Make make) {
  return restartable([&] {
    Nameidata nd;
    if (int error = namei(ms, start, path, CREATE, kWantParent, &nd))
      return error;
    if (nd.vp)
      return EEXIST;
    if (nd.trailing_slash && !slash_ok)
      return ENOENT;
    if (ms.read_only)
      return EROFS;
    Component c(nd.last, CREATE, ISLASTCN | MAKEENTRY);
    struct vnode_attr va;
    VATTR_INIT(&va);
    vnode_t vp = NULLVP;
    if (int error = make(nd.dvp.get(), &vp, c.cn(), &va))
      return error;
    IoRef ref(vp);
    return take(ref, made);
  });
}

}  // namespace

int op_mkdir(MountState& ms, vnode_t start, std::string_view path, IoRef* made) {
  return make_name(ms, start, path, true, made,
                   [](vnode_t dvp, vnode_t* vpp, struct componentname* cn, struct vnode_attr* va) {
                     return VNOP_MKDIR(dvp, vpp, cn, va, ctx());
                   });
}

int op_symlink(MountState& ms, vnode_t start, std::string_view path, std::string_view target,
               IoRef* made) {
  if (target.empty())
    return ENOENT;
  std::string t(target);
  return make_name(ms, start, path, false, made,
                   [&t](vnode_t dvp, vnode_t* vpp, struct componentname* cn,
                        struct vnode_attr* va) {
                     return VNOP_SYMLINK(dvp, vpp, cn, va, t.data(), ctx());
                   });
}

int op_unlink(MountState& ms, vnode_t start, std::string_view path) {
  return restartable([&] {
    Nameidata nd;
    if (int error = namei(ms, start, path, DELETE, kWantParent, &nd))
      return error;
    if (!nd.dvp || vnode_isdir(nd.vp.get()))
      return EISDIR;
    if (ms.read_only)
      return EROFS;
    if (immutable(nd.vp.get()))
      return EPERM;
    Component c(nd.last, DELETE, ISLASTCN);
    nodes_changing(ms, nd.dvp.get());
    int error = VNOP_REMOVE(nd.dvp.get(), nd.vp.get(), c.cn(), 0, ctx());
    nodes_removed(ms, error, nd.vp.get(), nd.dvp.get(), nd.last);
    return error;
  });
}

int op_rmdir(MountState& ms, vnode_t start, std::string_view path) {
  return restartable([&] {
    Nameidata nd;
    if (int error = namei(ms, start, path, DELETE, kWantParent, &nd))
      return error;
    if (!nd.dvp)
      return EBUSY;  // the root
    if (nd.is_dot())
      return EINVAL;
    if (nd.is_dotdot())
      return ENOTEMPTY;
    if (!vnode_isdir(nd.vp.get()))
      return ENOTDIR;
    if (ms.read_only)
      return EROFS;
    Component c(nd.last, DELETE, ISLASTCN);
    return VNOP_RMDIR(nd.dvp.get(), nd.vp.get(), c.cn(), ctx());
  });
}

int op_rename(MountState& ms, vnode_t from_start, std::string_view from, vnode_t to_start,
              std::string_view to, unsigned flags) {
  if (flags & ~kRenameNoReplace)
    return EINVAL;
  return restartable([&] {
    Nameidata f, t;
    if (int error = namei(ms, from_start, from, DELETE, kWantParent, &f))
      return error;
    if (!f.dvp)
      return EBUSY;
    if (f.is_dot() || f.is_dotdot())
      return EINVAL;
    if (int error = namei(ms, to_start, to, RENAME, kWantParent, &t))
      return error;
    if (!t.dvp)
      return EBUSY;
    if (t.is_dot() || t.is_dotdot())
      return EINVAL;
    if (ms.read_only)
      return EROFS;
    bool nothing_to_do = false;
    if (int error = rename_checks(f, t, flags, &nothing_to_do))
      return error;
    if (nothing_to_do)
      return 0;
    Component fc(f.last, DELETE, ISLASTCN);
    Component tc(t.last, RENAME, ISLASTCN);
    nodes_changing(ms, f.dvp.get(), t.dvp.get());
    int error =
        VNOP_RENAME(f.dvp.get(), f.vp.get(), fc.cn(), t.dvp.get(), t.vp.get(), tc.cn(), ctx());
    nodes_renamed(ms, error, f.vp.get(), f.dvp.get(), f.last, t.dvp.get(), t.last, t.vp.get());
    return error;
  });
}

}  // namespace exvol::detail
