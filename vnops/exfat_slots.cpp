// Free entry slots and entry deletion: finding a run of consecutive free
// 32-byte slots for a new entry set (growing the directory by whole
// clusters when no run is long enough), and deleting an entry set by
// clearing the InUse bit of each entry, releasing on request the clusters
// its extra secondary entries own.
//
// Locking: both operations run under the directory's node lock. Cluster
// release takes xm_bitmap_lock, then xm_fat_lock, inside it.

#include "host/kern.h"
#include "host/malloc.h"

#include "exfat_dirindex.h"
#include "exfat_proto.h"

namespace {

// The slot search's state, on the searcher's stack and passed through the
// walk as its argument.
struct exfat_slot_search {
  uint32_t run_start;   // byte offset of the current run's first free slot
  uint32_t run_length;  // free slots in the current run; 0 when there is none
  uint32_t wanted;      // slots needed
};

}  // namespace

// The slot search's iteration callback (entry form, modes ITER_FREE |
// ITER_INUSE): an in-use slot ends the current run; a free slot extends it
// when it follows the run directly, else starts a new one. Returns
// EXFAT_ITER_FOUND once the run holds the wanted number of slots, else 0.
// Runs under the directory's node lock, inside exfat_dir_iterate.
int exfat_find_empty_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  auto* search = static_cast<struct exfat_slot_search*>(argument);
  if (entry[0] & EXFAT_ENTRY_INUSE) {
    search->run_length = 0;
    return 0;
  }
  if (search->run_length != 0 &&
      offset == search->run_start + EXFAT_ENTRY_SIZE * search->run_length) {
    search->run_length++;
  } else {
    search->run_start = offset;
    search->run_length = 1;
  }
  return search->run_length == search->wanted ? EXFAT_ITER_FOUND : 0;
}

// Finds `wanted` consecutive free slots in a directory and stores the byte
// offset of the first in *offset. Deleted entries, the end-of-directory
// marker and the zeroed slots after it are all free; the first run long
// enough, in directory order, is used. When none is, the directory grows
// by whole clusters (all or nothing, zero-filled), keeping and extending a
// run of free slots at its end, and the run starts there. The directory's
// index, when it has a usable one, finds the run without the walk.
//
// The caller holds the directory's node lock, and keeps it until it has
// written its set: the slots are not reserved. Returns 0; ENOSPC when the
// volume has too few free clusters to grow the directory, or the directory
// would grow past the longest the format allows (it is then unchanged); or
// a read, mapping or allocation error.
int exfat_find_empty_entries(struct exfat_node* dir, uint32_t wanted, uint32_t* offset,
                             vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = dir->x_mount;
  struct exfat_slot_search search = {0, 0, wanted};

  // The directory's index knows the runs; without a usable one, walk.
  uint32_t trail_start = 0;
  int error = exfat_dirindex_find_free(dir, wanted, offset, &trail_start, &search.run_length,
                                       context);
  if (error == 0)
    return 0;
  if (error == ENOENT) {
    search.run_start = trail_start * EXFAT_ENTRY_SIZE;
  } else if (error != EXFAT_DIRINDEX_NONE) {
    return error;
  } else {
    error = exfat_dir_iterate(dir, 0, &search, exfat_find_empty_callback,
                              ITER_FREE | ITER_INUSE, context);
    if (error == EXFAT_ITER_FOUND) {
      *offset = search.run_start;
      return 0;
    }
    if (error)
      return error;
  }

  // No run is long enough. A trailing run of free slots is kept and grown;
  // with none, the new slots start at the directory's current end.
  if (search.run_length == 0)
    search.run_start = static_cast<uint32_t>(dir->x_size);
  uint64_t needed = dir->x_size + uint64_t(EXFAT_ENTRY_SIZE) * (wanted - search.run_length);
  needed = (needed + mount->xm_bytes_per_cluster - 1) / mount->xm_bytes_per_cluster *
           mount->xm_bytes_per_cluster;
  if (needed > EXFAT_MAX_DIR_SIZE)
    return ENOSPC;
  uint64_t old_size = dir->x_size;
  error = exfat_truncate(dir, needed, IO_UNIT, context);
  if (error)
    return error;
  exfat_dirindex_note_grow(dir, old_size);
  *offset = search.run_start;
  return 0;
}

