#pragma once
// For the buffer cache only: raw transfers on a device vnode.
//
// The buffer cache turns a buffer into byte ranges of the device (mapping a
// file's blocks through its file system first) and hands each range here as
// one vectored request. Nothing in this header touches the buffer cache.

#include <sys/uio.h>

#include "host/types.h"

// The device's current logical block size: the unit of block numbers on it.
// Panics when devvp is not a device vnode of this host.
uint32_t host_blkdev_bsize(vnode_t devvp);

// One read (write == false) or write of the bytes described by iov at byte
// `offset` of the device: a single preadv/pwritev on a file or block device,
// one copy on an in-memory device. Returns 0, EIO (outside the device, a
// failed or injected fault, a short transfer) or EROFS (a device opened
// read-only); a failed write is also remembered for host_blkdev_write_error.
// Callable from any thread, without locks held.
int host_blkdev_transfer(vnode_t devvp, bool write, uint64_t offset, const struct iovec* iov,
                         int iovcnt);
