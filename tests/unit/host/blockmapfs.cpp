#include "blockmapfs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/cluster.h"
#include "host/ubc.h"
#include "host/uio.h"

namespace {

constexpr uint32_t kSector = 512;
constexpr uint32_t kBlock = 4096;

struct bmfs_mount {
  std::mutex lock;
  int64_t next_free = 0;  // bump allocator for write mappings (device blocks)
  vnode_t devvp = nullptr;
};

VOPFUNC* bmfs_vnodeop_p;

bmfs_file* file_of(vnode_t vp) { return static_cast<bmfs_file*>(vnode_fsnode(vp)); }
bmfs_mount* bm_of(vnode_t vp) { return static_cast<bmfs_mount*>(vfs_fsprivate(vnode_mount(vp))); }

int64_t block_at(bmfs_file* f, uint64_t b) { return b < f->blocks.size() ? f->blocks[b] : -1; }

// Gives the holes of file blocks [first, last) fresh, consecutive device blocks.
void allocate_locked(bmfs_file* f, bmfs_mount* bm, uint64_t first, uint64_t last) {
  if (f->blocks.size() < last) f->blocks.resize(last, -1);
  std::lock_guard<std::mutex> g(bm->lock);
  for (uint64_t b = first; b < last; b++)
    if (f->blocks[b] == -1) f->blocks[b] = bm->next_free++;
}

int bm_blockmap(void* v) {
  auto* ap = static_cast<struct vnop_blockmap_args*>(v);
  bmfs_file* f = file_of(ap->a_vp);
  f->blockmaps++;
  EXPECT_GT(ap->a_size, 0u);
  std::lock_guard<std::mutex> g(f->lock);
  off_t off = ap->a_foffset;
  if (off < 0 || off >= f->size) return EINVAL;
  uint64_t b = uint64_t(off) / kBlock;
  uint64_t last = (uint64_t(off) + ap->a_size + kBlock - 1) / kBlock;
  if (!(ap->a_flags & VNODE_READ)) allocate_locked(f, bm_of(ap->a_vp), b, last);
  int64_t first = block_at(f, b);
  uint64_t n = 1;
  while (b + n < last &&
         (first == -1 ? block_at(f, b + n) == -1 : block_at(f, b + n) == first + int64_t(n)))
    n++;
  uint32_t in = uint32_t(off % kBlock);
  size_t run = std::min<size_t>(n * kBlock - in, ap->a_size);
  *ap->a_bpn = first == -1 ? -1 : first * (kBlock / kSector) + in / kSector;
  if (ap->a_run) *ap->a_run = run;
  if (ap->a_poff) *static_cast<int*>(ap->a_poff) = int(in % kSector);
  return 0;
}

int bm_strategy(void* v) {
  auto* ap = static_cast<struct vnop_strategy_args*>(v);
  return buf_strategy(bm_of(buf_vnode(ap->a_bp))->devvp, ap);
}

int bm_blktooff(void* v) {
  auto* ap = static_cast<struct vnop_blktooff_args*>(v);
  *ap->a_offset = ap->a_lblkno * kBlock;
  return 0;
}

// Consecutive pages present in the list (and dirty, for a pageout) go to
// the cluster layer together; -1 when the list holds no page.
template <class F>
int walk_runs(upl_page_info_t* pl, int npages, bool dirty, F call) {
  int last = npages - 1;
  while (last >= 0 && !upl_page_present(pl, last)) last--;
  if (last < 0) return -1;
  int error = 0;
  for (int i = 0; i <= last;) {
    if (!upl_page_present(pl, i)) {
      i++;
      continue;
    }
    int j = i;
    while (j <= last && upl_page_present(pl, j) && (!dirty || upl_dirty_page(pl, j))) j++;
    int e = call(i, j - i);
    if (e && !error) error = e;
    i = j;
  }
  return error;
}

// Pagein and pageout under the file's I/O lock, over a list of the absent or
// dirty pages.
template <bool kOut, class Args>
int bm_page(Args* ap) {
  EXPECT_EQ(ap->a_pl, nullptr);
  bmfs_file* f = file_of(ap->a_vp);
  std::lock_guard<std::mutex> io(f->io_lock);
  (kOut ? f->pageouts : f->pageins)++;
  off_t size;
  {
    std::lock_guard<std::mutex> g(f->lock);
    size = f->size;
  }
  upl_t upl;
  upl_page_info_t* pl;
  int flags =
      !kOut ? UPL_UBC_PAGEIN | UPL_RET_ONLY_ABSENT
            : ((ap->a_flags & UPL_MSYNC) ? UPL_UBC_MSYNC : UPL_UBC_PAGEOUT) | UPL_RET_ONLY_DIRTY;
  if (ap->a_f_offset < 0 || ap->a_f_offset >= size ||
      ubc_create_upl(ap->a_vp, ap->a_f_offset, int(ap->a_size), &upl, &pl, flags) != 0)
    return EINVAL;
  int npages = int(ap->a_size / PAGE_SIZE);
  int error = walk_runs(pl, npages, kOut, [&](int i, int n) {
    upl_offset_t at = upl_offset_t(i * PAGE_SIZE);
    off_t foff = ap->a_f_offset + off_t(i) * PAGE_SIZE;
    if (!kOut) return cluster_pagein(ap->a_vp, upl, at, foff, n * PAGE_SIZE, size, ap->a_flags);
    for (int k = i; k < i + n; k++)
      EXPECT_TRUE(upl_dirty_page(pl, k)) << "clean page in a page-out list";
    f->pageout_pages += n;
    return cluster_pageout(ap->a_vp, upl, at, foff, n * PAGE_SIZE, size, ap->a_flags);
  });
  if (error == -1) {
    ubc_upl_abort_range(upl, 0, upl_size_t(ap->a_size), UPL_ABORT_FREE_ON_EMPTY);
    return 0;
  }
  return error;
}

int bm_pagein(void* v) { return bm_page<false>(static_cast<struct vnop_pagein_args*>(v)); }
int bm_pageout(void* v) { return bm_page<true>(static_cast<struct vnop_pageout_args*>(v)); }

int bm_reclaim(void* v) {
  auto* ap = static_cast<struct vnop_reclaim_args*>(v);
  bmfs_file* f = file_of(ap->a_vp);
  if (f != nullptr) f->vp = nullptr;
  vnode_clearfsnode(ap->a_vp);
  return 0;
}

const struct vnodeopv_entry_desc bmfs_entries[] = {
    {&vnop_default_desc, vn_default_error},
    {&vnop_blockmap_desc, bm_blockmap},
    {&vnop_strategy_desc, bm_strategy},
    {&vnop_blktooff_desc, bm_blktooff},
    {&vnop_pagein_desc, bm_pagein},
    {&vnop_pageout_desc, bm_pageout},
    {&vnop_reclaim_desc, bm_reclaim},
    {&vnop_bwrite_desc, vn_bwrite},
    {nullptr, nullptr},
};

struct vnodeopv_desc bmfs_opv_desc = {&bmfs_vnodeop_p, bmfs_entries};

int bm_vfs_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx) {
  auto* bm = new bmfs_mount;
  bm->devvp = devvp;
  vfs_setfsprivate(mp, bm);
  return 0;
}

