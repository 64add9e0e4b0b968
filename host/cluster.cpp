// The cluster layer: file data between uio buffers and the page cache, and
// between the page cache and the device.
//
// Device transfers go straight between the device and the pages: a transfer
// is a page list of busy pages, mapped with the file system's blockmap
// operation into segments (a device run, or a hole that reads as zeros),
// each segment one buffer whose data is the page list (buf_setupl) handed to
// the file vnode's strategy operation, which ends in buf_strategy on the
// device. No transfer is larger than kMaxIO; every run of contiguous device
// blocks inside that is one request.
//
// The mapping is always made by the thread that asks for the transfer, the
// file's reader or writer, never by the transfer threads: blockmap takes the
// file system's node lock, and the transfer threads must stay free of file
// system locks so that anyone may wait for a transfer to end. Asynchronous
// transfers (read-ahead, write-behind) are executed by a small set of
// transfer threads that only call strategy and then commit or abort the
// page list.

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>
#include <vector>

#include "host/buf.h"
#include "host/cluster.h"
#include "host/cluster_private.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc_io_private.h"
#include "host/ubc_private.h"
#include "host/uio.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace ubc {
namespace {

constexpr uint32_t kRaMin = 256u << 10;    // first read-ahead window
constexpr uint32_t kRaMax = 8u << 20;      // largest read-ahead window
constexpr uint32_t kMaxInflightPerFile = 8;  // asynchronous transfers per file
constexpr int kTransferThreads = 2;

uint64_t page_of(off_t off) { return uint64_t(off) / PAGE_SIZE; }
uint64_t pages_to(off_t off) { return (uint64_t(off) + PAGE_MASK) / PAGE_SIZE; }
off_t round_up(off_t v, off_t g) { return (v + g - 1) / g * g; }

// The device's block size, to which the last transfer before the end of a
// file is rounded (never past the page holding the end of file).
uint32_t dev_granule(vnode_t vp) {
  mount_t mp = vnode_mount(vp);
  if (mp == nullptr) return 512;
  struct vfsioattr io;
  memset(&io, 0, sizeof io);
  vfs_ioattr(mp, &io);
  return io.io_devblocksize >= 512 && io.io_devblocksize <= PAGE_SIZE ? io.io_devblocksize : 512;
}

// One device segment of a transfer: `len` bytes at byte `uoff` of the page
// list, from or to device block `blkno` (-1: a hole, zeros on a read).
struct Seg {
  uint32_t uoff;
  uint32_t len;
  daddr64_t blkno;
};

// A transfer between the pages of a page list and the device.
struct Xfer {
  vnode_t vp = nullptr;
  Info* info = nullptr;
  upl_t upl = nullptr;
  off_t foff = 0;         // file offset of list byte 0
  uint32_t size = 0;      // bytes of the list to transfer
  bool read = true;
  uint32_t zero_from = 0; // reads: list bytes from here to `size` are zeroed afterwards
  std::vector<Seg> segs;
  // What to do with the list's pages at the end: commit/abort them and free
  // the list (ordinary transfers), or leave them busy (pages on loan).
  bool commit = true;
  // The next transfer of the same job: small asynchronous writes of one
  // push go to a transfer thread together, in one hand-off.
  Xfer* next = nullptr;

