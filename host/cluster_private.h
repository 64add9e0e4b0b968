#pragma once
// Private to the page cache and the cluster layer: the calls that cross
// between host/ubc*.cpp and host/cluster.cpp.

#include "host/types.h"
#include "host/ubc_private.h"

namespace ubc {

// Writes the dirty pages of [first, last) (page numbers) with the cluster
// layer's own transfers (blockmap + strategy), in runs of contiguous dirty
// pages; pages stored to through a mapping (PG_MAPDIRTY) only with
// `mapped_too`, for file systems without a page-out of their own.
// Asynchronous unless `wait`; with `wait` it also waits for the file's
// transfers in flight. The caller holds no host lock and is the file's
// writer or holds an I/O reference. Returns the first error (an earlier
// asynchronous write's error included, when waiting).
int cl_push_range(Info* info, uint64_t first, uint64_t last, bool wait, bool mapped_too = false);

// Hands the dirty pages of [beg, end) (bytes, clipped to the file size) to
// the file system's VNOP_PAGEOUT, one call per window of up to one maximal
// transfer that holds a dirty page; a file system without a pageout
// operation gets them written with cl_push_range. The caller holds an I/O
// reference on vp (or is reclaiming it) and no host lock. Returns the first
// error; *stopp (when given) is the offset where the first failing window
// began, or `end`.
int ubc_pageout_vnode(vnode_t vp, Info* info, off_t beg, off_t end, int flags,
                      off_t* stopp = nullptr);

}  // namespace ubc
