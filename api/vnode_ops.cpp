// The calls the library makes on one vnode: attributes, size, times,
// flags, link targets and opening. Every function here expects its caller
// to hold a CallGuard and an I/O reference on the vnode.

#include <fcntl.h>
#include <sys/stat.h>

#include "api/api_private.h"
#include "host/uio.h"

namespace exvol::detail {

namespace {

// The largest link target the volume stores, and so the most readlink can
// ever return.
constexpr size_t kLinkMax = 1024;

FileType type_of(vnode_t vp) {
  switch (vnode_vtype(vp)) {
    case VREG: return FileType::Regular;
    case VDIR: return FileType::Directory;
    case VLNK: return FileType::Symlink;
    default: return FileType::Unknown;
  }
}

uint32_t type_bits(FileType type) {
  switch (type) {
    case FileType::Regular: return S_IFREG;
    case FileType::Directory: return S_IFDIR;
    case FileType::Symlink: return S_IFLNK;
    default: return 0;
  }
}

// The driver stamps modification and access times lazily: a write, a
// directory's growth or a read just marks the node, and the time is taken
// when the node's entry is next written back, which includes the entry
// rewrite of a setattr. Times set over such a mark would be replaced by
// "now" at once. So the marks are taken first, by the write-back that a close
// performs (dirty pages pushed, pending times stamped, the entry
// rewritten), and the times set afterwards find nothing left to replace
// them. An open/close pair is the cheapest call that does this: unlike
// fsync it writes nothing synchronously.
//
// A write racing with the call may still mark the node between the two
// steps; such a write has no order relative to the times, and its stamp
// wins then.
int take_pending_stamps(vnode_t vp) {
  if (int error = VNOP_OPEN(vp, FREAD, vfs_context_kernel()))
    return error;
  return VNOP_CLOSE(vp, FREAD, vfs_context_kernel());
}

int setattr(MountState& ms, vnode_t vp, struct vnode_attr* va) {
  if (ms.read_only)
    return EROFS;
  return VNOP_SETATTR(vp, va, vfs_context_kernel());
}

}  // namespace

int vn_getattr(vnode_t vp, Stat* out) {
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_WANTED(&va, va_nlink);
  VATTR_WANTED(&va, va_data_size);
  VATTR_WANTED(&va, va_data_alloc);
  VATTR_WANTED(&va, va_iosize);
  VATTR_WANTED(&va, va_uid);
  VATTR_WANTED(&va, va_gid);
  VATTR_WANTED(&va, va_mode);
  VATTR_WANTED(&va, va_flags);
  VATTR_WANTED(&va, va_create_time);
  VATTR_WANTED(&va, va_access_time);
  VATTR_WANTED(&va, va_modify_time);
  VATTR_WANTED(&va, va_change_time);
  VATTR_WANTED(&va, va_fileid);
  VATTR_WANTED(&va, va_parentid);
  if (int error = VNOP_GETATTR(vp, &va, vfs_context_kernel()))
    return error;
  Stat st;
  st.type = type_of(vp);
  // Attributes the file system did not report keep the Stat's zeros.
  if (VATTR_IS_SUPPORTED(&va, va_mode))
    st.mode = va.va_mode & 07777;
  st.mode |= type_bits(st.type);
  if (VATTR_IS_SUPPORTED(&va, va_nlink))
    st.nlink = static_cast<uint32_t>(va.va_nlink);
  if (VATTR_IS_SUPPORTED(&va, va_uid))
    st.uid = va.va_uid;
  if (VATTR_IS_SUPPORTED(&va, va_gid))
    st.gid = va.va_gid;
  if (VATTR_IS_SUPPORTED(&va, va_data_size))
    st.size = static_cast<uint64_t>(va.va_data_size);
  if (VATTR_IS_SUPPORTED(&va, va_data_alloc))
    st.allocated = static_cast<uint64_t>(va.va_data_alloc);
  if (VATTR_IS_SUPPORTED(&va, va_iosize))
    st.io_size = va.va_iosize;
  if (VATTR_IS_SUPPORTED(&va, va_flags))
    st.flags = va.va_flags;
  if (VATTR_IS_SUPPORTED(&va, va_fileid))
    st.file_id = va.va_fileid;
  if (VATTR_IS_SUPPORTED(&va, va_parentid))
    st.parent_id = va.va_parentid;
  if (VATTR_IS_SUPPORTED(&va, va_create_time))
    st.birth = va.va_create_time;
  if (VATTR_IS_SUPPORTED(&va, va_modify_time))
    st.modified = va.va_modify_time;
  if (VATTR_IS_SUPPORTED(&va, va_access_time))
    st.accessed = va.va_access_time;
  if (VATTR_IS_SUPPORTED(&va, va_change_time))
    st.changed = va.va_change_time;
  *out = st;
  return 0;
}

uint32_t vn_flags(vnode_t vp) {
  Stat st;
  return vn_getattr(vp, &st) == 0 ? st.flags : 0;
}

// A size change of a regular file. Refused before the driver sees it: a
// negative size, a directory, a read-only volume, an immutable file.
int vn_truncate(MountState& ms, vnode_t vp, int64_t size) {
  if (size < 0)
    return EINVAL;
  if (vnode_isdir(vp))
    return EISDIR;
  if (!vnode_isreg(vp))
    return EINVAL;
  if (ms.read_only)
    return EROFS;
  if (vn_flags(vp) & kFlagImmutable)
    return EPERM;
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_SET(&va, va_data_size, size);
  return setattr(ms, vp, &va);
}

int vn_utimes(MountState& ms, vnode_t vp, const TimeChange& times) {
  struct vnode_attr va;
  VATTR_INIT(&va);
  if (times.accessed)
    VATTR_SET(&va, va_access_time, *times.accessed);
  if (times.modified)
    VATTR_SET(&va, va_modify_time, *times.modified);
  if (times.birth)
    VATTR_SET(&va, va_create_time, *times.birth);
  for (const auto& t : {times.accessed, times.modified, times.birth}) {
    if (t && (t->tv_nsec < 0 || t->tv_nsec >= 1000000000))
      return EINVAL;
  }
  if (ms.read_only)
    return EROFS;
  if (va.va_active == 0)
    return 0;
  if (int error = take_pending_stamps(vp))
    return error;
  return setattr(ms, vp, &va);
}

int vn_chflags(MountState& ms, vnode_t vp, uint32_t flags) {
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_SET(&va, va_flags, flags);
  return setattr(ms, vp, &va);
}

int vn_readlink(vnode_t vp, std::string* target) {
  if (!vnode_islnk(vp))
    return EINVAL;
  std::string buffer(kLinkMax, '\0');
  uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
  if (uio == nullptr)
    return ENOMEM;
  uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), buffer.size());
  int error = VNOP_READLINK(vp, uio, vfs_context_kernel());
  size_t length = buffer.size() - static_cast<size_t>(uio_resid(uio));
  uio_free(uio);
  if (error)
    return error;
  buffer.resize(length);
  *target = std::move(buffer);
  return 0;
}

