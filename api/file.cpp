// Open files: read and write through VNOP_READ/VNOP_WRITE with a uio, the
// file offset, size changes, syncs and attribute calls on an open file,
// and closing, which calls VNOP_CLOSE and drops the use reference the open
// file held (so that the driver's inactive runs when it was the last).

#include <fcntl.h>
#include <unistd.h>

#include <limits>

#include "api/api_private.h"
#include "exvol/file.h"
#include "host/uio.h"

namespace exvol {

namespace detail {

namespace {

// The full-sync request of the vnode ioctl: fsync, then a flush of the
// device's write cache.
constexpr u_long kFullFsync = 51;

// Runs op(vp) with the mount and the file held for one call and an I/O
// reference on the file's vnode. ENXIO once the volume is unmounted, EBADF
// for a closed or revoked file.
template <class Op>
int with_file(const std::shared_ptr<OpenFile>& f, Op op) {
  if (!f)
    return EBADF;
  CallGuard guard(*f->ms);
  if (int error = guard.error())
    return error;
  std::shared_lock<std::shared_mutex> lock(f->lock);
  if (f->vp == NULLVP)
    return EBADF;
  if (vnode_get(f->vp) != 0)
    return EBADF;
  IoRef io(f->vp);
  return op(*f, io.get());
}

// One transfer between `buffer` and the file at `offset`. *end receives the
// uio offset afterwards (the end of file for an append).
int transfer(OpenFile& f, vnode_t vp, void* buffer, size_t length, int64_t offset, bool write,
             size_t* done, int64_t* end) {
  *done = 0;
  *end = offset;
  if (offset < 0)
    return EINVAL;
  if (!(f.fmode & (write ? FWRITE : FREAD)))
    return EBADF;
  if (vnode_isdir(vp))
    return EISDIR;
  if (write && f.ms->read_only)
    return EROFS;
  length = std::min<size_t>(length, static_cast<size_t>(std::numeric_limits<int64_t>::max()));
  if (length == 0)
    return 0;
  uio_t uio = uio_create(1, offset, UIO_SYSSPACE, write ? UIO_WRITE : UIO_READ);
  if (uio == nullptr)
    return ENOMEM;
  uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer), length);
  int error;
  if (write) {
    int ioflag = 0;
    if (f.oflags & O_APPEND)
      ioflag |= IO_APPEND;
    if (f.oflags & (O_SYNC | O_DSYNC))
      ioflag |= IO_SYNC;
    error = VNOP_WRITE(vp, uio, ioflag, vfs_context_kernel());
  } else {
    error = VNOP_READ(vp, uio, 0, vfs_context_kernel());
  }
  *done = length - static_cast<size_t>(uio_resid(uio));
  *end = uio_offset(uio);
  uio_free(uio);
  return error;
}

// I/O at the file offset, which it advances; one such call at a time per
// file, as a kernel serialises the users of one file offset.
int offset_io(const std::shared_ptr<OpenFile>& f, void* buffer, size_t length, bool write,
              size_t* done) {
  *done = 0;
  return with_file(f, [&](OpenFile& of, vnode_t vp) {
    std::lock_guard<std::mutex> guard(of.offset_lock);
    int64_t end = 0;
    int error = transfer(of, vp, buffer, length, of.offset, write, done, &end);
    if (*done > 0)
      of.offset = end;
    return error;
  });
}

}  // namespace

// Closes f: the caller holds f->lock exclusively and f is open. VNOP_CLOSE
// runs with an I/O reference, and the use reference goes after it, so that
// a file removed while open is released (inactive) when the I/O reference
// goes. Returns VNOP_CLOSE's error.
int file_close_locked(OpenFile* f) {
  vnode_t vp = f->vp;
  f->vp = NULLVP;
  {
    std::lock_guard<std::mutex> guard(f->ms->registry_lock);
    f->ms->files.erase(f);
  }
  bool io = vnode_get(vp) == 0;
  int error = io ? VNOP_CLOSE(vp, f->fmode, vfs_context_kernel()) : 0;
  vnode_rele_ext(vp, f->fmode, 0);
  if (io)
    vnode_put(vp);
  return error;
}

void file_revoke(OpenFile* f) {
  std::unique_lock<std::shared_mutex> lock(f->lock);
  if (f->vp == NULLVP)
    return;
  f->revoked = true;
  file_close_locked(f);
}

}  // namespace detail

