// Clusters given back by a truncation or a removal, kept allocated until
// no directory entry on the disk can name them any more.
//
// A file's clusters are named by its entry set. A truncation changes the set
// only in memory (it is rewritten when the file is closed, synced or
// released), and a removal deletes it through a delayed write of the
// directory block; the FAT and bitmap changes reach the disk through their
// caches, ahead of the directory blocks (allocation needs that order).
// Freed at once, clusters could reach the disk free or cut off from their
// chain, or be handed to another file, while the entry on the disk still
// names them: a power cut then leaves clusters owned but free, a chain
// shorter than its entry, or clusters owned twice. When freed clusters may
// be reused is ours to decide, and the answer is: once the entry that no
// longer names them is on the disk. A free is recorded here instead:
//
//   - HELD while the owner's entry set in the buffer cache still names the
//     clusters (a live file cut down). exfat_node_update makes the node's
//     entries READY when it has written the new set; when the node goes
//     away they become READY if it was removed (its set is deleted) and are
//     dropped otherwise (the clusters then stay allocated: lost to this
//     mount, never risked).
//   - READY once the change that drops them is in the buffer cache.
//   - The metadata flush, sync and unmount take the READY entries, write
//     the device's dirty buffers, wait for them and have the device flush
//     its write cache, and only then free the clusters in the bitmap (and
//     write a chain's deferred end mark).
//
// A chain's new end mark is deferred with its tail: until the entry's new
// length is on the disk the chain must stay as long as the entry says. Its
// tail stays linked meanwhile, so a chain walk that passes the cut merges
// the pending tail into its own free instead of freeing it twice, and a file
// that grows again takes its own tail back first.
//
// The list has a fixed number of slots, so its memory never depends on what
// users do. When no slot is free the clusters are freed at once (the
// caller's order, as before this list existed); exfat_pending_make_room
// flushes READY entries beforehand so that this happens only when every
// slot is held by a file not yet written back.
//
// A batch being freed has left the list, but its tails are still linked
// until it writes their end marks: chain walks meanwhile stop at those cuts
// (exfat_pending_flight_stop), so that no new entry counts, and no file
// takes back, clusters the batch is about to free.
//
// statfs counts READY clusters as free, and an allocation that runs short
// while some are READY flushes and tries again (exfat_pending_flush).
//
// Locking: the list, xm_pending_count and xm_pending_ready are guarded by
// xm_bitmap_lock; chains are walked and cut with xm_fat_lock as well, taken
// after it. xm_pending_lock is held from taking a batch until it is freed
// (across the directory writes), so that an allocation short of space can
// wait for a batch in flight; it is taken before the allocation locks,
// never while holding one.

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vnode.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_node.h"
#include "exfat_proto.h"

