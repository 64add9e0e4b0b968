// Block mapping: from a cluster index within a file or directory to the
// device sector and cluster that hold it, through the node's one-run extent
// cache; and the vnode operations with which the page cache maps regular
// file I/O (blockmap, strategy, blktooff, offtoblk).
//
// Locking: the extent cache (x_extent_cluster, x_extent_index,
// x_extent_length) and every FAT access are under xm_fat_lock. The blockmap
// vnode operation holds the node lock around the mapping so that sizes and
// allocation hold still: node lock first, then xm_fat_lock.

#include <algorithm>

#include "host/buf.h"
#include "host/kern.h"
#include "host/vnode.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_proto.h"

// Fills the outputs for file cluster `index` lying `into` clusters into the
// run that starts at `run_cluster` and is `run_length` clusters long.
static void exfat_blockmap_output(const struct exfat_node* node, uint32_t run_cluster,
                                  uint32_t run_length, uint32_t into, uint32_t count,
                                  uint64_t* sector, uint32_t* cluster, uint64_t* bytes) {
  const struct exfat_mount* mount = node->x_mount;
  const uint32_t c = run_cluster + into;
  if (sector)
    *sector = exfat_cluster_to_sector(mount, c);
  if (cluster)
    *cluster = c;
  if (bytes)
    *bytes = static_cast<uint64_t>(mount->xm_bytes_per_cluster) * std::min(run_length - into, count);
}

// Measures the run of consecutive clusters that starts at `first` (a valid
// cluster), at most `limit` (>= 1) of them: *length receives its length and
// *next the FAT value that follows its last cluster, the next link of the
// chain. A run never passes xm_max_cluster. The caller holds xm_fat_lock.
// Returns exfat_fat_map's error.
static int exfat_measure_run(struct exfat_mount* mount, uint32_t first, uint32_t limit,
                             uint32_t* length, uint32_t* next) {
  uint32_t c = first;
  uint32_t n = 1;
  for (;;) {
    int error = 0;
    uint32_t* entry = exfat_fat_map(mount, c, &error);
    if (entry == nullptr)
      return error;
    const uint32_t value = le32dec(entry);
    if (value != c + 1 || value > mount->xm_max_cluster || n == limit) {
      *length = n;
      *next = value;
      return 0;
    }
    c = value;
    ++n;
  }
}

// Maps file cluster `index` of the node: *sector is the first device sector
// of the cluster that holds it, *cluster that cluster's number, and *bytes
// the bytes contiguous on disk from there, at most `count` clusters' worth.
// Any out-pointer may be NULL; a `count` of 0 is a caller error (fatal).
// The caller holds xm_fat_lock. A lookup that walks the FAT replaces the
// extent cache with the run it found; a failed lookup leaves the cache
// alone. Returns E2BIG for an index at or past x_size or past the end of
// the chain, EIO with XM_CORRUPT for a bad link or a chain that loops, or a
// FAT read error.
int exfat_blockmap_internal(struct exfat_node* node, uint32_t index, uint32_t count,
                            uint64_t* sector, uint32_t* cluster, uint64_t* bytes) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  if (count == 0)
    panic("exfat_blockmap_internal: numclusters == 0");
  if (sector == nullptr && cluster == nullptr && bytes == nullptr)
    return 0;
  if (static_cast<uint64_t>(index) * mount->xm_bytes_per_cluster >= node->x_size)
    return E2BIG;

  // Cache hit: always the case for a contiguous node.
  if (node->x_extent_index <= index && index - node->x_extent_index < node->x_extent_length) {
    exfat_blockmap_output(node, node->x_extent_cluster, node->x_extent_length,
                          index - node->x_extent_index, count, sector, cluster, bytes);
    return 0;
  }

  // Walk from the end of the cached run when it lies before the index,
  // otherwise from the start of the chain.
  uint32_t link;
  uint32_t run_index;
  if (node->x_extent_length != 0 && node->x_extent_index < index) {
    int error = exfat_fat_get_set_internal(
        EXFAT_FAT_GET, mount, node->x_extent_cluster + node->x_extent_length - 1, &link, 0);
    if (error)
      return error;
    run_index = node->x_extent_index + node->x_extent_length;
  } else {
    link = node->x_start_cluster;
    run_index = 0;
  }

  const uint64_t file_clusters =
      (node->x_size + mount->xm_bytes_per_cluster - 1) / mount->xm_bytes_per_cluster;
  uint32_t passed_index = run_index;  // index of the run just passed
  uint32_t run_cluster = 0;
  uint32_t run_length = 0;
  while (run_index <= index) {
    if (link >= EXFAT_FAT_CHAIN_END)
      return E2BIG;  // the chain is shorter than x_size says
    if (passed_index > mount->xm_max_cluster) {
      kprintf("exfat_blockmap_internal: corrupt cluster chain detected\n");
      exfat_set_corrupt(mount);
      return EIO;
    }
    if (!exfat_cluster_valid(mount, link)) {
      exfat_set_corrupt(mount);
      return EIO;
    }
    run_cluster = link;
    // The run is cut at the end of the file: past it the chain may go on
    // (a truncated tail waiting to be freed, or a damaged chain longer than
    // its file) and be relinked when the file grows, which a cached run
    // reaching over it would never see.
    const uint32_t limit =
        static_cast<uint32_t>(std::min<uint64_t>(file_clusters - run_index, UINT32_MAX));
    int error = exfat_measure_run(mount, run_cluster, limit, &run_length, &link);
    if (error)
      return error;
    passed_index = run_index;
    run_index += run_length;
  }

  node->x_extent_index = passed_index;
  node->x_extent_cluster = run_cluster;
  node->x_extent_length = run_length;
  exfat_blockmap_output(node, run_cluster, run_length, index - passed_index, count, sector,
                        cluster, bytes);
  return 0;
}

