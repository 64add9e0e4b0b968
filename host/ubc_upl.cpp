// Page lists (UPLs), mapped access and msync.
//
// A page list names a page-aligned range of a file and holds some of its
// pages busy: which ones depends on how it was made (only absent pages for
// a page-in, only dirty ones for a page-out). The holder moves data in and
// out of those pages with the lock dropped, then commits or aborts them,
// range by range; that releases them. The per-page info array records the
// state each page had when the list was made.

#include <algorithm>
#include <cstring>
#include <new>

#include "host/cluster_private.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/ubc_io_private.h"
#include "host/ubc_private.h"
#include "host/vfs.h"

namespace ubc {

// Lists larger than this are refused (a paging request is at most a few
// maximal transfers).
constexpr uint32_t kMaxListPages = 64u << (20 - 12);  // 64 MiB

upl_t upl_alloc(Info* info, vnode_t vp, off_t f_offset, uint32_t npages, int flags) {
  if (host_alloc_should_fail()) return nullptr;
  upl_t upl = new (std::nothrow) struct upl;
  if (upl == nullptr) return nullptr;
  upl->info = info;
  upl->vp = vp;
  upl->f_offset = f_offset;
  upl->npages = npages;
  upl->remaining = 0;
  upl->flags = flags;
  upl->map = nullptr;
  upl->pages = new (std::nothrow) Page*[npages]();
  upl->pl = new (std::nothrow) upl_page_info_t[npages]();
  if (upl->pages == nullptr || upl->pl == nullptr) {
    upl_destroy(upl);
    return nullptr;
  }
  return upl;
}

void upl_destroy(upl_t upl) {
  delete[] upl->pages;
  delete[] upl->pl;
  delete[] upl->map;
  delete upl;
}

void upl_set_page_locked(upl_t upl, uint32_t slot, Page* p) {
  upl->pages[slot] = p;
  uint32_t f = UPI_PRESENT;
  if (p->flags & PG_DIRTY) f |= UPI_DIRTY;
  if (p->flags & PG_VALID) f |= UPI_VALID;
  upl->pl[slot].flags = f;
  upl->remaining++;
}

Page* upl_page(upl_t upl, uint32_t slot) { return slot < upl->npages ? upl->pages[slot] : nullptr; }
uint32_t upl_npages(upl_t upl) { return upl->npages; }
off_t upl_f_offset(upl_t upl) { return upl->f_offset; }

namespace {

// Fills one slot of a list being made. Returns false when memory ran out.
bool fill_slot_locked(upl_t upl, uint32_t slot, int flags) {
  Info* info = upl->info;
  uint64_t idx = uint64_t(upl->f_offset) / PAGE_SIZE + slot;
  for (;;) {
    Page* p = page_lookup_locked(info, idx);
    if (p == nullptr) {
      if (flags & UPL_RET_ONLY_DIRTY) return true;
      p = page_create_locked(info, idx);
      if (p == nullptr) return false;
      upl_set_page_locked(upl, slot, p);
      return true;
    }
    if (flags & UPL_RET_ONLY_ABSENT) return true;  // resident, busy or not
    if ((flags & UPL_RET_ONLY_DIRTY) && !(p->flags & PG_DIRTY)) return true;
    if (!page_acquire_locked(p)) continue;
    if ((flags & UPL_RET_ONLY_DIRTY) && !(p->flags & PG_DIRTY)) {
      page_release_locked(p);  // cleaned while we waited
      return true;
    }
    upl_set_page_locked(upl, slot, p);
    return true;
  }
}

// Gives a page back at the end of its time in a list.
void end_page_locked(upl_t upl, uint32_t slot) {
  upl->pages[slot] = nullptr;
  upl->remaining--;
}

void maybe_free_locked(upl_t upl, bool free_on_empty, bool* freed) {
  if (free_on_empty && upl->remaining == 0) {
    *freed = true;
  }
}

}  // namespace
}  // namespace ubc

using namespace ubc;