namespace {

void pending_remove(struct exfat_mount* mount, uint32_t i) {
  struct exfat_pending_free& e = mount->xm_pending[i];
  if (e.state == EXFAT_PENDING_READY)
    mount->xm_pending_ready -= e.clusters;
  mount->xm_pending[i] = mount->xm_pending[--mount->xm_pending_count];
}

// Adds an entry; false when every slot is taken.
bool pending_add(struct exfat_mount* mount, const struct exfat_pending_free& e) {
  if (mount->xm_pending_count == EXFAT_PENDING_FREES)
    return false;
  mount->xm_pending[mount->xm_pending_count++] = e;
  if (e.state == EXFAT_PENDING_READY)
    mount->xm_pending_ready += e.clusters;
  return true;
}

struct exfat_pending_free pending_entry(uint32_t first, uint32_t clusters, uint32_t cut,
                                        bool chain, struct exfat_node* owner,
                                        struct exfat_node* origin) {
  struct exfat_pending_free e = {};
  e.first = first;
  e.clusters = clusters;
  e.cut = cut;
  e.chain = chain ? 1 : 0;
  e.state = owner != nullptr ? EXFAT_PENDING_HELD : EXFAT_PENDING_READY;
  e.owner = owner;
  e.origin = origin;
  return e;
}

// A walk over the run [start, start + length) followed by `next` goes on
// into any pending tail whose cut lies in the run and still links to it:
// that tail is part of the walk's free now, so its entry goes.
void pending_merge_run(struct exfat_mount* mount, uint32_t start, uint32_t length, uint32_t next) {
  for (uint32_t i = 0; i < mount->xm_pending_count;) {
    const struct exfat_pending_free& e = mount->xm_pending[i];
    bool inside = e.chain && e.cut >= start && e.cut - start < length;
    uint32_t link = e.cut == start + length - 1 ? next : e.cut + 1;
    if (inside && e.first == link)
      pending_remove(mount, i);
    else
      ++i;
  }
}

// pending_count_chain's visit: merges the pending tails a run runs into.
// Returns the read error of the run's last link, or 0.
int pending_count_run(struct exfat_mount* mount, uint32_t start, uint32_t length, uint32_t next,
                      int read_error, void* argument) {
  (void)argument;
  if (read_error)
    return read_error;
  pending_merge_run(mount, start, length, next);
  return 0;
}

// Counts the clusters of the chain from `first`, merging pending tails it
// runs into. The caller holds both allocation locks. Returns 0, a FAT read
// error or EIO (with XM_CORRUPT) for a chain that loops.
int pending_count_chain(struct exfat_mount* mount, uint32_t first, uint32_t* total) {
  uint64_t count = 0;
  int error = exfat_chain_walk(mount, first, pending_count_run, nullptr, &count);
  if (error)
    return error;
  *total = static_cast<uint32_t>(count);
  return 0;
}

// Ends the chain at `cut` (when it still links to `first`) and frees it
// from `first`. The caller holds both allocation locks.
int free_chain_now(struct exfat_mount* mount, uint32_t first, uint32_t cut) {
  if (cut != 0) {
    uint32_t link = 0;
    int error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, cut, &link, 0);
    if (error == 0 && link == first)
      error = exfat_fat_get_set_internal(EXFAT_FAT_SET, mount, cut, nullptr, EXFAT_FAT_EOC);
    if (error)
      return error;
  }
  return exfat_chain_free(mount, first);
}

// Frees one entry's clusters now. The caller holds xm_bitmap_lock only.
int pending_apply(struct exfat_mount* mount, const struct exfat_pending_free& e) {
  if (!e.chain)
    return exfat_bitmap_mark_free(mount, e.first, e.clusters);
  lck_mtx_lock(mount->xm_fat_lock);
  int error = free_chain_now(mount, e.first, e.cut);
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

}  // namespace

// Gives back `count` clusters from `first` (a run outside any FAT chain).
// `owner` is the node whose entry set still names them, nullptr when the
// change that drops them is already in the buffer cache, EXFAT_FREE_NOW
// when nothing on the disk or in the buffer cache ever named them (they
// are freed at once); `origin` is the node that gave them back, or nullptr. A range outside the heap is refused
// as exfat_bitmap_mark_free refuses it. The caller holds xm_bitmap_lock.
// Returns 0 or the error of freeing at once.
int exfat_free_run(struct exfat_mount* mount, uint32_t first, uint32_t count,
                   struct exfat_node* owner, struct exfat_node* origin) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (count == 0)
    return 0;
  bool valid = first >= EXFAT_FIRST_CLUSTER &&
               static_cast<uint64_t>(first) + count - 1 <= mount->xm_max_cluster;
  if (valid && owner != EXFAT_FREE_NOW &&
      pending_add(mount, pending_entry(first, count, 0, false, owner, origin)))
    return 0;
  return exfat_bitmap_mark_free(mount, first, count);
}

