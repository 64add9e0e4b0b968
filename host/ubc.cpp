// The page pool and the per-vnode page index.
//
// Every page of every file lives in one global pool of 4096-byte pages with a
// bound in bytes. Idle pages sit on one of two global LRU lists, clean or
// dirty; busy, shared, pinned and free pages sit on neither. A new page takes
// a free page of the pool while the pool is under its bound, and otherwise
// the least recently used clean page. Dirty pages become clean through the
// cluster layer's writes (write-behind, cluster_push, IO_SYNC) or through the
// page-out thread (host/ubc_pageout.cpp), which hands them to the file
// system's VNOP_PAGEOUT.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/cluster_private.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/ubc.h"
#include "host/ubc_private.h"
#include "host/vnode.h"
#include "host/vnode_slots_private.h"

namespace ubc {

void OwnedMutex::wait(std::condition_variable& cv) {
  std::unique_lock<std::mutex> lk(m_, std::adopt_lock);
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  cv.wait(lk);
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  lk.release();
}

void OwnedMutex::wait_ms(std::condition_variable& cv, int ms) {
  std::unique_lock<std::mutex> lk(m_, std::adopt_lock);
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  cv.wait_for(lk, std::chrono::milliseconds(ms));
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  lk.release();
}

namespace {

// A sensible default: an eighth of memory, between 16 MiB and 256 MiB.
size_t default_limit_pages() {
  long phys = sysconf(_SC_PHYS_PAGES);
  long psz = sysconf(_SC_PAGESIZE);
  uint64_t bytes = (phys > 0 && psz > 0) ? uint64_t(phys) * uint64_t(psz) / 8 : 0;
  bytes = std::clamp<uint64_t>(bytes, 16ull << 20, 256ull << 20);
  return size_t(bytes / PAGE_SIZE);
}

Pool* make_pool() {
  Pool* p = new Pool;
  p->limit_pages = default_limit_pages();
  p->clean_lru.prev = p->clean_lru.next = &p->clean_lru;
  p->dirty_lru.prev = p->dirty_lru.next = &p->dirty_lru;
  return p;
}

void list_remove(Page* p) {
  p->prev->next = p->next;
  p->next->prev = p->prev;
  p->prev = p->next = nullptr;
  p->list = PageList::None;
}

void list_append(Page* head, Page* p, PageList which) {
  p->prev = head->prev;
  p->next = head;
  head->prev->next = p;
  head->prev = p;
  p->list = which;
}

// --- Slabs ----------------------------------------------------------------------

// Free pages kept beyond need before whole slabs go back to the system.
constexpr size_t kFreeSlack = 2 * kSlabPages;

Slab* slab_new_locked() {
  Pool& pl = pool();
  void* mem = aligned_alloc(PAGE_SIZE, size_t(kSlabPages) * PAGE_SIZE);
  if (mem == nullptr) return nullptr;
  Slab* s = new (std::nothrow) Slab;
  if (s == nullptr) {
    free(mem);
    return nullptr;
  }
  s->mem = static_cast<char*>(mem);
  s->free.reserve(kSlabPages);
  // Pushed in reverse so that pages come out in address order.
  for (uint32_t i = 0; i < kSlabPages; i++) {
    Page& pg = s->pages[i];
    pg.data = s->mem + size_t(i) * PAGE_SIZE;
    pg.slab = s;
    s->free.push_back(uint16_t(kSlabPages - 1 - i));
  }
  pl.slabs.push_back(s);
  pl.partial.push_back(s);
  s->on_partial = true;
  pl.nfree += kSlabPages;
  return s;
}

void slab_release_locked(Slab* s) {
  Pool& pl = pool();
  pl.slabs.erase(std::find(pl.slabs.begin(), pl.slabs.end(), s));
  if (s->on_partial) pl.partial.erase(std::find(pl.partial.begin(), pl.partial.end(), s));
  pl.nfree -= kSlabPages;
  free(s->mem);
  delete s;
}

Page* frame_alloc_locked() {
  Pool& pl = pool();
  if (pl.partial.empty() && slab_new_locked() == nullptr) return nullptr;
  Slab* s = pl.partial.back();
  uint16_t i = s->free.back();
  s->free.pop_back();
  if (s->free.empty()) {
    pl.partial.pop_back();
    s->on_partial = false;
  }
  pl.nfree--;
  Page* p = &s->pages[i];
  p->flags = 0;
  p->readers = 0;
  p->pins = 0;
  return p;
}

void frame_free_locked(Page* p) {
  Pool& pl = pool();
  Slab* s = p->slab;
  p->info = nullptr;
  p->flags = 0;
  s->free.push_back(uint16_t(p - s->pages));
  pl.nfree++;
  if (!s->on_partial) {
    pl.partial.push_back(s);
    s->on_partial = true;
  }
  // Slabs go back to the system only when the pool holds more memory than
  // its bound allows; a pool that streams through its bound keeps them, as
  // fresh memory costs the system a page fault and a zero-fill per page.
  if (s->free.size() == kSlabPages && pl.pinned == 0 && pl.nfree > kFreeSlack &&
      pl.resident + pl.nfree > pl.limit_pages + kFreeSlack)
    slab_release_locked(s);
}

// --- Index --------------------------------------------------------------------------

void index_insert_locked(Info* info, Page* p) {
  Chunk*& c = info->chunks[p->index >> kChunkShift];
  if (c == nullptr) c = new Chunk;
  c->pages[p->index & (kChunkPages - 1)] = p;
  c->count++;
  info->npages++;
  Pool& pl = pool();
  if (++pl.resident > pl.peak) pl.peak = pl.resident;
}

void index_remove_locked(Info* info, Page* p) {
  auto it = info->chunks.find(p->index >> kChunkShift);
  Chunk* c = it->second;
  c->pages[p->index & (kChunkPages - 1)] = nullptr;
  if (--c->count == 0) {
    delete c;
    info->chunks.erase(it);
  }
  info->npages--;
  pool().resident--;
}

void evict_locked(Page* p) {
  Info* info = p->info;
  list_remove(p);
  index_remove_locked(info, p);
  p->info = nullptr;
}

}  // namespace

Pool& pool() {
  static Pool* p = make_pool();  // never destroyed: threads may outlive main()
  return *p;
}

void assert_locked(const char* fn) {
  if (!pool().lock.owned()) panic("%s: ubc lock not held", fn);
}

void sleep_locked() {
  Pool& pl = pool();
  pl.sleepers++;
  pl.lock.wait(pl.cv);
  pl.sleepers--;
}

void wakeup_locked() {
  if (pool().sleepers != 0) pool().cv.notify_all();
}

Info* info_of(vnode_t vp) {
  if (vp == nullptr) return nullptr;
  return static_cast<Info*>(*host_vnode_ubc_slot(vp));
}

Page* page_lookup_locked(Info* info, uint64_t index) {
  auto it = info->chunks.find(index >> kChunkShift);
  if (it == info->chunks.end()) return nullptr;
  return it->second->pages[index & (kChunkPages - 1)];
}

void page_relist_locked(Page* p) {
  Pool& pl = pool();
  if (p->list != PageList::None) list_remove(p);
  if (p->info == nullptr || (p->flags & (PG_BUSY | PG_GONE)) || p->readers || p->pins) return;
  if (p->flags & PG_DIRTY)
    list_append(&pl.dirty_lru, p, PageList::Dirty);
  else
    list_append(&pl.clean_lru, p, PageList::Clean);
}

Page* page_create_locked(Info* info, uint64_t index) {
  assert_locked("page_create_locked");
  Pool& pl = pool();
  Page* p = nullptr;
  if (pl.resident >= pl.limit_pages && pl.clean_lru.next != &pl.clean_lru) {
    p = pl.clean_lru.next;
    evict_locked(p);
    p->flags = 0;
  } else {
    if (pl.resident >= pl.limit_pages) kick_pageout_locked();
    p = frame_alloc_locked();
    if (p == nullptr) return nullptr;
  }
  p->info = info;
  p->index = index;
  p->flags = PG_BUSY | PG_FRESH;
  index_insert_locked(info, p);
  return p;
}

bool page_acquire_locked(Page* p) {
  Info* info = p->info;
  uint64_t index = p->index;
  while ((p->flags & PG_BUSY) || p->readers) {
    p->flags |= PG_WANTED;
    pool().pinned++;
    sleep_locked();
    pool().pinned--;
    if (p->info != info || p->index != index) return false;
  }
  if (p->info != info || (p->flags & PG_GONE)) return false;
  p->flags |= PG_BUSY;
  page_relist_locked(p);
  return true;
}

bool page_share_locked(Page* p) {
  Info* info = p->info;
  uint64_t index = p->index;
  while (p->flags & PG_BUSY) {
    p->flags |= PG_WANTED;
    pool().pinned++;
    sleep_locked();
    pool().pinned--;
    if (p->info != info || p->index != index) return false;
  }
  if (p->info != info || (p->flags & PG_GONE) || !(p->flags & PG_VALID)) return false;
  p->readers++;
  page_relist_locked(p);
  return true;
}

void page_unshare_locked(Page* p) {
  if (--p->readers == 0) {
    page_relist_locked(p);
    if (p->flags & PG_WANTED) {
      p->flags &= ~PG_WANTED;
      wakeup_locked();
    }
  }
}

void page_release_locked(Page* p) {
  bool wanted = p->flags & PG_WANTED;
  p->flags &= ~(PG_BUSY | PG_WANTED | PG_FRESH);
  page_relist_locked(p);
  if (wanted) wakeup_locked();
}

namespace {
void count_dirty_locked(Page* p, int delta) {
  pool().ndirty += size_t(delta);
  if (p->info == nullptr) return;
  p->info->ndirty += size_t(delta);
  p->info->chunks.find(p->index >> kChunkShift)->second->ndirty += uint32_t(delta);
}
}  // namespace

void page_set_dirty_locked(Page* p) {
  if (!(p->flags & PG_DIRTY)) {
    p->flags |= PG_DIRTY;
    count_dirty_locked(p, 1);
  }
  p->flags |= PG_VALID;
}

void page_set_clean_locked(Page* p) {
  if (p->flags & PG_DIRTY) {
    p->flags &= ~(PG_DIRTY | PG_MAPDIRTY);
    count_dirty_locked(p, -1);
  }
}

Page* find_dirty_locked(Info* info, uint64_t first, uint64_t last) {
  for (auto it = info->chunks.lower_bound(first >> kChunkShift); it != info->chunks.end(); ++it) {
    uint64_t base = it->first << kChunkShift;
    if (base >= last) break;
    if (it->second->ndirty == 0) continue;
    for (uint32_t i = 0; i < kChunkPages; i++) {
      uint64_t idx = base + i;
      if (idx < first) continue;
      if (idx >= last) break;
      Page* p = it->second->pages[i];
      if (p != nullptr && (p->flags & PG_DIRTY)) return p;
    }
  }
  return nullptr;
}

void page_free_locked(Page* p) {
  assert_locked("page_free_locked");
  page_set_clean_locked(p);
  bool wanted = p->flags & PG_WANTED;
  if (p->list != PageList::None) list_remove(p);
  index_remove_locked(p->info, p);
  if (p->pins != 0) {
    // A mapping still points at the frame: keep it until the last unpin.
    p->gone_vp = p->info->vp;
    p->flags = PG_GONE | PG_VALID;
    p->info = nullptr;
    pool().gone.push_back(p);
  } else {
    frame_free_locked(p);
  }
  if (wanted) wakeup_locked();
}

void page_free_gone_locked(Page* p) {
  p->gone_vp = nullptr;
  frame_free_locked(p);
}

std::vector<Page*> pages_in_range_locked(Info* info, uint64_t first, uint64_t last) {
  std::vector<Page*> v;
  for_each_page_locked(info, first, last, [&](Page* p) { v.push_back(p); });
  return v;
}

bool over_dirty_limit_locked() {
  Pool& pl = pool();
  return pl.ndirty > std::max<size_t>(pl.limit_pages / 2, 1);
}

void make_room_locked(size_t want, bool may_wait) {
  Pool& pl = pool();
  for (;;) {
    while (pl.resident + want > pl.limit_pages && pl.clean_lru.next != &pl.clean_lru) {
      Page* p = pl.clean_lru.next;
      evict_locked(p);
      frame_free_locked(p);
      want = want > 0 ? want - 1 : 0;
    }
    if (pl.resident + want <= pl.limit_pages) return;
    kick_pageout_locked();
    // Transfers in flight need no lock that any caller may hold, so waiting
    // for them is safe; they end with pages clean and evictable.
    if (!may_wait || pl.inflight == 0) return;
    sleep_locked();
  }
}

// Drops every page of info at or past page `first`, waiting for busy ones.
// Dirty pages are dropped unwritten.
void drop_pages_locked(Info* info, uint64_t first) {
  Pool& pl = pool();
  pl.pinned++;  // v's records stay readable while we sleep for one of them
  for (;;) {
    std::vector<Page*> v = pages_in_range_locked(info, first, UINT64_MAX);
    if (v.empty()) break;
    for (Page* p : v) {
      if (p->info != info) continue;  // freed while we slept for another
      if (!page_acquire_locked(p)) continue;
      page_free_locked(p);
    }
  }
  pl.pinned--;
}

}  // namespace ubc

