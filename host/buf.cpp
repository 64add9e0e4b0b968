#include "host/buf.h"

#include <sys/queue.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/blkdev_private.h"
#include "host/buf_private.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc_io_private.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host/vnode_slots_private.h"

// The buffer cache.
//
// Locking. One mutex, bc_lock, protects the hash of cached buffers, the two
// idle lists, the per-vnode buffer lists, the byte count and each buffer's
// b_lflags. A buffer's other fields belong to the thread that holds it busy
// (BL_BUSY): it reads and changes them without the lock, and a later holder
// sees its changes because busy is handed on under bc_lock. Device I/O and
// every call into a file system run without bc_lock. A thread that finds a
// buffer busy sleeps on the condition variable of the buffer's identity
// and, once woken, looks the block up again: the buffer it saw may be gone.
//
// Lists. Every cached buffer is on its vnode's clean or dirty list (dirty:
// a delayed write is pending, B_DELWRI). Every cached buffer that is idle
// (not busy) is also on one global idle list, oldest first: clean, dirty
// device blocks, dirty file blocks. Eviction takes the oldest clean buffer,
// and only when there is none the oldest dirty device block, which it writes
// before dropping it. Delayed writes of file vnodes are never evicted:
// writing one calls the file system's blockmap, which may need a lock that
// the thread that happens to evict (any caller of buf_getblk) already holds.
// They leave the cache when their vnode is flushed, invalidated or
// reclaimed.

namespace {

constexpr uint32_t kMaxBufSize = 1024 * 1024;       // MAXBSIZE
constexpr size_t kDefaultLimit = 64 * 1024 * 1024;  // bytes of cached buffers
constexpr uint8_t kPoison = 0xA5;  // contents of a new buffer: undefined until read or cleared

// b_lflags, protected by bc_lock.
constexpr uint32_t BL_BUSY = 0x01;     // held by b_owner
constexpr uint32_t BL_WANTED = 0x02;   // someone waits for it to be released
constexpr uint32_t BL_CACHED = 0x04;   // in the hash and on its vnode's list
constexpr uint32_t BL_DONE = 0x08;     // the I/O started last has completed
constexpr uint32_t BL_IOWAIT = 0x10;   // someone waits in buf_biowait
// Copies of B_DELWRI and B_META for threads that look at a buffer they do
// not hold (b_flags is the holder's).
constexpr uint32_t BL_DELWRI = 0x20;
constexpr uint32_t BL_META = 0x40;
// Its holder is writing it: a waiting flush must wait for that write too,
// though the buffer is no longer a delayed write.
constexpr uint32_t BL_WRITING = 0x80;

// b_hflags, owned by the holder of the busy buffer.
constexpr uint32_t BH_VALID = 0x01;   // the data is the block's (read, or to be written)
constexpr uint32_t BH_INVAL = 0x02;   // drop at release
constexpr uint32_t BH_AGED = 0x04;    // evict first after release
constexpr uint32_t BH_MAPPED = 0x08;  // b_blkno is the device block of the whole buffer
constexpr uint32_t BH_ALLOC = 0x10;   // from buf_alloc: not cached, data not ours

// Flags a caller may set or clear with buf_setflags/buf_clearflags. B_DELWRI
// and B_LOCKED change cache state and have their own calls (or none).
constexpr int32_t kSettableFlags = B_READ | B_ASYNC | B_NOCACHE | B_PHYS | B_CLUSTER |
                                   B_PAGEIO | B_META | B_RAW | B_FUA | B_PASSIVE |
                                   B_IOSTREAMING | B_THROTTLED_IO | B_ENCRYPTED_IO |
                                   B_STATICCONTENT;

}  // namespace

struct buf {
  vnode_t b_vp;
  daddr64_t b_lblkno;  // block of b_vp: the cache key
  daddr64_t b_blkno;   // device block, once mapped
  dev_t b_dev;
  int32_t b_flags;     // B_*, the holder's (B_DELWRI and B_META mirrored in b_lflags)
  uint32_t b_lflags;   // BL_*, protected by bc_lock
  uint32_t b_hflags;   // BH_*, the holder's
  std::thread::id b_owner;  // protected by bc_lock; valid while BL_BUSY
  uintptr_t b_data;
  uint32_t b_bufsize;  // bytes allocated (cached buffers)
  uint32_t b_bcount;   // bytes of the transfer
  uint32_t b_resid;
  errno_t b_error;
  upl_t b_upl;
  uint32_t b_uploffset;
  bool b_isdev;                 // b_vp is a device vnode (fixed at creation)
  TAILQ_ENTRY(buf) b_freelist;  // an idle list of the cache while idle
  TAILQ_ENTRY(buf) b_vnbufs;    // bv_clean / bv_dirty of b_vp while cached
};

