// The allocation bitmap: its one-block write-back cache, marking runs of
// clusters used or free, counting free clusters, and the free-run searches
// the allocator uses.
//
// Bit i of the bitmap describes cluster i + 2 and is bit (i mod 32) of the
// little-endian 32-bit word at byte 4 * (i / 32):
//
//   byte:   0        1        2        3        4 ...
//   bits:   7......0 15.....8 23....16 31....24 39....32
//           \________ word 0 (LE) ___________/ \_ word 1
//
// Locking: xm_bitmap_lock guards the cache (xm_bitmap_cache,
// xm_bitmap_cache_offset, xm_bitmap_cache_dirty) and xm_free_clusters, and
// is held across whole allocations and frees by the callers. It is taken
// before xm_fat_lock when both are needed.

#include <algorithm>
#include <cstring>

#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/uio.h"
#include "host/vnode.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_proto.h"

// Returns a pointer to the aligned word of xm_bitmap_cache that holds `bit`,
// moving the cache to the bit's block when needed (writing a dirty block
// back first). *block_end, when given, receives the address just past the
// cached block's valid bytes, even on error; walkers map again when their
// word pointer reaches it. The caller holds xm_bitmap_lock. Returns NULL
// with the error stored through `error` (may be NULL): the write-back's or
// the read's error, ENOMEM, or EIO (XM_CORRUPT) for a bit past the end of
// the bitmap file. After a read or write-back error the cache is empty (a
// block that could not be written back has lost its changes: recorded, the
// volume is not marked clean).
uint32_t* exfat_bitmap_map(struct exfat_mount* mount, uint32_t bit, uint32_t** block_end,
                           int* error) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);

  const uint32_t byte = bit / 8;
  const uint32_t block = byte & ~EXFAT_META_CACHE_MASK;
  const uint32_t length =
      block < mount->xm_bitmap_size ? std::min(EXFAT_META_CACHE_SIZE, mount->xm_bitmap_size - block)
                                    : 0;
  if (block_end)
    *block_end = reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(mount->xm_bitmap_cache) + length);

  // A bitmap file shorter than the cluster count needs is corrupt. The bit
  // is refused before the cache is touched, so a dirty block is kept.
  if (byte >= mount->xm_bitmap_size) {
    kprintf("exfat_bitmap_map: bit %u lies past the end of the bitmap\n", bit);
    exfat_set_corrupt(mount);
    if (error)
      *error = EIO;
    return nullptr;
  }

  int err = 0;
  if (block != mount->xm_bitmap_cache_offset) {
    // The block's changes are lost if its write-back fails (see below).
    if (mount->xm_bitmap_cache_dirty)
      err = exfat_note_write_error(mount, exfat_bitmap_cache_flush(mount, 0));
    if (err == 0) {
      mount->xm_bitmap_cache_offset = block;
      err = exfat_cache_io(mount->xm_bitmap_vp, mount->xm_bitmap_cache, block, length,
                           mount->xm_bitmap_size, UIO_READ, 0);
      // The bytes of a short last block past the file are zeroed, so that
      // the word holding the last bits never carries another block's bytes.
      if (err == 0 && length < EXFAT_META_CACHE_SIZE)
        memset(reinterpret_cast<char*>(mount->xm_bitmap_cache) + length, 0,
               EXFAT_META_CACHE_SIZE - length);
    }
  }
  if (error)
    *error = err;
  if (err) {
    mount->xm_bitmap_cache_offset = EXFAT_CACHE_NONE;
    mount->xm_bitmap_cache_dirty = 0;
    return nullptr;
  }
  return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(mount->xm_bitmap_cache) +
                                     ((byte & ~3u) - block));
}

