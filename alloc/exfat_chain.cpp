// Cluster chains and file size changes: where a file's new clusters come
// from, when it stays one contiguous run without a FAT chain (X_CONTIGUOUS)
// and when it becomes a chain, and how its size fields and one-run extent
// cache follow the allocation.
//
// Policy:
//   - a file's first allocation is one run, marked X_CONTIGUOUS;
//   - a contiguous file that grows into the clusters right after its end
//     stays contiguous, with no FAT writes;
//   - the first time it must take clusters elsewhere, its clusters are
//     written into the FAT as a chain and X_CONTIGUOUS is cleared for good;
//   - only a cut to size 0 makes the next allocation contiguous again;
//   - freeing changes only the bitmap: freed clusters' FAT entries stay.
//
// Locking: the caller holds the node lock; xm_bitmap_lock is held across a
// whole extension or shrink (the search, the marking and the free count
// change under one hold); xm_fat_lock is held only while FAT entries and
// extent caches change, and exfat_chain_free drops it around each bitmap
// update.

#include <algorithm>

#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_proto.h"

// Every change of allocation or size must reach the stream extension at the
// next node update.
#define EXFAT_SIZE_DIRTY (X_MODIFIED | X_DIRTY | X_STREAM_DIRTY)

// The largest cluster count a request can meaningfully ask for: a volume has
// fewer clusters than this, so a larger request cannot be met either way.
#define EXFAT_MAX_REQUEST 0xFFFFFFFFu

// Number of whole clusters that hold `bytes`.
static uint64_t exfat_clusters_for(const struct exfat_mount* mount, uint64_t bytes) {
  return (bytes + mount->xm_bytes_per_cluster - 1) / mount->xm_bytes_per_cluster;
}

// A cluster count narrowed to the 32 bits that the bitmap routines take.
// A count past 32 bits is clamped rather than truncated, so that a huge
// request is refused for want of space instead of turning into a small one.
static uint32_t exfat_clamp_count(uint64_t count) {
  return static_cast<uint32_t>(std::min<uint64_t>(count, EXFAT_MAX_REQUEST));
}

// Writes a chain through the `count` consecutive clusters from `first`:
// each entry names the next cluster, the last one gets the end-of-chain
// mark. The caller holds xm_fat_lock. A count of 0 does nothing. Returns 0
// or the first FAT error (EIO for a cluster outside the heap, or an I/O
// error); entries written before it stay written.
int exfat_chain_alloc(struct exfat_mount* mount, uint32_t first, uint32_t count) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  for (uint32_t k = 0; k < count; k++) {
    uint32_t value = k + 1 == count ? EXFAT_FAT_EOC : first + k + 1;
    int error = exfat_fat_get_set_internal(EXFAT_FAT_SET, mount, first + k, nullptr, value);
    if (error)
      return error;
  }
  return 0;
}

// Gathers the run of consecutive clusters that starts at `start` in a
// chain: reads each entry while it names the next cluster. On return
// *length is the run's length and *next the last entry read (the link after
// the run). When an entry cannot be read, the run includes the cluster
// whose entry failed and the read error is returned. The caller holds
// xm_fat_lock.
int exfat_chain_run(struct exfat_mount* mount, uint32_t start, uint32_t* length, uint32_t* next) {
  *length = 1;
  uint32_t entry = 0;
  int error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, start, &entry, 0);
  while (error == 0 && entry == start + *length && entry <= mount->xm_max_cluster) {
    *length += 1;
    error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, entry, &entry, 0);
  }
  *next = entry;
  return error;
}

namespace {

// exfat_chain_free's visit: frees one run in the bitmap, with xm_fat_lock
// dropped around the update and held again on return (xm_bitmap_lock stays
// held). A run whose last link could not be read is still freed. Returns
// the read error, else the bitmap's.
int chain_free_run(struct exfat_mount* mount, uint32_t start, uint32_t length, uint32_t next,
                   int read_error, void* argument) {
  (void)next;
  (void)argument;
  lck_mtx_unlock(mount->xm_fat_lock);
  int error = exfat_bitmap_mark_free(mount, start, length);
  lck_mtx_lock(mount->xm_fat_lock);
  return read_error ? read_error : error;
}

}  // namespace

