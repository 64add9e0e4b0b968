// Mapped file ranges: the path a process's memory mapping takes through
// the page cache. Each access faults the page in (VNOP_PAGEIN when it is
// absent), pins it while bytes are copied, marks it dirty on a store and
// unpins it. Dirty pages reach the disk through VNOP_PAGEOUT: at sync
// (ubc_msync), when the page cache evicts them, or when the last mapping
// goes (VNOP_MNOMAP).

#include <cstring>

#include "api/api_private.h"
#include "exvol/file.h"
#include "host/ubc.h"

namespace exvol {

namespace detail {

namespace {

// Runs op(map, vp) with the mount and the mapping held for one call and an
// I/O reference on the vnode.
template <class Op>
int with_map(const std::shared_ptr<MapState>& m, Op op) {
  if (!m)
    return EINVAL;
  CallGuard guard(*m->ms);
  if (int error = guard.error())
    return error;
  std::shared_lock<std::shared_mutex> lock(m->lock);
  if (m->vp == NULLVP || vnode_get(m->vp) != 0)
    return EINVAL;
  IoRef io(m->vp);
  return op(*m, io.get());
}

// Copies between `buffer` and the mapped bytes [offset, offset + length)
// page by page. A page that can't be brought in (past the end of file) is
// EFAULT, as a process's access there would fault.
int access_pages(MapState& m, vnode_t vp, size_t offset, char* buffer, size_t length,
                 bool store) {
  if (offset > m.length || length > m.length - offset)
    return EFAULT;
  while (length > 0) {
    off_t file_offset = m.offset + static_cast<off_t>(offset);
    off_t page = file_offset & ~static_cast<off_t>(PAGE_MASK);
    size_t in_page = static_cast<size_t>(file_offset - page);
    size_t n = std::min(length, static_cast<size_t>(PAGE_SIZE) - in_page);
    uintptr_t kaddr = 0;
    int error = ubc_page_fault(vp, page, store ? 1 : 0, &kaddr);
    if (error)
      return error == EINVAL ? EFAULT : error;
    char* bytes = reinterpret_cast<char*>(kaddr) + in_page;
    if (store) {
      memcpy(bytes, buffer, n);
      ubc_page_dirty(vp, page);
    } else {
      memcpy(buffer, bytes, n);
    }
    ubc_page_unpin(vp, page);
    offset += n;
    buffer += n;
    length -= n;
  }
  return 0;
}

}  // namespace

// Ends the mapping: the caller holds m->lock exclusively and m is mapped.
// The file system hears that the mapping went (VNOP_MNOMAP pushes the
// dirty pages) before the mapping's use reference is dropped.
int map_close_locked(MapState* m) {
  vnode_t vp = m->vp;
  m->vp = NULLVP;
  {
    std::lock_guard<std::mutex> guard(m->ms->registry_lock);
    m->ms->maps.erase(m);
  }
  bool io = vnode_get(vp) == 0;
  int error = io ? VNOP_MNOMAP(vp, vfs_context_kernel()) : 0;
  vnode_rele(vp);
  if (io)
    vnode_put(vp);
  return error;
}

void map_revoke(MapState* m) {
  std::unique_lock<std::shared_mutex> lock(m->lock);
  if (m->vp == NULLVP)
    return;
  m->revoked = true;
  map_close_locked(m);
}

}  // namespace detail

using detail::make_error;
using detail::MapState;

Mapping::Mapping() = default;
Mapping::Mapping(Mapping&& other) noexcept = default;

Mapping& Mapping::operator=(Mapping&& other) noexcept {
  if (this != &other) {
    if (state_)
      unmap();
    state_ = std::move(other.state_);
  }
  return *this;
}

Mapping::~Mapping() {
  if (state_)
    unmap();
}

std::error_code Mapping::map(const File& file, int64_t offset, size_t length, bool writable,
                             Mapping* out) {
  *out = Mapping();
  if (offset < 0 || (offset & PAGE_MASK) != 0 || length == 0)
    return make_error(EINVAL);
  std::shared_ptr<detail::OpenFile> f = file.state_;
  if (!f)
    return make_error(EBADF);
  detail::CallGuard guard(*f->ms);
  if (int error = guard.error())
    return make_error(error);
  std::shared_lock<std::shared_mutex> lock(f->lock);
  if (f->vp == NULLVP)
    return make_error(EBADF);
  if (!vnode_isreg(f->vp))
    return make_error(EINVAL);
  if (!(f->fmode & FREAD) || (writable && !(f->fmode & FWRITE)))
    return make_error(EACCES);
  if (vnode_get(f->vp) != 0)
    return make_error(EBADF);
  detail::IoRef io(f->vp);
  if (int error = vnode_ref(io.get()))
    return make_error(error);
  auto m = std::make_shared<MapState>();
  m->ms = f->ms;
  m->vp = io.get();
  m->offset = offset;
  m->length = length;
  m->writable = writable;
  {
    std::lock_guard<std::mutex> registry(f->ms->registry_lock);
    f->ms->maps.insert(m.get());
  }
  out->state_ = std::move(m);
  return {};
}

bool Mapping::is_mapped() const {
  if (!state_)
    return false;
  std::shared_lock<std::shared_mutex> lock(state_->lock);
  return state_->vp != NULLVP;
}

size_t Mapping::length() const { return state_ ? state_->length : 0; }

std::error_code Mapping::read(size_t offset, void* buffer, size_t length) const {
  return make_error(detail::with_map(state_, [&](MapState& m, vnode_t vp) {
    return detail::access_pages(m, vp, offset, static_cast<char*>(buffer), length, false);
  }));
}

std::error_code Mapping::write(size_t offset, const void* buffer, size_t length) {
  return make_error(detail::with_map(state_, [&](MapState& m, vnode_t vp) {
    if (!m.writable)
      return EACCES;
    return detail::access_pages(m, vp, offset,
                                static_cast<char*>(const_cast<void*>(buffer)), length, true);
  }));
}

std::error_code Mapping::sync(bool wait) {
  return make_error(detail::with_map(state_, [&](MapState& m, vnode_t vp) {
    int flags = UBC_PUSHDIRTY | (wait ? UBC_SYNC : 0);
    off_t end = m.offset + static_cast<off_t>(m.length);
    return ubc_msync(vp, m.offset, end, nullptr, flags);
  }));
}

std::error_code Mapping::unmap() {
  std::shared_ptr<MapState> m = std::move(state_);
  if (!m)
    return make_error(EINVAL);
  detail::CallGuard guard(*m->ms);
  std::unique_lock<std::shared_mutex> lock(m->lock);
  if (m->vp == NULLVP)
    return make_error(guard.error() ? ENXIO : EINVAL);
  return make_error(detail::map_close_locked(m.get()));
}

}  // namespace exvol