// The checks of open(2) on a file that exists (or was just made), then
// VNOP_OPEN and the open file's use reference. O_TRUNC truncates before
// the open, as the kernel's open does.
int vn_open(const std::shared_ptr<MountState>& ms, vnode_t vp, int oflags, bool created,
            std::shared_ptr<OpenFile>* out) {
  int accmode = oflags & O_ACCMODE;
  if (accmode != O_RDONLY && accmode != O_WRONLY && accmode != O_RDWR)
    return EINVAL;
  int fmode = accmode == O_RDONLY ? FREAD : accmode == O_WRONLY ? FWRITE : FREAD | FWRITE;
  bool truncating = (oflags & O_TRUNC) != 0 && !created;
  if (vnode_islnk(vp))
    return ELOOP;  // only reached with O_NOFOLLOW
  if ((oflags & O_DIRECTORY) && !vnode_isdir(vp))
    return ENOTDIR;
  if (vnode_isdir(vp) && ((fmode & FWRITE) || (oflags & O_TRUNC)))
    return EISDIR;
  if ((fmode & FWRITE) || truncating) {
    if (ms->read_only)
      return EROFS;
    if (vn_flags(vp) & kFlagImmutable)
      return EPERM;
  }
  if (truncating && vnode_isreg(vp)) {
    if (int error = vn_truncate(*ms, vp, 0))
      return error;
  }
  if (int error = VNOP_OPEN(vp, fmode, vfs_context_kernel()))
    return error;
  if (int error = vnode_ref_ext(vp, fmode, 0)) {
    VNOP_CLOSE(vp, fmode, vfs_context_kernel());
    return error;
  }
  auto f = std::make_shared<OpenFile>();
  f->ms = ms;
  f->vp = vp;
  f->fmode = fmode;
  f->oflags = oflags;
  {
    std::lock_guard<std::mutex> guard(ms->registry_lock);
    ms->files.insert(f.get());
  }
  *out = std::move(f);
  return 0;
}

}  // namespace exvol::detail
