// The file calls of a Volume, by path and by NodeId. Each runs under a
// CallGuard (the volume stays mounted for the call) and hands the work to
// the namespace and vnode calls of the library's insides.

#include <fcntl.h>

#include "api/api_private.h"
#include "exvol/volume.h"

namespace exvol {

using detail::CallGuard;
using detail::IoRef;
using detail::make_error;
using detail::MountState;

namespace {

// Runs op(ms) with the volume held mounted for the call.
template <class Op>
std::error_code call(const Volume::Impl& impl, Op op) {
  CallGuard guard(*impl.ms);
  if (int error = guard.error())
    return make_error(error);
  return make_error(op(*impl.ms));
}

// A name handed to a node call must be one component.
int check_name(const std::string& name) {
  if (name.empty())
    return ENOENT;
  if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
    return EINVAL;
  return 0;
}

// Runs op(vp) on the vnode `path` names.
template <class Op>
int on_path(MountState& ms, const std::string& path, bool follow, Op op) {
  IoRef vp;
  if (int error = detail::op_lookup(ms, NULLVP, path, follow, &vp))
    return error;
  return op(vp.get());
}

// Runs op(vp) on the vnode of a held node.
template <class Op>
int on_node(MountState& ms, NodeId node, Op op) {
  IoRef vp;
  if (int error = detail::node_vnode(ms, node, &vp))
    return error;
  return op(vp.get());
}

// Runs op(dvp) on a held directory node after checking `name`.
template <class Op>
int in_node(MountState& ms, NodeId parent, const std::string& name, Op op) {
  if (int error = check_name(name))
    return error;
  return on_node(ms, parent, op);
}

// Hands out a reference to the node of `made`, found as `name` in parent,
// and, when asked, its attributes.
int hand_out(MountState& ms, NodeId parent, const std::string& name, IoRef& made, NodeId* out,
             Stat* st) {
  if (int error = detail::node_hold(ms, made.get(), parent, name, out))
    return error;
  return st != nullptr ? detail::vn_getattr(made.get(), st) : 0;
}

}  // namespace

// --- By path ---------------------------------------------------------------------------

std::error_code Volume::open(const std::string& path, int oflags, File* out) {
  *out = File();  // closed before the guard is taken: close takes one itself
  std::shared_ptr<detail::OpenFile> f;
  std::error_code ec = call(*impl_, [&](MountState&) {
    return detail::op_open(impl_->ms, NULLVP, path, oflags, &f, nullptr);
  });
  if (!ec)
    *out = File(std::move(f));
  return ec;
}

std::error_code Volume::stat(const std::string& path, Stat* out) {
  return call(*impl_, [&](MountState& ms) {
    return on_path(ms, path, true, [&](vnode_t vp) { return detail::vn_getattr(vp, out); });
  });
}

std::error_code Volume::lstat(const std::string& path, Stat* out) {
  return call(*impl_, [&](MountState& ms) {
    return on_path(ms, path, false, [&](vnode_t vp) { return detail::vn_getattr(vp, out); });
  });
}

std::error_code Volume::mkdir(const std::string& path) {
  return call(*impl_, [&](MountState& ms) { return detail::op_mkdir(ms, NULLVP, path, nullptr); });
}

std::error_code Volume::rmdir(const std::string& path) {
  return call(*impl_, [&](MountState& ms) { return detail::op_rmdir(ms, NULLVP, path); });
}

std::error_code Volume::unlink(const std::string& path) {
  return call(*impl_, [&](MountState& ms) { return detail::op_unlink(ms, NULLVP, path); });
}

std::error_code Volume::rename(const std::string& from, const std::string& to, unsigned flags) {
  return call(*impl_, [&](MountState& ms) {
    return detail::op_rename(ms, NULLVP, from, NULLVP, to, flags);
  });
}

std::error_code Volume::symlink(const std::string& target, const std::string& path) {
  return call(*impl_, [&](MountState& ms) {
    return detail::op_symlink(ms, NULLVP, path, target, nullptr);
  });
}

std::error_code Volume::readlink(const std::string& path, std::string* target) {
  return call(*impl_, [&](MountState& ms) {
    return on_path(ms, path, false, [&](vnode_t vp) { return detail::vn_readlink(vp, target); });
  });
}

std::error_code Volume::truncate(const std::string& path, int64_t size) {
  return call(*impl_, [&](MountState& ms) {
    if (size < 0)
      return EINVAL;
    return on_path(ms, path, true, [&](vnode_t vp) { return detail::vn_truncate(ms, vp, size); });
  });
}

std::error_code Volume::utimes(const std::string& path, const TimeChange& times, bool follow) {
  return call(*impl_, [&](MountState& ms) {
    return on_path(ms, path, follow, [&](vnode_t vp) { return detail::vn_utimes(ms, vp, times); });
  });
}

std::error_code Volume::chflags(const std::string& path, uint32_t flags, bool follow) {
  return call(*impl_, [&](MountState& ms) {
    return on_path(ms, path, follow, [&](vnode_t vp) { return detail::vn_chflags(ms, vp, flags); });
  });
}

// The directory is looked up again for every batch: no reference is kept
// while the callback runs, so an unmount in between is seen as ENXIO.
std::error_code Volume::readdir(const std::string& path, uint64_t cookie,
                                const DirCallback& callback, uint64_t* next_cookie, bool* end) {
  auto fetch = [&](uint64_t position, detail::DirBatch* batch) {
    return call(*impl_, [&](MountState& ms) {
             return on_path(ms, path, true, [&](vnode_t vp) {
               return detail::vn_readdir_batch(ms, vp, position, batch);
             });
           }).value();
  };
  return make_error(detail::deliver_listing(fetch, cookie, callback, next_cookie, end));
}

std::error_code Volume::list(const std::string& path, std::vector<DirEntry>* out) {
  out->clear();
  return readdir(path, kDirStart, [&](const DirEntry& e) {
    if (e.name != "." && e.name != "..")
      out->push_back(e);
    return true;
  });
}

// --- By node ---------------------------------------------------------------------------

std::error_code Volume::lookup(NodeId parent, const std::string& name, NodeId* out, Stat* st) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) {
      IoRef vp;
      if (int error = detail::op_lookup(ms, dvp, name, false, &vp))
        return error;
      return hand_out(ms, parent, name, vp, out, st);
    });
  });
}

