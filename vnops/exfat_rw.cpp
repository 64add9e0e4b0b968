// Reading and writing file contents through the page cache.
//
// exFAT keeps two lengths per file: DataLength (x_size), the bytes the file
// has, and ValidDataLength (x_valid_size), the bytes ever written. Every byte
// at or past the valid length reads as zero whatever the disk holds, and a
// write that starts past it first turns the gap into real zeros, after
// which the valid length advances to the end of the data written.
//
// Locking: read and write hold the node's x_io_lock from start to end, so
// that data transfer on one file is serialised against size changes and
// other transfers. The node lock guards the size fields and flags; the write
// path drops it around the page-cache copy and ubc_setsize, because block
// mapping (reached from the cluster layer) takes it itself. xm_bitmap_lock
// is taken inside the node lock for allocation.

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/uio.h"

namespace {

constexpr uint32_t kSizeDirty = X_MODIFIED | X_DIRTY | X_STREAM_DIRTY;
// The zero fill ahead of a write that starts past the valid length. Dirty
// pages are left alone: a store through a mapping beyond the valid length
// is data. Valid (resident, clean) pages are zeroed too, although they
// already read as zeros: those zeros exist only in the page cache (pages
// past the valid length are read as holes), and once the valid length
// moves over them they must be on the disk, which only a dirty page gets.
constexpr int kHeadZeroFill = IO_HEADZEROFILL | IO_NOZERODIRTY;
// Mount flags under which reads leave the access time alone.
constexpr uint64_t kNoAccessTime = MNT_RDONLY | MNT_NOATIME;  // 0x10000001

uint64_t clusters_of(uint64_t bytes, uint64_t cluster_size) {
  return (bytes + cluster_size - 1) / cluster_size;
}

// Brings the page that holds the valid length into the page cache, when it
// is not resident, as page-in does: read up to the valid length and zeros
// after it.
//
// Why: the cluster layer reads a page that is not resident straight from
// the device over the extents block mapping reports, and block mapping
// reports the sectors of that page up to the end of its cluster. A read or
// write that reaches this page past the valid length would otherwise pick up
// whatever the disk holds between the valid length and the end of the page
// (the read path's zeros from exfat_zeroes cover only the rest of the
// sector). Pages wholly past the valid length are holes and need nothing.
//
// The caller holds x_io_lock and not the node lock. Returns 0 or the
// page-list or page-in error.
int exfat_page_in_valid_end(vnode_t vp, struct exfat_node* node, uint64_t valid, uint64_t size) {
  if (valid >= size || (valid & PAGE_MASK) == 0)
    return 0;
  off_t page = static_cast<off_t>(valid & ~static_cast<uint64_t>(PAGE_MASK));
  upl_t upl = nullptr;
  upl_page_info_t* pl = nullptr;
  int error = ubc_create_upl(vp, page, PAGE_SIZE, &upl, &pl, UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT);
  if (error || upl == nullptr)
    return error ? error : EINVAL;
  if (!upl_page_present(pl, 0)) {
    ubc_upl_abort_range(upl, 0, PAGE_SIZE, UPL_ABORT_FREE_ON_EMPTY);
    return 0;
  }
  return cluster_pagein(vp, upl, 0, page, PAGE_SIZE, static_cast<off_t>(valid), 0);
}

// Reads a regular file. The caller holds x_io_lock; the uio's offset is not
// negative and bytes remain. Returns 0 or the cluster layer's or uiomove's
// error.
int exfat_read_file(vnode_t vp, struct exfat_node* node, uio_t uio, int ioflag) {
  struct exfat_mount* mount = node->x_mount;
  const uint64_t valid = node->x_valid_size;
  const uint64_t size = node->x_size;
  const user_ssize_t resid_before = uio_resid(uio);
  int error = 0;

  if (static_cast<uint64_t>(uio_offset(uio)) < valid) {
    error = cluster_read(vp, uio, static_cast<off_t>(valid), ioflag);
    if (!error && uio_resid(uio) > 0 && static_cast<uint64_t>(uio_offset(uio)) < size) {
      if (static_cast<uint64_t>(uio_offset(uio)) != valid)
        panic("exfat_vnop_read: offset != node->x_valid_size");
      // The rest of the sector that holds the valid length: zeros.
      uint64_t sector = mount->xm_bytes_per_sector;
      uint64_t end = (valid + sector - 1) / sector * sector;
      if (end > size)
        end = size;
      uint64_t count = end - valid;
      if (count > static_cast<uint64_t>(uio_resid(uio)))
        count = static_cast<uint64_t>(uio_resid(uio));
      if (count > 0)
        error = uiomove(exfat_zeroes, static_cast<int>(count), uio);
    }
  }
  if (!error && uio_resid(uio) > 0 && static_cast<uint64_t>(uio_offset(uio)) < size) {
    error = exfat_page_in_valid_end(vp, node, valid, size);
    if (!error)
      error = cluster_read(vp, uio, static_cast<off_t>(size), ioflag);
  }

  if (!error && uio_resid(uio) < resid_before && !(vfs_flags(mount->xm_mp) & kNoAccessTime)) {
    exfat_node_lock(node);
    node->x_flags |= X_ACCESSED;
    exfat_node_unlock(node);
  }
  return error;
}

// Reads the raw bytes of a directory. The caller holds x_io_lock; the node
// lock is taken here. Returns 0 or exfat_dir_read's error.
int exfat_read_dir(struct exfat_node* node, uio_t uio, vfs_context_t context) {
  int error = 0;
  exfat_node_lock(node);
  uint64_t offset = static_cast<uint64_t>(uio_offset(uio));
  if (offset < node->x_size) {
    uint64_t count = node->x_size - offset;
    if (count > static_cast<uint64_t>(uio_resid(uio)))
      count = static_cast<uint64_t>(uio_resid(uio));
    error = exfat_dir_read(node, uio, nullptr, offset, static_cast<uint32_t>(count), context);
  }
  exfat_node_unlock(node);
  return error;
}

// Grows the allocation for a write of [offset, end). The caller holds
// x_io_lock and the node lock. With IO_UNIT all of it must fit; without,
// at least the first byte: when the free clusters cannot hold that much the
// answer is known before anything changes, and the write fails with ENOSPC
// having changed nothing. Otherwise a volume that runs out of space is not
// an error here: *short_space is set and the file keeps the whole clusters
// that could be found, which reach past `offset`. Returns 0, ENOSPC or the
// extension's error (the caller rolls a failed extension back).
int exfat_write_grow(struct exfat_node* node, uint64_t offset, uint64_t end, int ioflag,
                     bool* short_space) {
  struct exfat_mount* mount = node->x_mount;
  const uint64_t cluster_size = mount->xm_bytes_per_cluster;
  uint64_t have = clusters_of(node->x_size, cluster_size);
  uint64_t want = clusters_of(end, cluster_size);
  if (want == have) {
    node->x_size = end;
    node->x_flags |= kSizeDirty;
    return 0;
  }

  uint64_t must = (ioflag & IO_UNIT) ? want : clusters_of(offset + 1, cluster_size);
  int error;
  for (int attempt = 0;; attempt++) {
    lck_mtx_lock(mount->xm_bitmap_lock);
    have = clusters_of(node->x_size, cluster_size);
    if (must > have && must - have > mount->xm_free_clusters)
      error = ENOSPC;
    else
      error = node->x_size < end ? exfat_file_extend(node, end, ioflag) : 0;
    bool retry = exfat_pending_retry(mount, error, attempt);
    lck_mtx_unlock(mount->xm_bitmap_lock);
    if (!retry)
      break;
    // Clusters freed by removals wait until the directory blocks are
    // written; out of space, that is done now.
    exfat_pending_flush(mount, "exfat_vnop_write");
  }
  // A free count above what the bitmap holds may still leave the write's
  // start outside the file: then nothing fits after all.
  if (error == ENOSPC && !(ioflag & IO_UNIT) && node->x_size > offset) {
    *short_space = true;
    return 0;
  }
  return error;
}

// Copies the uio into the page cache. The caller holds x_io_lock and the
// node lock; the node lock is dropped around the copy and held again on
// return. Returns cluster_write's error (or the page-in of the valid
// length's page).
int exfat_write_copy(vnode_t vp, struct exfat_node* node, uio_t uio, uint64_t old_size,
                     int ioflag) {
  int flags = ioflag;
  off_t head = 0;
  if (static_cast<uint64_t>(uio_offset(uio)) > node->x_valid_size) {
    flags |= kHeadZeroFill;
    head = static_cast<off_t>(node->x_valid_size);
  }
  const uint64_t valid = node->x_valid_size;
  const uint64_t size = node->x_size;
  const uint64_t write_end = static_cast<uint64_t>(uio_offset(uio)) +
                             static_cast<uint64_t>(uio_resid(uio));

  exfat_node_unlock(node);
  if (size > old_size)
    ubc_setsize(vp, static_cast<off_t>(size));
  // The page that holds the valid length must not be read from the disk
  // beyond it: a write reaching past the valid length keeps the rest of that
  // page as it is in the cache, and the cluster layer would read a partly
  // written page that is not resident up to the old size.
  int error = 0;
  if (write_end > valid)
    error = exfat_page_in_valid_end(vp, node, valid, old_size);
  if (!error)
    error = cluster_write(vp, uio, static_cast<off_t>(old_size), static_cast<off_t>(size), head, 0,
                          flags);
  exfat_node_lock(node);
  return error;
}

// Undoes a write that failed with IO_UNIT, or without writing a byte: the
// allocation goes back to the old size and the uio to its state at entry.
// The caller holds x_io_lock and the node lock (dropped around ubc_setsize).
void exfat_write_rollback(vnode_t vp, struct exfat_node* node, uio_t uio, uint64_t old_size,
                          off_t old_offset, user_ssize_t old_resid, int ioflag,
                          vfs_context_t context) {
  if (node->x_size > old_size) {
    exfat_node_unlock(node);
    ubc_setsize(vp, static_cast<off_t>(old_size));
    exfat_node_lock(node);
    int error = exfat_truncate(node, old_size, ioflag, context);
    if (error)
      kprintf("exfat_vnop_write: error %d trying to truncate file to original size", error);
  }
  uio_setoffset(uio, old_offset);
  uio_setresid(uio, old_resid);
}

// Writes the entry set of a file after a synchronous write, unless the file
// was removed meanwhile. The caller holds x_io_lock and the node lock.
// *updated tells whether the entry was rewritten (the metadata flush
// follows then). Returns 0, the parent-lock error or the update's error.
int exfat_write_sync_entry(struct exfat_node* node, vfs_context_t context, bool* updated) {
  for (;;) {
    if (node->x_flags & X_DELETED)
      return 0;
    struct exfat_node* parent = nullptr;
    int error = exfat_lock_parent(node, &parent);
    if (error == -1)
      continue;  // renamed while unlocked: the retry answer is temporary
    if (error)
      return error;
    *updated = true;
    error = exfat_node_update(node, parent, context);
    if (error)
      kprintf("exfat_vnop_write: error %d from exfat_node_update", error);
    if (parent != nullptr) {
      exfat_node_unlock(parent);
      vnode_put(parent->x_vnode);
    }
    return error;
  }
}

}  // namespace

