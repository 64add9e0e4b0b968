// Paging: filling a file's pages from disk and writing dirty pages back,
// for mapped access and for the page cache's own page-outs.
//
// The file system is registered with the page-in and page-out operations
// that build their own page lists, so the kernel never passes one in. The
// exFAT part is the valid length: bytes between x_valid_size and x_size were
// never written and page in as zeros, and a page-out beyond the valid length
// first turns the gap into zeros in the page cache and then advances the
// valid length over what it wrote.
//
// Locking: page-in and page-out hold x_io_lock for their whole run, as read,
// write and attribute changes do. Page-out also holds the node lock, but
// drops it around every call into the cluster layer (block mapping takes
// it) and around the creation of its page list (see exfat_pageout_list).
// Page-in takes the node lock only to note the access.

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"

namespace {

constexpr int kPageinListFlags = UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT;   // 0x08000100
constexpr int kPageoutListFlags = UPL_UBC_PAGEOUT | UPL_RET_ONLY_DIRTY;  // 0x04000020
constexpr int kMsyncListFlags = UPL_UBC_MSYNC | UPL_RET_ONLY_DIRTY;      // 0x02000020
// The gap fill ahead of a page-out past the valid length leaves dirty pages
// (data stored through a mapping) alone but zeroes valid ones: their zeros
// exist only in the page cache, and must reach the disk before the valid
// length covers them. Synchronously: the page-out itself writes only the
// pages of its own window, and once the valid length has moved, the entry
// that records it may be written (an fsync under way does it next) while
// zeros still waiting in the cache would leave the disk's old bytes inside
// the valid length.
constexpr int kHeadZeroFill = IO_HEADZEROFILL | IO_NOZERODIRTY | IO_SYNC;
constexpr uint64_t kNoAccessTime = MNT_RDONLY | MNT_NOATIME;  // 0x10000001

bool page_misaligned(uint64_t value) {
  return (value & PAGE_MASK) != 0;
}

// Creates the page list of a request that is refused and aborts it at once,
// so that the pages the request names are given back as a kernel's would be.
void exfat_abort_request(vnode_t vp, off_t f_offset, size_t size, int list_flags) {
  upl_t upl = nullptr;
  if (ubc_create_upl(vp, f_offset, static_cast<int>(size), &upl, nullptr, list_flags) == 0 &&
      upl != nullptr)
    ubc_upl_abort(upl, UPL_ABORT_FREE_ON_EMPTY);
}

// One pass over a page list, run by run.
struct exfat_page_walk {
  vnode_t vp;
  struct exfat_node* node;
  upl_t upl;
  upl_page_info_t* pl;
  off_t f_offset;     // file offset of list byte 0
  size_t size;        // bytes in the list
  off_t filesize;     // end of file for the cluster layer
  int flags;          // paging flags for the cluster layer
  bool pageout;       // runs of dirty pages, written; else present pages, read
  size_t walked;      // out: bytes up to the end of the last present page
};

// Hands one run to the cluster layer. A page-out drops the node lock around
// the transfer; block mapping takes it.
int exfat_page_run(struct exfat_page_walk* walk, int first, int count) {
  upl_offset_t list_offset = static_cast<upl_offset_t>(first) * PAGE_SIZE;
  off_t file_offset = walk->f_offset + static_cast<off_t>(list_offset);
  int length = count * PAGE_SIZE;
  if (!walk->pageout)
    return cluster_pagein(walk->vp, walk->upl, list_offset, file_offset, length, walk->filesize,
                          walk->flags);
  exfat_node_unlock(walk->node);
  int error = cluster_pageout(walk->vp, walk->upl, list_offset, file_offset, length,
                              walk->filesize, walk->flags);
  exfat_node_lock(walk->node);
  return error;
}

// Walks the list: pages not in it are skipped, and each stretch of pages in
// it (page-in: present; page-out: dirty, and every page in a page-out list
// must be) goes to the cluster layer in one call. An empty list is aborted
// and leaves walk->walked 0. Returns the first error of the calls; later
// runs are still transferred.
int exfat_page_walk(struct exfat_page_walk* walk) {
  const int pages = static_cast<int>(walk->size / PAGE_SIZE);
  int last = pages - 1;
  while (last >= 0 && !upl_page_present(walk->pl, last))
    last--;
  walk->walked = static_cast<size_t>(last + 1) * PAGE_SIZE;
  if (last < 0) {
    ubc_upl_abort_range(walk->upl, 0, static_cast<upl_size_t>(walk->size),
                        UPL_ABORT_FREE_ON_EMPTY);
    return 0;
  }

  int result = 0;
  int index = 0;
  while (index <= last) {
    if (!upl_page_present(walk->pl, index)) {
      index++;
      continue;
    }
    if (walk->pageout && !upl_dirty_page(walk->pl, index))
      panic("exfat_vnop_pageout: unexpected clean page");
    int first = index++;
    while (index <= last && upl_page_present(walk->pl, index) &&
           (!walk->pageout || upl_dirty_page(walk->pl, index)))
      index++;
    int error = exfat_page_run(walk, first, index - first);
    if (error && !result)
      result = error;
  }
  return result;
}

// Zero-fills the file on the disk from the valid length up to a page-out's
// offset, without touching dirty pages, and moves the valid length there.
// The caller holds x_io_lock and the node lock (dropped around the fill).
// Returns 0 or cluster_write's error (nothing changed).
int exfat_pageout_fill_gap(vnode_t vp, struct exfat_node* node, off_t f_offset) {
  off_t valid = static_cast<off_t>(node->x_valid_size);
  exfat_node_unlock(node);
  int error = cluster_write(vp, nullptr, valid, f_offset, valid, 0, kHeadZeroFill);
  exfat_node_lock(node);
  if (error)
    return error;
  uint64_t end = static_cast<uint64_t>(f_offset);
  node->x_valid_size = end < node->x_size ? end : node->x_size;
  node->x_flags |= X_STREAM_DIRTY;
  return 0;
}

// Creates a page-out's page list. The caller holds x_io_lock and the node
// lock; the node lock is dropped while the list is made.
//
// Why: making the list waits for dirty pages that another thread holds busy,
// and a thread pushing a file's dirty pages (close, fsync, write-behind)
// holds them busy while block mapping takes the node lock. Waiting for them
// with the node lock held would deadlock; x_io_lock alone is safe, as
// nobody holds pages busy while waiting for it.
int exfat_pageout_list(vnode_t vp, struct exfat_node* node, off_t f_offset, size_t size,
                       int list_flags, upl_t* uplp, upl_page_info_t** plp) {
  exfat_node_unlock(node);
  int error = ubc_create_upl(vp, f_offset, static_cast<int>(size), uplp, plp, list_flags);
  exfat_node_lock(node);
  return error;
}

}  // namespace