// Frees every cluster of the chain that starts at `first`, one bitmap
// update per run of consecutive clusters. The chain ends at an end-of-chain
// or bad-cluster value, or at any other value outside the heap. The caller
// holds xm_bitmap_lock and then xm_fat_lock; xm_fat_lock is released around
// each bitmap update and held again on return. The FAT entries of the freed
// clusters are left as they are.
//
// Returns 0; the error of the last bitmap update; a FAT read error (the run
// gathered so far, with the cluster whose entry failed, is still freed); or
// EIO with XM_CORRUPT for a chain that loops.
int exfat_chain_free(struct exfat_mount* mount, uint32_t first) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  if (first < EXFAT_FIRST_CLUSTER)
    return 0;
  uint64_t freed = 0;
  return exfat_chain_walk(mount, first, chain_free_run, nullptr, &freed);
}

// Walks the chain from `first` one run of consecutive clusters at a time
// (exfat_chain_run) and hands each run to visit(mount, start, length, next,
// read_error, argument): `next` is the cluster after the run; a non-zero
// read_error means the entry of the run's last cluster could not be read.
// The walk ends at a value outside the heap, or at the first non-zero
// return of `visit`, which it returns. A chain cannot hold more clusters
// than the heap, so a walk that passes the heap's size is a loop: it stops
// with EIO and XM_CORRUPT set. It also ends at the cut of a tail that the
// batch of frees in flight is releasing (exfat_pending_flight_stop): that
// tail is the batch's. *clusters receives the clusters visited. The caller
// holds xm_bitmap_lock and xm_fat_lock; `visit` may drop xm_fat_lock but
// holds it again on its return.
int exfat_chain_walk(struct exfat_mount* mount, uint32_t first, exfat_chain_visit_t visit,
                     void* argument, uint64_t* clusters) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  *clusters = 0;
  for (uint32_t cluster = first; exfat_cluster_valid(mount, cluster);) {
    if (*clusters > mount->xm_max_cluster) {
      kprintf("exfat_chain_free: corrupt cluster chain detected\n");
      exfat_set_corrupt(mount);
      return EIO;
    }
    uint32_t length = 0;
    uint32_t next = 0;
    int read_error = exfat_chain_run(mount, cluster, &length, &next);
    if (uint32_t stop = exfat_pending_flight_stop(mount, cluster, length, next)) {
      if (stop < length)
        read_error = 0;  // the failed link lies past the cut
      length = stop;
      next = EXFAT_FAT_EOC;
    }
    int error = visit(mount, cluster, length, next, read_error, argument);
    if (error)
      return error;
    *clusters += length;
    cluster = next;
  }
  return 0;
}

// Replaces a node's extent cache. The caller holds the node lock; the cache
// is guarded by xm_fat_lock, taken here.
static void exfat_set_extent(struct exfat_node* node, uint32_t cluster, uint32_t index,
                             uint32_t length) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_lock(mount->xm_fat_lock);
  node->x_extent_cluster = cluster;
  node->x_extent_index = index;
  node->x_extent_length = length;
  lck_mtx_unlock(mount->xm_fat_lock);
}

// Links a run onto a node that must now be (or already is) a FAT chain:
// converts a contiguous node's clusters into a chain, writes the new run's
// chain, and links the old last cluster to it. The caller holds the node
// lock and xm_bitmap_lock; takes and releases xm_fat_lock. The extent cache
// is kept on conversion: its run is still the chain's first run. Returns 0
// or a FAT error.
static int exfat_link_run(struct exfat_node* node, uint32_t first, uint32_t count) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_lock(mount->xm_fat_lock);
  int error = 0;
  if (node->x_flags & X_CONTIGUOUS) {
    error = exfat_chain_alloc(mount, node->x_start_cluster,
                              static_cast<uint32_t>(node->x_size / mount->xm_bytes_per_cluster));
    if (error == 0)
      node->x_flags &= ~X_CONTIGUOUS;
  }
  if (error == 0)
    error = exfat_chain_alloc(mount, first, count);
  if (error == 0)
    error = exfat_fat_get_set_internal(EXFAT_FAT_SET, mount, node->x_last_cluster, nullptr, first);
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