// Gives back the FAT chain from `first`, ending the remaining chain at `cut`
// (0: nothing remains). `owner` and `origin` as for exfat_free_run. The
// chain is walked first: when that fails nothing is freed and the error is
// recorded (XM_CORRUPT: the volume is not marked clean). The caller holds
// xm_bitmap_lock and then xm_fat_lock (held on return). Returns 0, or the
// error of the walk or of freeing at once.
int exfat_free_chain(struct exfat_mount* mount, uint32_t first, uint32_t cut,
                     struct exfat_node* owner, struct exfat_node* origin) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  if (owner == EXFAT_FREE_NOW)
    return free_chain_now(mount, first, cut);
  uint32_t total = 0;
  int error = exfat_cluster_valid(mount, first) ? pending_count_chain(mount, first, &total) : 0;
  if (error) {
    // Nothing is freed: a chain that can't be walked to its end stays with
    // its owner, which keeps its size (a truncation fails) and so every
    // cluster it still names. A removed owner's clusters are lost to the
    // volume instead, which therefore is not marked clean.
    return exfat_note_write_error(mount, error);
  }
  if (total != 0 && pending_add(mount, pending_entry(first, total, cut, true, owner, origin)))
    return 0;
  return free_chain_now(mount, first, cut);
}

// Gives back an allocation an entry set names: `length` bytes from `first`,
// a run outside the FAT when `no_fat_chain`, else a FAT chain. The clusters
// stay allocated until `owner`, whose entry set or clusters still name
// them, lets go (exfat_free_run, exfat_free_chain). A run longer than a
// 32-bit count is clamped, so that the bitmap refuses it as corrupt instead
// of freeing a truncated one. The caller holds the owner's node lock and no
// allocation lock; xm_bitmap_lock is taken here, then xm_fat_lock for a
// chain. Returns 0 or the release's error.
int exfat_free_allocation(struct exfat_node* owner, bool no_fat_chain, uint32_t first,
                          uint64_t length) {
  struct exfat_mount* mount = owner->x_mount;
  int error;
  exfat_pending_make_room(mount);
  lck_mtx_lock(mount->xm_bitmap_lock);
  if (no_fat_chain) {
    uint64_t clusters = (length + mount->xm_bytes_per_cluster - 1) / mount->xm_bytes_per_cluster;
    uint32_t count = clusters > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(clusters);
    error = exfat_free_run(mount, first, count, owner, nullptr);
  } else {
    lck_mtx_lock(mount->xm_fat_lock);
    error = exfat_free_chain(mount, first, 0, owner, nullptr);
    lck_mtx_unlock(mount->xm_fat_lock);
  }
  lck_mtx_unlock(mount->xm_bitmap_lock);
  return error;
}

// The node has written its entry set: what it held becomes READY. Takes
// xm_bitmap_lock; the caller may hold node locks.
void exfat_pending_release(struct exfat_mount* mount, const struct exfat_node* node) {
  lck_mtx_lock(mount->xm_bitmap_lock);
  for (uint32_t i = 0; i < mount->xm_pending_count; i++) {
    struct exfat_pending_free& e = mount->xm_pending[i];
    if (e.state == EXFAT_PENDING_HELD && e.owner == node) {
      e.state = EXFAT_PENDING_READY;
      e.owner = nullptr;
      mount->xm_pending_ready += e.clusters;
    }
  }
  lck_mtx_unlock(mount->xm_bitmap_lock);
}

// The node is being destroyed. Its HELD entries become READY when it was
// removed (its entry set is deleted) and are dropped otherwise (its entry
// could not be written: the clusters stay allocated). Takes xm_bitmap_lock.
void exfat_pending_node_gone(struct exfat_mount* mount, const struct exfat_node* node,
                             bool removed) {
  lck_mtx_lock(mount->xm_bitmap_lock);
  for (uint32_t i = 0; i < mount->xm_pending_count;) {
    struct exfat_pending_free& e = mount->xm_pending[i];
    if (e.origin == node)
      e.origin = nullptr;
    if (e.state == EXFAT_PENDING_HELD && e.owner == node && !removed) {
      pending_remove(mount, i);
      continue;
    }
    if (e.state == EXFAT_PENDING_HELD && e.owner == node) {
      e.state = EXFAT_PENDING_READY;
      e.owner = nullptr;
      mount->xm_pending_ready += e.clusters;
    }
    ++i;
  }
  lck_mtx_unlock(mount->xm_bitmap_lock);
}