namespace {

TAILQ_HEAD(buflist, buf);

// The buffer cache's per-vnode state, in the vnode's buf slot while the
// vnode has cached buffers. Protected by bc_lock.
struct bufvnode {
  buflist bv_clean;
  buflist bv_dirty;
  int bv_count;
};

struct BufKey {
  vnode_t vp;
  daddr64_t blkno;
  bool operator==(const BufKey&) const = default;
};

struct BufKeyHash {
  size_t operator()(const BufKey& k) const {
    return std::hash<const void*>()(k.vp) * 31 + std::hash<daddr64_t>()(k.blkno);
  }
};

constexpr int kWaitChannels = 64;

struct bufcache {
  std::mutex bc_lock;
  std::unordered_map<BufKey, buf*, BufKeyHash> bc_hash;
  buflist bc_clean;  // idle clean buffers, least recently used first
  buflist bc_dirty;  // idle delayed writes of devices, least recently used first
  buflist bc_dirty_file;  // idle delayed writes of files, least recently used first
  size_t bc_bytes = 0;
  size_t bc_limit = kDefaultLimit;
  int bc_waiters = 0;  // threads in wait_busy_locked
  std::condition_variable bc_wait[kWaitChannels];
  // Per vnode, the error of a delayed write that failed where no caller
  // could be told (eviction, a change of block size, dropping idle
  // buffers), until buf_flushdirtyblks of the vnode reports it or the vnode
  // is reclaimed.
  std::unordered_map<vnode_t, int> bc_lost_writes;