// Writes the cached bitmap block into the bitmap vnode's page cache if it is
// dirty; `ioflags` goes to cluster_write. The caller holds xm_bitmap_lock.
// The block stays cached either way; the dirty flag is cleared only on
// success. Returns 0, ENOMEM or the write's error.
int exfat_bitmap_cache_flush(struct exfat_mount* mount, int ioflags) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (!mount->xm_bitmap_cache_dirty)
    return 0;
  const uint32_t block = mount->xm_bitmap_cache_offset;
  const uint32_t length = std::min(EXFAT_META_CACHE_SIZE, mount->xm_bitmap_size - block);
  int error = exfat_cache_io(mount->xm_bitmap_vp, mount->xm_bitmap_cache, block, length,
                             mount->xm_bitmap_size, UIO_WRITE, ioflags);
  if (error == 0)
    mount->xm_bitmap_cache_dirty = 0;
  return error;
}

// --- Walking the bitmap word by word ----------------------------------------

// A position in the bitmap: the cached word that holds bits [bit, bit + 32).
// The word pointer may stand at the block end, in which case the block that
// follows is mapped only when the word is actually needed, so a walk that
// ends exactly at a block boundary reads no further block.
struct exfat_bitmap_walk {
  struct exfat_mount* mount;
  uint32_t* word;
  uint32_t* end;
  uint32_t bit;  // bitmap index of bit 0 of *word
};

// Starts a walk at the word holding `bit`. Returns exfat_bitmap_map's error.
static int exfat_walk_start(struct exfat_bitmap_walk* w, struct exfat_mount* mount, uint32_t bit) {
  int error = 0;
  w->mount = mount;
  w->bit = bit & ~31u;
  w->word = exfat_bitmap_map(mount, w->bit, &w->end, &error);
  return w->word ? 0 : error;
}

static void exfat_walk_next(struct exfat_bitmap_walk* w) {
  ++w->word;
  w->bit += 32;
}

// Makes the current word addressable, mapping the next block when the walk
// has reached the end of the cached one (which writes that block back first
// if it is dirty). Returns exfat_bitmap_map's error.
static int exfat_walk_load(struct exfat_bitmap_walk* w) {
  if (reinterpret_cast<char*>(w->word) < reinterpret_cast<char*>(w->end))
    return 0;
  int error = 0;
  w->word = exfat_bitmap_map(w->mount, w->bit, &w->end, &error);
  return w->word ? 0 : error;
}

// Moves the walk on to the word that holds `bit` (at or past the word it
// stands at) and makes it addressable. Returns exfat_walk_load's error.
static int exfat_walk_to(struct exfat_bitmap_walk* w, uint32_t bit) {
  while (w->bit + 32 <= bit)
    exfat_walk_next(w);
  return exfat_walk_load(w);
}

// Bits [from, from + n) of a word, as a mask (n from 1 to 32 - from).
static uint32_t exfat_bit_mask(uint32_t from, uint32_t n) {
  const uint32_t ones = (n >= 32) ? ~0u : ((1u << n) - 1);
  return ones << from;
}

static void exfat_word_apply(uint32_t* word, uint32_t mask, bool used) {
  const uint32_t v = le32dec(word);
  le32enc(word, used ? (v | mask) : (v & ~mask));
}

// Sets (used) or clears the bits of `count` clusters from `first`, a word at
// a time. The caller holds xm_bitmap_lock and has checked the range. On a
// mapping error part-way the error is returned and xm_free_clusters is not
// adjusted; blocks already written back keep their changes.
static int exfat_bitmap_mark(struct exfat_mount* mount, uint32_t first, uint32_t count, bool used) {
  struct exfat_bitmap_walk w;
  uint32_t i = first - EXFAT_FIRST_CLUSTER;
  uint32_t remaining = count;
  int error = exfat_walk_start(&w, mount, i);
  if (error)
    return error;

  // Every word changed below belongs to the cached block, which must count
  // as dirty before the walk maps the next block and writes this one back.
  const uint32_t b = i % 32;
  if (b != 0) {
    const uint32_t n = std::min(remaining, 32 - b);
    exfat_word_apply(w.word, exfat_bit_mask(b, n), used);
    mount->xm_bitmap_cache_dirty = 1;
    remaining -= n;
    exfat_walk_next(&w);
  }
  while (remaining >= 32) {
    if ((error = exfat_walk_load(&w)) != 0)
      return error;
    le32enc(w.word, used ? ~0u : 0u);
    mount->xm_bitmap_cache_dirty = 1;
    remaining -= 32;
    exfat_walk_next(&w);
  }
  if (remaining > 0) {
    if ((error = exfat_walk_load(&w)) != 0)
      return error;
    exfat_word_apply(w.word, exfat_bit_mask(0, remaining), used);
  }
  mount->xm_bitmap_cache_dirty = 1;
  if (used)
    mount->xm_free_clusters -= count;
  else
    mount->xm_free_clusters += count;
  return 0;
}

