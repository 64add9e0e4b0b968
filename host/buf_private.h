#pragma once
// For host services only: buffer-cache operations that a kernel would do
// inside its device layer.

#include "host/types.h"

// Writes the delayed-write buffers of vp that nobody holds and drops every
// buffer of vp that nobody holds; held buffers are left alone. The device
// layer calls it before the block size changes, because cached block
// numbers of the old size would name other bytes afterwards. Takes and
// drops the cache lock; the caller holds no buffer of vp that it expects to
// survive.
void host_buf_drop_idle(vnode_t vp);
