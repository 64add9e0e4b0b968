#pragma once
// Private to the page cache (host/ubc*.cpp) and the cluster layer
// (host/cluster*.cpp): the page pool, the per-vnode page index, page lists
// and the one lock that guards them.
//
// Locking. One global mutex, the ubc lock (Pool::lock), protects every field
// below that says so: page state bits, the LRU lists, the per-vnode indices
// and counters, and page lists' membership. Page *data* is not protected by
// the lock but by page ownership:
//  - a thread (or a page list) that set PG_BUSY owns the page exclusively and
//    may read or write its data with the lock dropped;
//  - a thread that raised `readers` (only while the page is valid and not
//    busy) may read the data with the lock dropped; PG_BUSY is not granted
//    while readers are present;
//  - a pinned page (pins > 0, mapped access) may be read and written by the
//    pinning thread at any time, as a process stores through a mapping.
// The ubc lock is a leaf for the host: nothing is called with it held that
// could take a vnode, buffer, device or file-system lock, and no VNOP is
// ever called with it held.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "host/types.h"
#include "host/ubc.h"

namespace ubc {

// A mutex that records its owner, so that helpers can assert that their
// caller holds it.
class OwnedMutex {
 public:
  void lock() {
    m_.lock();
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  void unlock() {
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    m_.unlock();
  }
  bool owned() const {
    return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  // Sleeps on cv with the mutex released; it is held again on return.
  void wait(std::condition_variable& cv);
  // As wait(), for at most `ms` milliseconds.
  void wait_ms(std::condition_variable& cv, int ms);

 private:
  std::mutex m_;
  std::atomic<std::thread::id> owner_{};
};

// Page state bits (Page::flags), protected by the ubc lock.
enum : uint32_t {
  PG_VALID = 0x01,    // the data is the file's content
  PG_DIRTY = 0x02,    // the data is newer than the device's
  PG_BUSY = 0x04,     // owned exclusively by one thread or one page list
  PG_WANTED = 0x08,   // someone sleeps until BUSY or the readers clear
  PG_REDIRTY = 0x10,  // stored to through a mapping while busy: stays dirty at commit
  PG_GONE = 0x20,     // detached from its file while pinned; freed at the last unpin
  PG_FRESH = 0x40,    // created by the page list it is busy in (was absent)
  // Stored to through a mapping since it was last clean. Such a page goes to
  // the device only through the file system's page-out, never through the
  // cluster layer's own pushes: only the file system knows what a store
  // made outside any write means for the file (a valid length to move past
  // it, a gap before it to zero).
  PG_MAPDIRTY = 0x80,
};

enum class PageList : uint8_t { None, Clean, Dirty };

struct Info;
struct Slab;

// One 4096-byte page of the pool. Its frame (data) belongs to it for the
// life of the pool: evicting a page reuses page and frame together.
struct Page {
  Page* prev = nullptr;  // LRU links (ubc lock)
  Page* next = nullptr;
  Info* info = nullptr;  // owning file, NULL when free (ubc lock)
  uint64_t index = 0;    // page number within the file (ubc lock)
  char* data = nullptr;  // PAGE_SIZE bytes, fixed
  Slab* slab = nullptr;  // fixed
  uint32_t flags = 0;    // PG_* (ubc lock)
  uint32_t readers = 0;  // shared copiers (ubc lock)
  uint32_t pins = 0;     // mapped references (ubc lock)
  PageList list = PageList::None;
  vnode_t gone_vp = nullptr;  // the file a PG_GONE page came from (ubc lock)
};

// Pages are allocated 256 at a time (1 MiB of frames). Frames of one slab are
// adjacent, so a run of pages taken from a fresh slab becomes one I/O vector.
constexpr uint32_t kSlabPages = 256;
struct Slab {
  char* mem = nullptr;
  Page pages[kSlabPages];
  std::vector<uint16_t> free;  // indices of free pages (ubc lock)
  bool on_partial = false;
};

// A file's page index: pages by page number, in chunks of 256.
constexpr uint32_t kChunkShift = 8;
constexpr uint32_t kChunkPages = 1u << kChunkShift;
struct Chunk {
  Page* pages[kChunkPages] = {};
  uint32_t count = 0;
  uint32_t ndirty = 0;  // lets searches for dirty pages skip clean chunks
};

// The page-cache object of a vnode (every field: ubc lock).
struct Info {
  vnode_t vp = nullptr;
  uint32_t vid = 0;
  off_t size = 0;  // the page cache's idea of the file size
  std::map<uint64_t, Chunk*> chunks;
  size_t npages = 0;
  size_t ndirty = 0;
  uint32_t inflight = 0;  // asynchronous transfers queued or running
  int error = 0;          // error of an asynchronous write, reported by the next push
  bool reclaiming = false;
  // Sequential read detection and read-ahead.
  off_t ra_last_end = -1;     // end of the previous read
  uint32_t ra_window = 0;     // current read-ahead window in bytes
  off_t ra_issued = 0;        // read-ahead has been started up to here
  // Write-behind: a run of pages dirtied by sequential writes and not yet
  // scheduled for writing, [wb_start, wb_end) in page numbers.
  uint64_t wb_start = 0;
  uint64_t wb_end = 0;
};

// The global pool.
struct Pool {
  OwnedMutex lock;
  std::condition_variable cv;  // page state changes and transfer completions
  size_t limit_pages = 0;
  size_t resident = 0;   // pages in use by files
  size_t peak = 0;       // the most pages resident at once since the last reset
  size_t ndirty = 0;     // dirty pages, busy ones included
  size_t nfree = 0;      // free pages in slabs
  // Threads that hold Page pointers across a sleep (page_acquire_locked,
  // page_share_locked, drop_pages_locked). Page records must stay readable
  // for them: a freed page is recognised by its changed info/index, so its
  // slab is not given back to the system while any such thread exists.
  uint32_t pinned = 0;
  uint32_t inflight = 0; // asynchronous transfers queued or running, all files
  uint32_t sleepers = 0; // threads sleeping on cv (to skip needless notifies)
  Page clean_lru;        // sentinels: head.next is the least recently used
  Page dirty_lru;
  std::vector<Slab*> slabs;
  std::vector<Slab*> partial;  // slabs with free pages
  uint64_t pageout_kicks = 0;  // generation counter for the page-out thread
  std::condition_variable pageout_cv;  // the page-out thread sleeps here
  std::vector<Page*> gone;     // pinned pages detached from their files
};

Pool& pool();

// RAII holder of the ubc lock. Lock and unlock points in the middle of an
// algorithm stay explicit (unlock()/relock()).
class Locker {
 public:
  Locker() { pool().lock.lock(); held_ = true; }
  ~Locker() {
    if (held_) pool().lock.unlock();
  }
  void unlock() { held_ = false; pool().lock.unlock(); }
  void relock() { pool().lock.lock(); held_ = true; }
  Locker(const Locker&) = delete;
  Locker& operator=(const Locker&) = delete;

 private:
  bool held_;
};

void assert_locked(const char* fn);
// Sleeps on the pool's cv (the ubc lock is held on entry and on return).
void sleep_locked();
void wakeup_locked();

// --- Per-vnode objects -------------------------------------------------------
// The page-cache object of vp, or NULL for vnodes without one.
Info* info_of(vnode_t vp);

// --- Pages (all: ubc lock held) ------------------------------------------------
Page* page_lookup_locked(Info* info, uint64_t index);
// Creates an absent page: busy, invalid, fresh, in the index. Reuses the
// least recently used clean page when the pool is at its bound, and exceeds
// the bound when there is none (see make_room). NULL when memory runs out.
Page* page_create_locked(Info* info, uint64_t index);
// Waits until the page is neither busy nor being read, then makes it busy.
// Returns false (without making it busy) when the page left its file while
// waiting; the caller must look it up again.
bool page_acquire_locked(Page* p);
// Waits until the page is not busy, then adds a reader. Same false case.
bool page_share_locked(Page* p);
void page_unshare_locked(Page* p);
// Clears busy (and fresh), files the page on its LRU list and wakes waiters.
void page_release_locked(Page* p);
// Removes a busy (or idle) page from its file and frees it; a pinned page is
// only detached (PG_GONE) and freed at its last unpin.
void page_free_locked(Page* p);
// Frees a PG_GONE page after its last unpin.
void page_free_gone_locked(Page* p);
void page_set_dirty_locked(Page* p);
void page_set_clean_locked(Page* p);
// Refiles a page on the list its state asks for (or none).
void page_relist_locked(Page* p);
// Calls fn(page) for the resident pages of [first, last) in order. fn may
// not change the index.
template <class F>
void for_each_page_locked(Info* info, uint64_t first, uint64_t last, F fn) {
  auto it = info->chunks.lower_bound(first >> kChunkShift);
  for (; it != info->chunks.end(); ++it) {
    uint64_t base = it->first << kChunkShift;
    if (base >= last) break;
    Chunk* c = it->second;
    for (uint32_t i = 0; i < kChunkPages; i++) {
      uint64_t idx = base + i;
      if (idx < first) continue;
      if (idx >= last) break;
      if (c->pages[i] != nullptr) fn(c->pages[i]);
    }
  }
}
// The first dirty page of [first, last), or NULL.
Page* find_dirty_locked(Info* info, uint64_t first, uint64_t last);
// Collects (rather than visits) the pages, for loops that sleep or free.
std::vector<Page*> pages_in_range_locked(Info* info, uint64_t first, uint64_t last);

// Makes room for `want` new pages before a batch of page_create_locked
// calls: evicts clean pages, and, when the pool is full of dirty or busy
// pages, wakes the page-out thread and (may_wait) waits for transfers in
// flight to finish. It never waits for the page-out thread, so a caller that
// holds file-system locks cannot deadlock with a page-out of its own file;
// when nothing can be reclaimed at once the pool exceeds its bound until
// the page-out thread catches up.
void make_room_locked(size_t want, bool may_wait);
// Wakes the page-out thread (dirty pages over their share of the pool).
void kick_pageout_locked();
bool over_dirty_limit_locked();

// --- Page lists ------------------------------------------------------------------
// Makes a page list of `npages` slots for [f_offset, ...) of info; the
// caller puts busy pages into it with upl_set_page_locked. NULL on ENOMEM.
upl_t upl_alloc(Info* info, vnode_t vp, off_t f_offset, uint32_t npages, int flags);
// Frees the list itself, leaving its pages as they are (busy): for lists
// that only describe pages some other code owns.
void upl_destroy(upl_t upl);
void upl_set_page_locked(upl_t upl, uint32_t slot, Page* p);
Page* upl_page(upl_t upl, uint32_t slot);
uint32_t upl_npages(upl_t upl);
off_t upl_f_offset(upl_t upl);

// Page-list info bits (upl_page_info_t::flags).
enum : uint32_t { UPI_PRESENT = 0x1, UPI_DIRTY = 0x2, UPI_VALID = 0x4 };

// --- Limits ------------------------------------------------------------------------
// The largest single device transfer the cluster layer makes.
constexpr uint32_t kMaxIO = 1u << 20;

}  // namespace ubc

// The page list itself (global name: upl_t is `struct upl*`).
struct upl {
  ubc::Info* info;
  vnode_t vp;
  off_t f_offset;
  uint32_t npages;
  uint32_t remaining;  // pages still in the list (ubc lock)
  int flags;
  ubc::Page** pages;   // slot -> page, NULL when the slot is not in the list
  upl_page_info_t* pl;
  char* map;           // contiguous copy made by ubc_upl_map, or NULL
};