// The caller holds no host lock (the call may wait for busy pages). See
// host/ubc.h. EINVAL for an unaligned or negative offset, an empty or huge
// range, or a vnode without a page cache; ENOMEM.
errno_t ubc_create_upl(vnode_t vp, off_t f_offset, int bufsize, upl_t* uplp,
                       upl_page_info_t** plp, int uplflags) {
  constexpr int kKnown = UPL_RET_ONLY_DIRTY | UPL_RET_ONLY_ABSENT | UPL_UBC_MSYNC |
                         UPL_UBC_PAGEOUT | UPL_UBC_PAGEIN;
  if (uplflags & ~kKnown) panic("ubc_create_upl: unsupported flags 0x%x", uplflags & ~kKnown);
  if ((uplflags & UPL_RET_ONLY_DIRTY) && (uplflags & UPL_RET_ONLY_ABSENT))
    panic("ubc_create_upl: only dirty and only absent at once");
  *uplp = nullptr;
  if (plp) *plp = nullptr;
  Info* info = info_of(vp);
  if (info == nullptr || f_offset < 0 || (f_offset & PAGE_MASK) || bufsize <= 0) return EINVAL;
  uint32_t npages = uint32_t((uint64_t(bufsize) + PAGE_MASK) / PAGE_SIZE);
  if (npages > kMaxListPages) return EINVAL;
  upl_t upl = upl_alloc(info, vp, f_offset, npages, uplflags);
  if (upl == nullptr) return ENOMEM;
  Locker l;
  if (!(uplflags & UPL_RET_ONLY_DIRTY)) make_room_locked(npages, true);
  for (uint32_t i = 0; i < npages; i++) {
    if (!fill_slot_locked(upl, i, uplflags)) {
      l.unlock();
      ubc_upl_abort(upl, 0);
      return ENOMEM;
    }
  }
  *uplp = upl;
  if (plp) *plp = upl->pl;
  return 0;
}

int upl_page_present(upl_page_info_t* pl, int index) { return (pl[index].flags & UPI_PRESENT) != 0; }
int upl_dirty_page(upl_page_info_t* pl, int index) { return (pl[index].flags & UPI_DIRTY) != 0; }
int upl_valid_page(upl_page_info_t* pl, int index) { return (pl[index].flags & UPI_VALID) != 0; }
upl_page_info_t* ubc_upl_pageinfo(upl_t upl) { return upl->pl; }

// Divergence from a kernel: the host cannot remap pages, so the "mapping" is
// a contiguous copy of the list's pages that ubc_upl_unmap copies back into
// them (slots not in the list read as zeros and are not copied back). The
// pages are busy meanwhile, so nobody else sees the difference.
errno_t ubc_upl_map(upl_t upl, uintptr_t* dst_addr) {
  if (upl->map != nullptr) return EINVAL;
  upl->map = new (std::nothrow) char[size_t(upl->npages) * PAGE_SIZE];
  if (upl->map == nullptr) return ENOMEM;
  for (uint32_t i = 0; i < upl->npages; i++) {
    char* dst = upl->map + size_t(i) * PAGE_SIZE;
    if (upl->pages[i] != nullptr)
      memcpy(dst, upl->pages[i]->data, PAGE_SIZE);
    else
      memset(dst, 0, PAGE_SIZE);
  }
  *dst_addr = uintptr_t(upl->map);
  return 0;
}

errno_t ubc_upl_unmap(upl_t upl) {
  if (upl->map == nullptr) return EINVAL;
  for (uint32_t i = 0; i < upl->npages; i++)
    if (upl->pages[i] != nullptr) memcpy(upl->pages[i]->data, upl->map + size_t(i) * PAGE_SIZE, PAGE_SIZE);
  delete[] upl->map;
  upl->map = nullptr;
  return 0;
}

namespace {

// Ends the list's hold on each page it has in [offset, offset + size) and
// hands the page to `fn`. The ubc lock is held.
template <typename Fn>
void end_range_locked(upl_t upl, upl_offset_t offset, upl_size_t size, Fn fn) {
  uint32_t first = offset / PAGE_SIZE;
  uint32_t last = std::min<uint32_t>(upl->npages, uint32_t((uint64_t(offset) + size + PAGE_MASK) / PAGE_SIZE));
  for (uint32_t i = first; i < last; i++) {
    Page* p = upl->pages[i];
    if (p == nullptr) continue;
    end_page_locked(upl, i);
    fn(p);
  }
}

}  // namespace