// Fills the pages of [a_f_offset, a_f_offset + a_size) that are not resident.
// A request that straddles the valid length is cut at the page after it, and
// that part is read with the valid length as the end of file, so the rest
// of the page comes in as zeros; later pages are left for later faults.
// Holds x_io_lock throughout (and the node lock briefly, to note the access
// unless the mount is read-only or without access times). A page list
// passed in is fatal. Returns 0; EINVAL for a negative or misaligned offset
// or size, an offset at or past x_size, or a list that cannot be made; or
// the first page-in error.
int exfat_vnop_pagein(struct vnop_pagein_args* ap) {
  if (ap->a_pl != nullptr)
    panic("exfat_vnop_pagein: a_pl != NULL");
  vnode_t vp = ap->a_vp;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  off_t f_offset = ap->a_f_offset;
  size_t size = ap->a_size;

  lck_mtx_lock(node->x_io_lock);
  if (f_offset < 0 || page_misaligned(static_cast<uint64_t>(f_offset)) || page_misaligned(size) ||
      static_cast<uint64_t>(f_offset) >= node->x_size) {
    exfat_abort_request(vp, f_offset, size, kPageinListFlags);
    lck_mtx_unlock(node->x_io_lock);
    return EINVAL;
  }

  off_t filesize = static_cast<off_t>(node->x_size);
  const uint64_t valid = node->x_valid_size;
  const uint64_t start = static_cast<uint64_t>(f_offset);
  if (start < valid && valid < start + size) {
    uint64_t valid_page_end = (valid + PAGE_MASK) & ~static_cast<uint64_t>(PAGE_MASK);
    if (start + ap->a_pl_offset < valid_page_end) {
      size = static_cast<size_t>(valid_page_end - start);
      filesize = static_cast<off_t>(valid);
    } else {
      size = static_cast<size_t>(start + size - valid_page_end);
      f_offset = static_cast<off_t>(valid_page_end);
    }
  }

  struct exfat_page_walk walk = {.vp = vp,
                                 .node = node,
                                 .f_offset = f_offset,
                                 .size = size,
                                 .filesize = filesize,
                                 .flags = ap->a_flags,
                                 .pageout = false};
  int error = ubc_create_upl(vp, f_offset, static_cast<int>(size), &walk.upl, &walk.pl,
                             kPageinListFlags);
  if (error || walk.upl == nullptr) {
    lck_mtx_unlock(node->x_io_lock);
    return EINVAL;
  }
  error = exfat_page_walk(&walk);
  // Nothing absent means nothing was read: the request ends there, and an
  // access nobody made is not noted.
  if (error || walk.walked == 0) {
    lck_mtx_unlock(node->x_io_lock);
    return error;
  }

  if (!(vfs_flags(node->x_mount->xm_mp) & kNoAccessTime)) {
    exfat_node_lock(node);
    node->x_flags |= X_ACCESSED;
    exfat_node_unlock(node);
  }
  lck_mtx_unlock(node->x_io_lock);
  return 0;
}

