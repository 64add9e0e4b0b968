#pragma once
// For host services only (not the driver): per-vnode state that other host
// services own, and the hooks through which the vnode layer tells them about
// a vnode's life.
//
// The vnode layer defines weak no-op versions of the hooks so that it links
// without the services; a service that keeps per-vnode state defines the
// strong version.

#include "host/types.h"
#include "host/vnode.h"

#include <vector>

// Slots for per-vnode state of other services (NULL until they set them).
void** host_vnode_ubc_slot(vnode_t vp);   // page cache (host/ubc)
void** host_vnode_buf_slot(vnode_t vp);   // buffer cache (host/buf)
void** host_vnode_spec_slot(vnode_t vp);  // block device (host/blkdev)

// The operation vector of a vnode (for dispatch) and its file system's
// operation count.
VOPFUNC* host_vnode_ops(vnode_t vp);

// Called by vnode_create for every new vnode, after the vnode is set up and
// before it is returned: the page cache makes the page-cache object of a
// regular file (filesize from the fsparam). Returns 0 or ENOMEM (the vnode
// is then discarded and vnode_create fails).
int host_ubc_vnode_created(vnode_t vp, off_t filesize);

// Called while a vnode is reclaimed, in this order, before VNOP_RECLAIM and
// with the file system's node still attached:
//  1. host_buf_vnode_reclaim: write the vnode's dirty buffers (unless the
//     reclaim is forced and the device is gone), then drop all its buffers;
//  2. host_ubc_vnode_reclaim: push dirty pages (VNOP_PAGEOUT), drop them.
// After VNOP_RECLAIM: host_ubc_vnode_destroy frees the page-cache object.
void host_buf_vnode_reclaim(vnode_t vp);
void host_ubc_vnode_reclaim(vnode_t vp);
void host_ubc_vnode_destroy(vnode_t vp);
// Called when a device vnode (VBLK) is reclaimed, after its buffers went.
void host_blkdev_vnode_reclaim(vnode_t vp);

// The file vnodes of mp that have idle delayed writes in the buffer cache
// (host/buf), and a way to hold one of them: host_vnode_get_live takes an
// I/O reference on vp when it is alive, not being reclaimed and still on
// mp (vnodes are type-stable, so a pointer collected earlier may be tested).
std::vector<vnode_t> host_buf_dirty_vnodes(mount_t mp);
bool host_vnode_get_live(vnode_t vp, mount_t mp);