// Takes a growing node's own pending clusters back, at most `wanted`: the
// tail cut off its chain (still linked after its last cluster) or the run
// right after a contiguous node. The caller holds the node lock and
// xm_bitmap_lock, not xm_fat_lock. Returns 0 with *got the clusters taken
// (x_size and x_last_cluster follow), or a FAT read error.
int exfat_pending_take_back(struct exfat_node* node, uint64_t wanted, uint32_t* got) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  *got = 0;
  const bool contiguous = (node->x_flags & X_CONTIGUOUS) != 0;
  for (uint32_t i = 0; i < mount->xm_pending_count; i++) {
    struct exfat_pending_free& e = mount->xm_pending[i];
    bool mine = contiguous ? !e.chain && e.origin == node && e.first == node->x_last_cluster + 1
                           : e.chain && e.cut == node->x_last_cluster;
    if (!mine || wanted == 0)
      continue;
    uint32_t take = e.clusters < wanted ? e.clusters : static_cast<uint32_t>(wanted);
    uint32_t last = e.first + take - 1;
    if (e.chain) {
      // Walk `take` clusters into the tail; its links are intact.
      lck_mtx_lock(mount->xm_fat_lock);
      last = e.first;
      int error = 0;
      for (uint32_t k = 1; k < take && error == 0; k++)
        error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, last, &last, 0);
      uint32_t rest = 0;
      if (error == 0 && take < e.clusters)
        error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, last, &rest, 0);
      lck_mtx_unlock(mount->xm_fat_lock);
      if (error == 0 && take < e.clusters && !exfat_cluster_valid(mount, rest))
        error = EIO;
      if (error)
        return error;
      e.cut = last;
      e.first = rest;
    } else {
      e.first += take;
      lck_mtx_lock(mount->xm_fat_lock);
      node->x_extent_length += take;
      lck_mtx_unlock(mount->xm_fat_lock);
    }
    if (e.state == EXFAT_PENDING_READY)
      mount->xm_pending_ready -= take;
    e.clusters -= take;
    if (e.clusters == 0)
      pending_remove(mount, i);
    mount->xm_pending_taken++;
    node->x_last_cluster = last;
    node->x_size += static_cast<uint64_t>(take) * mount->xm_bytes_per_cluster;
    *got = take;
    return 0;
  }
  return 0;
}

// Moves the READY entries into `batch` (EXFAT_PENDING_FREES slots) and
// returns how many. They stay counted in xm_pending_ready until
// exfat_pending_finish. One batch is in flight at a time: when entries are
// taken, xm_pending_lock stays held until exfat_pending_finish. Takes
// xm_pending_lock, then xm_bitmap_lock; the caller holds neither.
uint32_t exfat_pending_take(struct exfat_mount* mount, struct exfat_pending_free* batch) {
  uint32_t n = 0;
  lck_mtx_lock(mount->xm_pending_lock);
  lck_mtx_lock(mount->xm_bitmap_lock);
  for (uint32_t i = 0; i < mount->xm_pending_count;) {
    if (mount->xm_pending[i].state == EXFAT_PENDING_READY) {
      batch[n++] = mount->xm_pending[i];
      mount->xm_pending[i] = mount->xm_pending[--mount->xm_pending_count];
    } else {
      ++i;
    }
  }
  mount->xm_pending_flight = n != 0 ? batch : nullptr;
  mount->xm_pending_flight_count = n;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  if (n == 0)
    lck_mtx_unlock(mount->xm_pending_lock);
  return n;
}