using namespace ubc;

// --- Size -------------------------------------------------------------------------

// The caller holds no host lock. Pages wholly past the new size are dropped
// (after any transfer on them ends); the tail of a partial last page is
// zeroed, so that bytes past the end of file read as zeros if the file grows
// again. Returns 1, or 0 for a vnode without a page cache.
int ubc_setsize(vnode_t vp, off_t nsize) {
  Info* info = info_of(vp);
  if (info == nullptr || nsize < 0) return 0;
  Locker l;
  off_t old = info->size;
  info->size = nsize;
  if (nsize >= old) return 1;
  uint64_t keep = (uint64_t(nsize) + PAGE_MASK) / PAGE_SIZE;
  drop_pages_locked(info, keep);
  if (info->wb_end > keep) info->wb_end = std::max(keep, info->wb_start);
  if (info->ra_issued > nsize) info->ra_issued = nsize;
  if (nsize & PAGE_MASK) {
    for (;;) {
      Page* p = page_lookup_locked(info, uint64_t(nsize) / PAGE_SIZE);
      if (p == nullptr) break;
      if (!page_acquire_locked(p)) continue;
      uint32_t from = uint32_t(nsize & PAGE_MASK);
      l.unlock();
      memset(p->data + from, 0, PAGE_SIZE - from);
      l.relock();
      page_release_locked(p);
      break;
    }
  }
  return 1;
}

