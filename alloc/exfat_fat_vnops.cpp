// The vnode operations of the FAT's own vnode ("<FAT>"): paging between the
// FAT vnode's page cache and the disk, the fixed block mapping of the FAT's
// sectors, fsync, inactive and reclaim.
//
// The FAT is one contiguous range of sectors from xf_fat_offset, so its
// mapping is arithmetic that never changes while the volume is mounted.
// Paging therefore takes no driver lock; the page cache serialises access
// to each page. Only fsync takes xm_fat_lock, to write back the FAT cache.

#include "host/buf.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/ubc.h"
#include "host/vnode.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_proto.h"

// Page-list flags: page-in wants only the pages not resident; page-out and
// msync want only the dirty ones.
#define EXFAT_FAT_PAGEIN_UPL (UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT)
#define EXFAT_FAT_PAGEOUT_UPL (UPL_UBC_PAGEOUT | UPL_RET_ONLY_DIRTY)
#define EXFAT_FAT_MSYNC_UPL (UPL_UBC_MSYNC | UPL_RET_ONLY_DIRTY)

static struct exfat_fat_node* exfat_fat_node_of(vnode_t vp) {
  return static_cast<struct exfat_fat_node*>(vnode_fsnode(vp));
}

// Refuses a malformed paging request: the page cache still expects its
// pages back, so a list is made for the range (when the host can make one)
// and aborted at once. Always returns EINVAL.
static int exfat_fat_refuse_paging(vnode_t vp, off_t f_offset, size_t size, int upl_flags) {
  upl_t upl = nullptr;
  if (ubc_create_upl(vp, f_offset, static_cast<int>(size), &upl, nullptr, upl_flags) == 0 &&
      upl != nullptr)
    ubc_upl_abort(upl, UPL_ABORT_FREE_ON_EMPTY);
  return EINVAL;
}

// One run of a page list to move: pages [first, end) of the list.
typedef int (*exfat_fat_run_io)(vnode_t vp, upl_t upl, upl_offset_t upl_offset, off_t f_offset,
                                int size, off_t filesize, int flags);

// Walks the pages of a freshly made list from the first to the last present
// one and hands each run of consecutive present pages to `io` (pagein or
// pageout). When `want_dirty` is set every present page must be dirty. Runs
// after a failed one are still issued; the first error is returned. A list
// with no present page is aborted whole and 0 is returned.
static int exfat_fat_page_runs(vnode_t vp, upl_t upl, upl_page_info_t* pl, off_t f_offset,
                               size_t size, int flags, exfat_fat_run_io io, bool want_dirty) {
  const struct exfat_fat_node* fnode = exfat_fat_node_of(vp);
  const int npages = static_cast<int>(size / PAGE_SIZE);

  int last = npages - 1;
  while (last >= 0 && !upl_page_present(pl, last))
    --last;
  if (last < 0) {
    ubc_upl_abort_range(upl, 0, static_cast<upl_size_t>(size), UPL_ABORT_FREE_ON_EMPTY);
    return 0;
  }

  int first_error = 0;
  int page = 0;
  while (page <= last) {
    if (!upl_page_present(pl, page)) {
      ++page;
      continue;
    }
    const int run_start = page;
    while (page <= last && upl_page_present(pl, page)) {
      if (want_dirty && !upl_dirty_page(pl, page))
        panic("exfat_vnop_pageout: unexpected clean page");
      ++page;
    }
    const upl_offset_t upl_offset = static_cast<upl_offset_t>(run_start) * PAGE_SIZE;
    int error = io(vp, upl, upl_offset, f_offset + upl_offset, (page - run_start) * PAGE_SIZE,
                   fnode->xf_fat_size, flags);
    if (error && first_error == 0)
      first_error = error;
  }
  return first_error;
}

// VNOP_PAGEIN of the FAT vnode: reads the absent pages of a page-aligned
// range within the FAT, in runs of consecutive absent pages; the tail of the
// last page past the FAT reads as zeros. The file system is registered so
// that no page list is passed in (a list is a caller error, fatal). Returns
// EINVAL for a negative, misaligned or out-of-range request or when no page
// list can be made, else the first cluster_pagein error or 0.
int exfat_fat_pagein(struct vnop_pagein_args* ap) {
  if (ap->a_pl != nullptr)
    panic("exfat_vnop_pagein: a_pl != NULL");
  vnode_t vp = ap->a_vp;
  const struct exfat_fat_node* fnode = exfat_fat_node_of(vp);
  const off_t f_offset = ap->a_f_offset;
  const size_t size = ap->a_size;

  if (f_offset < 0 || (f_offset & PAGE_MASK) != 0 || (size & PAGE_MASK) != 0 ||
      f_offset >= static_cast<off_t>(fnode->xf_fat_size))
    return exfat_fat_refuse_paging(vp, f_offset, size, EXFAT_FAT_PAGEIN_UPL);

  upl_t upl = nullptr;
  upl_page_info_t* pl = nullptr;
  int error = ubc_create_upl(vp, f_offset, static_cast<int>(size), &upl, &pl, EXFAT_FAT_PAGEIN_UPL);
  if (error || upl == nullptr)
    return EINVAL;
  return exfat_fat_page_runs(vp, upl, pl, f_offset, size, ap->a_flags, cluster_pagein, false);
}