using detail::make_error;
using detail::OpenFile;

File::File() = default;
File::File(std::shared_ptr<detail::OpenFile> state) : state_(std::move(state)) {}
File::File(File&& other) noexcept = default;

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    if (state_)
      close();
    state_ = std::move(other.state_);
  }
  return *this;
}

File::~File() {
  if (state_)
    close();
}

bool File::is_open() const {
  if (!state_)
    return false;
  std::shared_lock<std::shared_mutex> lock(state_->lock);
  return state_->vp != NULLVP;
}

int File::flags() const { return state_ ? state_->oflags : 0; }

std::error_code File::close() {
  std::shared_ptr<OpenFile> f = std::move(state_);
  if (!f)
    return make_error(EBADF);
  detail::CallGuard guard(*f->ms);
  std::unique_lock<std::shared_mutex> lock(f->lock);
  if (f->vp == NULLVP)
    return make_error(guard.error() ? ENXIO : EBADF);
  return make_error(detail::file_close_locked(f.get()));
}

std::error_code File::read(void* buffer, size_t length, size_t* done) {
  return make_error(detail::offset_io(state_, buffer, length, false, done));
}

std::error_code File::write(const void* buffer, size_t length, size_t* done) {
  return make_error(detail::offset_io(state_, const_cast<void*>(buffer), length, true, done));
}

std::error_code File::pread(void* buffer, size_t length, int64_t offset, size_t* done) {
  *done = 0;
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    int64_t end = 0;
    return detail::transfer(f, vp, buffer, length, offset, false, done, &end);
  }));
}

std::error_code File::pwrite(const void* buffer, size_t length, int64_t offset, size_t* done) {
  *done = 0;
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    int64_t end = 0;
    return detail::transfer(f, vp, const_cast<void*>(buffer), length, offset, true, done, &end);
  }));
}

std::error_code File::seek(int64_t offset, int whence, int64_t* position) {
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    std::lock_guard<std::mutex> guard(f.offset_lock);
    int64_t base = 0;
    if (whence == SEEK_CUR) {
      base = f.offset;
    } else if (whence == SEEK_END) {
      Stat st;
      if (int error = detail::vn_getattr(vp, &st))
        return error;
      base = static_cast<int64_t>(st.size);
    } else if (whence != SEEK_SET) {
      return EINVAL;
    }
    if ((offset > 0 && base > std::numeric_limits<int64_t>::max() - offset) || base + offset < 0)
      return EINVAL;
    f.offset = base + offset;
    if (position != nullptr)
      *position = f.offset;
    return 0;
  }));
}

std::error_code File::truncate(int64_t size) {
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    if (!(f.fmode & FWRITE))
      return EINVAL;
    return detail::vn_truncate(*f.ms, vp, size);
  }));
}

std::error_code File::fsync() {
  return make_error(detail::with_file(state_, [](OpenFile&, vnode_t vp) {
    return VNOP_FSYNC(vp, MNT_WAIT, vfs_context_kernel());
  }));
}

std::error_code File::full_fsync() {
  return make_error(detail::with_file(state_, [](OpenFile&, vnode_t vp) {
    return VNOP_IOCTL(vp, detail::kFullFsync, nullptr, 0, vfs_context_kernel());
  }));
}

std::error_code File::stat(Stat* out) const {
  return make_error(detail::with_file(state_, [&](OpenFile&, vnode_t vp) {
    return detail::vn_getattr(vp, out);
  }));
}

std::error_code File::utimes(const TimeChange& times) {
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    return detail::vn_utimes(*f.ms, vp, times);
  }));
}

std::error_code File::chflags(uint32_t flags) {
  return make_error(detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
    return detail::vn_chflags(*f.ms, vp, flags);
  }));
}

std::error_code File::readdir(uint64_t cookie, const DirCallback& callback, uint64_t* next_cookie,
                              bool* end) const {
  auto fetch = [this](uint64_t position, detail::DirBatch* batch) {
    return detail::with_file(state_, [&](OpenFile& f, vnode_t vp) {
      return detail::vn_readdir_batch(*f.ms, vp, position, batch);
    });
  };
  return make_error(detail::deliver_listing(fetch, cookie, callback, next_cookie, end));
}

}  // namespace exvol
