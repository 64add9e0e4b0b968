// FAT access: the FAT system vnode's life, the one-block write-back FAT cache
// through which every FAT entry is read and written, and the walk that finds
// the last cluster of a file.
//
// Locking: xm_fat_lock guards the cache (xm_fat_cache, xm_fat_cache_offset,
// xm_fat_cache_dirty), every FAT entry and the extent cache of every node.
// Where both allocation locks are needed, xm_bitmap_lock comes first.

#include <algorithm>
#include <cstring>

#include "host/cluster.h"
#include "host/kern.h"
#include "host/uio.h"
#include "host/vnode.h"

#include "alloc/exfat_alloc_private.h"
#include "exfat_proto.h"

// Moves `length` bytes between `buffer` and the system file `vp` at byte
// `offset` through the file's page cache: a read with cluster_read, or a
// write with cluster_write that keeps the file size at `filesize`. The
// caller holds the lock of the cache that owns `buffer`. Returns 0, ENOMEM
// when the uio cannot be made, or the cluster layer's error.
int exfat_cache_io(vnode_t vp, void* buffer, uint32_t offset, uint32_t length, uint32_t filesize,
                   int rw, int ioflags) {
  uio_t uio = uio_create(1, offset, UIO_SYSSPACE, rw);
  if (uio == nullptr)
    return ENOMEM;
  int error = uio_addiov(uio, static_cast<user_addr_t>(reinterpret_cast<uintptr_t>(buffer)), length);
  if (error == 0) {
    if (rw == UIO_READ)
      error = cluster_read(vp, uio, filesize, 0);
    else
      error = cluster_write(vp, uio, filesize, filesize, 0, 0, ioflags);
  }
  uio_free(uio);
  return error;
}

// Creates the "<FAT>" vnode and both one-block caches. Called once at mount
// with nothing locked, after the geometry fields are set; takes xm_fat_lock
// for the whole operation. Returns ENOMEM when the FAT node or a cache
// cannot be allocated, or vnode_create's error. On failure whatever was
// made stays in the mount record for exfat_fat_uninit_vol to release.
int exfat_fat_init_vol(struct exfat_mount* mount) {
  lck_mtx_lock(mount->xm_fat_lock);

  int error = 0;
  auto* fnode =
      static_cast<struct exfat_fat_node*>(OSMalloc(sizeof(struct exfat_fat_node), exfat_malloc_tag));
  if (fnode == nullptr) {
    error = ENOMEM;
    goto out;
  }
  fnode->xf_mount = mount;
  fnode->xf_fat_offset = mount->xm_fat_offset;
  fnode->xf_fat_size = mount->xm_fat_size;

  {
    struct vnode_fsparam param;
    exfat_vnode_param_init(&param, mount->xm_mp, VREG, fnode, exfat_fat_vnodeop_p,
                           mount->xm_fat_size, VNFS_CANTCACHE);
    param.vnfs_marksystem = 1;
    error = vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &param, &mount->xm_fat_vp);
  }
  if (error) {
    mount->xm_fat_vp = NULLVP;
    OSFree(fnode, sizeof(struct exfat_fat_node), exfat_malloc_tag);
    goto out;
  }

  // The mount keeps a use-count reference for its whole life and no I/O
  // reference, so that the vnode goes inactive only at exfat_fat_uninit_vol.
  vnode_update_identity(mount->xm_fat_vp, NULLVP, "<FAT>", 0, 0, VNODE_UPDATE_NAME);
  vnode_ref(mount->xm_fat_vp);
  vnode_put(mount->xm_fat_vp);

  mount->xm_fat_cache = static_cast<uint32_t*>(OSMalloc(EXFAT_META_CACHE_SIZE, exfat_malloc_tag));
  if (mount->xm_fat_cache == nullptr) {
    error = ENOMEM;
    goto out;
  }
  mount->xm_fat_cache_offset = EXFAT_CACHE_NONE;
  mount->xm_fat_cache_dirty = 0;

  mount->xm_bitmap_cache = static_cast<uint32_t*>(OSMalloc(EXFAT_META_CACHE_SIZE, exfat_malloc_tag));
  if (mount->xm_bitmap_cache == nullptr) {
    error = ENOMEM;
    goto out;
  }
  mount->xm_bitmap_cache_offset = EXFAT_CACHE_NONE;
  mount->xm_bitmap_cache_dirty = 0;

out:
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

// Releases one system vnode held by the mount with a use-count reference:
// pushes its dirty pages, asks for it to be reclaimed once unused, and drops
// the reference (which makes it unused).
static void exfat_release_system_vnode(vnode_t* vpp) {
  if (*vpp == NULLVP)
    return;
  cluster_push(*vpp, IO_SYNC);
  vnode_recycle(*vpp);
  vnode_rele(*vpp);
  *vpp = NULLVP;
}