  bufcache() {
    TAILQ_INIT(&bc_clean);
    TAILQ_INIT(&bc_dirty);
    TAILQ_INIT(&bc_dirty_file);
  }
};

// Never destroyed: threads of other subsystems may still release buffers
// while static objects are torn down at exit.
bufcache& bc() {
  static bufcache* cache = new bufcache;
  return *cache;
}

using Lock = std::unique_lock<std::mutex>;

// Waiters for a busy block sleep on the channel of the block's identity,
// waiters for an I/O on the channel of the buffer's address.
std::condition_variable& channel_for(vnode_t vp, daddr64_t blkno) {
  return bc().bc_wait[BufKeyHash()(BufKey{vp, blkno}) % kWaitChannels];
}

std::condition_variable& io_channel_for(const buf* bp) {
  return bc().bc_wait[(reinterpret_cast<uintptr_t>(bp) >> 6) % kWaitChannels];
}

// --- Lookup, lists and lifetime (bc_lock held) ------------------------------------

bufvnode* bufvnode_locked(vnode_t vp, bool create) {
  void** slot = host_vnode_buf_slot(vp);
  if (*slot == nullptr && create) {
    auto* bv = new bufvnode;
    TAILQ_INIT(&bv->bv_clean);
    TAILQ_INIT(&bv->bv_dirty);
    bv->bv_count = 0;
    *slot = bv;
  }
  return static_cast<bufvnode*>(*slot);
}

buf* lookup_locked(vnode_t vp, daddr64_t blkno) {
  auto it = bc().bc_hash.find(BufKey{vp, blkno});
  return it == bc().bc_hash.end() ? nullptr : it->second;
}

buflist& idle_list_locked(buf* bp) {
  if (!(bp->b_lflags & BL_DELWRI)) return bc().bc_clean;
  return bp->b_isdev ? bc().bc_dirty : bc().bc_dirty_file;
}

buflist& vnode_list_locked(bufvnode* bv, buf* bp) {
  return (bp->b_lflags & BL_DELWRI) ? bv->bv_dirty : bv->bv_clean;
}

// Makes an idle cached buffer busy for the calling thread.
void take_busy_locked(buf* bp) {
  TAILQ_REMOVE(&idle_list_locked(bp), bp, b_freelist);
  bp->b_lflags |= BL_BUSY;
  bp->b_owner = std::this_thread::get_id();
}

// Sleeps until bp's holder releases it. bc_lock is dropped while asleep;
// on return the caller must look its block up again.
void wait_busy_locked(Lock& lk, buf* bp, const char* who) {
  if (bp->b_owner == std::this_thread::get_id())
    panic("%s: block %lld of vnode %p is held by the calling thread", who,
          static_cast<long long>(bp->b_lblkno), static_cast<void*>(bp->b_vp));
  bp->b_lflags |= BL_WANTED;
  bc().bc_waiters++;
  channel_for(bp->b_vp, bp->b_lblkno).wait(lk);
  bc().bc_waiters--;
}

void wake_waiters_locked(buf* bp) {
  if (bp->b_lflags & BL_WANTED) {
    bp->b_lflags &= ~BL_WANTED;
    channel_for(bp->b_vp, bp->b_lblkno).notify_all();
  }
}

// Moves a busy cached buffer between its vnode's clean and dirty lists.
// The caller holds the buffer.
void set_delwri_locked(buf* bp, bool dirty) {
  if (((bp->b_lflags & BL_DELWRI) != 0) == dirty) return;
  bufvnode* bv = bufvnode_locked(bp->b_vp, false);
  TAILQ_REMOVE(&vnode_list_locked(bv, bp), bp, b_vnbufs);
  if (dirty) {
    bp->b_lflags |= BL_DELWRI;
    bp->b_flags |= B_DELWRI;
  } else {
    bp->b_lflags &= ~BL_DELWRI;
    bp->b_flags &= ~B_DELWRI;
  }
  TAILQ_INSERT_TAIL(&vnode_list_locked(bv, bp), bp, b_vnbufs);
}

// Marks a buffer the caller holds (or is about to return held) as metadata.
void set_meta_locked(buf* bp) {
  bp->b_lflags |= BL_META;
  bp->b_flags |= B_META;
}

// Removes a cached buffer (busy or idle) from the cache and frees it.
// Anyone waiting for it wakes up and finds the block gone.
void destroy_locked(buf* bp) {
  bufcache& c = bc();
  if (!(bp->b_lflags & BL_BUSY)) TAILQ_REMOVE(&idle_list_locked(bp), bp, b_freelist);
  bufvnode* bv = bufvnode_locked(bp->b_vp, false);
  TAILQ_REMOVE(&vnode_list_locked(bv, bp), bp, b_vnbufs);
  if (--bv->bv_count == 0) {
    *host_vnode_buf_slot(bp->b_vp) = nullptr;
    delete bv;
  }
  c.bc_hash.erase(BufKey{bp->b_vp, bp->b_lblkno});
  c.bc_bytes -= bp->b_bufsize;
  wake_waiters_locked(bp);
  free(reinterpret_cast<void*>(bp->b_data));
  delete bp;
}

// Makes a new busy buffer for (vp, blkno) and enters it in the cache.
buf* new_buf_locked(vnode_t vp, daddr64_t blkno, uint32_t size, bool isdev, dev_t dev) {
  void* data = nullptr;
  if (posix_memalign(&data, size >= 4096 ? 4096 : 64, size) != 0)
    panic("buf_getblk: out of memory for a buffer of %u bytes", size);
  memset(data, kPoison, size);
  auto* bp = new buf{};
  bp->b_vp = vp;
  bp->b_lblkno = blkno;
  bp->b_blkno = blkno;
  bp->b_dev = dev;
  bp->b_lflags = BL_BUSY | BL_CACHED;
  bp->b_hflags = isdev ? BH_MAPPED : 0;  // a device block needs no mapping
  bp->b_isdev = isdev;
  bp->b_owner = std::this_thread::get_id();
  bp->b_data = reinterpret_cast<uintptr_t>(data);
  bp->b_bufsize = bp->b_bcount = size;
  bufcache& c = bc();
  c.bc_hash.emplace(BufKey{vp, blkno}, bp);
  bufvnode* bv = bufvnode_locked(vp, true);
  TAILQ_INSERT_TAIL(&bv->bv_clean, bp, b_vnbufs);
  bv->bv_count++;
  c.bc_bytes += size;
  return bp;
}

// Releases a busy cached buffer: drops it when it holds nothing worth
// keeping, else puts it on its idle list (at the front when aged).
void release_locked(buf* bp) {
  if (!(bp->b_lflags & BL_BUSY)) panic("buf_brelse: buffer %p is not busy", static_cast<void*>(bp));
  bool dirty = bp->b_lflags & BL_DELWRI;
  // A failed read is dropped; data that failed to be written is kept.
  bool failed_read = bp->b_error != 0 && (bp->b_flags & B_READ);
  bool keep = (bp->b_hflags & BH_VALID) && !(bp->b_hflags & BH_INVAL) &&
              (dirty || (!failed_read && !(bp->b_flags & B_NOCACHE)));
  if (!keep) {
    destroy_locked(bp);
    return;
  }
  bp->b_lflags &= ~BL_BUSY;
  bp->b_flags &= ~(B_ASYNC | B_NOCACHE);
  if (bp->b_hflags & BH_AGED)
    TAILQ_INSERT_HEAD(&idle_list_locked(bp), bp, b_freelist);
  else
    TAILQ_INSERT_TAIL(&idle_list_locked(bp), bp, b_freelist);
  wake_waiters_locked(bp);
}

void check_cached_busy(buf* bp, const char* who) {
  if (bp->b_hflags & BH_ALLOC)
    panic("%s: buffer %p comes from buf_alloc, not the cache", who, static_cast<void*>(bp));
}

// --- I/O ------------------------------------------------------------------------

// Starts the buffer's transfer through its vnode's strategy and waits for
// it. A strategy that fails without completing the buffer completes it here.
int start_and_wait(buf* bp) {
  {
    Lock lk(bc().bc_lock);
    bp->b_lflags &= ~BL_DONE;
  }
  bp->b_error = 0;
  bp->b_resid = bp->b_bcount;
  int error = VNOP_STRATEGY(bp);
  if (error != 0) {
    Lock lk(bc().bc_lock);
    if (!(bp->b_lflags & BL_DONE)) {
      lk.unlock();
      buf_seterror(bp, error);
      buf_biodone(bp);
    }
  }
  return buf_biowait(bp);
}

// Reads a busy buffer whose data is not valid yet.
int read_buf(buf* bp) {
  bp->b_flags |= B_READ;
  int error = start_and_wait(bp);
  if (error == 0) bp->b_hflags |= BH_VALID;
  return error;
}

// Writes a busy cached buffer; a pending delayed write is taken off the
// dirty list first. Afterwards the buffer is clean and its data valid
// either way: on success it is the block's, on failure it is still what the
// file system last put there, and a file system that reads the block again
// must find that, not the older contents of the device (a metadata flush
// on another thread may be the one that fails). The failure is reported to
// the writer and the write is not retried.
int write_buf(buf* bp, bool async) {
  {
    Lock lk(bc().bc_lock);
    set_delwri_locked(bp, false);
    bp->b_lflags |= BL_WRITING;
  }
  bp->b_flags &= ~B_READ;
  if (async) bp->b_flags |= B_ASYNC;
  int error = start_and_wait(bp);
  bp->b_hflags |= BH_VALID;
  Lock lk(bc().bc_lock);
  bp->b_lflags &= ~BL_WRITING;
  return error;
}

// Writes a busy buffer and releases it (dropping it when BH_INVAL is set).
int write_and_release(buf* bp, bool async) {
  int error = write_buf(bp, async);
  Lock lk(bc().bc_lock);
  release_locked(bp);
  return error;
}

// Remembers a failed write of vp that no caller receives, for the vnode's
// next flush to report (the first one, if several fail meanwhile).
void note_lost_write_locked(vnode_t vp, int error) {
  if (error != 0) bc().bc_lost_writes.emplace(vp, error);
}

// write_and_release for a delayed write nobody waits for. bc_lock is held
// through `lk` and dropped for the write.
void write_back_locked(Lock& lk, buf* bp) {
  vnode_t vp = bp->b_vp;
  lk.unlock();
  int error = write_and_release(bp, false);
  lk.lock();
  note_lost_write_locked(vp, error);
}

// Evicts one idle buffer: the oldest clean one, else the oldest delayed
// write of a device, written first. Returns false when there is nothing to
// evict. Writing drops bc_lock for the time of the write.
bool evict_one_locked(Lock& lk) {
  bufcache& c = bc();
  if (buf* bp = TAILQ_FIRST(&c.bc_clean)) {
    destroy_locked(bp);
    return true;
  }
  if (buf* bp = TAILQ_FIRST(&c.bc_dirty)) {
    take_busy_locked(bp);
    bp->b_hflags |= BH_INVAL;
    write_back_locked(lk, bp);
    return true;
  }
  return false;
}

}  // namespace

