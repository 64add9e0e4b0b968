#pragma once
// For host services only: access to the memory of a page list's pages, for
// device I/O straight into the page cache.

#include <sys/uio.h>

#include "host/types.h"

// Fills iov with the addresses of the list's pages that cover
// [offset, offset + size) of the list (offset need not be page aligned);
// pages adjacent in memory may be merged into one vector. Returns the number
// of vectors, or -1 when more than maxiov would be needed.
int host_upl_iovecs(upl_t upl, uint32_t offset, uint32_t size, struct iovec* iov, int maxiov);