  Xfer() = default;
  // A transfer of `size` bytes of the file's list `upl`, from file offset
  // `foff`; pages on loan (commit false) stay busy at the end.
  Xfer(Info* info_, upl_t upl_, off_t foff_, uint32_t size_, bool read_, bool commit_ = true)
      : vp(info_->vp), info(info_), upl(upl_), foff(foff_), size(size_), read(read_),
        commit(commit_) {}
};

// Maps [x.foff, x.foff + x.size) through the file system's blockmap
// operation into segments. `filesize` bounds the transfer: nothing at or past
// it is read or written except what rounding the last request up to the
// device's block size takes in. The caller holds no host lock. Returns 0, the
// blockmap error, or EIO for an unusable mapping.
int xfer_map(Xfer& x, off_t filesize) {
  off_t end = x.foff + x.size;
  off_t lim = std::min(end, filesize);
  x.zero_from = x.size;
  if (x.read && lim < end) x.zero_from = uint32_t(std::max<off_t>(lim - x.foff, 0));
  uint32_t gran = dev_granule(x.vp);
  off_t off = x.foff;
  while (off < lim) {
    daddr64_t bpn = 0;
    size_t run = 0;
    int poff = 0;
    int err = VNOP_BLOCKMAP(x.vp, off, size_t(lim - off), &bpn, &run, &poff,
                            x.read ? VNODE_READ : VNODE_WRITE, vfs_context_kernel());
    if (err) return err;
    if (run == 0 || poff != 0) {
      kprintf("cluster_io: unusable mapping at offset %lld (run %zu, offset in block %d)\n",
              (long long)off, run, poff);
      return EIO;
    }
    if (bpn == -1 && !x.read) {
      kprintf("cluster_io: no device block for offset %lld\n", (long long)off);
      return EIO;
    }
    off_t seg_end = std::min<off_t>(off + off_t(run), lim);
    if (seg_end == lim && bpn != -1) {
      // The end of file: the device is addressed in whole blocks, and the
      // page holding the end of file may be transferred up to its end.
      seg_end = std::min(round_up(lim, gran), end);
    }
    while (off < seg_end) {
      uint32_t len = uint32_t(std::min<off_t>(seg_end - off, kMaxIO));
      x.segs.push_back(Seg{uint32_t(off - x.foff), len, bpn});
      if (bpn != -1) bpn += daddr64_t(len / gran);
      off += len;
    }
  }
  return 0;
}

void zero_list_bytes(upl_t upl, uint32_t uoff, uint32_t len) {
  struct iovec iov[kMaxIO / PAGE_SIZE + 1];
  int n = host_upl_iovecs(upl, uoff, len, iov, int(sizeof iov / sizeof iov[0]));
  if (n < 0) panic("cluster_io: page list cannot describe %u bytes", len);
  for (int i = 0; i < n; i++) memset(iov[i].iov_base, 0, iov[i].iov_len);
}

// One device request for a segment.
int seg_strategy(const Xfer& x, const Seg& s) {
  buf_t bp = buf_alloc(x.vp);
  if (bp == nullptr) return ENOMEM;
  buf_setflags(bp, (x.read ? B_READ : B_WRITE) | B_CLUSTER | B_PAGEIO);
  buf_setupl(bp, x.upl, s.uoff);
  buf_setcount(bp, s.len);
  buf_setlblkno(bp, daddr64_t((x.foff + s.uoff) / PAGE_SIZE));
  buf_setblkno(bp, s.blkno);
  int err = VNOP_STRATEGY(bp);
  if (err == 0) err = buf_biowait(bp);
  if (err == 0 && buf_resid(bp) != 0) err = EIO;
  buf_free(bp);
  return err;
}

// Performs a mapped transfer. No lock is held; the pages are busy.
int xfer_exec(Xfer& x) {
  int err = 0;
  for (const Seg& s : x.segs) {
    if (s.blkno == -1)
      zero_list_bytes(x.upl, s.uoff, s.len);
    else
      err = seg_strategy(x, s);
    if (err) break;
  }
  if (err == 0 && x.read && x.zero_from < x.size) zero_list_bytes(x.upl, x.zero_from, x.size - x.zero_from);
  return err;
}

// Ends a transfer: a read commits its pages valid and clean, a write commits
// them clean; a failed read drops the pages, a failed write leaves them
// dirty. Pages on loan stay busy and only the list is freed.
void xfer_finish(Xfer& x, int err) {
  if (!x.commit) {
    upl_destroy(x.upl);
    return;
  }
  uint32_t span = upl_npages(x.upl) * PAGE_SIZE;
  if (err == 0)
    ubc_upl_commit_range(x.upl, 0, span, UPL_COMMIT_FREE_ON_EMPTY | (x.read ? 0 : UPL_COMMIT_CLEAR_DIRTY));
  else
    ubc_upl_abort_range(x.upl, 0, span, UPL_ABORT_FREE_ON_EMPTY | (x.read ? UPL_ABORT_ERROR : 0));
}

// Maps, runs and ends a transfer on the caller's thread; returns the first
// error.
int xfer_run(Xfer& x, off_t filesize) {
  int err = xfer_map(x, filesize);
  if (err == 0) err = xfer_exec(x);
  xfer_finish(x, err);
  return err;
}

int xfer_sync(Xfer& x) {
  int err = xfer_exec(x);
  xfer_finish(x, err);
  return err;
}

// --- Transfer threads -------------------------------------------------------------

struct Engine {
  std::deque<Xfer*> queue;  // ubc lock
  std::condition_variable cv;
  int threads = 0;
};

Engine& engine() {
  static Engine* e = new Engine;  // never destroyed: its threads outlive main()
  return *e;
}

void transfer_thread() {
  Engine& e = engine();
  Locker l;
  for (;;) {
    while (e.queue.empty()) pool().lock.wait(e.cv);
    Xfer* x = e.queue.front();
    e.queue.pop_front();
    l.unlock();
    Info* info = x->info;
    while (x != nullptr) {
      int err = xfer_exec(*x);
      // The error is recorded before the pages are released, so that
      // whoever waits for them (a push that meets them busy) finds it.
      if (err && !x->read) {
        l.relock();
        if (info->error == 0) info->error = err;
        l.unlock();
      }
      xfer_finish(*x, err);
      delete std::exchange(x, x->next);
    }
    l.relock();
    // After this the file may be reclaimed and its Info freed.
    info->inflight--;
    pool().inflight--;
    wakeup_locked();
  }
}

// Queues a job: a mapped transfer and those chained to it, all of one
// file. It counts as one transfer in flight. The ubc lock is held.
void submit_locked(Xfer* x) {
  Engine& e = engine();
  while (e.threads < kTransferThreads) {
    std::thread(transfer_thread).detach();
    e.threads++;
  }
  x->info->inflight++;
  pool().inflight++;
  e.queue.push_back(x);
  e.cv.notify_one();
}

// Maps and runs (wait) or queues (!wait) a transfer over a fresh page list.
// On a mapping error the list is aborted. No lock is held.
int xfer_start(Xfer* x, off_t filesize, bool wait) {
  int err = xfer_map(*x, filesize);
  if (err || wait) {
    if (err)
      xfer_finish(*x, err);
    else
      err = xfer_sync(*x);
    delete x;
    return err;
  }
  Locker l;
  submit_locked(x);
  return 0;
}

// Makes a page list over `n` busy pages starting at page `first` (in `pages`).
upl_t make_list(Info* info, uint64_t first, Page** pages, uint32_t n) {
  upl_t upl = upl_alloc(info, info->vp, off_t(first) * PAGE_SIZE, n, 0);
  if (upl == nullptr) return nullptr;
  Locker l;
  for (uint32_t i = 0; i < n; i++) upl_set_page_locked(upl, i, pages[i]);
  return upl;
}

// Drops fresh pages that never made it into a transfer.
void drop_fresh(Page** pages, uint32_t n) {
  Locker l;
  for (uint32_t i = 0; i < n; i++) page_free_locked(pages[i]);
}

// Creates up to `max` absent pages from page `first` on (stopping at the
// first resident one) and starts reading them. With `wait` the caller needs
// the data now: the read is synchronous and the pool may wait for room;
// otherwise (read-ahead) the read is queued and nothing is created when the
// pool has no room. Returns the number of pages started (0 when the first
// page is resident or there is no room), or a negative errno.
int read_absent(Info* info, uint64_t first, uint32_t max, off_t filesize, bool wait) {
  Page* pages[kMaxIO / PAGE_SIZE];
  max = std::min<uint32_t>(max, kMaxIO / PAGE_SIZE);
  uint32_t n = 0;
  {
    Locker l;
    make_room_locked(max, wait);
    Pool& pl = pool();
    if (!wait && pl.resident + max > pl.limit_pages && pl.clean_lru.next == &pl.clean_lru) return 0;
    while (n < max && page_lookup_locked(info, first + n) == nullptr) {
      Page* p = page_create_locked(info, first + n);
      if (p == nullptr) break;
      pages[n++] = p;
    }
  }
  if (n == 0) return 0;
  upl_t upl = make_list(info, first, pages, n);
  if (upl == nullptr) {
    drop_fresh(pages, n);
    return -ENOMEM;
  }
  Xfer* x = new Xfer(info, upl, off_t(first) * PAGE_SIZE, n * PAGE_SIZE, true);
  int err = xfer_start(x, filesize, wait);
  return err ? -err : int(n);
}

// Starts read-ahead after a read of [off, end) when the file is read
// sequentially. The window doubles with every sequential read.
void read_ahead(Info* info, off_t off, off_t end, off_t filesize) {
  off_t from, to;
  {
    Locker l;
    bool seq = info->ra_last_end >= 0 && off >= info->ra_last_end - PAGE_SIZE && off <= info->ra_last_end;
    info->ra_last_end = end;
    if (!seq) {
      info->ra_window = 0;
      info->ra_issued = 0;
      return;
    }
    info->ra_window = info->ra_window ? std::min(info->ra_window * 2, kRaMax) : kRaMin;
    // Read ahead in large steps: only when less than half a window is left
    // ahead of the reader.
    if (info->ra_issued - end >= off_t(info->ra_window / 2)) return;
    from = std::max<off_t>(round_up(end, PAGE_SIZE), info->ra_issued);
    // Never read ahead more than a quarter of the pool: read-ahead must not
    // push out what it read ahead before the reader gets to it.
    off_t cap = off_t(pool().limit_pages / 4) * PAGE_SIZE;
    to = std::min<off_t>({end + info->ra_window, end + cap, round_up(filesize, PAGE_SIZE)});
    if (from >= to) return;
    info->ra_issued = to;
  }
  for (uint64_t pg = page_of(from); pg < pages_to(to);) {
    uint32_t want = uint32_t(std::min<uint64_t>(pages_to(to) - pg, kMaxIO / PAGE_SIZE));
    int n = read_absent(info, pg, want, filesize, false);
    if (n < 0) return;
    if (n == 0) {
      Locker l;
      if (page_lookup_locked(info, pg) == nullptr) return;  // no room: stop
      pg++;
      continue;
    }
    pg += uint64_t(n);
  }
}

// Shares up to `max` consecutive valid, idle pages from page `first` on.
// Returns how many were shared (0: the first page is absent or busy).
uint32_t share_run_locked(Info* info, uint64_t first, uint32_t max, Page** out) {
  uint32_t n = 0;
  while (n < max) {
    Page* p = page_lookup_locked(info, first + n);
    if (p == nullptr || (p->flags & PG_BUSY) || !(p->flags & PG_VALID)) break;
    p->readers++;
    page_relist_locked(p);
    out[n++] = p;
  }
  return n;
}

// Copies [off, end) of the file into uio from resident pages, reading
// absent pages first. The caller holds no host lock.
int read_copy(Info* info, uio_t uio, off_t end, off_t filesize) {
  Page* pages[kMaxIO / PAGE_SIZE];
  while (uio_offset(uio) < end && uio_resid(uio) > 0) {
    off_t off = uio_offset(uio);
    uint64_t pg = page_of(off);
    uint32_t want = uint32_t(std::min<uint64_t>(pages_to(end) - pg, kMaxIO / PAGE_SIZE));
    Locker l;
    uint32_t n = share_run_locked(info, pg, want, pages);
    if (n == 0) {
      Page* p = page_lookup_locked(info, pg);
      if (p != nullptr) {  // busy: wait for it, then look again
        p->flags |= PG_WANTED;
        sleep_locked();
        continue;
      }
      l.unlock();
      int r = read_absent(info, pg, want, filesize, true);
      if (r < 0) return -r;
      continue;
    }
    l.unlock();
    int err = 0;
    for (uint32_t i = 0; i < n && err == 0; i++) {
      off_t cur = uio_offset(uio);
      uint32_t inpage = uint32_t(cur & PAGE_MASK);
      off_t chunk = std::min<off_t>(PAGE_SIZE - inpage, end - cur);
      chunk = std::min<off_t>(chunk, uio_resid(uio));
      err = uiomove(pages[i]->data + inpage, int(chunk), uio);
    }
    l.relock();
    for (uint32_t i = 0; i < n; i++) page_unshare_locked(pages[i]);
    if (err) return err;
  }
  return 0;
}

// --- Writing into pages ---------------------------------------------------------------

// Takes pages [first, first + n) busy, creating absent ones, and snapshots
// their state bits into st[] (the flags word itself belongs to the ubc lock;
// the bits of a page we own do not change under us). Returns the number
// taken (fewer when memory ran out).
uint32_t take_pages(Info* info, uint64_t first, uint32_t n, Page** out, uint32_t* st) {
  Locker l;
  size_t absent = 0;
  for (uint32_t i = 0; i < n; i++)
    if (page_lookup_locked(info, first + i) == nullptr) absent++;
  if (absent) make_room_locked(absent, true);
  uint32_t got = 0;
  while (got < n) {
    Page* p = page_lookup_locked(info, first + got);
    if (p != nullptr) {
      if (!page_acquire_locked(p)) continue;  // left the file while we waited
    } else {
      p = page_create_locked(info, first + got);
      if (p == nullptr) break;
    }
    st[got] = p->flags;
    out[got++] = p;
  }
  return got;
}

// Reads the fresh pages among `pages` whose bytes outside [a, b) hold file
// data (they start before oldEOF and are not wholly covered), and zeroes the
// uncovered bytes of the other fresh pages. The pages stay busy.
int prepare_partial(Info* info, uint64_t first, Page** pages, const uint32_t* st, uint32_t n,
                    off_t a, off_t b, off_t oldEOF) {
  for (uint32_t i = 0; i < n; i++) {
    Page* p = pages[i];
    if (!(st[i] & PG_FRESH)) continue;
    off_t ps = off_t(first + i) * PAGE_SIZE, pe = ps + PAGE_SIZE;
    bool covered = a <= ps && b >= pe;
    if (covered) continue;
    if (ps < oldEOF) {
      upl_t upl = make_list(info, first + i, &pages[i], 1);
      if (upl == nullptr) return ENOMEM;
      Xfer x(info, upl, ps, PAGE_SIZE, true, false);
      if (int err = xfer_run(x, oldEOF)) return err;
    } else {
      memset(p->data, 0, PAGE_SIZE);
    }
    Locker l;
    p->flags |= PG_VALID;
  }
  return 0;
}

// Ends a batch: pages [0, done) become valid and dirty, the rest go back
// as they were (fresh ones that got nothing are dropped).
void release_batch(Page** pages, uint32_t n, uint32_t done) {
  Locker l;
  for (uint32_t i = 0; i < n; i++) {
    Page* p = pages[i];
    if (i < done) {
      page_set_dirty_locked(p);
      page_release_locked(p);
    } else if ((p->flags & PG_FRESH) && !(p->flags & PG_VALID)) {
      page_free_locked(p);
    } else {
      page_release_locked(p);
    }
  }
}

void write_behind(Info* info, uint64_t first, uint64_t full);

// Absent pages wholly inside a zero fill, in runs at least this long, are
// zeroed on the device at once instead of in the cache. A large gap (a write
// far past the end of a file) then needs no more memory than one batch of
// pages, whatever its length, and does not push other files' pages out of
// the cache with pages of zeros. Shorter runs are zeroed in the cache and
// written behind together with the data around them, in fewer requests.
constexpr uint32_t kZeroDirectPages = 64;

// Zeroes the fresh pages `pages` (file pages [first, first + n), wholly
// inside the zero fill, which ends at `end`) and writes them to the device
// in one transfer; then drops them, written or not (they never became
// valid, so nothing of the file is lost). The caller holds no host lock.
// Returns 0, ENOMEM, or the mapping or device error.
int zero_on_device(Info* info, uint64_t first, Page** pages, uint32_t n, off_t end) {
  for (uint32_t i = 0; i < n; i++) memset(pages[i]->data, 0, PAGE_SIZE);
  upl_t upl = make_list(info, first, pages, n);
  int err = ENOMEM;
  if (upl != nullptr) {
    Xfer x(info, upl, off_t(first) * PAGE_SIZE, n * PAGE_SIZE, false, false);
    err = xfer_run(x, end);
  }
  drop_fresh(pages, n);
  return err;
}

// The length of the run of pages from pages[0] on that zero_range writes
// straight to the device: fresh and wholly inside [a, b). 0 when shorter
// than kZeroDirectPages.
uint32_t direct_run(uint64_t first, const uint32_t* st, uint32_t n, off_t a, off_t b) {
  uint32_t run = 0;
  while (run < n && (st[run] & PG_FRESH) && off_t(first + run) * PAGE_SIZE >= a &&
         off_t(first + run + 1) * PAGE_SIZE <= b)
    run++;
  return run >= kZeroDirectPages ? run : 0;
}

// Zero-fills [a, b), leaving valid (IO_NOZEROVALID) or dirty
// (IO_NOZERODIRTY) pages alone: long runs of absent pages on the device,
// the rest in the page cache, batch by batch, each batch's dirty pages
// handed to write-behind before the next is taken, so that the pages in
// use stay bounded however long the range.
int zero_range(Info* info, off_t a, off_t b, off_t oldEOF, int flags) {
  Page* pages[kMaxIO / PAGE_SIZE];
  uint32_t st[kMaxIO / PAGE_SIZE];
  for (uint64_t pg = page_of(a); pg < pages_to(b);) {
    uint32_t n = uint32_t(std::min<uint64_t>(pages_to(b) - pg, kMaxIO / PAGE_SIZE));
    n = take_pages(info, pg, n, pages, st);
    if (n == 0) return ENOMEM;
    int err = prepare_partial(info, pg, pages, st, n, a, b, oldEOF);
    if (err) {
      release_batch(pages, n, 0);
      return err;
    }
    // One direct run at most: it starts at the first page of the batch or
    // after the page cache's pages that precede it.
    uint32_t run_at = n, run = 0;
    for (uint32_t i = 0; i < n; i++) {
      if ((run = direct_run(pg + i, st + i, n - i, a, b)) != 0) {
        run_at = i;
        break;
      }
    }
    bool dirtied = false;
    for (uint32_t i = 0; i < n; i++) {
      if (i >= run_at && i < run_at + run) continue;
      Page* p = pages[i];
      bool fresh = st[i] & PG_FRESH;
      bool dirty = st[i] & PG_DIRTY;
      if (!fresh && (flags & IO_NOZERODIRTY) && dirty) continue;
      if (!fresh && (flags & IO_NOZEROVALID) && !dirty) continue;
      off_t ps = off_t(pg + i) * PAGE_SIZE;
      off_t zs = std::max(a, ps), ze = std::min(b, ps + PAGE_SIZE);
      memset(p->data + (zs - ps), 0, size_t(ze - zs));
      Locker l;
      page_set_dirty_locked(p);
      dirtied = true;
    }
    {
      Locker l;
      for (uint32_t i = 0; i < n; i++)
        if (i < run_at || i >= run_at + run) page_release_locked(pages[i]);
    }
    if (run != 0) err = zero_on_device(info, pg + run_at, pages + run_at, run, b);
    if (err) return err;
    if (dirtied) write_behind(info, pg, page_of(std::min<off_t>(b, off_t(pg + n) * PAGE_SIZE)));
    pg += n;
  }
  return 0;
}

// Copies the uio into [its offset, end) of the file, batch by batch, each
// batch handed to write-behind before the next is taken.
int write_copy(Info* info, uio_t uio, off_t end, off_t oldEOF) {
  Page* pages[kMaxIO / PAGE_SIZE];
  uint32_t st[kMaxIO / PAGE_SIZE];
  while (uio_offset(uio) < end && uio_resid(uio) > 0) {
    off_t a = uio_offset(uio);
    off_t b = std::min<off_t>(end, a + uio_resid(uio));
    uint64_t pg = page_of(a);
    uint32_t n = uint32_t(std::min<uint64_t>(pages_to(b) - pg, kMaxIO / PAGE_SIZE));
    n = take_pages(info, pg, n, pages, st);
    if (n == 0) return ENOMEM;
    b = std::min<off_t>(b, off_t(pg + n) * PAGE_SIZE);
    int err = prepare_partial(info, pg, pages, st, n, a, b, oldEOF);
    if (err) {
      release_batch(pages, n, 0);
      return err;
    }
    uint32_t done = 0;
    for (; done < n; done++) {
      off_t cur = uio_offset(uio);
      uint32_t inpage = uint32_t(cur & PAGE_MASK);
      int chunk = int(std::min<off_t>(PAGE_SIZE - inpage, b - cur));
      err = uiomove(pages[done]->data + inpage, chunk, uio);
      if (err) {
        done++;  // partly copied: the page keeps what arrived
        break;
      }
    }
    release_batch(pages, n, done);
    if (err) return err;
    write_behind(info, page_of(a), page_of(uio_offset(uio)));
  }
  return 0;
}

// A run of dirty pages that its writer leaves (it wrote elsewhere next)
// shorter than this is not written behind: it stays dirty for the file's
// next push (fsync, close), the page-out thread, or the push of the whole
// file once the file or the pool has too many dirty pages. Random small
// writes would otherwise cost a transfer, and a hand-off to a transfer
// thread, each, and a page written again before it is pushed costs
// nothing more. 128 KiB: below that a request's fixed cost dominates.
constexpr uint64_t kWbMinPages = 32;

// Write-behind after a write that dirtied pages [first, full) completely
// (the page holding the end of a write that stops mid-page is not counted,
// as the next sequential write will dirty it again). Full maximal runs of
// a sequential stream are written at once, asynchronously, and so is a
// run of at least kWbMinPages that the writer leaves; a file with more
// dirty pages than its share, or a pool over its dirty limit, gets all its
// dirty pages scheduled. Finally the writer is held back while too many of
// its transfers are in flight, which bounds dirty and busy memory.
void write_behind(Info* info, uint64_t first, uint64_t full) {
  std::vector<std::pair<uint64_t, uint64_t>> runs;
  bool all = false;
  {
    Locker l;
    if (first >= info->wb_start && first <= info->wb_end) {
      info->wb_end = std::max(info->wb_end, full);
    } else {
      if (info->wb_end - info->wb_start >= kWbMinPages) runs.emplace_back(info->wb_start, info->wb_end);
      info->wb_start = first;
      info->wb_end = std::max(first, full);
    }
    while (info->wb_end - info->wb_start >= kMaxIO / PAGE_SIZE) {
      runs.emplace_back(info->wb_start, info->wb_start + kMaxIO / PAGE_SIZE);
      info->wb_start += kMaxIO / PAGE_SIZE;
    }
    Pool& pl = pool();
    if (over_dirty_limit_locked() || info->ndirty > std::max<size_t>(pl.limit_pages / 4, 1)) {
      all = info->ndirty > 0;
      kick_pageout_locked();
    }
  }
  for (auto& r : runs) cl_push_range(info, r.first, r.second, false);
  if (all) cl_push_range(info, 0, UINT64_MAX, false);
  Locker l;
  while (info->inflight > kMaxInflightPerFile) sleep_locked();
}

// Whether a push writes page p: dirty, and not stored to through a mapping
// unless `mapped_too`.
bool pushable_locked(const Page* p, bool mapped_too) {
  return (p->flags & PG_DIRTY) && (mapped_too || !(p->flags & PG_MAPDIRTY));
}

// Takes a run of up to `max` pushable pages busy: the first one at or after
// *pg (below `last`), waiting for it if it is busy, and the pushable idle
// pages that follow it (a busy one ends the run rather than being waited
// for). *pg moves past the run. Returns the run's length, 0 when no such
// page is left.
uint32_t take_dirty_run_locked(Info* info, uint64_t* pg, uint64_t last, Page** out, uint32_t max,
                               bool mapped_too) {
  for (;;) {
    Page* found = find_dirty_locked(info, *pg, last);
    if (found == nullptr) {
      *pg = last;
      return 0;
    }
    uint64_t idx = found->index;
    if (!pushable_locked(found, mapped_too)) {
      *pg = idx + 1;
      continue;
    }
    if (!page_acquire_locked(found)) continue;  // gone while we waited: search again
    *pg = idx + 1;
    if (!pushable_locked(found, mapped_too)) {  // written (or stored to) meanwhile
      page_release_locked(found);
      continue;
    }
    out[0] = found;
    uint32_t n = 1;
    while (n < max && *pg < last) {
      Page* p = page_lookup_locked(info, *pg);
      if (p == nullptr || !pushable_locked(p, mapped_too) || (p->flags & PG_BUSY) || p->readers)
        break;
      p->flags |= PG_BUSY;
      page_relist_locked(p);
      out[n++] = p;
      (*pg)++;
    }
    return n;
  }
}

}  // namespace