// --- Getting blocks --------------------------------------------------------------------

// slpflag and slptimeo are ignored: the host has no signals to interrupt a
// sleep, and a wait for a busy buffer ends only when its holder releases it.
buf_t buf_getblk(vnode_t vp, daddr64_t blkno, int size, int slpflag, int slptimeo, int operation) {
  if (operation & ~(BLK_READ | BLK_WRITE | BLK_META | BLK_ONLYVALID))
    panic("buf_getblk: unsupported operation 0x%x", static_cast<unsigned>(operation));
  if (size <= 0 || static_cast<uint32_t>(size) > kMaxBufSize)
    panic("buf_getblk: size %d out of range", size);
  // Vnode queries before bc_lock: the cache calls nothing outside itself
  // while holding it.
  bool isdev = vnode_isblk(vp);
  dev_t dev = isdev ? vnode_specrdev(vp) : 0;
  bufcache& c = bc();
  Lock lk(c.bc_lock);
  for (;;) {
    buf* bp = lookup_locked(vp, blkno);
    if (bp == nullptr) {
      if (operation & BLK_ONLYVALID) return nullptr;
      if (c.bc_bytes + static_cast<size_t>(size) > c.bc_limit && evict_one_locked(lk)) continue;
      bp = new_buf_locked(vp, blkno, static_cast<uint32_t>(size), isdev, dev);
      if (operation & BLK_META) set_meta_locked(bp);
      return bp;
    }
    if (bp->b_lflags & BL_BUSY) {
      wait_busy_locked(lk, bp, "buf_getblk");
      continue;
    }
    if (bp->b_bufsize != static_cast<uint32_t>(size)) {
      // Another size: the old buffer goes (written first when dirty) and
      // the block is read again at the new size.
      if (operation & BLK_ONLYVALID) return nullptr;
      take_busy_locked(bp);
      if (bp->b_lflags & BL_DELWRI) {
        bp->b_hflags |= BH_INVAL;
        write_back_locked(lk, bp);
      } else {
        destroy_locked(bp);
      }
      continue;
    }
    take_busy_locked(bp);
    bp->b_hflags &= ~BH_AGED;
    bp->b_bcount = bp->b_bufsize;
    bp->b_error = 0;
    bp->b_resid = 0;
    if (operation & BLK_META) set_meta_locked(bp);
    return bp;
  }
}

