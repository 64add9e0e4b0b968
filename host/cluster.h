#pragma once
// The cluster layer: file data between uio buffers and the page cache, and
// between the page cache and the device in large requests over the extents
// the file system's blockmap operation reports (holes, sector -1, read as
// zeros).

#include "host/types.h"
#include "host/ubc.h"

// Copies resident pages; reads absent ones in large requests (with read-ahead
// for sequential access). Never reads past filesize; bytes at or past it read
// as zeros up to the end of their page and the uio stops at filesize.
int cluster_read(vnode_t vp, uio_t uio, off_t filesize, int xflags);
// Copies uio (may be NULL: only zero-fill) into pages. IO_HEADZEROFILL zeroes
// [headOff, uio offset); IO_TAILZEROFILL zeroes [end of the write, tailOff);
// IO_NOZEROVALID / IO_NOZERODIRTY leave valid / dirty pages alone while
// zero-filling. A page partially written is read first unless it lies at or
// past oldEOF. Nothing at or past newEOF is zero-filled. IO_SYNC writes the
// range before returning; otherwise dirty pages are written behind in large
// requests. Long runs of absent pages inside a zero fill are zeroed on the
// device at once; the pages a call holds are bounded whatever its length.
int cluster_write(vnode_t vp, uio_t uio, off_t oldEOF, off_t newEOF, off_t headOff,
                  off_t tailOff, int flags);
// Writes every dirty page of vp but those stored to through a mapping, which
// only the file system's page-out writes (IO_SYNC: waits). A failed write
// that nobody waited for (write-behind, the page-out thread) is returned by
// the next call with IO_SYNC or IO_CLOSE.
int cluster_push(vnode_t vp, int flags);
// Transfers a run of a page list: pagein reads (zero-filling past filesize),
// pageout writes; both commit or abort the run's pages unless UPL_NOCOMMIT.
int cluster_pagein(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                   off_t filesize, int flags);
int cluster_pageout(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                    off_t filesize, int flags);
// Starts reading [f_offset, f_offset + resid) into the page cache.
int advisory_read(vnode_t vp, off_t filesize, off_t f_offset, int resid);