int bm_vfs_unmount(mount_t mp, int mntflags, vfs_context_t ctx) {
  int error = vflush(mp, nullptr, FORCECLOSE);
  if (error) return error;
  delete static_cast<bmfs_mount*>(vfs_fsprivate(mp));
  vfs_setfsprivate(mp, nullptr);
  return 0;
}

struct vfsops bmfs_vfsops = {bm_vfs_mount, nullptr, bm_vfs_unmount};

void bmfs_register() {
  static bool done = [] {
    struct vnodeopv_desc* descs[] = {&bmfs_opv_desc};
    struct vfs_fsentry vfe = {};
    vfe.vfe_vfsops = &bmfs_vfsops;
    vfe.vfe_vopcnt = 1;
    vfe.vfe_opvdescs = descs;
    strncpy(vfe.vfe_fsname, "blockmapfs", MFSNAMELEN - 1);
    vfe.vfe_flags = VFS_TBLTHREADSAFE | VFS_TBLNOTYPENUM | VFS_TBLLOCALVOL | VFS_TBL64BITREADY |
                    VFS_TBLVNOP_PAGEINV2 | VFS_TBLVNOP_PAGEOUTV2;
    vfstable_t h = nullptr;
    EXPECT_EQ(vfs_fsadd(&vfe, &h), 0);
    return true;
  }();
  (void)done;
}

}  // namespace

BlockMapFs::BlockMapFs(uint64_t dev_bytes) {
  bmfs_register();
  EXPECT_EQ(host_memdev_create(dev_bytes, kSector, kBlock, &devvp_), 0);
  EXPECT_EQ(host_mount("blockmapfs", devvp_, 0, nullptr, 0, &mp_), 0);
  // Write mappings allocate from the second half; tests lay out the first.
  static_cast<bmfs_mount*>(vfs_fsprivate(mp_))->next_free = int64_t(dev_bytes / kBlock / 2);
}

BlockMapFs::~BlockMapFs() {
  for (bmfs_file* f : files_)
    if (f->vp != nullptr) release(f);
  if (mp_ != nullptr) {
    EXPECT_EQ(host_unmount(mp_, MNT_FORCE), 0);
  }
  if (devvp_ != nullptr) host_blkdev_close(devvp_);
  for (bmfs_file* f : files_) delete f;
}