// Asynchronous writes of one push, gathered into jobs of up to a maximal
// transfer's worth of pages (the pages stay busy until their job is done).
class Batch {
 public:
  ~Batch() { submit(); }
  // Adds a mapped write.
  void add(Xfer* x) {
    (head_ == nullptr ? head_ : tail_->next) = x;
    tail_ = x;
    pages_ += x->size / PAGE_SIZE;
    if (pages_ >= kMaxIO / PAGE_SIZE) submit();
  }
  void submit() {
    if (head_ == nullptr) return;
    Locker l;
    submit_locked(head_);
    head_ = tail_ = nullptr;
    pages_ = 0;
  }

 private:
  Xfer* head_ = nullptr;
  Xfer* tail_ = nullptr;
  uint32_t pages_ = 0;
};

int cl_push_range(Info* info, uint64_t first, uint64_t last, bool wait, bool mapped_too) {
  Page* pages[kMaxIO / PAGE_SIZE];
  int error = 0;
  uint64_t pg = first;
  Batch batch;
  for (;;) {
    off_t filesize;
    uint32_t n;
    {
      Locker l;
      filesize = info->size;
      uint64_t lim = std::min<uint64_t>(last, pages_to(filesize));
      n = take_dirty_run_locked(info, &pg, lim, pages, kMaxIO / PAGE_SIZE, mapped_too);
    }
    if (n == 0) break;
    uint64_t start = pages[0]->index;
    upl_t upl = make_list(info, start, pages, n);
    if (upl == nullptr) {
      Locker l;
      for (uint32_t i = 0; i < n; i++) page_release_locked(pages[i]);
      error = error ? error : ENOMEM;
      break;
    }
    Xfer* x = new Xfer(info, upl, off_t(start) * PAGE_SIZE, n * PAGE_SIZE, false);
    int err = 0;
    if (wait) {
      err = xfer_start(x, filesize, true);
    } else if ((err = xfer_map(*x, filesize)) != 0) {
      xfer_finish(*x, err);
      delete x;
    } else {
      batch.add(x);
    }
    if (err && !error) error = err;
  }
  batch.submit();
  if (wait) {
    Locker l;
    while (info->inflight != 0) sleep_locked();
    if (error == 0) error = info->error;
    info->error = 0;
  }
  return error;
}

}  // namespace ubc