static errno_t bread_common(vnode_t vp, daddr64_t blkno, int size, int operation, buf_t* bpp) {
  buf* bp = buf_getblk(vp, blkno, size, 0, 0, operation);
  *bpp = bp;
  if (bp->b_hflags & BH_VALID) return 0;
  return read_buf(bp);
}

// cred is ignored: the host checks no permissions on devices.
errno_t buf_bread(vnode_t vp, daddr64_t blkno, int size, kauth_cred_t cred, buf_t* bpp) {
  return bread_common(vp, blkno, size, BLK_READ, bpp);
}

errno_t buf_meta_bread(vnode_t vp, daddr64_t blkno, int size, kauth_cred_t cred, buf_t* bpp) {
  return bread_common(vp, blkno, size, BLK_READ | BLK_META, bpp);
}

// --- Writing and releasing ----------------------------------------------------------------

errno_t buf_bwrite(buf_t bp) {
  check_cached_busy(bp, "buf_bwrite");
  return write_and_release(bp, false);
}

// The host completes every write before returning, so an asynchronous write
// reports its result like a synchronous one.
errno_t buf_bawrite(buf_t bp) {
  check_cached_busy(bp, "buf_bawrite");
  return write_and_release(bp, true);
}

errno_t buf_bdwrite(buf_t bp) {
  check_cached_busy(bp, "buf_bdwrite");
  bp->b_hflags |= BH_VALID;
  bp->b_error = 0;
  Lock lk(bc().bc_lock);
  set_delwri_locked(bp, true);
  release_locked(bp);
  return 0;
}

void buf_brelse(buf_t bp) {
  check_cached_busy(bp, "buf_brelse");
  Lock lk(bc().bc_lock);
  release_locked(bp);
}

void buf_clear(buf_t bp) {
  if (bp->b_data == 0) panic("buf_clear: buffer %p has no data address", static_cast<void*>(bp));
  memset(reinterpret_cast<void*>(bp->b_data), 0, bp->b_bcount);
  bp->b_resid = 0;
}

void buf_markaged(buf_t bp) { bp->b_hflags |= BH_AGED; }

void buf_markinvalid(buf_t bp) { bp->b_hflags |= BH_INVAL; }

// --- Dropping and flushing a vnode's buffers ------------------------------------------------

namespace {

// Drops the buffers of vp (those without B_META too when skip_meta is
// false), writing delayed writes first when write_data is set. Held buffers
// are waited for, or left alone with skip_busy. Returns the first write
// error; when `lost` is set, a failed write is also remembered for the
// vnode's next flush.
int invalidate_vnode(vnode_t vp, bool write_data, bool skip_meta, bool skip_busy, bool lost,
                     const char* who) {
  int first_error = 0;
  Lock lk(bc().bc_lock);
  for (;;) {
    bufvnode* bv = bufvnode_locked(vp, false);
    if (bv == nullptr) break;
    buf* victim = nullptr;
    buf* busy = nullptr;
    for (buflist* list : {&bv->bv_dirty, &bv->bv_clean}) {
      buf* bp;
      TAILQ_FOREACH(bp, list, b_vnbufs) {
        if (skip_meta && (bp->b_lflags & BL_META)) continue;
        if (bp->b_lflags & BL_BUSY) {
          if (busy == nullptr) busy = bp;
          continue;
        }
        victim = bp;
        break;
      }
      if (victim != nullptr) break;
    }
    if (victim != nullptr) {
      if (write_data && (victim->b_lflags & BL_DELWRI)) {
        take_busy_locked(victim);
        victim->b_hflags |= BH_INVAL;
        lk.unlock();
        int error = write_and_release(victim, false);
        if (first_error == 0) first_error = error;
        lk.lock();
        if (lost) note_lost_write_locked(vp, error);
      } else {
        destroy_locked(victim);
      }
      continue;
    }
    if (busy == nullptr || skip_busy) break;
    wait_busy_locked(lk, busy, who);
  }
  return first_error;
}

}  // namespace