off_t ubc_getsize(vnode_t vp) {
  Info* info = info_of(vp);
  if (info == nullptr) return 0;
  Locker l;
  return info->size;
}

uint32_t ubc_upl_maxbufsize(void) { return kMaxIO; }

// --- Vnode life ------------------------------------------------------------------------

// Called by vnode_create: regular files get a page-cache object. ENOMEM when
// it cannot be allocated.
int host_ubc_vnode_created(vnode_t vp, off_t filesize) {
  if (vnode_vtype(vp) != VREG) return 0;
  if (host_alloc_should_fail()) return ENOMEM;
  Info* info = new (std::nothrow) Info;
  if (info == nullptr) return ENOMEM;
  info->vp = vp;
  info->vid = vnode_vid(vp);
  info->size = filesize;
  Locker l;
  *host_vnode_ubc_slot(vp) = info;
  return 0;
}

// Called while vp is reclaimed, before the file system lets go of its node:
// dirty pages are written through VNOP_PAGEOUT (the reclaimer owns the vnode,
// so no I/O reference is taken), transfers in flight are waited for, and
// every page is dropped.
void host_ubc_vnode_reclaim(vnode_t vp) {
  Info* info = info_of(vp);
  if (info == nullptr) return;
  {
    Locker l;
    info->reclaiming = true;
  }
  ubc_pageout_vnode(vp, info, 0, INT64_MAX, UPL_IOSYNC);
  Locker l;
  while (info->inflight != 0) sleep_locked();
  drop_pages_locked(info, 0);
}