// Writes the dirty pages of [a_f_offset, a_f_offset + a_size). A page-out
// that starts beyond the valid length first zero-fills the gap in the page
// cache and moves the valid length to its start; afterwards the valid length
// covers everything written (never past x_size), the node is marked
// modified and dirty, and a delayed metadata flush is requested when the
// valid length grew. Holds x_io_lock and the node lock (dropped around the
// cluster layer's calls and the list's creation). A page list passed in,
// or a clean page in the list, is fatal. Returns 0; EINVAL for a negative
// or misaligned offset or size, an offset at or past x_size, or a list that
// cannot be made; or the zero fill's or first page-out error, with the valid
// length and dirty bits of the page-out itself left unchanged.
int exfat_vnop_pageout(struct vnop_pageout_args* ap) {
  if (ap->a_pl != nullptr)
    panic("exfat_vnop_pageout: a_pl != NULL");
  vnode_t vp = ap->a_vp;
  auto* node = static_cast<struct exfat_node*>(vnode_fsnode(vp));
  const off_t f_offset = ap->a_f_offset;
  const size_t size = ap->a_size;
  const int list_flags = (ap->a_flags & UPL_MSYNC) ? kMsyncListFlags : kPageoutListFlags;

  lck_mtx_lock(node->x_io_lock);
  exfat_node_lock(node);
  int error = 0;
  if (f_offset < 0 || page_misaligned(static_cast<uint64_t>(f_offset)) ||
      static_cast<uint64_t>(f_offset) >= node->x_size || page_misaligned(size)) {
    error = EINVAL;
  } else if (node->x_valid_size != node->x_size &&
             static_cast<uint64_t>(f_offset) > node->x_valid_size) {
    error = exfat_pageout_fill_gap(vp, node, f_offset);
  }
  if (error) {
    exfat_node_unlock(node);
    exfat_abort_request(vp, f_offset, size, list_flags);
    lck_mtx_unlock(node->x_io_lock);
    return error;
  }

  struct exfat_page_walk walk = {.vp = vp,
                                 .node = node,
                                 .f_offset = f_offset,
                                 .size = size,
                                 .flags = ap->a_flags,
                                 .pageout = true};
  error = exfat_pageout_list(vp, node, f_offset, size, list_flags, &walk.upl, &walk.pl);
  if (error || walk.upl == nullptr) {
    exfat_node_unlock(node);
    lck_mtx_unlock(node->x_io_lock);
    return EINVAL;
  }
  // The end of file is read after the list is made: x_size can't change
  // while x_io_lock is held, so this is the size the walk runs against.
  walk.filesize = static_cast<off_t>(node->x_size);
  error = exfat_page_walk(&walk);
  // A list without a dirty page wrote nothing: the request ends there and
  // leaves the node as it was, so that it causes no entry rewrite either.
  if (!error && walk.walked != 0) {
    node->x_flags |= X_MODIFIED | X_DIRTY;
    uint64_t end = static_cast<uint64_t>(f_offset) + walk.walked;
    if (end > node->x_valid_size) {
      node->x_valid_size = end < node->x_size ? end : node->x_size;
      node->x_flags |= X_MODIFIED | X_DIRTY | X_STREAM_DIRTY;
      exfat_meta_flush(node->x_mount, 0);
    }
  }
  exfat_node_unlock(node);
  lck_mtx_unlock(node->x_io_lock);
  return error;
}

// The last mapping of the file went away: its dirty pages are pushed. The
// caller holds no driver lock (page-out takes them). Always returns 0.
int exfat_vnop_mnomap(struct vnop_mnomap_args* ap) {
  (void)ubc_msync(ap->a_vp, 0, ubc_getsize(ap->a_vp), nullptr, UBC_PUSHDIRTY);
  return 0;
}