// slpflag and slptimeo are ignored: waits for held buffers are not
// interruptible here. BUF_INVALIDATE_LOCKED is accepted and changes
// nothing: the host never locks buffers in the cache (B_LOCKED).
int buf_invalidateblks(vnode_t vp, int flags, int slpflag, int slptimeo) {
  if (flags & ~(BUF_WRITE_DATA | BUF_SKIP_META | BUF_INVALIDATE_LOCKED))
    panic("buf_invalidateblks: unsupported flags 0x%x", static_cast<unsigned>(flags));
  return invalidate_vnode(vp, flags & BUF_WRITE_DATA, flags & BUF_SKIP_META, false, false,
                          "buf_invalidateblks");
}

void host_buf_drop_idle(vnode_t vp) {
  invalidate_vnode(vp, true, false, true, true, "host_buf_drop_idle");
}

// The vnode's identity ends here: a failed write it never reported is
// forgotten with it, so that a vnode made later at the same address does
// not inherit it.
void host_buf_vnode_reclaim(vnode_t vp) {
  invalidate_vnode(vp, true, false, false, false, "host_buf_vnode_reclaim");
  Lock lk(bc().bc_lock);
  bc().bc_lost_writes.erase(vp);
}

errno_t buf_invalblkno(vnode_t vp, daddr64_t lblkno, int flags) {
  if (flags & ~BUF_WAIT)
    panic("buf_invalblkno: unsupported flags 0x%x", static_cast<unsigned>(flags));
  Lock lk(bc().bc_lock);
  for (;;) {
    buf* bp = lookup_locked(vp, lblkno);
    if (bp == nullptr) return 0;
    if (!(bp->b_lflags & BL_BUSY)) {
      destroy_locked(bp);
      return 0;
    }
    if (!(flags & BUF_WAIT)) return EBUSY;
    wait_busy_locked(lk, bp, "buf_invalblkno");
  }
}

std::vector<vnode_t> host_buf_dirty_vnodes(mount_t mp) {
  Lock lk(bc().bc_lock);
  std::vector<vnode_t> vnodes;
  buf* bp;
  TAILQ_FOREACH(bp, &bc().bc_dirty_file, b_freelist) {
    if (vnode_mount(bp->b_vp) == mp) vnodes.push_back(bp->b_vp);
  }
  lk.unlock();
  std::sort(vnodes.begin(), vnodes.end());
  vnodes.erase(std::unique(vnodes.begin(), vnodes.end()), vnodes.end());
  return vnodes;
}

// msg is ignored: it names the caller for a kernel's diagnostics, and the
// host prints none. A dirty buffer that the calling thread holds itself is
// skipped, since waiting for it could never end.
errno_t buf_flushdirtyblks(vnode_t vp, int wait, int flags, const char* msg) {
  if (flags != 0) panic("buf_flushdirtyblks: unsupported flags 0x%x", static_cast<unsigned>(flags));
  Lock lk(bc().bc_lock);
  int first_error = 0;
  auto lost = bc().bc_lost_writes.find(vp);
  if (lost != bc().bc_lost_writes.end()) {
    first_error = lost->second;
    bc().bc_lost_writes.erase(lost);
  }
  bufvnode* bv = bufvnode_locked(vp, false);
  if (bv == nullptr) return first_error;
  std::vector<daddr64_t> blocks;
  buf* bp;
  TAILQ_FOREACH(bp, &bv->bv_dirty, b_vnbufs) blocks.push_back(bp->b_lblkno);
  // Writes other threads have taken off the dirty list but not finished
  // belong to this flush too: a caller that flushes the device's cache
  // next needs them on the medium first.
  if (wait) {
    TAILQ_FOREACH(bp, &bv->bv_clean, b_vnbufs)
      if (bp->b_lflags & BL_WRITING) blocks.push_back(bp->b_lblkno);
  }
  for (daddr64_t blkno : blocks) {
    for (;;) {
      bp = lookup_locked(vp, blkno);
      if (bp == nullptr) break;
      if (bp->b_lflags & BL_BUSY) {
        // Its holder may yet make it a delayed write: wait and look again.
        if (!wait || bp->b_owner == std::this_thread::get_id()) break;
        wait_busy_locked(lk, bp, "buf_flushdirtyblks");
        continue;
      }
      if (!(bp->b_lflags & BL_DELWRI)) break;
      take_busy_locked(bp);
      lk.unlock();
      int error = write_and_release(bp, !wait);
      if (first_error == 0) first_error = error;
      lk.lock();
      break;
    }
  }
  return first_error;
}

// --- Strategy -----------------------------------------------------------------------------