// Marks `count` clusters from `first` in use and takes them off
// xm_free_clusters. The caller holds xm_bitmap_lock. A count of 0 or a range
// outside 2..xm_max_cluster is a caller error (fatal). Returns 0 or a
// mapping error (the free count is then unchanged).
int exfat_bitmap_mark_used(struct exfat_mount* mount, uint32_t first, uint32_t count) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (count == 0)
    panic("exfat_bitmap_mark_used: count == 0!");
  if (first < EXFAT_FIRST_CLUSTER ||
      static_cast<uint64_t>(first) + count - 1 > mount->xm_max_cluster)
    panic("exfat_bitmap_mark_used: invalid args: cluster=%u, count=%u; xm_max_cluster=%u", first,
          count, mount->xm_max_cluster);
  return exfat_bitmap_mark(mount, first, count, true);
}

// Tells the device that `count` clusters from `first` hold nothing any
// more (the mount's "discard" option): an image file gets a hole, a disk a
// discard. It happens under xm_bitmap_lock, before anyone can allocate the
// clusters again, so a discard never lands on new data. A failure loses
// nothing: the clusters are free either way. A device that can't discard
// says so once, and the mount stops asking.
static void exfat_discard_clusters(struct exfat_mount* mount, uint32_t first, uint32_t count) {
  dk_extent_t extent;
  extent.offset = exfat_cluster_to_sector(mount, first) * mount->xm_bytes_per_sector;
  extent.length = static_cast<uint64_t>(count) * mount->xm_bytes_per_cluster;
  dk_unmap_t unmap{&extent, 1, 0};
  int error = VNOP_IOCTL(mount->xm_devvp, DKIOCUNMAP, reinterpret_cast<caddr_t>(&unmap), 0,
                         vfs_context_kernel());
  if (error == ENOTSUP || error == ENOTTY) {
    kprintf("exfat: the device does not support discard; discard is off for this mount\n");
    mount->xm_flags &= ~XM_DISCARD;
  } else if (error) {
    kprintf("exfat: discarding clusters %u..%u: error %d\n", first, first + count - 1, error);
  }
}

// Marks `count` clusters from `first` free and adds them to
// xm_free_clusters. The caller holds xm_bitmap_lock. The range may come
// straight from a directory entry on disk, so a bad one is refused: EIO with
// XM_CORRUPT and a message, nothing changed. A count of 0 does nothing.
// Other errors are mapping errors (the free count is then unchanged).
int exfat_bitmap_mark_free(struct exfat_mount* mount, uint32_t first, uint32_t count) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (count == 0)
    return 0;
  if (first < EXFAT_FIRST_CLUSTER ||
      static_cast<uint64_t>(first) + count - 1 > mount->xm_max_cluster) {
    kprintf("exfat_bitmap_mark_free: invalid args: cluster=%u, count=%u; xm_max_cluster=%u", first,
            count, mount->xm_max_cluster);
    exfat_set_corrupt(mount);
    return EIO;
  }
  int error = exfat_bitmap_mark(mount, first, count, false);
  if (error == 0 && (mount->xm_flags & XM_DISCARD))
    exfat_discard_clusters(mount, first, count);
  return error;
}

// Counts the clear bits of `word` upward from bit `from`, stopping at the
// first set bit or after `limit` bits; *stopped tells which happened first.
static uint32_t exfat_count_clear_bits(uint32_t word, uint32_t from, uint32_t limit, bool* stopped) {
  uint32_t n = 0;
  *stopped = false;
  for (uint32_t b = from; b < 32 && n < limit; ++b, ++n) {
    if (word & (1u << b)) {
      *stopped = true;
      break;
    }
  }
  return n;
}