using namespace ubc;

// The caller holds the file's I/O lock (or is the file's only reader) and no
// host lock. Reads [uio offset, min(uio end, filesize)); bytes of the last
// page past filesize are zero in the cache. EINVAL for a negative offset or
// a vnode without a page cache; errors of blockmap, strategy and uiomove.
int cluster_read(vnode_t vp, uio_t uio, off_t filesize, int xflags) {
  constexpr int kKnown = IO_SYNC | IO_NODELOCKED | IO_NDELAY | IO_NOCACHE | IO_RAOFF |
                         IO_PASSIVE | IO_UNIT | IO_APPEND;
  if (xflags & ~kKnown) panic("cluster_read: unsupported flags 0x%x", xflags & ~kKnown);
  Info* info = info_of(vp);
  if (info == nullptr || uio == nullptr || uio_offset(uio) < 0) return EINVAL;
  off_t off = uio_offset(uio);
  if (off >= filesize || uio_resid(uio) <= 0) return 0;
  off_t end = std::min<off_t>(filesize, off + uio_resid(uio));
  if (!(xflags & (IO_RAOFF | IO_NOCACHE))) read_ahead(info, off, end, filesize);
  return read_copy(info, uio, end, filesize);
}

// The caller holds the file's I/O lock and no host lock; the file system
// has already told the page cache the new size (ubc_setsize) when the file
// grows. See host/cluster.h for the zero-fill flags. With IO_SYNC every page
// the call dirtied is on the device when it returns.
int cluster_write(vnode_t vp, uio_t uio, off_t oldEOF, off_t newEOF, off_t headOff, off_t tailOff,
                  int flags) {
  constexpr int kKnown = IO_UNIT | IO_APPEND | IO_SYNC | IO_NODELOCKED | IO_NDELAY | IO_NOZEROFILL |
                         IO_TAILZEROFILL | IO_HEADZEROFILL | IO_NOZEROVALID | IO_NOZERODIRTY |
                         IO_NOCACHE | IO_PASSIVE | IO_DEFWRITE;
  if (flags & ~kKnown) panic("cluster_write: unsupported flags 0x%x", flags & ~kKnown);
  Info* info = info_of(vp);
  if (info == nullptr || (uio != nullptr && uio_offset(uio) < 0)) return EINVAL;
  // A NULL uio is an empty write at newEOF: only the zero-fills happen.
  off_t ws = uio ? uio_offset(uio) : newEOF;
  off_t we = uio ? std::min<off_t>(newEOF, ws + uio_resid(uio)) : newEOF;
  if (we < ws) we = ws;
  off_t lo = ws, hi = we;
  int err = 0;
  // Nothing at or past newEOF is zero-filled, even for a write that starts
  // there (and so writes nothing).
  off_t head_end = std::min(ws, newEOF);
  if ((flags & IO_HEADZEROFILL) && headOff < head_end) {
    err = zero_range(info, headOff, head_end, oldEOF, flags);
    lo = headOff;
  }
  if (err == 0 && uio && we > ws) err = write_copy(info, uio, we, oldEOF);
  if (err == 0 && (flags & IO_TAILZEROFILL) && tailOff > we) {
    off_t te = std::min(tailOff, newEOF);
    if (te > we) {
      err = zero_range(info, we, te, oldEOF, flags);
      hi = te;
    }
  }
  if (err == 0 && (flags & IO_SYNC) && hi > lo) err = cl_push_range(info, page_of(lo), pages_to(hi), true);
  return err;
}