// Releases the bitmap and FAT system vnodes and both caches, at unmount or
// when a mount fails part-way. The caches are not written back here: callers
// flush them first (unmount fsyncs both system vnodes). Nothing is locked by
// the caller; no other thread can reach the mount any more.
void exfat_fat_uninit_vol(struct exfat_mount* mount) {
  exfat_release_system_vnode(&mount->xm_bitmap_vp);
  exfat_release_system_vnode(&mount->xm_fat_vp);

  if (mount->xm_bitmap_cache != nullptr) {
    OSFree(mount->xm_bitmap_cache, EXFAT_META_CACHE_SIZE, exfat_malloc_tag);
    mount->xm_bitmap_cache = nullptr;
  }
  if (mount->xm_fat_cache != nullptr) {
    OSFree(mount->xm_fat_cache, EXFAT_META_CACHE_SIZE, exfat_malloc_tag);
    mount->xm_fat_cache = nullptr;
  }
}

// Length of the FAT block at byte `block`: a full 4096 bytes except for a
// short last block.
static uint32_t exfat_fat_block_length(const struct exfat_mount* mount, uint32_t block) {
  return std::min(EXFAT_META_CACHE_SIZE, mount->xm_fat_size - block);
}

// Returns a pointer to the little-endian FAT entry of `cluster` inside
// xm_fat_cache, moving the cache to the entry's block when needed (writing a
// dirty block back first). The caller holds xm_fat_lock; the pointer is
// valid until the next call that maps another block and only while the lock
// is held. Returns NULL with the error stored through `error` (which may be
// NULL): the write-back's or the read's error, or ENOMEM. After such an
// error the cache is empty and a block that could not be written back has
// lost its changes (recorded: the volume is not marked clean).
uint32_t* exfat_fat_map(struct exfat_mount* mount, uint32_t cluster, int* error) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);

  const uint32_t byte = cluster * EXFAT_FAT_ENTRY_SIZE;  // 32-bit arithmetic on purpose
  const uint32_t block = byte & ~EXFAT_META_CACHE_MASK;
  const uint32_t in_block = byte & EXFAT_META_CACHE_MASK;

  // An entry past the end of the FAT can only come from a corrupt cluster
  // number (a FirstCluster beyond the heap). It is refused before the cache
  // is touched, so that a dirty block is neither lost nor paired with the
  // wrong offset.
  if (byte >= mount->xm_fat_size) {
    kprintf("exfat_fat_map: cluster %u lies past the end of the FAT\n", cluster);
    exfat_set_corrupt(mount);
    if (error)
      *error = EIO;
    return nullptr;
  }

  int err = 0;
  if (block != mount->xm_fat_cache_offset) {
    // The block's changes are lost if its write-back fails (see below).
    if (mount->xm_fat_cache_dirty)
      err = exfat_note_write_error(mount, exfat_fat_cache_flush(mount, 0));
    if (err == 0) {
      mount->xm_fat_cache_offset = block;
      err = exfat_cache_io(mount->xm_fat_vp, mount->xm_fat_cache, block,
                           exfat_fat_block_length(mount, block), mount->xm_fat_size, UIO_READ, 0);
    }
  }
  if (error)
    *error = err;
  if (err) {
    mount->xm_fat_cache_offset = EXFAT_CACHE_NONE;
    mount->xm_fat_cache_dirty = 0;
    return nullptr;
  }
  return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(mount->xm_fat_cache) + in_block);
}

// Writes the cached FAT block into the FAT vnode's page cache if it is
// dirty. `ioflags` goes to cluster_write: 0, or IO_SYNC to wait for the
// disk. The caller holds xm_fat_lock. The block stays cached either way; the
// dirty flag is cleared only on success. Returns 0, ENOMEM or the write's
// error.
int exfat_fat_cache_flush(struct exfat_mount* mount, int ioflags) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  if (!mount->xm_fat_cache_dirty)
    return 0;
  const uint32_t block = mount->xm_fat_cache_offset;
  int error = exfat_cache_io(mount->xm_fat_vp, mount->xm_fat_cache, block,
                             exfat_fat_block_length(mount, block), mount->xm_fat_size, UIO_WRITE,
                             ioflags);
  if (error == 0)
    mount->xm_fat_cache_dirty = 0;
  return error;
}

