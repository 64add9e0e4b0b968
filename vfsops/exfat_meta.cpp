// The metadata flush and the boot sector's mutable fields.
//
// FAT and bitmap changes collect in their one-block caches and directory
// changes in dirty buffers of the device. Every operation that changes
// metadata ends with exfat_meta_flush(mount, 0), which arms a 50 ms timer
// unless one is armed already, so that the changes of the next 50 ms reach
// the disk in one flush; IO_SYNC flushes at once. The flush also keeps
// percentInUse in the boot sector current. exfat_mark_vol_dirty sets and
// clears VolumeDirty (and records MediaFailure once corruption was seen).
//
// Locking: xm_meta_lock guards xm_meta_state and the arming of the timer;
// the timer's callback holds it for its whole flush. Inside a flush
// xm_bitmap_lock is held across the bitmap cache, the FAT cache (under
// xm_fat_lock) and the device's buffers (exfat_flush_metadata). A
// synchronous flush runs without xm_meta_lock, possibly alongside the
// timer's; the cache locks serialise the cache writes, and
// xm_percent_in_use is accessed atomically for the same reason.

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/mount.h"

namespace {

// Reads the first `size` bytes of the device (the boot sector) into *bpp.
// On error the buffer is released and *bpp cleared.
int exfat_read_boot_sector(struct exfat_mount* mount, uint32_t size, vfs_context_t context,
                           buf_t* bpp) {
  int error = buf_meta_bread(mount->xm_devvp, 0, static_cast<int>(size),
                             vfs_context_ucred(context), bpp);
  if (error) {
    if (*bpp != nullptr)
      buf_brelse(*bpp);
    *bpp = nullptr;
  }
  return error;
}

// The percentage of allocated clusters, rounded down. The free count is
// read under xm_bitmap_lock, which guards it.
uint8_t exfat_percent_in_use(struct exfat_mount* mount) {
  lck_mtx_lock(mount->xm_bitmap_lock);
  uint32_t free_clusters = mount->xm_free_clusters;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  uint64_t total = mount->xm_max_cluster - 1;
  // A volume whose FAT leaves no cluster at all has no percentage to speak
  // of; 0 keeps the boot sector untouched.
  if (total == 0 || free_clusters > total)
    return 0;
  return static_cast<uint8_t>((total - free_clusters) * 100 / total);
}

}  // namespace

// Sets (dirty nonzero) or clears VolumeDirty in the boot sector; clears
// ClearToZero; sets MediaFailure when XM_CORRUPT is set and never clears it.
// The sector is written, synchronously, only when the flags change; the
// write's own result is not reported, but a failed write is recorded (no
// later clean mark). The caller holds no driver lock. Returns 0, EROFS on a
// read-only mount, or the boot sector's read error.
int exfat_mark_vol_dirty(struct exfat_mount* mount, int dirty, vfs_context_t context) {
  if (mount->xm_flags & XM_RDONLY)
    return EROFS;
  buf_t bp = nullptr;
  int error = exfat_read_boot_sector(mount, mount->xm_phys_block_size, context, &bp);
  if (error)
    return error;

  uint8_t* flags_field = reinterpret_cast<uint8_t*>(buf_dataptr(bp)) +
                         EXFAT_BOOT_VOLUME_FLAGS_OFFSET;
  uint16_t old_flags = le16dec(flags_field);
  uint16_t new_flags = old_flags;
  if (dirty)
    new_flags |= EXFAT_VOLUME_DIRTY;
  else
    new_flags &= ~EXFAT_VOLUME_DIRTY;
  new_flags &= ~EXFAT_VOLUME_CLEAR_TO_ZERO;
  if (mount->xm_flags & XM_CORRUPT)
    new_flags |= EXFAT_VOLUME_MEDIA_FAILURE;

  if (new_flags == old_flags) {
    buf_brelse(bp);
  } else {
    // The boot checksum skips these two bytes, so it stays valid.
    le16enc(flags_field, new_flags);
    exfat_note_write_error(mount, buf_bwrite(bp));
  }
  return 0;
}