// Returns the pages of [offset, offset + size) of the list to the cache.
// Pages the list created (absent before) are dropped, and with
// UPL_ABORT_ERROR so are pages that never became valid; with
// UPL_ABORT_DUMP_PAGES every page is dropped. Others keep their state.
errno_t ubc_upl_abort_range(upl_t upl, upl_offset_t offset, upl_size_t size, int abort_flags) {
  constexpr int kKnown = UPL_ABORT_RESTART | UPL_ABORT_UNAVAILABLE | UPL_ABORT_ERROR |
                         UPL_ABORT_FREE_ON_EMPTY | UPL_ABORT_DUMP_PAGES;
  if (abort_flags & ~kKnown) panic("ubc_upl_abort_range: unsupported flags 0x%x", abort_flags & ~kKnown);
  if (upl == nullptr || (offset & PAGE_MASK)) return EINVAL;
  bool freed = false;
  {
    Locker l;
    end_range_locked(upl, offset, size, [&](Page* p) {
      if (p->flags & PG_REDIRTY) page_set_dirty_locked(p);
      p->flags &= ~PG_REDIRTY;
      bool drop = (abort_flags & UPL_ABORT_DUMP_PAGES) || (p->flags & PG_FRESH) ||
                  ((abort_flags & UPL_ABORT_ERROR) && !(p->flags & PG_VALID));
      if (drop)
        page_free_locked(p);
      else
        page_release_locked(p);
    });
    maybe_free_locked(upl, abort_flags & UPL_ABORT_FREE_ON_EMPTY, &freed);
  }
  if (freed) upl_destroy(upl);
  return 0;
}

errno_t ubc_upl_abort(upl_t upl, int abort_type) {
  if (upl == nullptr) return EINVAL;
  ubc_upl_abort_range(upl, 0, upl->npages * PAGE_SIZE, abort_type & ~UPL_ABORT_FREE_ON_EMPTY);
  upl_destroy(upl);
  return 0;
}

// Marks the pages of [offset, offset + size) valid, clean (dirty with
// UPL_COMMIT_SET_DIRTY; a page stored to through a mapping meanwhile stays
// dirty) and releases them.
errno_t ubc_upl_commit_range(upl_t upl, upl_offset_t offset, upl_size_t size, int flags) {
  constexpr int kKnown = UPL_COMMIT_FREE_ON_EMPTY | UPL_COMMIT_CLEAR_DIRTY | UPL_COMMIT_SET_DIRTY |
                         UPL_COMMIT_INACTIVATE;
  if (flags & ~kKnown) panic("ubc_upl_commit_range: unsupported flags 0x%x", flags & ~kKnown);
  if (upl == nullptr || (offset & PAGE_MASK)) return EINVAL;
  bool freed = false;
  {
    Locker l;
    Pool& pl = pool();
    end_range_locked(upl, offset, size, [&](Page* p) {
      p->flags |= PG_VALID;
      if ((flags & UPL_COMMIT_SET_DIRTY) || (p->flags & PG_REDIRTY))
        page_set_dirty_locked(p);
      else
        page_set_clean_locked(p);
      p->flags &= ~PG_REDIRTY;
      page_release_locked(p);
      if ((flags & UPL_COMMIT_INACTIVATE) && p->list == PageList::Clean) {
        // First in line for eviction.
        p->prev->next = p->next;
        p->next->prev = p->prev;
        p->next = pl.clean_lru.next;
        p->prev = &pl.clean_lru;
        pl.clean_lru.next->prev = p;
        pl.clean_lru.next = p;
      }
    });
    maybe_free_locked(upl, flags & UPL_COMMIT_FREE_ON_EMPTY, &freed);
  }
  if (freed) upl_destroy(upl);
  return 0;
}

errno_t ubc_upl_commit(upl_t upl) {
  if (upl == nullptr) return EINVAL;
  ubc_upl_commit_range(upl, 0, upl->npages * PAGE_SIZE, 0);
  upl_destroy(upl);
  return 0;
}

// The caller owns the list's pages in the range (they are busy in it).
int host_upl_iovecs(upl_t upl, uint32_t offset, uint32_t size, struct iovec* iov, int maxiov) {
  int n = 0;
  uint64_t end = uint64_t(offset) + size;
  if (end > uint64_t(upl->npages) * PAGE_SIZE) panic("host_upl_iovecs: range past the list");
  for (uint64_t off = offset; off < end;) {
    Page* p = upl->pages[off / PAGE_SIZE];
    if (p == nullptr) panic("host_upl_iovecs: page %llu not in the list", (unsigned long long)(off / PAGE_SIZE));
    uint32_t in = uint32_t(off & PAGE_MASK);
    uint32_t len = uint32_t(std::min<uint64_t>(PAGE_SIZE - in, end - off));
    char* base = p->data + in;
    if (n > 0 && static_cast<char*>(iov[n - 1].iov_base) + iov[n - 1].iov_len == base) {
      iov[n - 1].iov_len += len;
    } else {
      if (n == maxiov) return -1;
      iov[n].iov_base = base;
      iov[n].iov_len = len;
      n++;
    }
    off += len;
  }
  return n;
}

// --- Mapped access ------------------------------------------------------------