namespace {

// One contiguous piece of a buffer's transfer: `len` bytes at byte
// `buf_off` of the buffer, at byte `dev_off` of the device, or a hole.
struct segment {
  uint32_t buf_off;
  uint32_t len;
  bool hole;
  uint64_t dev_off;
};

// Maps a file buffer's bytes to the device through the file system's
// blktooff and blockmap operations. The buffer's blkno becomes the device
// block of its first byte (-1 for a hole); when the whole buffer is one run
// starting on a block boundary it counts as mapped and later transfers skip
// this step.
int map_buffer(buf* bp, uint32_t bsize, std::vector<segment>* segs) {
  off_t foff = 0;
  int error = VNOP_BLKTOOFF(bp->b_vp, bp->b_lblkno, &foff);
  if (error != 0) return error;
  int mapflags = (bp->b_flags & B_READ) ? VNODE_READ : VNODE_WRITE;
  uint32_t done = 0;
  while (done < bp->b_bcount) {
    daddr64_t bpn = 0;
    size_t run = 0;
    int poff = 0;
    error = VNOP_BLOCKMAP(bp->b_vp, foff + done, bp->b_bcount - done, &bpn, &run, &poff,
                          mapflags, vfs_context_kernel());
    if (error != 0) return error;
    if (run == 0) return EIO;  // no progress: a broken mapping
    uint32_t len = static_cast<uint32_t>(std::min<size_t>(run, bp->b_bcount - done));
    segment s{done, len, bpn == -1, 0};
    if (!s.hole) s.dev_off = static_cast<uint64_t>(bpn) * bsize + static_cast<uint32_t>(poff);
    segs->push_back(s);
    if (done == 0) bp->b_blkno = s.hole ? -1 : bpn;
    done += len;
  }
  if (segs->size() == 1 && !(*segs)[0].hole && (*segs)[0].dev_off % bsize == 0)
    bp->b_hflags |= BH_MAPPED;
  return 0;
}

// Fills iov with the memory of bytes [off, off + len) of the buffer.
int buffer_iovecs(buf* bp, uint32_t off, uint32_t len, std::vector<struct iovec>* iov) {
  if (bp->b_upl == nullptr) {
    iov->assign(1, iovec{reinterpret_cast<char*>(bp->b_data) + off, len});
    return 0;
  }
  iov->resize(len / 4096 + 2);
  int n = host_upl_iovecs(bp->b_upl, bp->b_uploffset + off, len, iov->data(),
                          static_cast<int>(iov->size()));
  if (n < 0)
    panic("buf_strategy: page list of buffer %p needs more vectors", static_cast<void*>(bp));
  iov->resize(static_cast<size_t>(n));
  return 0;
}

int transfer_segments(vnode_t devvp, buf* bp, const std::vector<segment>& segs) {
  bool write = !(bp->b_flags & B_READ);
  std::vector<struct iovec> iov;
  for (const segment& s : segs) {
    buffer_iovecs(bp, s.buf_off, s.len, &iov);
    if (s.hole) {
      // Nothing backs a hole: it reads as zeros and can't be written.
      if (write) return EIO;
      for (const struct iovec& v : iov) memset(v.iov_base, 0, v.iov_len);
      continue;
    }
    int error = host_blkdev_transfer(devvp, write, s.dev_off, iov.data(),
                                     static_cast<int>(iov.size()));
    if (error != 0) return error;
  }
  return 0;
}

}  // namespace

errno_t buf_strategy(vnode_t devvp, void* ap) {
  buf* bp = static_cast<vnop_strategy_args*>(ap)->a_bp;
  uint32_t bsize = host_blkdev_bsize(devvp);
  std::vector<segment> segs;
  int error = 0;
  if (!(bp->b_hflags & BH_MAPPED) && vnode_isblk(bp->b_vp)) {
    // A device's block numbers are device blocks already.
    bp->b_blkno = bp->b_lblkno;
    bp->b_hflags |= BH_MAPPED;
  }
  if (bp->b_hflags & BH_MAPPED)
    segs.push_back(segment{0, bp->b_bcount, false, static_cast<uint64_t>(bp->b_blkno) * bsize});
  else
    error = map_buffer(bp, bsize, &segs);
  if (error == 0) error = transfer_segments(devvp, bp, segs);
  bp->b_dev = vnode_specrdev(devvp);
  bp->b_error = error;
  bp->b_resid = error == 0 ? 0 : bp->b_bcount;
  buf_biodone(bp);
  return error;
}

errno_t buf_biowait(buf_t bp) {
  Lock lk(bc().bc_lock);
  while (!(bp->b_lflags & BL_DONE)) {
    bp->b_lflags |= BL_IOWAIT;
    io_channel_for(bp).wait(lk);
  }
  return bp->b_error;
}

void buf_biodone(buf_t bp) {
  Lock lk(bc().bc_lock);
  bp->b_lflags |= BL_DONE;
  if (bp->b_lflags & BL_IOWAIT) {
    bp->b_lflags &= ~BL_IOWAIT;
    io_channel_for(bp).notify_all();
  }
}