std::error_code Volume::ref(NodeId node) {
  return call(*impl_, [&](MountState& ms) { return detail::node_ref(ms, node); });
}

std::error_code Volume::unref(NodeId node, uint64_t count) {
  return call(*impl_, [&](MountState& ms) { return detail::node_release(ms, node, count); });
}

std::error_code Volume::getattr(NodeId node, Stat* out) {
  return call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) { return detail::vn_getattr(vp, out); });
  });
}

std::error_code Volume::open(NodeId node, int oflags, File* out) {
  *out = File();
  std::shared_ptr<detail::OpenFile> f;
  std::error_code ec = call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) {
      return detail::vn_open(impl_->ms, vp, oflags & ~(O_CREAT | O_EXCL), false, &f);
    });
  });
  if (!ec)
    *out = File(std::move(f));
  return ec;
}

std::error_code Volume::create(NodeId parent, const std::string& name, int oflags, File* file,
                               NodeId* out, Stat* st) {
  *file = File();
  std::shared_ptr<detail::OpenFile> f;
  std::error_code ec = call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) {
      IoRef made;
      if (int error = detail::op_open(impl_->ms, dvp, name, oflags | O_CREAT, &f, &made))
        return error;
      return hand_out(ms, parent, name, made, out, st);
    });
  });
  File opened(std::move(f));
  if (!ec)
    *file = std::move(opened);
  return ec;  // on failure `opened` closes a file that was opened
}

std::error_code Volume::mkdir(NodeId parent, const std::string& name, NodeId* out, Stat* st) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) {
      IoRef made;
      if (int error = detail::op_mkdir(ms, dvp, name, &made))
        return error;
      return hand_out(ms, parent, name, made, out, st);
    });
  });
}

std::error_code Volume::symlink(const std::string& target, NodeId parent, const std::string& name,
                                NodeId* out, Stat* st) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) {
      IoRef made;
      if (int error = detail::op_symlink(ms, dvp, name, target, &made))
        return error;
      return hand_out(ms, parent, name, made, out, st);
    });
  });
}

std::error_code Volume::unlink(NodeId parent, const std::string& name) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) { return detail::op_unlink(ms, dvp, name); });
  });
}

std::error_code Volume::rmdir(NodeId parent, const std::string& name) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) { return detail::op_rmdir(ms, dvp, name); });
  });
}

std::error_code Volume::rename(NodeId parent, const std::string& name, NodeId new_parent,
                               const std::string& new_name, unsigned flags) {
  return call(*impl_, [&](MountState& ms) {
    return in_node(ms, parent, name, [&](vnode_t dvp) {
      return in_node(ms, new_parent, new_name, [&](vnode_t tdvp) {
        return detail::op_rename(ms, dvp, name, tdvp, new_name, flags);
      });
    });
  });
}

std::error_code Volume::readlink(NodeId node, std::string* target) {
  return call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) { return detail::vn_readlink(vp, target); });
  });
}

std::error_code Volume::truncate(NodeId node, int64_t size) {
  return call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) { return detail::vn_truncate(ms, vp, size); });
  });
}

std::error_code Volume::utimes(NodeId node, const TimeChange& times) {
  return call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) { return detail::vn_utimes(ms, vp, times); });
  });
}

std::error_code Volume::chflags(NodeId node, uint32_t flags) {
  return call(*impl_, [&](MountState& ms) {
    return on_node(ms, node, [&](vnode_t vp) { return detail::vn_chflags(ms, vp, flags); });
  });
}

std::error_code Volume::readdir(NodeId node, uint64_t cookie, const DirCallback& callback,
                                uint64_t* next_cookie, bool* end) {
  auto fetch = [&](uint64_t position, detail::DirBatch* batch) {
    return call(*impl_, [&](MountState& ms) {
             return on_node(ms, node, [&](vnode_t vp) {
               return detail::vn_readdir_batch(ms, vp, position, batch);
             });
           }).value();
  };
  return make_error(detail::deliver_listing(fetch, cookie, callback, next_cookie, end));
}

size_t Volume::node_count() const {
  return detail::node_count(*impl_->ms);
}

}  // namespace exvol