// exfat_blockmap_internal for callers that do not hold xm_fat_lock (every
// caller outside the allocation code): takes and releases it around the
// lookup.
int exfat_blockmap(struct exfat_node* node, uint32_t index, uint32_t count, uint64_t* sector,
                   uint32_t* cluster, uint64_t* bytes) {
  struct exfat_mount* mount = node->x_mount;
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(mount->xm_fat_lock);
  int error = exfat_blockmap_internal(node, index, count, sector, cluster, bytes);
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

// Reports [offset, offset + size) of a read past the valid data as a hole,
// which the cluster layer fills with zeros. The run ends at the end of the
// allocation; an offset at or past it (the page cache does not ask for one)
// has the whole request reported as a hole.
static void exfat_blockmap_hole(const struct exfat_node* node, struct vnop_blockmap_args* ap) {
  const struct exfat_mount* mount = node->x_mount;
  const uint64_t cluster_size = mount->xm_bytes_per_cluster;
  const uint64_t allocated = (node->x_size + cluster_size - 1) / cluster_size * cluster_size;
  const uint64_t offset = static_cast<uint64_t>(ap->a_foffset);
  *ap->a_bpn = -1;
  if (ap->a_run)
    *ap->a_run = offset < allocated ? std::min<uint64_t>(allocated - offset, ap->a_size) : ap->a_size;
  if (ap->a_poff)
    *static_cast<int*>(ap->a_poff) = static_cast<int>(offset % mount->xm_bytes_per_sector);
}

// Maps a byte range of a regular file for the cluster layer, under the node
// lock (taken here; the caller may already hold it, the lock is recursive).
// For reads, data at or past the valid size (rounded up to a sector) is a
// hole (*a_bpn = -1), and a range crossing it is mapped only up to it. A
// write maps real sectors up to x_size. A NULL a_bpn asks for nothing; a
// size of 0 is a caller error (fatal). Returns EINVAL for a range past the
// allocation, EIO or a FAT read error.
int exfat_vnop_blockmap(struct vnop_blockmap_args* ap) {
  if (ap->a_bpn == nullptr)
    return 0;
  if (ap->a_size == 0)
    panic("exfat_vnop_blockmap: size == 0");

  struct exfat_node* node = static_cast<struct exfat_node*>(vnode_fsnode(ap->a_vp));
  const struct exfat_mount* mount = node->x_mount;
  const uint64_t cluster_size = mount->xm_bytes_per_cluster;
  const uint64_t sector_size = mount->xm_bytes_per_sector;
  const uint64_t offset = static_cast<uint64_t>(ap->a_foffset);
  uint64_t size = ap->a_size;
  int error = 0;

  exfat_node_lock(node);
  if ((ap->a_flags & VNODE_READ) && node->x_valid_size < node->x_size) {
    const uint64_t valid_end = (node->x_valid_size + sector_size - 1) / sector_size * sector_size;
    if (offset >= valid_end) {
      exfat_blockmap_hole(node, ap);
      goto out;
    }
    if (offset + size > valid_end)
      size = valid_end - offset;
  }
  {
    const uint64_t first = offset / cluster_size;
    const uint64_t last = (offset + size - 1) / cluster_size;
    uint64_t sector = 0;
    uint64_t bytes = 0;
    // Cluster indexes beyond 32 bits lie past any allocation: the lookup's
    // own size check refuses them once truncated to the largest index.
    error = exfat_blockmap(node, static_cast<uint32_t>(std::min<uint64_t>(first, UINT32_MAX)),
                           static_cast<uint32_t>(std::min<uint64_t>(last - first + 1, UINT32_MAX)),
                           &sector, nullptr, &bytes);
    if (error == E2BIG) {
      error = EINVAL;
    } else if (error == 0) {
      const uint64_t into = offset % cluster_size;
      *ap->a_bpn = static_cast<daddr64_t>(sector + into / sector_size);
      if (ap->a_run)
        *ap->a_run = static_cast<size_t>(std::min<uint64_t>(bytes - into, ap->a_size));
      if (ap->a_poff)
        *static_cast<int*>(ap->a_poff) = static_cast<int>(offset % sector_size);
    }
  }
out:
  exfat_node_unlock(node);
  return error;
}

// VNOP_STRATEGY of files, directories and the bitmap and up-case files: the
// buffer's I/O goes to the volume's device; the host maps the buffer's block
// through exfat_vnop_blockmap first when it is not mapped yet.
int exfat_vnop_strategy(struct vnop_strategy_args* ap) {
  const struct exfat_node* node = static_cast<struct exfat_node*>(vnode_fsnode(buf_vnode(ap->a_bp)));
  return buf_strategy(node->x_mount->xm_devvp, ap);
}

// Logical block to byte offset, for the page cache's fixed 4096-byte logical
// blocks. Returns EINVAL without a vnode.
int exfat_vnop_blktooff(struct vnop_blktooff_args* ap) {
  if (ap->a_vp == NULLVP)
    return EINVAL;
  *ap->a_offset = static_cast<off_t>(ap->a_lblkno) << EXFAT_LOGICAL_BLOCK_SHIFT;
  return 0;
}

// Byte offset to the logical block that holds it (4096-byte blocks).
// Returns EINVAL without a vnode.
int exfat_vnop_offtoblk(struct vnop_offtoblk_args* ap) {
  if (ap->a_vp == NULLVP)
    return EINVAL;
  *ap->a_lblkno = static_cast<daddr64_t>(ap->a_offset >> EXFAT_LOGICAL_BLOCK_SHIFT);
  return 0;
}