// Writes the current percentInUse into the boot sector when it differs from
// the value last written by this mount (0 after mount; the boot sector's own
// value is never read). wait 1 writes synchronously, 0 asynchronously. The
// caller may hold xm_meta_lock, not the cache locks. Returns 0, the read's
// error (with a message; the value stays unwritten so that the next flush
// tries again) or the write's error (recorded: no later clean mark).
int exfat_sync_boot_sector(struct exfat_mount* mount, int wait, vfs_context_t context) {
  uint8_t percent = exfat_percent_in_use(mount);
  if (percent == __atomic_load_n(&mount->xm_percent_in_use, __ATOMIC_RELAXED))
    return 0;

  buf_t bp = nullptr;
  int error = exfat_read_boot_sector(mount, mount->xm_bytes_per_sector, context, &bp);
  if (error) {
    kprintf("exfat_sync_boot_sector: Could not read boot sector to update percentInUse");
    return error;
  }
  reinterpret_cast<uint8_t*>(buf_dataptr(bp))[EXFAT_BOOT_PERCENT_IN_USE_OFFSET] = percent;
  __atomic_store_n(&mount->xm_percent_in_use, percent, __ATOMIC_RELAXED);
  return exfat_note_write_error(mount, wait == 1 ? buf_bwrite(bp) : buf_bawrite(bp));
}

namespace {

// Writes one allocation cache, the FAT's (`fat`) or the bitmap's, and pushes
// its system vnode's pages, under the cache's lock (taken here unless
// `held`). See exfat_flush_alloc_caches.
int exfat_flush_alloc_cache(struct exfat_mount* mount, bool fat, const char* who,
                            bool held = false) {
  lck_mtx_t* lock = fat ? mount->xm_fat_lock : mount->xm_bitmap_lock;
  if (!held)
    lck_mtx_lock(lock);
  int error = fat ? exfat_fat_cache_flush(mount, 0) : exfat_bitmap_cache_flush(mount, 0);
  if (error && fat)
    mount->xm_fat_cache_dirty = 0;
  else if (error)
    mount->xm_bitmap_cache_dirty = 0;
  int push_error = cluster_push(fat ? mount->xm_fat_vp : mount->xm_bitmap_vp, IO_SYNC);
  if (!held)
    lck_mtx_unlock(lock);
  if (error == 0)
    error = push_error;
  if (error)
    kprintf("%s: error %d flushing %s cache!\n", who, exfat_note_write_error(mount, error),
            fat ? "FAT" : "bitmap");
  return error;
}

}  // namespace

// Writes the bitmap cache and pushes the bitmap vnode's pages, then does the
// same for the FAT, each under its own lock and never both at once. A cache
// block or pages that can't be written are reported as "<who>: error %d
// flushing … cache!" and recorded (exfat_note_write_error); the block is
// dropped as clean, so that a failing block is not retried on every flush.
// The caller holds neither cache lock. Returns the first error.
int exfat_flush_alloc_caches(struct exfat_mount* mount, const char* who) {
  int error = exfat_flush_alloc_cache(mount, false, who);
  int fat_error = exfat_flush_alloc_cache(mount, true, who);
  return error != 0 ? error : fat_error;
}

// Writes the allocation caches as exfat_flush_alloc_caches does and then the
// device's dirty buffers (waited for with `wait`), holding xm_bitmap_lock
// throughout, xm_fat_lock inside it for the FAT's part. Every allocation
// holds xm_bitmap_lock, so none can slip in between: a directory block
// written here never names a cluster whose bitmap bit or FAT link is still
// only in a cache. Errors are reported and recorded as by
// exfat_flush_alloc_caches; a buffer write error is returned after a cache
// error. The caller holds neither cache lock nor a busy device buffer.
int exfat_flush_metadata(struct exfat_mount* mount, int wait, const char* who) {
  lck_mtx_lock(mount->xm_bitmap_lock);
  int error = exfat_flush_alloc_cache(mount, false, who, true);
  int fat_error = exfat_flush_alloc_cache(mount, true, who);
  int buffer_error = buf_flushdirtyblks(mount->xm_devvp, wait, 0, who);
  lck_mtx_unlock(mount->xm_bitmap_lock);
  if (buffer_error)
    kprintf("%s: error %d writing metadata blocks\n", who,
            exfat_note_write_error(mount, buffer_error));
  return error != 0 ? error : fat_error != 0 ? fat_error : buffer_error;
}

