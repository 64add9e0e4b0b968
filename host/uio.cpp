#include "host/uio.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "host/kern.h"
#include "host/malloc.h"

// A uio and its vectors are one allocation. cur indexes the first vector
// that still has bytes to move; vectors before it are used up. resid counts
// the bytes the request still wants, which a caller may set below (never
// above) what the vectors hold.
//
// A uio belongs to one thread at a time; it has no lock.

namespace {
struct iovec64 {
  user_addr_t base;
  user_size_t len;
};
}  // namespace

struct uio {
  int capacity;  // vectors that may be added
  int count;     // vectors added
  int cur;       // first vector not used up
  int space;
  int rw;
  off_t offset;
  user_ssize_t resid;
  iovec64 iov[1];  // capacity entries follow
};

namespace {

size_t uio_bytes(int iovcount) {
  return sizeof(struct uio) + sizeof(iovec64) * static_cast<size_t>(iovcount > 1 ? iovcount - 1 : 0);
}

void check_space(int spacetype, const char* who) {
  switch (spacetype) {
    case UIO_USERSPACE:
    case UIO_SYSSPACE:
    case UIO_USERSPACE32:
    case UIO_USERSPACE64:
      return;
    default:
      panic("%s: unsupported address space %d", who, spacetype);
  }
}

void check_rw(int iodirection, const char* who) {
  if (iodirection != UIO_READ && iodirection != UIO_WRITE)
    panic("%s: bad direction %d", who, iodirection);
}

// Moves cur past vectors that are used up (or were added empty).
void skip_empty(uio_t uio) {
  while (uio->cur < uio->count && uio->iov[uio->cur].len == 0) uio->cur++;
}

}  // namespace

uio_t uio_create(int iovcount, off_t offset, int spacetype, int iodirection) {
  if (iovcount < 0) panic("uio_create: bad vector count %d", iovcount);
  check_space(spacetype, "uio_create");
  check_rw(iodirection, "uio_create");
  if (host_alloc_should_fail()) return nullptr;
  auto* uio = static_cast<uio_t>(calloc(1, uio_bytes(iovcount)));
  if (uio == nullptr) return nullptr;
  uio->capacity = iovcount;
  uio_reset(uio, offset, spacetype, iodirection);
  return uio;
}

void uio_free(uio_t uio) { free(uio); }

int uio_addiov(uio_t uio, user_addr_t baseaddr, user_size_t length) {
  if (uio->count >= uio->capacity) return EINVAL;
  uio->iov[uio->count].base = baseaddr;
  uio->iov[uio->count].len = length;
  uio->count++;
  uio->resid += static_cast<user_ssize_t>(length);
  skip_empty(uio);
  return 0;
}

user_ssize_t uio_resid(uio_t uio) { return uio->resid; }

void uio_setresid(uio_t uio, user_ssize_t value) { uio->resid = value; }

off_t uio_offset(uio_t uio) { return uio->offset; }

void uio_setoffset(uio_t uio, off_t offset) { uio->offset = offset; }

int uio_rw(uio_t uio) { return uio->rw; }

int uio_isuserspace(uio_t uio) { return uio->space != UIO_SYSSPACE; }

// Panics when count exceeds the residual count: the caller would claim to
// have moved bytes the request never asked for.
void uio_update(uio_t uio, user_size_t count) {
  if (count > static_cast<user_size_t>(uio->resid))
    panic("uio_update: count %llu exceeds residual %lld", static_cast<unsigned long long>(count),
          static_cast<long long>(uio->resid));
  uio->resid -= static_cast<user_ssize_t>(count);
  uio->offset += static_cast<off_t>(count);
  while (count > 0 && uio->cur < uio->count) {
    iovec64& v = uio->iov[uio->cur];
    user_size_t step = count < v.len ? count : v.len;
    v.base += step;
    v.len -= step;
    count -= step;
    skip_empty(uio);
  }
}

void uio_reset(uio_t uio, off_t offset, int spacetype, int iodirection) {
  check_space(spacetype, "uio_reset");
  check_rw(iodirection, "uio_reset");
  uio->count = 0;
  uio->cur = 0;
  uio->space = spacetype;
  uio->rw = iodirection;
  uio->offset = offset;
  uio->resid = 0;
}

int uio_iovcnt(uio_t uio) { return uio->count - uio->cur; }

user_addr_t uio_curriovbase(uio_t uio) {
  return uio->cur < uio->count ? uio->iov[uio->cur].base : 0;
}

user_size_t uio_curriovlen(uio_t uio) {
  return uio->cur < uio->count ? uio->iov[uio->cur].len : 0;
}

// Copies vector by vector until n bytes moved, the residual count is used
// up or the vectors end. A vector with a NULL base and bytes left is a bad
// address: EFAULT, with the bytes before it moved and accounted.
int uiomove(const char* cp, int n, uio_t uio) {
  if (n < 0) panic("uiomove: negative count %d", n);
  auto* p = const_cast<char*>(cp);  // the destination when the uio is a write
  while (n > 0 && uio->resid > 0 && uio->cur < uio->count) {
    iovec64& v = uio->iov[uio->cur];
    user_size_t cnt = v.len;
    if (cnt > static_cast<user_size_t>(n)) cnt = static_cast<user_size_t>(n);
    if (cnt > static_cast<user_size_t>(uio->resid)) cnt = static_cast<user_size_t>(uio->resid);
    if (v.base == 0) return EFAULT;
    auto* user = reinterpret_cast<char*>(static_cast<uintptr_t>(v.base));
    if (uio->rw == UIO_READ) memmove(user, p, cnt);
    else memmove(p, user, cnt);
    v.base += cnt;
    v.len -= cnt;
    uio->resid -= static_cast<user_ssize_t>(cnt);
    uio->offset += static_cast<off_t>(cnt);
    p += cnt;
    n -= static_cast<int>(cnt);
    skip_empty(uio);
  }
  return 0;
}

int uiomove64(uint64_t cp, int n, uio_t uio) {
  return uiomove(reinterpret_cast<const char*>(static_cast<uintptr_t>(cp)), n, uio);
}