// Releases the clusters that an extra secondary entry (one with
// AllocationPossible) owns: a NoFatChain run by its length, or a FAT chain.
// The clusters stay allocated until the deletion is written to the
// directory's buffer (exfat_delete_dirents releases them then, as `dir`'s).
// The caller holds the directory's node lock; the allocation locks are taken
// here, xm_bitmap_lock before xm_fat_lock. Returns 0 or the release's error.
static int exfat_free_secondary(struct exfat_node* dir, const uint8_t* entry) {
  return exfat_free_allocation(dir, (entry[1] & EXFAT_SECONDARY_NO_FAT_CHAIN) != 0,
                               le32dec(entry + 20), le64dec(entry + 24));
}

// Clears the InUse bit of one entry being deleted, after releasing what it
// owns when `free_clusters` is set. Only an in-use secondary other than the
// stream extension and the file name owns clusters here: the file's own
// data, described by its stream extension, is released by whoever removes
// the file (when its last user lets go, or by emptying a directory). A
// root-only type in a set is reported and still freed. The caller holds the
// directory's node lock.
static void exfat_delete_entry(struct exfat_node* dir, uint8_t* entry, int free_clusters) {
  const uint8_t type = entry[0];
  if (free_clusters) {
    if (type == EXFAT_ENTRY_FILE || type == EXFAT_ENTRY_STREAM || type == EXFAT_ENTRY_NAME) {
      // The set's own entries: nothing to release.
    } else if (exfat_single_entry_type(type)) {
      kprintf("exfat_delete_dirents: Unexpected entry of type 0x%02X\n", type);
    } else if ((type & EXFAT_ENTRY_SECONDARY) && (type & EXFAT_ENTRY_INUSE) &&
               (entry[1] & EXFAT_SECONDARY_ALLOCATION_POSSIBLE)) {
      int error = exfat_free_secondary(dir, entry);
      // The entry goes either way; clusters that could not be released
      // are lost to the volume rather than the deletion failing half-done.
      if (error)
        kprintf("exfat_delete_dirents: error %d freeing secondary stream of type 0x%02X\n", error,
                type);
    }
  }
  entry[0] = static_cast<uint8_t>(type & ~EXFAT_ENTRY_INUSE);
}

// Deletes the `count` entries at byte `offset` of a directory (an entry set)
// by clearing the InUse bit of each; every other byte stays as it was, so a
// deleted set reads 0x05 0x40 0x41 .... With `free_clusters` set, the
// clusters owned by extra secondaries with AllocationPossible are released
// too (never the stream extension's); a failure there is logged and does
// not stop the deletion.
//
// The caller holds the directory's node lock; the allocation locks are taken
// inside it. `count` above the largest set (256 entries) is a caller error
// (fatal). Returns 0; ENOMEM, with nothing changed, when the work buffer
// cannot be allocated; or the read's or write's error.
int exfat_delete_dirents(struct exfat_node* dir, uint32_t offset, uint32_t count,
                         int free_clusters, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  if (count > EXFAT_MAX_SET_ENTRIES)
    panic("exfat_delete_dirents: count %u exceeds a set\n", count);
  struct exfat_mount* mount = dir->x_mount;
  const uint32_t length = count * EXFAT_ENTRY_SIZE;

  auto* buffer = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (buffer == nullptr)
    return ENOMEM;
  int error = exfat_dir_read(dir, nullptr, buffer, offset, length, context);
  if (error == 0) {
    for (uint32_t i = 0; i < count; i++)
      exfat_delete_entry(dir, buffer + i * EXFAT_ENTRY_SIZE, free_clusters);
    error = exfat_dir_write(dir, nullptr, buffer, offset, length, false, context);
    // The deletion is in the buffer cache: what the entries owned may be
    // freed once it is on the disk. Unwritten, it stays allocated.
    if (error == 0)
      exfat_pending_release(mount, dir);
    else
      exfat_pending_node_gone(mount, dir, false);
  }
  OSFree(buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  return error;
}
