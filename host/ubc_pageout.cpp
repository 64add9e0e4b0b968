// The page-out role: dirty pages that their writer did not push go to the
// device through the file system's VNOP_PAGEOUT. Pages stored to through a
// mapping go to the device only this way (see PG_MAPDIRTY).
//
// Three callers: ubc_msync (UBC_PUSHDIRTY), the reclaim of a vnode, and the
// page-out thread, which runs when dirty pages exceed their share of the
// pool or the pool is full without a clean page to evict. The page-out
// thread is the only one that pages out files it does not own: it takes an
// I/O reference with vnode_getwithvid for every call (so a file being
// reclaimed is skipped; its reclaim writes the pages) and holds no host
// lock across VNOP_PAGEOUT. Nobody ever waits for the page-out thread, so a
// file system's pageout may block on the file's I/O lock while the file's
// writer holds it without deadlock: the writer pushes its own pages.

#include <algorithm>
#include <thread>

#include "host/cluster_private.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/ubc_private.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace ubc {

namespace {

constexpr uint32_t kWindowPages = kMaxIO / PAGE_SIZE;

// The window of pages paged out together with page `idx`: the maximal
// transfer it lies in, clipped to the file.
void window_of(uint64_t idx, off_t size, uint64_t* first, uint64_t* last) {
  *first = idx / kWindowPages * kWindowPages;
  *last = std::min<uint64_t>(*first + kWindowPages, (uint64_t(size) + PAGE_MASK) / PAGE_SIZE);
}

int pageout_window(vnode_t vp, Info* info, uint64_t first, uint64_t last, int flags) {
  off_t off = off_t(first) * PAGE_SIZE;
  size_t len = size_t(last - first) * PAGE_SIZE;
  int err = VNOP_PAGEOUT(vp, nullptr, 0, off, len, flags, vfs_context_kernel());
  if (err == ENOTSUP) err = cl_push_range(info, first, last, true, true);
  return err;
}

bool pageout_needed_locked() {
  Pool& pl = pool();
  if (pl.dirty_lru.next == &pl.dirty_lru) return false;
  return over_dirty_limit_locked() || pl.resident > pl.limit_pages;
}

// One round of the page-out thread: the least recently used idle dirty page
// and its window. Returns false when the round made no page clean.
bool pageout_round(Locker& l) {
  Pool& pl = pool();
  Page* p = pl.dirty_lru.next;
  Info* info = p->info;
  vnode_t vp = info->vp;
  uint32_t vid = info->vid;
  uint64_t first, last;
  window_of(p->index, info->size, &first, &last);
  // Requeue the page so that a failing file does not keep the thread on
  // the same page.
  page_relist_locked(p);
  size_t before = pl.ndirty;
  if (info->reclaiming || first >= last) return false;
  l.unlock();
  if (vnode_getwithvid(vp, vid) == 0) {
    Info* cur = info_of(vp);  // the I/O reference keeps it until vnode_put
    int err = pageout_window(vp, cur, first, last, 0);
    if (err) {
      // Nobody waits for this write: the file's next fsync or close is told.
      l.relock();
      if (cur->error == 0) cur->error = err;
      l.unlock();
    }
    vnode_put(vp);
  }
  l.relock();
  return pl.ndirty < before;
}

void pageout_thread() {
  Pool& pl = pool();
  Locker l;
  int idle_rounds = 0;
  for (;;) {
    while (!pageout_needed_locked()) {
      idle_rounds = 0;
      pl.lock.wait(pl.pageout_cv);
    }
    bool progress = pageout_round(l);
    // Pages made clean are evictable: bring the pool back under its bound
    // now rather than at the next allocation.
    make_room_locked(0, false);
    if (progress) {
      idle_rounds = 0;
    } else if (++idle_rounds >= 8) {
      // Nothing is getting clean (every file failing, or only pages of
      // files being reclaimed): back off instead of spinning.
      pl.lock.wait_ms(pl.pageout_cv, 50);
      idle_rounds = 0;
    }
  }
}

}  // namespace

void kick_pageout_locked() {
  static bool started = false;  // ubc lock
  Pool& pl = pool();
  if (!started) {
    std::thread(pageout_thread).detach();
    started = true;
  }
  pl.pageout_kicks++;
  pl.pageout_cv.notify_one();
}

int ubc_pageout_vnode(vnode_t vp, Info* info, off_t beg, off_t end, int flags, off_t* stopp) {
  int error = 0;
  if (stopp) *stopp = end;
  uint64_t pg = uint64_t(beg) / PAGE_SIZE;
  for (;;) {
    uint64_t first, last;
    {
      Locker l;
      uint64_t lim = std::min<uint64_t>((uint64_t(end) + PAGE_MASK) / PAGE_SIZE,
                                        (uint64_t(info->size) + PAGE_MASK) / PAGE_SIZE);
      Page* p = find_dirty_locked(info, pg, lim);
      if (p == nullptr) break;
      first = p->index;
      last = std::min<uint64_t>(first + kWindowPages, lim);
    }
    int err = pageout_window(vp, info, first, last, flags);
    if (err && error == 0) {
      error = err;
      if (stopp) *stopp = off_t(first) * PAGE_SIZE;
    }
    pg = last;
  }
  return error;
}

}  // namespace ubc
