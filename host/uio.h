#pragma once
// uio: a scatter/gather request with an offset, a residual count and a
// direction. System and "user" space are one address space here.

#include "host/types.h"

enum uio_rw { UIO_READ = 0, UIO_WRITE = 1 };
enum uio_seg {
  UIO_USERSPACE = 0,
  UIO_SYSSPACE = 2,
  UIO_USERSPACE32 = 5,
  UIO_USERSPACE64 = 8,
};

// NULL when memory runs out. iovcount vectors may be added.
uio_t uio_create(int iovcount, off_t offset, int spacetype, int iodirection);
void uio_free(uio_t uio);
// EINVAL when all vectors are used.
int uio_addiov(uio_t uio, user_addr_t baseaddr, user_size_t length);
user_ssize_t uio_resid(uio_t uio);
void uio_setresid(uio_t uio, user_ssize_t value);
off_t uio_offset(uio_t uio);
void uio_setoffset(uio_t uio, off_t offset);
int uio_rw(uio_t uio);
int uio_isuserspace(uio_t uio);
// Advances offset and vectors by count bytes without copying.
void uio_update(uio_t uio, user_size_t count);
// Resets to offset with no vectors.
void uio_reset(uio_t uio, off_t offset, int spacetype, int iodirection);
int uio_iovcnt(uio_t uio);
// The current vector's base and length (0 when none is left).
user_addr_t uio_curriovbase(uio_t uio);
user_size_t uio_curriovlen(uio_t uio);

// Moves n bytes between cp and the uio in the uio's direction (UIO_READ:
// from cp into the uio's buffers), advancing it. Moves less when the uio
// runs out. Returns 0 or EFAULT.
int uiomove(const char* cp, int n, uio_t uio);
int uiomove64(uint64_t cp, int n, uio_t uio);