// The flush itself: percentInUse, the bitmap cache and the bitmap vnode's
// pages, the FAT cache and the FAT vnode's pages, then the device's dirty
// metadata buffers (waited for when wait is nonzero), and last the clusters
// given back whose owners' entries were in those buffers (then the buffers
// are always waited for, and the caches written once more). The bitmap goes
// before the FAT because a FAT link alone is enough to give the root
// directory (which has no entry) a cluster: were the power lost between the
// two, the root would own a cluster the bitmap calls free, which the
// checker does not notice and the next allocation hands out again. Bitmap
// first, such a cut leaves a lost cluster instead. Errors are printed,
// recorded so that the volume is not marked clean (exfat_note_write_error)
// and passed over; a cache block that can't be written is dropped as clean.
// The caller holds neither cache lock (it may hold xm_meta_lock).
void exfat_meta_flush_internal(struct exfat_mount* mount, int wait) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_NOTOWNED);
  vfs_context_t context = vfs_context_create(nullptr);
  int error = exfat_sync_boot_sector(mount, wait ? 1 : 0, context);
  vfs_context_rele(context);
  if (error)
    kprintf("exfat_meta_flush_internal: error %d from exfat_sync_boot_sector\n", error);

  // Clusters whose freeing is in the buffer cache by now are freed after
  // the buffers are on the disk (exfat_pending.cpp).
  struct exfat_pending_free batch[EXFAT_PENDING_FREES];
  uint32_t n = exfat_pending_take(mount, batch);
  exfat_flush_metadata(mount, wait, "exfat_meta_flush_internal");
  exfat_pending_finish(mount, batch, n, "exfat_meta_flush_internal");
}

// The call every metadata-changing operation ends with. sync IO_SYNC flushes
// now on the caller's thread; 0 asks for the delayed flush: nothing on an
// MNT_ASYNC mount (the next sync writes it), a flush now once unmount has
// taken the timer away, otherwise the timer is armed unless it already is
// (the pending flush covers this request). The caller holds no cache lock
// and not xm_meta_lock.
void exfat_meta_flush(struct exfat_mount* mount, int sync) {
  if (sync) {
    exfat_meta_flush_internal(mount, sync);
    return;
  }
  if (vfs_flags(mount->xm_mp) & MNT_ASYNC)
    return;
  lck_mtx_assert(mount->xm_meta_lock, LCK_MTX_ASSERT_NOTOWNED);
  if (mount->xm_meta_timer == nullptr) {
    exfat_meta_flush_internal(mount, 0);
    return;
  }
  lck_mtx_lock(mount->xm_meta_lock);
  if (!(mount->xm_meta_state & META_SCHEDULED)) {
    uint64_t deadline = 0;
    clock_interval_to_deadline(exfat_meta_delay, 1000000, &deadline);
    if (thread_call_enter_delayed(mount->xm_meta_timer, deadline))
      panic("exfat_meta_flush: timer was already scheduled");
    mount->xm_meta_state |= META_SCHEDULED;
  }
  lck_mtx_unlock(mount->xm_meta_lock);
}

// The delayed flush, run on the timer thread when xm_meta_timer fires. Holds
// xm_meta_lock for the whole flush, so requests made meanwhile wait and then
// arm a new run; wakes an unmount waiting for it.
void exfat_meta_sync_callback(thread_call_param_t param0, thread_call_param_t param1) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(param0);
  lck_mtx_lock(mount->xm_meta_lock);
  exfat_meta_flush_internal(mount, 0);
  mount->xm_meta_state &= ~META_SCHEDULED;
  wakeup(&mount->xm_meta_state);
  lck_mtx_unlock(mount->xm_meta_lock);
}
