// Directory blocks and iteration: walking a directory's 32-byte entries and
// handing entries or whole entry sets to a callback (exfat_dir_iterate),
// and copying byte ranges of a directory out (exfat_dir_read) or in
// (exfat_dir_write).
//
// Directory contents are metadata blocks of the device, read through the
// device vnode's buffer cache in xm_block_size units; a directory offset is
// mapped to its cluster with exfat_blockmap. Every function here expects the
// caller to hold the directory node's lock, which serialises them and the
// updates of x_checked_end and X_BAD_SET.

#include <cstring>

#include "exfat_dirindex.h"
#include "exfat_proto.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/uio.h"

namespace {

inline kauth_cred_t context_cred(vfs_context_t context) {
  return context != nullptr ? vfs_context_ucred(context) : NOCRED;
}

// Reads the metadata block that holds directory offset `offset`, whose
// cluster begins at device sector `cluster_sector`. On success *bpp is the
// busy buffer; on failure nothing is held. Errors: the read error, or EIO
// when the buffer is short or incomplete.
int dir_read_block(struct exfat_mount* mount, uint64_t cluster_sector, uint64_t offset,
                   vfs_context_t context, buf_t* bpp) {
  uint64_t block_index = (offset % mount->xm_bytes_per_cluster) / mount->xm_block_size;
  daddr64_t blkno =
      static_cast<daddr64_t>(cluster_sector + block_index * mount->xm_sectors_per_block);
  buf_t bp = nullptr;
  int error = buf_meta_bread(mount->xm_devvp, blkno, static_cast<int>(mount->xm_block_size),
                             context_cred(context), &bp);
  if (!error && (buf_count(bp) != mount->xm_block_size || buf_resid(bp) != 0))
    error = EIO;
  if (error) {
    if (bp != nullptr)
      buf_brelse(bp);
    *bpp = nullptr;
    return error;
  }
  *bpp = bp;
  return 0;
}

// The state of one walk: the position, the set being gathered and the
// buffer that holds sets straddling blocks.
struct dir_walk {
  struct exfat_node* dir;
  void* argument;
  exfat_iterate_callback callback;
  int flags;
  buf_t bp;              // the block being walked, or NULL
  uint8_t* block;        // its data
  bool set_open;
  uint32_t set_offset;   // directory offset of the open set's primary
  uint32_t secondaries;  // secondaries still expected
  uint8_t* set_start;    // the set's first byte: in the block, or the gather buffer
  uint8_t* gather;       // the gathering buffer, allocated on first need
  uint32_t gather_fill;  // bytes of the set in the gathering buffer
  bool at_end;           // the end-of-directory marker was met
};

inline bool set_is_gathered(const struct dir_walk* walk) {
  return walk->set_open && walk->set_start == walk->gather;
}

// A set is complete with its last entry at directory offset `offset` and
// block position `position`: validate it unless it lies wholly before the
// checked-end mark, and hand it to the callback. A set that fails validation
// is skipped silently and freezes the mark. Returns the callback's result.
int walk_set_complete(struct dir_walk* walk, uint32_t offset, uint32_t position) {
  struct exfat_node* dir = walk->dir;
  if (set_is_gathered(walk)) {
    memcpy(walk->gather + walk->gather_fill, walk->block, position + EXFAT_ENTRY_SIZE);
    walk->gather_fill += position + EXFAT_ENTRY_SIZE;
  }
  walk->set_open = false;
  // Sets before the checked-end mark passed the full check on an earlier
  // walk and skip the checksum; their shape is still checked, because the
  // name readers index name entries by it and a block re-read from a device
  // that lost writes may hold something else now.
  bool valid = offset >= dir->x_checked_end ? exfat_valid_entry_set(walk->set_start)
                                            : exfat_entry_set_shape_ok(walk->set_start);
  if (!valid) {
    dir->x_flags |= X_BAD_SET;
    return 0;
  }
  if ((dir->x_flags & X_BAD_SET) == 0 && offset > dir->x_checked_end)
    dir->x_checked_end = offset + EXFAT_ENTRY_SIZE;
  return walk->callback(walk->argument, walk->set_start, nullptr, walk->set_offset);
}

// Handles an in-use entry in ITER_SETS mode. Returns 0 to go on, the
// callback's nonzero result, or EIO for an unknown critical primary.
int walk_set_entry(struct dir_walk* walk, uint8_t* entry, uint8_t type, uint32_t offset,
                   uint32_t position) {
  struct exfat_mount* mount = walk->dir->x_mount;
  if (type & EXFAT_ENTRY_SECONDARY) {
    if (!walk->set_open) {
      mount->xm_flags |= XM_CORRUPT;
      return 0;
    }
    if (--walk->secondaries == 0)
      return walk_set_complete(walk, offset, position);
    return 0;
  }
  if (type != EXFAT_ENTRY_FILE && (type & EXFAT_ENTRY_BENIGN) == 0) {
    kprintf("exfat_dir_iterate: Unrecognized primary entry of type 0x%x\n", type);
    mount->xm_flags |= XM_CORRUPT;
    return EIO;
  }
  // A new primary silently abandons any set still open.
  walk->set_open = true;
  walk->set_offset = offset;
  walk->set_start = entry;
  walk->secondaries = entry[1];
  if (walk->secondaries == 0)
    return walk_set_complete(walk, offset, position);
  return 0;
}

// Walks the entries of the current block from block position `position`
// (directory offset `offset`) to its end, or to the end-of-directory marker
// (which sets at_end). Returns 0 to go on, or a nonzero result that ends the
// walk.
int walk_block(struct dir_walk* walk, uint32_t offset, uint32_t position) {
  struct exfat_mount* mount = walk->dir->x_mount;
  for (; position < mount->xm_block_size;
       position += EXFAT_ENTRY_SIZE, offset += EXFAT_ENTRY_SIZE) {
    uint8_t* entry = walk->block + position;
    uint8_t type = entry[0];
    int result;

    if ((type & EXFAT_ENTRY_INUSE) == 0) {
      walk->set_open = false;
      if (walk->flags & ITER_FREE) {
        result = walk->callback(walk->argument, nullptr, entry, offset);
        if (result)
          return result;
        continue;
      }
      if (type == EXFAT_ENTRY_END) {
        walk->at_end = true;
        return 0;
      }
      continue;
    }
    if (walk->flags & ITER_INUSE) {
      result = walk->callback(walk->argument, nullptr, entry, offset);
      if (result)
        return result;
      type = entry[0];  // the callback may have changed it
    }
    if (exfat_single_entry_type(type)) {
      walk->set_open = false;
      if (walk->flags & ITER_SINGLES) {
        result = walk->callback(walk->argument, nullptr, entry, offset);
        if (result)
          return result;
      }
      continue;
    }
    if ((walk->flags & ITER_SETS) == 0)
      continue;
    result = walk_set_entry(walk, entry, type, offset, position);
    if (result)
      return result;
  }
  return 0;
}

// At the end of a block, moves a set that is still open into the gathering
// buffer (allocated on first need). Returns ENOMEM when it can't be made.
int walk_gather(struct dir_walk* walk) {
  uint32_t block_size = walk->dir->x_mount->xm_block_size;
  if (!walk->set_open)
    return 0;
  if (walk->gather == nullptr) {
    walk->gather = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
    if (walk->gather == nullptr)
      return ENOMEM;
  }
  if (!set_is_gathered(walk)) {
    uint32_t bytes = static_cast<uint32_t>(walk->block + block_size - walk->set_start);
    memcpy(walk->gather, walk->set_start, bytes);
    walk->gather_fill = bytes;
    walk->set_start = walk->gather;
  } else {
    // An open set has at most 256 entries, so a whole block appended while
    // it is still open always fits.
    memcpy(walk->gather + walk->gather_fill, walk->block, block_size);
    walk->gather_fill += block_size;
  }
  return 0;
}

// Releases what a walk holds: the current block and the gathering buffer.
void walk_release(struct dir_walk* walk) {
  if (walk->bp != nullptr) {
    buf_brelse(walk->bp);
    walk->bp = nullptr;
  }
  if (walk->gather != nullptr) {
    OSFree(walk->gather, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
    walk->gather = nullptr;
  }
}

// The transfer of one block's share of a directory read or write.
struct dir_xfer {
  uio_t uio;            // used when not NULL
  const uint8_t* src;   // write source (NULL with no uio: write zeros)
  uint8_t* dst;         // read destination
};

// Visits the byte range [offset, offset + length) of a directory block by
// block, calling `step` with each busy block buffer, the position in it and
// the byte count. The walk stops at the first error. A mapping past the end
// of the directory gives E2BIG.
template <typename Step>
int dir_for_each_block(struct exfat_node* dir, uint64_t offset, uint32_t length,
                       vfs_context_t context, Step step) {
  struct exfat_mount* mount = dir->x_mount;
  while (length > 0) {
    uint64_t sector;
    int error = exfat_blockmap(dir, static_cast<uint32_t>(offset / mount->xm_bytes_per_cluster), 1,
                               &sector, nullptr, nullptr);
    if (error)
      return error;
    uint64_t cluster_end =
        offset - offset % mount->xm_bytes_per_cluster + mount->xm_bytes_per_cluster;
    while (length > 0 && offset < cluster_end) {
      buf_t bp;
      error = dir_read_block(mount, sector, offset, context, &bp);
      if (error)
        return error;
      uint32_t position = static_cast<uint32_t>(offset % mount->xm_block_size);
      uint32_t n = mount->xm_block_size - position;
      if (n > length)
        n = length;
      error = step(bp, position, n);
      if (error)
        return error;
      offset += n;
      length -= n;
    }
  }
  return 0;
}

}  // namespace

// Walks a directory from `offset` (a multiple of 32) and hands entries or
// whole entry sets to `callback`, by the ITER_* modes in `flags`. A set is
// passed as one contiguous copy with the offset of its primary, even when it
// straddles blocks. Sets ending at or beyond x_checked_end are validated; a
// bad one is skipped silently and sets X_BAD_SET, which freezes the mark.
//
// Caller holds the directory node's lock. Returns 0 at the end of the
// directory (the end marker, or the end of its last cluster); the callback's
// nonzero result when it stopped the walk; EIO for an unknown critical
// primary or a directory longer than the format allows (XM_CORRUPT set
// for both) or a short block; ENOMEM; or an I/O error. Nothing is held on
// return.
int exfat_dir_iterate(struct exfat_node* dir, uint32_t offset, void* argument,
                      exfat_iterate_callback callback, int flags, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_mount* mount = dir->x_mount;
  if (offset % EXFAT_ENTRY_SIZE != 0)
    panic("exfat_dir_iterate: unaligned offset (%u)\n", offset);

  struct dir_walk walk;
  memset(&walk, 0, sizeof(walk));
  walk.dir = dir;
  walk.argument = argument;
  walk.callback = callback;
  walk.flags = flags;

  int result;
  for (;;) {
    uint64_t sector;
    result =
        exfat_blockmap(dir, offset / mount->xm_bytes_per_cluster, 1, &sector, nullptr, nullptr);
    if (result == E2BIG) {
      result = 0;  // past the directory's length: a set still open is dropped
      break;
    }
    if (result)
      break;
    if (offset >= EXFAT_MAX_DIR_SIZE) {
      // Only a root directory whose chain runs on gets here. Stopping keeps
      // the 32-bit offset from wrapping back to the start.
      kprintf("exfat_dir_iterate: directory longer than %u bytes\n", EXFAT_MAX_DIR_SIZE);
      mount->xm_flags |= XM_CORRUPT;
      result = EIO;
      break;
    }
    result = dir_read_block(mount, sector, offset, context, &walk.bp);
    if (result)
      break;
    walk.block = reinterpret_cast<uint8_t*>(buf_dataptr(walk.bp));
    uint32_t position = offset % mount->xm_block_size;
    result = walk_block(&walk, offset, position);
    if (result || walk.at_end)
      break;
    result = walk_gather(&walk);
    if (result)
      break;
    buf_brelse(walk.bp);
    walk.bp = nullptr;
    offset += mount->xm_block_size - position;
  }
  walk_release(&walk);
  return result;
}

// Copies `length` bytes of a directory from byte `offset` into the uio, or
// into `buffer` when uio is NULL. Caller holds the directory node's lock.
// Returns 0; E2BIG when the range goes past the directory's clusters; EIO
// for a short block; a read or uiomove error.
int exfat_dir_read(struct exfat_node* dir, uio_t uio, void* buffer, uint64_t offset,
                   uint32_t length, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  if (length == 0)
    return 0;
  struct dir_xfer xfer = {uio, nullptr, static_cast<uint8_t*>(buffer)};
  return dir_for_each_block(dir, offset, length, context,
                            [&xfer](buf_t bp, uint32_t position, uint32_t n) {
    auto* data = reinterpret_cast<uint8_t*>(buf_dataptr(bp)) + position;
    int error = 0;
    if (xfer.uio != nullptr) {
      error = uiomove(reinterpret_cast<const char*>(data), static_cast<int>(n), xfer.uio);
    } else {
      memcpy(xfer.dst, data, n);
      xfer.dst += n;
    }
    buf_brelse(bp);
    return error;
  });
}

// Writes `length` bytes of a directory at byte `offset` from the uio, or
// from `buffer`, or zeros when both are NULL. Each block is read first, so
// the rest of it is kept, and released with a delayed write: fsync of the
// directory, the volume sync and the buffer cache's own flushing put it on
// disk. The directory's index follows what was written. With advance_mark,
// a write that starts exactly at x_checked_end (a new set appended there)
// moves the mark past it.
//
// Caller holds the directory node's lock. Returns 0; E2BIG when the range
// goes past the directory's clusters; EIO for a short block; a read, uiomove
// or write error.
int exfat_dir_write(struct exfat_node* dir, uio_t uio, const void* buffer, uint64_t offset,
                    uint32_t length, bool advance_mark, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  if (length == 0)
    return 0;
  struct dir_xfer xfer = {uio, static_cast<const uint8_t*>(buffer), nullptr};
  int error = dir_for_each_block(dir, offset, length, context,
                                 [&xfer](buf_t bp, uint32_t position, uint32_t n) {
    auto* data = reinterpret_cast<uint8_t*>(buf_dataptr(bp)) + position;
    if (xfer.uio != nullptr) {
      int move_error = uiomove(reinterpret_cast<const char*>(data), static_cast<int>(n), xfer.uio);
      if (move_error) {
        // Part of the block may have changed; drop it rather than leave a
        // cached block that differs from the disk without being dirty.
        buf_markinvalid(bp);
        buf_brelse(bp);
        return move_error;
      }
    } else if (xfer.src != nullptr) {
      memcpy(data, xfer.src, n);
      xfer.src += n;
    } else {
      memset(data, 0, n);
    }
    return static_cast<int>(buf_bdwrite(bp));
  });
  // A write through a uio (never made to a directory by the driver itself)
  // is not followed by the index: it goes.
  exfat_dirindex_note_write(dir, offset, static_cast<const uint8_t*>(buffer), length,
                            error == 0 && uio == nullptr);
  if (!error && advance_mark && offset == dir->x_checked_end)
    dir->x_checked_end = static_cast<uint32_t>(offset + length);
  return error;
}

// Consistency assertions on one directory block (a debugging aid): the
// buffer is complete, and every byte from the first end-of-directory entry
// to the end of the block is zero. Any failure is fatal.
void exfat_dir_buf_check(buf_t bp, struct exfat_mount* mount) {
  uint32_t count = buf_count(bp);
  if (count != mount->xm_block_size)
    panic("exfat_dir_buf_check: invalid buffer size (%d)\n", static_cast<int>(count));
  if (buf_resid(bp) != 0)
    panic("exfat_dir_buf_check: buf_resid = %d\n", static_cast<int>(buf_resid(bp)));
  const auto* data = reinterpret_cast<const uint8_t*>(buf_dataptr(bp));
  uint32_t i = 0;
  while (i < count && data[i] != EXFAT_ENTRY_END)
    i += EXFAT_ENTRY_SIZE;
  for (; i < count; i++) {
    if (data[i] != 0)
      panic("exfat_dir_buf_check: corrupt directory buffer\n");
  }
}