// The caller holds no host lock. Writes every dirty page of vp in large
// transfers, but those stored to through a mapping, which are left to the
// file system's page-out (ubc_msync); with IO_SYNC waits for them (and for
// any earlier asynchronous ones) and returns the first error. A write nobody
// waited for (write-behind, the page-out thread) that failed is remembered
// for the file until it is reported: by this call with IO_SYNC (as an error
// of the writes waited for) or with IO_CLOSE (a close is the last chance to
// tell the writer).
int cluster_push(vnode_t vp, int flags) {
  if (flags & ~(IO_SYNC | IO_CLOSE | IO_PASSIVE)) panic("cluster_push: unsupported flags 0x%x", flags);
  Info* info = info_of(vp);
  if (info == nullptr) return 0;
  {
    Locker l;
    info->wb_start = info->wb_end = 0;
  }
  int error = cl_push_range(info, 0, UINT64_MAX, flags & IO_SYNC);
  if (flags & IO_CLOSE) {
    Locker l;
    if (error == 0) error = info->error;
    info->error = 0;
  }
  return error;
}

namespace {

constexpr int kPagingFlags = UPL_IOSYNC | UPL_NOCOMMIT | UPL_NORDAHEAD | UPL_MSYNC | UPL_KEEPCACHED;

// Checks a paging request; on failure aborts the run (unless the caller
// commits itself) and returns EINVAL.
int paging_check(const char* fn, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                 off_t filesize, int flags, int abort_flags) {
  if (flags & ~kPagingFlags) panic("%s: unsupported flags 0x%x", fn, flags & ~kPagingFlags);
  if (upl == nullptr) return EINVAL;
  bool bad = size <= 0 || f_offset < 0 || f_offset >= filesize || (upl_offset & PAGE_MASK) ||
             (f_offset & PAGE_MASK) || uint64_t(upl_offset) + uint64_t(size) > uint64_t(upl_npages(upl)) * PAGE_SIZE;
  if (!bad) return 0;
  if (!(flags & UPL_NOCOMMIT) && size > 0) ubc_upl_abort_range(upl, upl_offset, uint32_t(size), abort_flags);
  return EINVAL;
}

// A transfer over pages of a caller's page list (from byte upl_offset on).
int paging_xfer(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                off_t filesize, int flags, bool read) {
  uint32_t span = uint32_t(round_up(size, PAGE_SIZE));
  // The transfer describes only the run: a list over the same pages,
  // starting at the run.
  Info* info = info_of(vp);
  upl_t run = upl_alloc(info, vp, f_offset, span / PAGE_SIZE, 0);
  if (run == nullptr) return ENOMEM;
  {
    Locker l;
    for (uint32_t i = 0; i < span / PAGE_SIZE; i++) {
      Page* p = upl_page(upl, upl_offset / PAGE_SIZE + i);
      if (p == nullptr) panic("%s: page %u of the run is not in the list", read ? "cluster_pagein" : "cluster_pageout", i);
      upl_set_page_locked(run, i, p);
    }
  }
  Xfer x(info, run, f_offset, span, read, false);
  int err = xfer_run(x, filesize);
  if (!(flags & UPL_NOCOMMIT)) {
    if (err == 0)
      ubc_upl_commit_range(upl, upl_offset, span,
                           UPL_COMMIT_FREE_ON_EMPTY | (read ? 0 : UPL_COMMIT_CLEAR_DIRTY));
    else
      ubc_upl_abort_range(upl, upl_offset, span, UPL_ABORT_FREE_ON_EMPTY | (read ? UPL_ABORT_ERROR : 0));
  }
  return err;
}

}  // namespace