// The read vnode operation: regular files through the page cache, with zeros
// at and past the valid length; directories as their raw bytes. Stops at
// x_size. Takes x_io_lock (and the node lock briefly). Returns 0, EINVAL for
// a negative offset, ENOTSUP for other vnode types, or the I/O error.
int exfat_vnop_read(struct vnop_read_args* ap) {
  vnode_t vp = ap->a_vp;
  uio_t uio = ap->a_uio;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));

  if (uio_offset(uio) < 0)
    return EINVAL;
  if (uio_resid(uio) < 1)
    return 0;

  lck_mtx_lock(node->x_io_lock);
  int error;
  if (vnode_isreg(vp))
    error = exfat_read_file(vp, node, uio, ap->a_ioflag);
  else if (vnode_isdir(vp))
    error = exfat_read_dir(node, uio, ap->a_context);
  else
    error = ENOTSUP;
  lck_mtx_unlock(node->x_io_lock);
  return error;
}

// The write vnode operation for regular files. Grows the allocation as
// needed, zero-fills between the valid length and the write, copies the data
// through the page cache and advances x_valid_size and x_size. IO_APPEND
// writes at x_size; IO_UNIT is all or nothing (free space checked first,
// size and uio rolled back on failure); IO_SYNC writes the data, the entry
// set and the metadata before returning. Without IO_UNIT a volume that runs
// out of space gives a short write that succeeds, and a write that cannot
// write a single byte fails with the file as it was.
//
// Takes x_io_lock, then the node lock (dropped around the copy), then the
// parent's lock for an IO_SYNC entry update. Returns 0, EINVAL (negative
// offset, not a regular file), EISDIR, EFBIG (offset overflow), ENOSPC, the
// extension's, cluster layer's or entry update's error.
int exfat_vnop_write(struct vnop_write_args* ap) {
  vnode_t vp = ap->a_vp;
  uio_t uio = ap->a_uio;
  const int ioflag = ap->a_ioflag;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));

  if (uio_offset(uio) < 0) {
    kprintf("exfat_vnop_write: invalid offset (%lld)\n", static_cast<long long>(uio_offset(uio)));
    return EINVAL;
  }
  if (vnode_isdir(vp))
    return EISDIR;
  if (!vnode_isreg(vp)) {
    kprintf("exfat_vnop_write: invalid vnode type (%d)\n", static_cast<int>(vnode_vtype(vp)));
    return EINVAL;
  }
  if (uio_resid(uio) < 1)
    return 0;

  struct exfat_mount* mount = node->x_mount;
  lck_mtx_lock(node->x_io_lock);
  exfat_node_lock(node);
  const uint64_t old_size = node->x_size;
  const off_t old_offset = uio_offset(uio);
  const user_ssize_t old_resid = uio_resid(uio);
  bool short_space = false;
  bool updated = false;
  int error = 0;

  if (ioflag & IO_APPEND) {
    uio_setoffset(uio, static_cast<off_t>(node->x_size));
    if (static_cast<int64_t>(node->x_size) < 0) {
      kprintf("exfat_vnop_write: file offset overflow (append)\n");
      error = EFBIG;
    }
  }
  if (!error) {
    uint64_t end = static_cast<uint64_t>(uio_offset(uio)) + static_cast<uint64_t>(uio_resid(uio));
    if (static_cast<int64_t>(end) < 0) {
      kprintf("exfat_vnop_write: end of write overflow\n");
      error = EFBIG;
    } else if (end > node->x_size) {
      error = exfat_write_grow(node, static_cast<uint64_t>(uio_offset(uio)), end, ioflag,
                               &short_space);
    }
  }
  if (!error) {
    error = exfat_write_copy(vp, node, uio, old_size, ioflag);
    // Bytes copied mean that the zero fill ahead of them is done: only then
    // may the valid length pass over the gap.
    if (uio_resid(uio) < old_resid) {
      if (static_cast<uint64_t>(uio_offset(uio)) > node->x_valid_size) {
        node->x_valid_size = static_cast<uint64_t>(uio_offset(uio));
        node->x_flags |= kSizeDirty;
      }
      node->x_flags |= X_MODIFIED | X_DIRTY;
    }
    // Running out of space earlier is the result when nothing fitted at
    // all; a short write that moved some bytes is a success below.
    if (!error && short_space)
      error = ENOSPC;
  }

  if (error) {
    // A write that wrote nothing leaves nothing behind either: no size,
    // allocation or free count of a growth it could not use.
    if ((ioflag & IO_UNIT) || uio_resid(uio) == old_resid) {
      exfat_write_rollback(vp, node, uio, old_size, old_offset, old_resid, ioflag, ap->a_context);
    } else if (error == ENOSPC) {
      error = 0;
    }
  } else if (ioflag & IO_SYNC) {
    error = exfat_write_sync_entry(node, ap->a_context, &updated);
  }

  exfat_node_unlock(node);
  lck_mtx_unlock(node->x_io_lock);
  if (updated)
    exfat_meta_flush(mount, IO_SYNC);
  return error;
}
