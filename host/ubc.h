#pragma once
// The unified page cache: per-vnode 4096-byte pages (valid, dirty, busy) in
// one global, bounded page pool, and universal page lists (UPLs) through
// which file systems page data in and out.

#include "host/types.h"

#define PAGE_SIZE 4096
#define PAGE_MASK 4095

// ubc_msync flags
#define UBC_PUSHDIRTY 0x01  // write dirty pages (through VNOP_PAGEOUT)
#define UBC_PUSHALL 0x02
#define UBC_INVALIDATE 0x04 // drop the pages after pushing
#define UBC_SYNC 0x08       // wait for the writes

// ubc_create_upl flags
#define UPL_RET_ONLY_DIRTY 0x00000020
#define UPL_RET_ONLY_ABSENT 0x00000100
#define UPL_UBC_MSYNC 0x02000000
#define UPL_UBC_PAGEOUT 0x04000000
#define UPL_UBC_PAGEIN 0x08000000

// paging flags passed to pagein/pageout
#define UPL_IOSYNC 0x01
#define UPL_NOCOMMIT 0x02
#define UPL_NORDAHEAD 0x04
#define UPL_MSYNC 0x10
#define UPL_PAGING_ENCRYPTED 0x20
#define UPL_KEEPCACHED 0x40

// ubc_upl_abort(_range) flags
#define UPL_ABORT_RESTART 0x01
#define UPL_ABORT_UNAVAILABLE 0x02
#define UPL_ABORT_ERROR 0x04
#define UPL_ABORT_FREE_ON_EMPTY 0x08
#define UPL_ABORT_DUMP_PAGES 0x40
// ubc_upl_commit_range flags
#define UPL_COMMIT_FREE_ON_EMPTY 0x01
#define UPL_COMMIT_CLEAR_DIRTY 0x08
#define UPL_COMMIT_SET_DIRTY 0x10
#define UPL_COMMIT_INACTIVATE 0x40

typedef struct upl_page_info {
  uint32_t flags;  // host-private state of the page at list creation
} upl_page_info_t;

// The page cache's idea of the file size. ubc_setsize drops pages wholly
// past the new size and zeroes the tail of a partial last page. Returns 1.
int ubc_setsize(vnode_t vp, off_t nsize);
off_t ubc_getsize(vnode_t vp);
// The largest transfer the page cache makes in one request.
uint32_t ubc_upl_maxbufsize(void);

// Writes (UBC_PUSHDIRTY), waits (UBC_SYNC) and drops (UBC_INVALIDATE) the
// pages of [beg_off, end_off). *resid_off, when given, is where it stopped.
errno_t ubc_msync(vnode_t vp, off_t beg_off, off_t end_off, off_t* resid_off, int flags);

// Creates a page list for [f_offset, f_offset + size) (page aligned). The
// pages in the list are busy until committed or aborted. With
// UPL_RET_ONLY_ABSENT only pages not resident are in the list (new, busy,
// invalid); with UPL_RET_ONLY_DIRTY only resident dirty pages. *plp, when
// given, receives the per-page info array.
errno_t ubc_create_upl(vnode_t vp, off_t f_offset, int bufsize, upl_t* uplp,
                       upl_page_info_t** plp, int uplflags);
// Is page `index` of the list in it (present)? dirty? valid?
int upl_page_present(upl_page_info_t* upl, int index);
int upl_dirty_page(upl_page_info_t* upl, int index);
int upl_valid_page(upl_page_info_t* upl, int index);
// The info array of a list (for the three queries above).
upl_page_info_t* ubc_upl_pageinfo(upl_t upl);
// Maps the list's pages at one contiguous kernel address.
errno_t ubc_upl_map(upl_t upl, uintptr_t* dst_addr);
errno_t ubc_upl_unmap(upl_t upl);
// Abort returns pages to the cache unchanged (absent pages are dropped;
// UPL_ABORT_ERROR/DUMP_PAGES drop them too). Commit marks them valid, and
// clean unless UPL_COMMIT_SET_DIRTY. FREE_ON_EMPTY frees the list when no page
// is left in it.
errno_t ubc_upl_abort(upl_t upl, int abort_type);
errno_t ubc_upl_abort_range(upl_t upl, upl_offset_t offset, upl_size_t size, int abort_flags);
errno_t ubc_upl_commit(upl_t upl);
errno_t ubc_upl_commit_range(upl_t upl, upl_offset_t offset, upl_size_t size, int flags);

// --- Mapped access (the VM's path, for the library) -------------------------
// Faults the page at f_offset in (VNOP_PAGEIN when absent) and pins it;
// *kaddrp is its 4096 bytes. A pinned page is not evicted.
errno_t ubc_page_fault(vnode_t vp, off_t f_offset, int writable, uintptr_t* kaddrp);
// Marks a pinned page dirty (a store through the mapping).
void ubc_page_dirty(vnode_t vp, off_t f_offset);
void ubc_page_unpin(vnode_t vp, off_t f_offset);

// --- Host controls ---------------------------------------------------------------
// The page pool's bound in bytes.
void host_ubc_set_limit(size_t bytes);
size_t host_ubc_limit(void);
size_t host_ubc_resident_bytes(void);
// The most bytes resident at once since the last reset (which starts it at
// what is resident now).
size_t host_ubc_resident_peak_bytes(void);
void host_ubc_reset_resident_peak(void);
size_t host_ubc_vnode_pages(vnode_t vp);
size_t host_ubc_vnode_dirty_pages(vnode_t vp);