// VNOP_PAGEOUT of the FAT vnode (also msync with UPL_MSYNC in the flags):
// writes the dirty pages of a page-aligned range within the FAT, in runs of
// consecutive dirty pages. Every page the list returns must be dirty (a
// clean one is fatal), and no page list may be passed in (fatal). Returns
// EINVAL for a bad request or when no list can be made, else the first
// cluster_pageout error or 0.
int exfat_fat_pageout(struct vnop_pageout_args* ap) {
  if (ap->a_pl != nullptr)
    panic("exfat_vnop_pageout: a_pl != NULL");
  vnode_t vp = ap->a_vp;
  const struct exfat_fat_node* fnode = exfat_fat_node_of(vp);
  const off_t f_offset = ap->a_f_offset;
  const size_t size = ap->a_size;
  const int upl_flags = (ap->a_flags & UPL_MSYNC) ? EXFAT_FAT_MSYNC_UPL : EXFAT_FAT_PAGEOUT_UPL;

  if (f_offset < 0 || (f_offset & PAGE_MASK) != 0 ||
      f_offset >= static_cast<off_t>(fnode->xf_fat_size) || (size & PAGE_MASK) != 0)
    return exfat_fat_refuse_paging(vp, f_offset, size, upl_flags);

  upl_t upl = nullptr;
  upl_page_info_t* pl = nullptr;
  int error = ubc_create_upl(vp, f_offset, static_cast<int>(size), &upl, &pl, upl_flags);
  if (error || upl == nullptr)
    return EINVAL;
  return exfat_fat_page_runs(vp, upl, pl, f_offset, size, ap->a_flags, cluster_pageout, true);
}

// VNOP_BLOCKMAP of the FAT vnode: the device sector of a FAT byte offset and
// how many bytes from there belong to the FAT (the request cut at the FAT's
// end). Takes no lock and does not look at the FAT cache. Returns 0, or
// EINVAL for an offset outside the FAT, which the page cache never asks for
// (the FAT is a fixed-size file).
int exfat_fat_blockmap(struct vnop_blockmap_args* ap) {
  if (ap->a_bpn == nullptr)
    return 0;
  const struct exfat_fat_node* fnode = exfat_fat_node_of(ap->a_vp);
  const uint32_t sector_size = fnode->xf_mount->xm_bytes_per_sector;
  const off_t f_offset = ap->a_foffset;
  if (f_offset < 0 || f_offset >= static_cast<off_t>(fnode->xf_fat_size))
    return EINVAL;

  *ap->a_bpn = static_cast<daddr64_t>(fnode->xf_fat_offset) + f_offset / sector_size;
  if (ap->a_run) {
    size_t run = ap->a_size;
    if (static_cast<uint64_t>(f_offset) + run > fnode->xf_fat_size)
      run = static_cast<size_t>(fnode->xf_fat_size - f_offset);
    *ap->a_run = run;
  }
  if (ap->a_poff)
    *static_cast<int*>(ap->a_poff) = static_cast<int>(f_offset % sector_size);
  return 0;
}

// VNOP_STRATEGY of the FAT vnode: the buffer's I/O goes to the volume's
// device (the host maps the buffer through exfat_fat_blockmap first).
int exfat_fat_strategy(struct vnop_strategy_args* ap) {
  const struct exfat_fat_node* fnode = exfat_fat_node_of(buf_vnode(ap->a_bp));
  return buf_strategy(fnode->xf_mount->xm_devvp, ap);
}

// VNOP_FSYNC of the FAT vnode: writes the FAT cache into the page cache
// (under xm_fat_lock, which the caller must not hold) and then pushes the
// vnode's dirty pages, waiting for them when a_waitfor is MNT_WAIT. Returns
// the cache write-back's error, in which case nothing is pushed (the block
// stays dirty for the next try), else the push's; either is recorded (the
// volume is not marked clean any more).
int exfat_fat_fsync(struct vnop_fsync_args* ap) {
  vnode_t vp = ap->a_vp;
  struct exfat_mount* mount = exfat_fat_node_of(vp)->xf_mount;
  const int ioflags = (ap->a_waitfor == MNT_WAIT) ? IO_SYNC : 0;

  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(mount->xm_fat_lock);
  int error = 0;
  if (mount->xm_fat_cache_dirty)
    error = exfat_fat_cache_flush(mount, ioflags);
  lck_mtx_unlock(mount->xm_fat_lock);
  if (error == 0)
    error = cluster_push(vp, ioflags);
  return exfat_note_write_error(mount, error);
}

// VNOP_INACTIVE of the FAT vnode: the vnode is never kept once the mount
// lets go of it.
int exfat_fat_inactive(struct vnop_inactive_args* ap) {
  vnode_recycle(ap->a_vp);
  return 0;
}

// VNOP_RECLAIM of the FAT vnode: detaches and frees the exfat_fat_node.
int exfat_fat_reclaim(struct vnop_reclaim_args* ap) {
  void* fnode = vnode_fsnode(ap->a_vp);
  vnode_clearfsnode(ap->a_vp);
  if (fnode != nullptr)
    OSFree(fnode, sizeof(struct exfat_fat_node), exfat_malloc_tag);
  return 0;
}