bmfs_file* BlockMapFs::create(off_t size, const std::vector<bmfs_run>& runs) {
  auto* f = new bmfs_file;
  f->size = size;
  for (const bmfs_run& r : runs)
    for (uint32_t i = 0; i < r.blocks; i++)
      f->blocks.push_back(r.dev_block == -1 ? -1 : r.dev_block + i);
  struct vnode_fsparam p = {};
  p.vnfs_mp = mp_;
  p.vnfs_vtype = VREG;
  p.vnfs_str = "blockmapfs";
  p.vnfs_fsnode = f;
  p.vnfs_vops = bmfs_vnodeop_p;
  p.vnfs_filesize = size;
  p.vnfs_flags = VNFS_NOCACHE;
  EXPECT_EQ(vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, &f->vp), 0);
  files_.push_back(f);
  return f;
}

void BlockMapFs::release(bmfs_file* f) {
  vnode_t vp = f->vp;
  vnode_recycle(vp);
  vnode_put(vp);
}

int BlockMapFs::write(bmfs_file* f, off_t off, const void* data, size_t len, int flags) {
  std::lock_guard<std::mutex> io(f->io_lock);
  off_t old;
  off_t nsize;
  {
    std::lock_guard<std::mutex> g(f->lock);
    old = f->size;
    nsize = std::max<off_t>(old, off + off_t(len));
    f->size = nsize;
  }
  if (nsize > old) ubc_setsize(f->vp, nsize);
  uio_t uio = uio_create(1, off, UIO_SYSSPACE, UIO_WRITE);
  uio_addiov(uio, reinterpret_cast<user_addr_t>(data), len);
  int flagsx = flags;
  off_t head = 0;
  if (off > old) {
    flagsx |= IO_HEADZEROFILL;
    head = old;
  }
  int error = cluster_write(f->vp, uio, old, nsize, head, 0, flagsx);
  uio_free(uio);
  return error;
}

int BlockMapFs::read(bmfs_file* f, off_t off, void* data, size_t len, size_t* resid) {
  std::lock_guard<std::mutex> io(f->io_lock);
  off_t size;
  {
    std::lock_guard<std::mutex> g(f->lock);
    size = f->size;
  }
  uio_t uio = uio_create(1, off, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, reinterpret_cast<user_addr_t>(data), len);
  int error = cluster_read(f->vp, uio, size, 0);
  if (resid) *resid = size_t(uio_resid(uio));
  uio_free(uio);
  return error;
}

std::vector<char> BlockMapFs::on_device(bmfs_file* f) {
  std::lock_guard<std::mutex> g(f->lock);
  std::vector<char> out(size_t(f->size), 0);
  for (uint64_t b = 0; b * kBlock < uint64_t(f->size); b++) {
    int64_t d = block_at(f, b);
    size_t n = std::min<size_t>(kBlock, size_t(f->size) - b * kBlock);
    if (d != -1) {
      EXPECT_EQ(host_memdev_read(devvp_, out.data() + b * kBlock, n, uint64_t(d) * kBlock), 0);
    }
  }
  return out;
}

void BlockMapFs::fill(bmfs_file* f, char byte) {
  std::lock_guard<std::mutex> g(f->lock);
  std::vector<char> block(kBlock, byte);
  for (int64_t d : f->blocks)
    if (d != -1) {
      ASSERT_EQ(host_memdev_load(devvp_, block.data(), kBlock, uint64_t(d) * kBlock), 0);
    }
}

int BlockMapFs::set_size(bmfs_file* f, off_t size) {
  {
    std::lock_guard<std::mutex> g(f->lock);
    f->size = size;
  }
  return ubc_setsize(f->vp, size);
}

std::string BlockMapFs::random_op(bmfs_file* f, std::vector<char>& model, std::mt19937& rng,
                                  size_t max_len, unsigned write_percent) {
  off_t off = off_t(rng() % uint32_t(model.size()));
  size_t len = 1 + (rng() % 8 == 0 ? rng() % 20 : rng() % max_len);
  len = std::min(len, model.size() - size_t(off));
  bool write = rng() % 100 < write_percent;
  std::string what = std::string(write ? "write" : "read") + " of " + std::to_string(len) + " at " +
                     std::to_string(off);
  if (write) {
    std::vector<char> d = random_bytes(len, uint32_t(rng()));
    if (int e = this->write(f, off, d.data(), len); e != 0)
      return what + ": error " + std::to_string(e);
    memcpy(model.data() + off, d.data(), len);
  } else {
    std::vector<char> got(len);
    if (int e = read(f, off, got.data(), len); e != 0) return what + ": error " + std::to_string(e);
    if (memcmp(got.data(), model.data() + off, len) != 0) return what + ": differs from the model";
  }
  return "";
}

std::vector<char> random_bytes(size_t n, uint32_t seed) {
  std::vector<char> v(n);
  std::mt19937 rng(seed);
  for (auto& c : v) c = char(rng());
  return v;
}