// Stores in *count how many free clusters follow one another from `first`
// on, at most `maximum` and never past xm_max_cluster. The caller holds
// xm_bitmap_lock. A NULL `count` is a caller error (fatal). Returns EIO with
// XM_CORRUPT and a message for a `first` outside 2..xm_max_cluster, or a
// mapping error.
int exfat_bitmap_count_free_contig(struct exfat_mount* mount, uint32_t first, uint32_t maximum,
                                   uint32_t* count) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  if (count == nullptr)
    panic("exfat_bitmap_count_free: count == NULL!");
  if (!exfat_cluster_valid(mount, first)) {
    kprintf("exfat_bitmap_count_free: cluster %u out of range %u..%u\n", first, EXFAT_FIRST_CLUSTER,
            mount->xm_max_cluster);
    exfat_set_corrupt(mount);
    return EIO;
  }
  const uint32_t limit = std::min(mount->xm_max_cluster - first + 1, maximum);
  const uint32_t i = first - EXFAT_FIRST_CLUSTER;
  struct exfat_bitmap_walk w;
  int error = exfat_walk_start(&w, mount, i);
  if (error)
    return error;

  uint32_t n = 0;
  bool stopped = false;
  if (i % 32 != 0) {
    n = exfat_count_clear_bits(le32dec(w.word), i % 32, limit, &stopped);
    if (stopped || n == limit) {
      *count = n;
      return 0;
    }
    exfat_walk_next(&w);
  }
  while (n + 32 <= limit) {
    if ((error = exfat_walk_load(&w)) != 0)
      return error;
    if (le32dec(w.word) != 0)
      break;
    n += 32;
    exfat_walk_next(&w);
  }
  if (n < limit) {
    if ((error = exfat_walk_load(&w)) != 0)
      return error;
    n += exfat_count_clear_bits(le32dec(w.word), 0, limit - n, &stopped);
  }
  *count = n;
  return 0;
}

// Finds the first clear bit at or after `*bit` and not past `last`, moving
// the walk along; *found tells whether there was one. Returns a mapping
// error.
static int exfat_find_clear_bit(struct exfat_bitmap_walk* w, uint32_t* bit, uint32_t last,
                                bool* found) {
  *found = false;
  uint32_t b = *bit;
  while (b <= last) {
    int error = exfat_walk_to(w, b);
    if (error)
      return error;
    // Set bits below b in this word are treated as in use, so the search
    // starts at b.
    const uint32_t free_bits = ~le32dec(w->word) & (~0u << (b - w->bit));
    if (free_bits != 0) {
      b = w->bit + static_cast<uint32_t>(__builtin_ctz(free_bits));
      if (b <= last) {
        *bit = b;
        *found = true;
      }
      return 0;
    }
    b = w->bit + 32;
  }
  return 0;
}

// Advances from the clear bit `s` while bits are clear and below `end`;
// *e receives the first bit past the run. The walk stands at s's word.
static int exfat_measure_clear_run(struct exfat_bitmap_walk* w, uint32_t s, uint32_t end,
                                   uint32_t* e) {
  uint32_t b = s;
  while (b < end) {
    int error = exfat_walk_to(w, b);
    if (error)
      return error;
    const uint32_t used_bits = le32dec(w->word) & (~0u << (b - w->bit));
    if (used_bits != 0) {
      b = std::min(end, w->bit + static_cast<uint32_t>(__builtin_ctz(used_bits)));
      break;
    }
    b = std::min(end, w->bit + 32);
  }
  *e = b;
  return 0;
}