// Reads (EXFAT_FAT_GET: through `old_value`) and/or replaces
// (EXFAT_FAT_SET: with `new_value`) the FAT entry of `cluster`. The caller
// holds xm_fat_lock. The stored value is not checked: callers store only
// next-cluster numbers or EXFAT_FAT_EOC. Returns EIO and sets XM_CORRUPT
// for a cluster outside 2..xm_max_cluster, or exfat_fat_map's error.
int exfat_fat_get_set_internal(int op, struct exfat_mount* mount, uint32_t cluster,
                               uint32_t* old_value, uint32_t new_value) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_OWNED);
  if (!exfat_cluster_valid(mount, cluster)) {
    exfat_set_corrupt(mount);
    return EIO;
  }
  int error = 0;
  uint32_t* entry = exfat_fat_map(mount, cluster, &error);
  if (entry == nullptr)
    return error;
  if (op & EXFAT_FAT_GET)
    *old_value = le32dec(entry);
  if (op & EXFAT_FAT_SET) {
    le32enc(entry, new_value);
    mount->xm_fat_cache_dirty = 1;
  }
  return 0;
}

// exfat_fat_get_set_internal for callers that do not hold xm_fat_lock: the
// lock is taken and released around it.
int exfat_fat_get_set(int op, struct exfat_mount* mount, uint32_t cluster, uint32_t* old_value,
                      uint32_t new_value) {
  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(mount->xm_fat_lock);
  int error = exfat_fat_get_set_internal(op, mount, cluster, old_value, new_value);
  lck_mtx_unlock(mount->xm_fat_lock);
  return error;
}

// Follows the node's chain from (*cluster, *count) to its end under
// xm_fat_lock, which the caller holds. On success *cluster is the last
// cluster and *count the number of clusters up to it. Returns the map's
// error, or EIO with XM_CORRUPT for a bad link or a chain that loops.
static int exfat_fat_walk_to_end(struct exfat_mount* mount, uint32_t* cluster, uint32_t* count) {
  for (;;) {
    int error = 0;
    uint32_t* entry = exfat_fat_map(mount, *cluster, &error);
    if (entry == nullptr) {
      kprintf("exfat_fat_find_last_cluster: error %d from exfat_fat_map\n", error);
      return error;
    }
    const uint32_t next = le32dec(entry);
    if (next >= EXFAT_FAT_CHAIN_END)
      return 0;
    if (!exfat_cluster_valid(mount, next)) {
      kprintf("exfat_fat_find_last_cluster: invalid cluster: %u", next);
      exfat_set_corrupt(mount);
      return EIO;
    }
    // No legal chain holds more clusters than the volume has.
    if (*count > mount->xm_max_cluster) {
      kprintf("exfat_fat_find_last_cluster: Corrupt cluster chain detected\n");
      exfat_set_corrupt(mount);
      return EIO;
    }
    ++*count;
    *cluster = next;
  }
}

// Gives the last cluster of the node's allocation and the allocation's size
// in bytes; either out-pointer may be NULL. The caller may hold the node
// lock and xm_bitmap_lock but not xm_fat_lock, which is taken here for a
// chained node. A contiguous node is answered by arithmetic without the
// lock or the FAT. Walks resume from the end of the node's cached extent
// when there is one. On an error both outputs are left unchanged; errors are
// those of exfat_fat_walk_to_end.
int exfat_fat_find_last_cluster(struct exfat_node* node, uint32_t* last_cluster,
                                uint64_t* allocated_bytes) {
  struct exfat_mount* mount = node->x_mount;
  const uint32_t cluster_size = mount->xm_bytes_per_cluster;

  if (node->x_start_cluster == 0) {
    if (last_cluster)
      *last_cluster = 0;
    if (allocated_bytes)
      *allocated_bytes = 0;
    return 0;
  }

  if (node->x_flags & X_CONTIGUOUS) {
    const uint64_t n = (node->x_size + cluster_size - 1) / cluster_size;
    if (last_cluster)
      *last_cluster = static_cast<uint32_t>(node->x_start_cluster + n - 1);
    if (allocated_bytes)
      *allocated_bytes = static_cast<uint64_t>(static_cast<uint32_t>(n)) * cluster_size;
    return 0;
  }

  lck_mtx_assert(mount->xm_fat_lock, LCK_MTX_ASSERT_NOTOWNED);
  lck_mtx_lock(mount->xm_fat_lock);
  uint32_t cluster;
  uint32_t count;
  if (node->x_extent_length != 0) {
    cluster = node->x_extent_cluster + node->x_extent_length - 1;
    count = node->x_extent_index + node->x_extent_length;
  } else {
    cluster = node->x_start_cluster;
    count = 1;
  }
  int error = exfat_fat_walk_to_end(mount, &cluster, &count);
  lck_mtx_unlock(mount->xm_fat_lock);
  if (error)
    return error;

  if (last_cluster)
    *last_cluster = cluster;
  if (allocated_bytes)
    *allocated_bytes = static_cast<uint64_t>(count) * cluster_size;
  return 0;
}