// Frees a batch taken before the device's dirty buffers were last written:
// writes the allocation caches and then the buffers again and waits
// (whatever was dirty when the batch was taken is on its way or done), has
// the device flush its write cache, then frees the clusters and writes the
// allocation caches. When the buffers can't be
// written the clusters stay allocated (the error is recorded, so the volume
// is not marked clean). Messages begin with `who`. The caller holds no
// allocation lock.
void exfat_pending_finish(struct exfat_mount* mount, const struct exfat_pending_free* batch,
                          uint32_t n, const char* who) {
  if (n == 0)
    return;
  // Allocations reach the disk before the entries that name them: the
  // caches go first, as in every flush.
  int error = exfat_flush_metadata(mount, 1, who);
  if (error == 0) {
    error = VNOP_IOCTL(mount->xm_devvp, DKIOCSYNCHRONIZECACHE, nullptr, FWRITE,
                       vfs_context_kernel());
    if (error == ENOTSUP || error == ENOTTY)
      error = 0;
  }
  lck_mtx_lock(mount->xm_bitmap_lock);
  for (uint32_t i = 0; i < n; i++) {
    mount->xm_pending_ready -= batch[i].clusters;
    int apply_error = error == 0 ? pending_apply(mount, batch[i]) : 0;
    if (apply_error)
      kprintf("%s: error %d freeing clusters from %u\n", who, apply_error, batch[i].first);
  }
  mount->xm_pending_flight = nullptr;
  mount->xm_pending_flight_count = 0;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  if (error)
    kprintf("%s: error %d writing directory blocks; freed clusters stay allocated\n", who,
            exfat_note_write_error(mount, error));
  else
    exfat_flush_alloc_caches(mount, who);
  lck_mtx_unlock(mount->xm_pending_lock);
}

// Frees every READY entry now: waits for a batch in flight, then
// exfat_pending_take and exfat_pending_finish. The caller holds no
// allocation lock and not xm_pending_lock (node locks are fine: nothing
// here waits for one).
void exfat_pending_flush(struct exfat_mount* mount, const char* who) {
  lck_mtx_lock(mount->xm_pending_lock);
  lck_mtx_unlock(mount->xm_pending_lock);
  struct exfat_pending_free batch[EXFAT_PENDING_FREES];
  exfat_pending_finish(mount, batch, exfat_pending_take(mount, batch), who);
}

// Before giving clusters back: when every slot is taken, frees the READY
// entries so that the free about to come can wait too. The caller holds no
// allocation lock.
void exfat_pending_make_room(struct exfat_mount* mount) {
  lck_mtx_lock(mount->xm_bitmap_lock);
  bool full = mount->xm_pending_count == EXFAT_PENDING_FREES && mount->xm_pending_ready != 0;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  if (full)
    exfat_pending_flush(mount, "exfat_pending_make_room");
}

// A chain walk must not go past the cut of a tail in the batch being freed:
// the batch writes the end mark there and frees the tail itself. Until then
// the tail is still linked, and a walk that went on would count (or free) it
// a second time; a later take-back of the walk's own entry would even hand
// the file clusters the batch is about to free. Returns the clusters of the
// run [start, start + length), followed by `next`, up to and including such
// a cut, or 0 when none lies in it. The caller holds xm_bitmap_lock (and
// xm_fat_lock, as a walker does).
uint32_t exfat_pending_flight_stop(const struct exfat_mount* mount, uint32_t start, uint32_t length,
                                   uint32_t next) {
  uint32_t stop = 0;
  for (uint32_t i = 0; i < mount->xm_pending_flight_count; i++) {
    const struct exfat_pending_free& e = mount->xm_pending_flight[i];
    if (!e.chain || e.cut < start || e.cut - start >= length)
      continue;
    uint32_t link = e.cut == start + length - 1 ? next : e.cut + 1;
    if (e.first == link && (stop == 0 || e.cut - start + 1 < stop))
      stop = e.cut - start + 1;
  }
  return stop;
}

// Whether an allocation that ended with `error` should free the READY
// entries and try again: it ran out of space, clusters are waiting, and
// this was its first or second try (a concurrent flush may have taken the
// entries between tries). The caller holds xm_bitmap_lock.
bool exfat_pending_retry(struct exfat_mount* mount, int error, int attempt) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  return error == ENOSPC && attempt < 2 && mount->xm_pending_ready != 0;
}