// Fills `table` (4096 bytes, 512 runs) with free runs found from cluster 2
// upward, longest first. The search stops at the first free stretch that
// holds `wanted` clusters, so the lowest such stretch wins; otherwise it
// scans the whole bitmap and the table keeps the 512 longest runs. A run is
// measured at most `wanted` long unless it reaches the end of the bitmap.
// The caller holds xm_bitmap_lock. Returns 0 or a mapping error.
int exfat_bitmap_find_free(struct exfat_mount* mount, uint32_t wanted,
                           struct exfat_free_extent* table) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_OWNED);
  memset(table, 0, sizeof(struct exfat_free_extent) * EXFAT_FREE_EXTENTS);

  struct exfat_bitmap_walk w;
  int error = exfat_walk_start(&w, mount, 0);
  if (error)
    return error;

  const uint32_t last = mount->xm_max_cluster - EXFAT_FIRST_CLUSTER;
  const uint32_t total = mount->xm_max_cluster - 1;
  uint32_t p = 0;
  for (;;) {
    bool found = false;
    uint32_t s = p;
    if ((error = exfat_find_clear_bit(&w, &s, last, &found)) != 0 || !found)
      return error;
    const uint32_t end = (last - s > wanted) ? s + wanted : total;
    uint32_t e = s;
    if ((error = exfat_measure_clear_run(&w, s, end, &e)) != 0)
      return error;
    exfat_extent_insert(s + EXFAT_FIRST_CLUSTER, e - s, table);
    if (e - s >= wanted)
      return 0;
    p = e;
    if (p > last)
      return 0;
  }
}

// Inserts the run (first, length) into the free-extent table in its sorted
// place: by decreasing length, equal lengths by increasing first cluster.
// A run no better than all 512 entries is dropped; the last entry falls off
// when a better one is inserted into a full table.
void exfat_extent_insert(uint32_t first, uint32_t length, struct exfat_free_extent* table) {
  uint32_t k = 0;
  for (; k < EXFAT_FREE_EXTENTS; ++k) {
    const struct exfat_free_extent& e = table[k];
    if (e.fe_length < length || (e.fe_length == length && e.fe_start > first))
      break;
  }
  if (k == EXFAT_FREE_EXTENTS)
    return;
  if (k < EXFAT_FREE_EXTENTS - 1)
    memmove(&table[k + 1], &table[k], (EXFAT_FREE_EXTENTS - 1 - k) * sizeof(table[0]));
  table[k].fe_start = first;
  table[k].fe_length = length;
}

// Population count of a 32-bit word, bit-parallel: pairs, nibbles, bytes,
// then the four byte counts summed by one multiplication.
static uint32_t exfat_popcount(uint32_t v) {
  v = v - ((v >> 1) & 0x55555555u);
  v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
  v = (v + (v >> 4)) & 0x0F0F0F0Fu;
  return (v * 0x01010101u) >> 24;
}

// Subtracts from xm_free_clusters the set bits among the `bits` bits
// (fewer than 32) of the current word, one by one.
static void exfat_count_tail_bits(struct exfat_mount* mount, uint32_t word, uint32_t bits) {
  for (uint32_t b = 0; b < bits; ++b) {
    if (word & (1u << b))
      --mount->xm_free_clusters;
  }
}

// Recomputes xm_free_clusters from the whole bitmap, 32 bits at a time.
// Called once at mount, after the bitmap was read ahead. Takes
// xm_bitmap_lock itself. Returns 0 or a mapping error (the count is then
// meaningless and the mount fails).
int exfat_count_free_clusters(struct exfat_mount* mount) {
  lck_mtx_assert(mount->xm_bitmap_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(mount->xm_bitmap_lock);
  mount->xm_free_clusters = mount->xm_max_cluster - 1;
  struct exfat_bitmap_walk w;
  int error = exfat_walk_start(&w, mount, 0);
  if (error == 0) {
    uint32_t remaining = mount->xm_max_cluster - 1;
    if (mount->xm_max_cluster < 33) {
      exfat_count_tail_bits(mount, le32dec(w.word), remaining);
    } else {
      for (; remaining >= 32; remaining -= 32) {
        if ((error = exfat_walk_load(&w)) != 0)
          break;
        mount->xm_free_clusters -= exfat_popcount(le32dec(w.word));
        exfat_walk_next(&w);
      }
      if (error == 0 && remaining > 0 && (error = exfat_walk_load(&w)) == 0)
        exfat_count_tail_bits(mount, le32dec(w.word), remaining);
    }
  }
  lck_mtx_unlock(mount->xm_bitmap_lock);
  return error;
}