// Zero-fills `count` new clusters from `first` of a directory through the
// device's metadata buffers, so that the new slots read as free entries
// and the end-of-directory marker. The writes are synchronous: the zeros
// must be on the disk before anything that makes the clusters part of the
// directory (the FAT link, the new directory's entry), which the metadata
// flush writes later. Were they delayed too, a power cut in the middle of
// that flush could leave a directory whose new cluster holds a removed
// file's old bytes, read back as entries. The caller holds the node lock
// and xm_bitmap_lock.
static void exfat_zero_dir_clusters(struct exfat_mount* mount, uint32_t first, uint32_t count) {
  for (uint32_t c = first; c < first + count; c++) {
    uint64_t sector = exfat_cluster_to_sector(mount, c);
    for (uint32_t j = 0; j < mount->xm_blocks_per_cluster; j++) {
      buf_t bp = buf_getblk(mount->xm_devvp,
                            static_cast<daddr64_t>(sector + uint64_t(j) * mount->xm_sectors_per_block),
                            static_cast<int>(mount->xm_block_size), 0, 0, BLK_META);
      buf_clear(bp);
      buf_bwrite(bp);
    }
  }
}

// Appends the `count` consecutive clusters from `first` to a node's
// allocation and marks them used. An empty node becomes a contiguous run;
// a contiguous node whose last cluster is first − 1 stays contiguous with no
// FAT write; otherwise the FAT is written first (converting a contiguous
// node into a chain) and then the bitmap. x_size grows by whole clusters; a
// directory's new clusters are zero-filled and its valid size follows its
// size. A regular file's valid size is not changed.
//
// The caller holds the node lock and xm_bitmap_lock; xm_fat_lock is taken
// where FAT entries or the extent cache change. Returns 0, a bitmap error or
// a FAT error. After a FAT error nothing of the run is marked used; after a
// bitmap error on a chained node, the run stays linked but outside x_size.
int exfat_file_add_extent(struct exfat_node* node, uint32_t first, uint32_t count) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  const uint64_t bytes = uint64_t(count) * mount->xm_bytes_per_cluster;

  int error;
  if (node->x_size == 0) {
    error = exfat_bitmap_mark_used(mount, first, count);
    if (error)
      return error;
    node->x_start_cluster = first;
    node->x_size = bytes;
    node->x_last_cluster = first + count - 1;
    exfat_set_extent(node, first, 0, count);
    node->x_flags |= X_CONTIGUOUS | EXFAT_SIZE_DIRTY;
  } else if ((node->x_flags & X_CONTIGUOUS) && first == node->x_last_cluster + 1) {
    error = exfat_bitmap_mark_used(mount, first, count);
    if (error)
      return error;
    node->x_size += bytes;
    node->x_last_cluster = first + count - 1;
    lck_mtx_lock(mount->xm_fat_lock);
    node->x_extent_length += count;
    lck_mtx_unlock(mount->xm_fat_lock);
    node->x_flags |= EXFAT_SIZE_DIRTY;
  } else {
    error = exfat_link_run(node, first, count);
    if (error)
      return error;
    error = exfat_bitmap_mark_used(mount, first, count);
    if (error)
      return error;
    node->x_size += bytes;
    node->x_last_cluster = first + count - 1;
    node->x_flags |= EXFAT_SIZE_DIRTY;
  }

  if (node->x_attributes & EXFAT_ATTR_DIRECTORY) {
    exfat_zero_dir_clusters(mount, first, count);
    node->x_valid_size = node->x_size;
  }
  return 0;
}