// --- Caller-described buffers ---------------------------------------------------------------

buf_t buf_alloc(vnode_t vp) {
  auto* bp = new buf{};
  bp->b_vp = vp;
  bp->b_lflags = BL_BUSY;
  bp->b_hflags = BH_ALLOC;
  bp->b_owner = std::this_thread::get_id();
  return bp;
}

static void check_alloc(buf_t bp, const char* who) {
  if (!(bp->b_hflags & BH_ALLOC))
    panic("%s: buffer %p belongs to the cache", who, static_cast<void*>(bp));
}

void buf_free(buf_t bp) {
  check_alloc(bp, "buf_free");
  delete bp;
}

void buf_setdataptr(buf_t bp, uintptr_t data) {
  check_alloc(bp, "buf_setdataptr");
  bp->b_data = data;
}

void buf_setcount(buf_t bp, uint32_t bcount) {
  if (!(bp->b_hflags & BH_ALLOC) && bcount > bp->b_bufsize)
    panic("buf_setcount: %u exceeds the buffer's %u bytes", bcount, bp->b_bufsize);
  bp->b_bcount = bcount;
  if (bp->b_hflags & BH_ALLOC) bp->b_bufsize = bcount;
}

void buf_setflags(buf_t bp, int32_t flags) {
  if (flags & ~kSettableFlags)
    panic("buf_setflags: unsupported flags 0x%x", static_cast<unsigned>(flags));
  Lock lk(bc().bc_lock);
  bp->b_flags |= flags;
  if (flags & B_META) bp->b_lflags |= BL_META;
}

void buf_clearflags(buf_t bp, int32_t flags) {
  if (flags & ~kSettableFlags)
    panic("buf_clearflags: unsupported flags 0x%x", static_cast<unsigned>(flags));
  Lock lk(bc().bc_lock);
  bp->b_flags &= ~flags;
  if (flags & B_META) bp->b_lflags &= ~BL_META;
}

void buf_setlblkno(buf_t bp, daddr64_t lblkno) {
  check_alloc(bp, "buf_setlblkno");
  bp->b_lblkno = lblkno;
}

void buf_setvnode(buf_t bp, vnode_t vp) {
  check_alloc(bp, "buf_setvnode");
  bp->b_vp = vp;
}

void buf_setupl(buf_t bp, upl_t upl, uint32_t offset) {
  check_alloc(bp, "buf_setupl");
  bp->b_upl = upl;
  bp->b_uploffset = offset;
}

upl_t buf_upl(buf_t bp) { return bp->b_upl; }
uint32_t buf_uploffset(buf_t bp) { return bp->b_uploffset; }

// --- Accessors ----------------------------------------------------------------------------------

uintptr_t buf_dataptr(buf_t bp) { return bp->b_data; }
uint32_t buf_count(buf_t bp) { return bp->b_bcount; }
uint32_t buf_size(buf_t bp) { return bp->b_bufsize; }
uint32_t buf_resid(buf_t bp) { return bp->b_resid; }
void buf_setresid(buf_t bp, uint32_t resid) { bp->b_resid = resid; }
daddr64_t buf_blkno(buf_t bp) { return bp->b_blkno; }
daddr64_t buf_lblkno(buf_t bp) { return bp->b_lblkno; }
vnode_t buf_vnode(buf_t bp) { return bp->b_vp; }
int32_t buf_flags(buf_t bp) { return bp->b_flags; }
errno_t buf_error(buf_t bp) { return bp->b_error; }
void buf_seterror(buf_t bp, errno_t error) { bp->b_error = error; }
dev_t buf_device(buf_t bp) { return bp->b_dev; }

// The caller names the device block of the whole buffer: no mapping is
// needed before its transfer.
void buf_setblkno(buf_t bp, daddr64_t blkno) {
  bp->b_blkno = blkno;
  bp->b_hflags |= BH_MAPPED;
}

// --- Host controls ------------------------------------------------------------------

// 0 restores the default bound. Idle buffers beyond the new bound are
// evicted now (delayed writes written first).
void host_bufcache_set_limit(size_t bytes) {
  bufcache& c = bc();
  Lock lk(c.bc_lock);
  c.bc_limit = bytes != 0 ? bytes : kDefaultLimit;
  while (c.bc_bytes > c.bc_limit && evict_one_locked(lk)) {
  }
}

size_t host_bufcache_bytes(void) {
  Lock lk(bc().bc_lock);
  return bc().bc_bytes;
}

int host_buf_waiters(void) {
  Lock lk(bc().bc_lock);
  return bc().bc_waiters;
}

int host_buf_count(vnode_t vp) {
  Lock lk(bc().bc_lock);
  bufvnode* bv = bufvnode_locked(vp, false);
  return bv == nullptr ? 0 : bv->bv_count;
}