// The caller holds an I/O reference on vp and no host lock. Brings the page
// in through the file system's VNOP_PAGEIN when it is absent (which fails,
// for instance, past the end of file) and pins it. `writable` is ignored:
// every pinned page may be stored to; ubc_page_dirty records the store.
errno_t ubc_page_fault(vnode_t vp, off_t f_offset, int writable, uintptr_t* kaddrp) {
  Info* info = info_of(vp);
  if (info == nullptr || f_offset < 0) return EINVAL;
  uint64_t idx = uint64_t(f_offset) / PAGE_SIZE;
  // A page brought in can be evicted again before we pin it when the pool is
  // tiny and busy; a few rounds settle that.
  for (int tries = 0; tries < 16; tries++) {
    {
      Locker l;
      Page* p = page_lookup_locked(info, idx);
      while (p != nullptr && (p->flags & PG_BUSY)) {
        p->flags |= PG_WANTED;
        sleep_locked();
        p = page_lookup_locked(info, idx);
      }
      if (p != nullptr && (p->flags & PG_VALID)) {
        p->pins++;
        page_relist_locked(p);
        *kaddrp = uintptr_t(p->data);
        return 0;
      }
    }
    int err = VNOP_PAGEIN(vp, nullptr, 0, off_t(idx) * PAGE_SIZE, PAGE_SIZE, 0, vfs_context_kernel());
    if (err) return err;
  }
  return EAGAIN;
}

namespace {
Page* pinned_page_locked(vnode_t vp, off_t f_offset, const char* fn) {
  Info* info = info_of(vp);
  uint64_t idx = uint64_t(f_offset) / PAGE_SIZE;
  Page* p = info ? page_lookup_locked(info, idx) : nullptr;
  if (p != nullptr && p->pins != 0) return p;
  for (Page* g : pool().gone)
    if (g->gone_vp == vp && g->index == idx) return g;
  panic("%s: page at %lld is not pinned", fn, (long long)f_offset);
}
}  // namespace

// A store through the mapping of a pinned page. A page that is being written
// out meanwhile stays dirty when the write commits.
void ubc_page_dirty(vnode_t vp, off_t f_offset) {
  Locker l;
  Page* p = pinned_page_locked(vp, f_offset, "ubc_page_dirty");
  if (p->flags & PG_GONE) return;  // truncated away: the store is lost, as on a kernel
  if (p->flags & PG_BUSY) p->flags |= PG_REDIRTY;
  page_set_dirty_locked(p);
  p->flags |= PG_MAPDIRTY;
}

void ubc_page_unpin(vnode_t vp, off_t f_offset) {
  Locker l;
  Page* p = pinned_page_locked(vp, f_offset, "ubc_page_unpin");
  if (--p->pins != 0) return;
  if (p->flags & PG_GONE) {
    Pool& pl = pool();
    pl.gone.erase(std::find(pl.gone.begin(), pl.gone.end(), p));
    page_free_gone_locked(p);
    return;
  }
  page_relist_locked(p);
}

// The caller holds an I/O reference on vp and no host lock. See host/ubc.h.
// EINVAL for a bad range or a vnode without a page cache; the first
// VNOP_PAGEOUT error otherwise.
errno_t ubc_msync(vnode_t vp, off_t beg_off, off_t end_off, off_t* resid_off, int flags) {
  constexpr int kKnown = UBC_PUSHDIRTY | UBC_PUSHALL | UBC_INVALIDATE | UBC_SYNC;
  if (flags & ~kKnown) panic("ubc_msync: unsupported flags 0x%x", flags & ~kKnown);
  Info* info = info_of(vp);
  if (resid_off) *resid_off = beg_off;
  if (info == nullptr || beg_off < 0 || end_off < beg_off) return EINVAL;
  int err = 0;
  off_t stop = end_off;
  if (flags & (UBC_PUSHDIRTY | UBC_PUSHALL))
    err = ubc_pageout_vnode(vp, info, beg_off, end_off, UPL_MSYNC | ((flags & UBC_SYNC) ? UPL_IOSYNC : 0), &stop);
  uint64_t first = uint64_t(beg_off) / PAGE_SIZE;
  uint64_t last = (uint64_t(end_off) + PAGE_MASK) / PAGE_SIZE;
  if (flags & (UBC_SYNC | UBC_INVALIDATE)) {
    Locker l;
    for (Page* p : pages_in_range_locked(info, first, last)) {
      if (p->info != info) continue;
      if (!page_acquire_locked(p)) continue;  // waits for transfers on it
      if (flags & UBC_INVALIDATE)
        page_free_locked(p);
      else
        page_release_locked(p);
    }
  }
  if (resid_off) *resid_off = stop;
  return err;
}