// The caller (a file system's pagein) holds the pages of the run busy in
// upl and no host lock. Reads them; bytes at or past filesize are zeros.
// Commits (valid, clean) or, on error, aborts the run unless UPL_NOCOMMIT.
// EINVAL for a run outside the file or the list.
int cluster_pagein(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                   off_t filesize, int flags) {
  int err = paging_check("cluster_pagein", upl, upl_offset, f_offset, size, filesize, flags,
                         UPL_ABORT_FREE_ON_EMPTY | UPL_ABORT_ERROR);
  if (err) return err;
  return paging_xfer(vp, upl, upl_offset, f_offset, size, filesize, flags, true);
}

// As cluster_pagein, writing. Nothing past filesize reaches the device but
// the rounding of the last request up to the device's block size. A
// successful run is committed clean; a failed one aborted (still dirty).
int cluster_pageout(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset, int size,
                    off_t filesize, int flags) {
  int err = paging_check("cluster_pageout", upl, upl_offset, f_offset, size, filesize, flags,
                         UPL_ABORT_FREE_ON_EMPTY);
  if (err) return err;
  return paging_xfer(vp, upl, upl_offset, f_offset, size, filesize, flags, false);
}

// Starts reading [f_offset, f_offset + resid) (within filesize) into the page
// cache and returns without waiting. Pages already resident are skipped;
// when the pool has no room the rest is not read. The caller holds no host
// lock. Returns a mapping error, or 0.
int advisory_read(vnode_t vp, off_t filesize, off_t f_offset, int resid) {
  Info* info = info_of(vp);
  if (info == nullptr || f_offset < 0 || resid < 0) return EINVAL;
  off_t end = std::min<off_t>(filesize, f_offset + resid);
  for (uint64_t pg = page_of(f_offset); pg < pages_to(end);) {
    uint32_t want = uint32_t(std::min<uint64_t>(pages_to(end) - pg, kMaxIO / PAGE_SIZE));
    int n = read_absent(info, pg, want, filesize, false);
    if (n < 0) return -n;
    if (n == 0) {
      Locker l;
      if (page_lookup_locked(info, pg) == nullptr) return 0;  // no room
      pg++;
    } else {
      pg += uint64_t(n);
    }
  }
  return 0;
}