// Takes the free clusters right after a node's last cluster, at most
// want − *have of them, keeping a contiguous file contiguous. Finds the last
// cluster first when it is not known yet. The caller holds the node lock and
// xm_bitmap_lock, not xm_fat_lock. Returns 0 with *have raised by what was
// added, or the error of the last-cluster walk, the count or the append.
static int exfat_extend_in_place(struct exfat_node* node, uint64_t want, uint64_t* have) {
  struct exfat_mount* mount = node->x_mount;
  int error = 0;
  if (node->x_last_cluster == 0) {
    // A chain's last cluster by the node's size, not by its end mark: a
    // tail cut off is still linked until it is freed.
    if (node->x_flags & X_CONTIGUOUS) {
      error = exfat_fat_find_last_cluster(node, &node->x_last_cluster, nullptr);
    } else {
      lck_mtx_lock(mount->xm_fat_lock);
      error = exfat_blockmap_internal(node, exfat_clamp_count(*have - 1), 1, nullptr,
                                      &node->x_last_cluster, nullptr);
      lck_mtx_unlock(mount->xm_fat_lock);
      if (error == E2BIG) {
        kprintf("exfat_file_extend: chain shorter than its file\n");
        exfat_set_corrupt(mount);
        error = EIO;
      }
    }
    if (error)
      return error;
  }
  uint32_t got = 0;
  error = exfat_pending_take_back(node, want - *have, &got);
  if (got != 0) {
    *have += got;
    node->x_flags |= EXFAT_SIZE_DIRTY;
  }
  if (error || *have == want || node->x_last_cluster >= mount->xm_max_cluster)
    return error;

  uint32_t free_after = 0;
  error = exfat_bitmap_count_free_contig(mount, node->x_last_cluster + 1,
                                         exfat_clamp_count(want - *have), &free_after);
  if (error || free_after == 0)
    return error;
  error = exfat_file_add_extent(node, node->x_last_cluster + 1, free_after);
  if (error) {
    node->x_flags |= EXFAT_SIZE_DIRTY;
    return error;
  }
  *have += free_after;
  return 0;
}

// Appends free runs from one search of the bitmap until *have reaches
// want: the table holds the lowest stretch that holds the whole request, or
// else the longest runs. The caller holds the node lock and xm_bitmap_lock.
// Returns 0, ENOSPC when no cluster is free, or a search or append error.
static int exfat_extend_from_table(struct exfat_node* node, uint64_t want, uint64_t* have,
                                   struct exfat_free_extent* table) {
  struct exfat_mount* mount = node->x_mount;
  int error = exfat_bitmap_find_free(mount, exfat_clamp_count(want - *have), table);
  if (error)
    return error;
  if (table[0].fe_length == 0)
    return ENOSPC;
  for (uint32_t i = 0; i < EXFAT_FREE_EXTENTS && *have < want; i++) {
    if (table[i].fe_length == 0)
      break;
    uint32_t n = exfat_clamp_count(std::min<uint64_t>(table[i].fe_length, want - *have));
    error = exfat_file_add_extent(node, table[i].fe_start, n);
    if (error)
      return error;
    *have += n;
  }
  return 0;
}

// Grows a node's allocation and x_size to `new_size`: first into the free
// clusters right after its end, then from the bitmap's free runs. With
// IO_UNIT in `flags` the request is all or nothing: ENOSPC, with nothing
// changed, when the volume has fewer free clusters than it needs. A
// directory's new clusters are zero-filled and its valid size follows; a
// regular file's valid size is unchanged.
//
// The caller holds the node lock and xm_bitmap_lock, not xm_fat_lock. A
// new size not above x_size is a caller error (fatal). Returns 0; ENOSPC;
// ENOMEM when the free-run table cannot be allocated; EIO for a corrupt
// chain; or an I/O error. On an error x_size stays at the whole clusters
// allocated so far; the caller decides whether to keep them.
int exfat_file_extend(struct exfat_node* node, uint64_t new_size, int flags) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (new_size <= node->x_size)
    panic("exfat_file_extend: trying to make file smaller");

  uint64_t have = exfat_clusters_for(mount, node->x_size);
  const uint64_t want = exfat_clusters_for(mount, new_size);
  if ((flags & IO_UNIT) && exfat_clamp_count(want - have) > mount->xm_free_clusters)
    return ENOSPC;

  // The size is whole clusters while clusters are added, so that each
  // append extends exactly the allocation.
  node->x_size = have * mount->xm_bytes_per_cluster;
  node->x_flags |= EXFAT_SIZE_DIRTY;

  if (node->x_size != 0) {
    int error = exfat_extend_in_place(node, want, &have);
    if (error)
      return error;
  }

  auto* table = static_cast<struct exfat_free_extent*>(
      OSMalloc(sizeof(struct exfat_free_extent) * EXFAT_FREE_EXTENTS, exfat_malloc_tag));
  if (table == nullptr)
    return ENOMEM;
  int error = 0;
  while (error == 0 && node->x_size < new_size)
    error = exfat_extend_from_table(node, want, &have, table);
  OSFree(table, sizeof(struct exfat_free_extent) * EXFAT_FREE_EXTENTS, exfat_malloc_tag);
  node->x_flags |= EXFAT_SIZE_DIRTY;
  if (error)
    return error;

  if (node->x_size > new_size)
    node->x_size = new_size;
  return 0;
}