void host_ubc_vnode_destroy(vnode_t vp) {
  Info* info = info_of(vp);
  if (info == nullptr) return;
  {
    Locker l;
    drop_pages_locked(info, 0);
    *host_vnode_ubc_slot(vp) = nullptr;
  }
  delete info;
}

// --- Host controls ------------------------------------------------------------------

void host_ubc_set_limit(size_t bytes) {
  Locker l;
  pool().limit_pages = std::max<size_t>(bytes / PAGE_SIZE, 4);
  make_room_locked(0, false);
}

size_t host_ubc_limit(void) {
  Locker l;
  return pool().limit_pages * PAGE_SIZE;
}

size_t host_ubc_resident_bytes(void) {
  Locker l;
  return pool().resident * PAGE_SIZE;
}

size_t host_ubc_resident_peak_bytes(void) {
  Locker l;
  return pool().peak * PAGE_SIZE;
}

void host_ubc_reset_resident_peak(void) {
  Locker l;
  pool().peak = pool().resident;
}

size_t host_ubc_vnode_pages(vnode_t vp) {
  Info* info = info_of(vp);
  if (info == nullptr) return 0;
  Locker l;
  return info->npages;
}

size_t host_ubc_vnode_dirty_pages(vnode_t vp) {
  Info* info = info_of(vp);
  if (info == nullptr) return 0;
  Locker l;
  return info->ndirty;
}