// Releases the clusters of a chained node past its first `keep`: cuts the
// chain after cluster keep − 1 (or frees it all when keep is 0) and frees
// the rest. The caller holds the node lock and xm_bitmap_lock; takes and
// releases xm_fat_lock. Returns 0 or a FAT, mapping or bitmap error; the
// chain may already be cut when a later step fails.
static int exfat_shrink_chain(struct exfat_node* node, uint32_t keep, struct exfat_node* owner) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_lock(mount->xm_fat_lock);
  int error;
  if (keep > 0) {
    uint32_t last = 0;
    error = exfat_blockmap_internal(node, keep - 1, 1, nullptr, &last, nullptr);
    if (error == E2BIG) {
      // A damaged chain shorter than the file's size: nothing is freed.
      kprintf("exfat_file_shrink: chain shorter than its file\n");
      exfat_set_corrupt(mount);
      error = EIO;
    }
    if (error == 0) {
      node->x_last_cluster = last;
      uint32_t first_free = 0;
      error = exfat_fat_get_set_internal(EXFAT_FAT_GET, mount, last, &first_free, 0);
      // The end mark at `last` is written when the tail is freed: see
      // exfat_pending.cpp.
      if (error == 0)
        error = exfat_free_chain(mount, first_free, last, owner, node);
    }
  } else {
    node->x_last_cluster = 0;
    error = exfat_free_chain(mount, node->x_start_cluster, 0, owner, node);
  }
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

// exfat_file_shrink with the owner of the clusters given back, as for
// exfat_free_run.
static int exfat_shrink_for(struct exfat_node* node, uint64_t new_size, struct exfat_node* owner) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (new_size >= node->x_size)
    panic("exfat_file_shrink: trying to make file larger");
  const uint32_t keep = static_cast<uint32_t>(exfat_clusters_for(mount, new_size));

  int error;
  if (node->x_flags & X_CONTIGUOUS) {
    node->x_last_cluster = new_size != 0 ? node->x_start_cluster + keep - 1 : 0;
    uint32_t have = static_cast<uint32_t>(exfat_clusters_for(mount, node->x_size));
    error = exfat_free_run(mount, node->x_start_cluster + keep, have - keep, owner, node);
  } else {
    error = exfat_shrink_chain(node, keep, owner);
  }
  if (error)
    return error;

  // The extent cache is guarded by xm_fat_lock, which is taken for the trim
  // even for a contiguous node, whose FAT entries are never touched: a
  // directory reader may be mapping the same node under that lock alone.
  lck_mtx_lock(mount->xm_fat_lock);
  if (keep < node->x_extent_index)
    node->x_extent_length = 0;
  else if (keep < node->x_extent_index + node->x_extent_length)
    node->x_extent_length = keep - node->x_extent_index;
  lck_mtx_unlock(mount->xm_fat_lock);

  node->x_size = new_size;
  if (node->x_valid_size > new_size)
    node->x_valid_size = new_size;
  if (new_size == 0) {
    node->x_flags &= ~X_CONTIGUOUS;
    node->x_start_cluster = 0;
  }
  node->x_flags |= EXFAT_SIZE_DIRTY;
  return 0;
}

// Gives back the clusters of a node past ⌈new_size / cluster size⌉ and sets
// its sizes: x_size to new_size, x_valid_size lowered to it. The clusters
// (and a chain's new end mark) are handed to the pending list
// (exfat_pending.cpp), held until the node's entry set is rewritten unless
// the node was removed. Cut to 0, the node loses X_CONTIGUOUS and its first
// cluster, so its next allocation is contiguous again.
//
// The caller holds the node lock and xm_bitmap_lock, not xm_fat_lock. A new
// size not below x_size is a caller error (fatal). Returns 0, or a FAT,
// mapping or bitmap error, with x_size, x_valid_size and the extent cache
// unchanged.
int exfat_file_shrink(struct exfat_node* node, uint64_t new_size) {
  // The clusters stay allocated until the entry set that names them is
  // rewritten (a removed node's set is deleted already).
  return exfat_shrink_for(node, new_size, (node->x_flags & X_DELETED) ? nullptr : node);
}

// Gives back what a failed all-or-nothing extension of a regular file took:
// the clusters past the old size, and the size itself. A directory keeps its
// new clusters (zeroed, part of its valid length, harmless as free entry
// slots): their zeroes are delayed writes in the buffer cache, which must
// not land on clusters that were freed and handed to someone else. The
// caller holds the node lock and xm_bitmap_lock. A failure to shrink is
// logged; the file then keeps the clusters, covered by its size.
static void exfat_extend_undo(struct exfat_node* node, uint64_t old_size, uint32_t taken) {
  if ((node->x_attributes & EXFAT_ATTR_DIRECTORY) || node->x_size <= old_size)
    return;
  struct exfat_mount* mount = node->x_mount;
  if (exfat_clusters_for(mount, node->x_size) == exfat_clusters_for(mount, old_size)) {
    node->x_size = old_size;
    node->x_flags |= EXFAT_SIZE_DIRTY;
    return;
  }
  // Clusters that came from the free space were never named by any entry
  // set (the node and xm_bitmap_lock were held throughout) and are free
  // again at once; its own clusters a node took back wait as before.
  int error = exfat_shrink_for(node, old_size,
                               mount->xm_pending_taken == taken ? EXFAT_FREE_NOW : node);
  if (error)
    kprintf("exfat_truncate: error %d giving back a failed extension\n", error);
}

// Sets the size of a node up or down. A size inside the same number of
// clusters changes only x_size (and lowers x_valid_size when shrinking
// below it): no bitmap or FAT data. Otherwise clusters are added with
// exfat_file_extend or released with exfat_file_shrink under
// xm_bitmap_lock, taken here. With IO_UNIT in `flags` growth is all or
// nothing: refused up front when the free clusters cannot hold it, and
// given back when it fails halfway (but for directories). Neither the page
// cache's size nor any file data is changed.
//
// The caller holds the node lock. A size equal to x_size is a caller error
// (fatal): callers acting on a size read from disk compare first. Returns
// 0, ENOSPC, ENOMEM, EIO or an I/O error, as the extension or shrink does.
int exfat_truncate(struct exfat_node* node, uint64_t new_size, int flags, vfs_context_t context) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (new_size == node->x_size)
    panic("exfat_truncate: file size not changing?");
  const uint64_t old_clusters = exfat_clusters_for(mount, node->x_size);
  const uint64_t new_clusters = exfat_clusters_for(mount, new_size);

  int error;
  if (new_size > node->x_size) {
    if (new_clusters == old_clusters) {
      // The added bytes lie past x_valid_size and read as zeros.
      node->x_size = new_size;
      node->x_flags |= EXFAT_SIZE_DIRTY;
      return 0;
    }
    const uint64_t old_size = node->x_size;
    for (int attempt = 0;; attempt++) {
      lck_mtx_lock(mount->xm_bitmap_lock);
      if ((flags & IO_UNIT) && new_clusters - old_clusters > mount->xm_free_clusters) {
        error = ENOSPC;
      } else {
        const uint32_t taken = mount->xm_pending_taken;
        error = exfat_file_extend(node, new_size, flags);
        if (error && (flags & IO_UNIT))
          exfat_extend_undo(node, old_size, taken);
      }
      bool retry = exfat_pending_retry(mount, error, attempt);
      lck_mtx_unlock(mount->xm_bitmap_lock);
      if (!retry)
        return error;
      exfat_pending_flush(mount, "exfat_truncate");
    }
  }

  if (new_clusters >= old_clusters) {
    node->x_size = new_size;
    if (node->x_valid_size > new_size)
      node->x_valid_size = new_size;
    node->x_flags |= EXFAT_SIZE_DIRTY;
    return 0;
  }
  exfat_pending_make_room(mount);
  lck_mtx_lock(mount->xm_bitmap_lock);
  error = exfat_file_shrink(node, new_size);
  lck_mtx_unlock(mount->xm_bitmap_lock);
  return error;
}
