// Nodes and the node hash: the recursive node lock, the global hash that
// keeps one node per entry set, finding or instantiating a node
// (exfat_node_get), writing a node's attributes back into its entry set
// (exfat_node_update) and turning pending time requests into timestamps.
//
// Locking, once for this file:
//  - exfat_hash_lock guards the table, every chain link and every
//    x_hash_flags. It is a leaf with respect to node locks: it is taken while
//    node locks are held, and nobody blocks on a node lock while holding it,
//    except on a node that was just allocated and that nobody else can see.
//  - x_lock is made recursive per thread by x_lock_owner and x_lock_count.
//    Only the owning thread stores its identity into x_lock_owner, so a
//    thread may read it without the mutex to ask "do I own this?"; the
//    accesses are atomic so that the answer is never a torn value.

#include <atomic>
#include <cstring>
#include <ctime>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/namecache.h"
#include "host/time.h"
#include "host/vnode.h"

OSMallocTag exfat_node_tag;
lck_mtx_t* exfat_hash_lock;
struct exfat_node** exfat_node_hash;
u_long exfat_hash_mask;

namespace {

// x_flags bits that mean "this node has no entry set of its own to rewrite".
constexpr uint32_t kNoEntrySetFlags = X_ROOT | X_DELETED | X_SYSTEM;  // 0x0C01

// Bytes of the File and Stream Extension entries at the head of a set.
constexpr uint32_t kFileAndStreamBytes = 2 * EXFAT_ENTRY_SIZE;

// The longest a directory may be. A longer one is damage, and refusing it
// here keeps every walk over a directory's clusters short.
constexpr uint64_t kMaxDirectorySize = EXFAT_MAX_DIR_SIZE;
// Files must fit in a signed 64-bit offset (and, like directories, in the
// heap: the page cache's arithmetic then never nears the offset's limit).
constexpr uint64_t kMaxFileSize = 0x7FFFFFFFFFFFFFFFull;

// Time stamps of the root directory, which has no entry set: 1980-01-01.
constexpr uint32_t kRootTimestamp = 0x00210000;

std::atomic_ref<thread_t> lock_owner(struct exfat_node* node) {
  return std::atomic_ref<thread_t>(node->x_lock_owner);
}

// Offsets are multiples of 32 and mostly of a set's size: they are mixed
// with the other key parts so that the files of one large directory spread
// over every bucket instead of the few that low offset bits can reach.
inline struct exfat_node** hash_bucket(uint32_t dev, uint32_t dir_cluster, uint32_t offset) {
  uint32_t key = (offset >> 5) + dir_cluster * 0x9E3779B1u + (dev & 0xFFFFFF) * 0x85EBCA6Bu;
  key ^= key >> 16;
  key *= 0x7FEB352Du;
  key ^= key >> 15;
  return &exfat_node_hash[key & exfat_hash_mask];
}

inline bool node_matches(const struct exfat_node* node, uint32_t dev, uint32_t dir_cluster,
                         uint32_t offset) {
  return node->x_dev == dev && node->x_dir_cluster == dir_cluster &&
         node->x_dir_offset == offset && (node->x_hash_flags & X_HASH_STALE) == 0;
}

// Copies the File and Stream Extension entries of a node's set into the
// node. The set was validated by the lookup that found it.
void node_load_entries(struct exfat_node* node, const uint8_t* entries) {
  const auto* file = reinterpret_cast<const struct exfat_file_entry*>(entries);
  const auto* stream =
      reinterpret_cast<const struct exfat_stream_entry*>(entries + EXFAT_SET_STREAM_OFFSET);

  node->x_secondary_count = file->SecondaryCount;
  node->x_attributes = le16dec(file->FileAttributes);
  node->x_create_time = le32dec(file->CreateTimestamp);
  node->x_modify_time = le32dec(file->LastModifiedTimestamp);
  node->x_access_time = le32dec(file->LastAccessedTimestamp);
  node->x_create_10ms = file->Create10msIncrement;
  node->x_modify_10ms = file->LastModified10msIncrement;
  node->x_create_utc = file->CreateUtcOffset;
  node->x_modify_utc = file->LastModifiedUtcOffset;
  node->x_access_utc = file->LastAccessedUtcOffset;

  struct timespec created;
  exfat_timestamp_to_unix(node->x_create_time, node->x_create_10ms, node->x_create_utc, &created,
                          node->x_mount->xm_secondsWest);
  node->x_create_sec = static_cast<uint64_t>(created.tv_sec);
  node->x_create_msec = static_cast<uint32_t>(created.tv_nsec / 1000000);

  node->x_start_cluster = le32dec(stream->FirstCluster);
  node->x_valid_size = le64dec(stream->ValidDataLength);
  node->x_size = le64dec(stream->DataLength);
  // Decision: a ValidDataLength past DataLength is taken as DataLength.
  // Nothing past the allocation can hold valid data, and every reader and
  // writer relies on the valid length lying within the file.
  if (node->x_valid_size > node->x_size)
    node->x_valid_size = node->x_size;

  if (stream->GeneralSecondaryFlags & EXFAT_SECONDARY_NO_FAT_CHAIN) {
    // A contiguous file never needs the FAT: the extent cache describes the
    // whole run for the node's lifetime.
    uint32_t cluster_size = node->x_mount->xm_bytes_per_cluster;
    node->x_flags |= X_CONTIGUOUS;
    node->x_extent_cluster = node->x_start_cluster;
    node->x_extent_index = 0;
    node->x_extent_length = static_cast<uint32_t>((node->x_size + cluster_size - 1) / cluster_size);
    node->x_last_cluster = node->x_start_cluster + node->x_extent_length - 1;
  }
}

// Whether a contiguous node's run lies within the cluster heap. The run is
// mapped by arithmetic alone (no FAT link is read to check it), so one that
// begins before cluster 2 or runs past the last cluster would reach sectors
// outside the heap. A chain is checked link by link as it is walked.
bool node_run_in_heap(const struct exfat_node* node) {
  if (!(node->x_flags & X_CONTIGUOUS) || node->x_size == 0)
    return true;
  const struct exfat_mount* mount = node->x_mount;
  const uint64_t cluster_size = mount->xm_bytes_per_cluster;
  uint64_t clusters = (node->x_size + cluster_size - 1) / cluster_size;
  return node->x_start_cluster >= EXFAT_FIRST_CLUSTER &&
         node->x_start_cluster <= mount->xm_max_cluster &&
         clusters <= uint64_t(mount->xm_max_cluster) - node->x_start_cluster + 1;
}

// Whether a node's DataLength is one its kind may have: a directory no
// longer than the format allows, a file below 2^63 bytes; neither larger
// than the cluster heap, which would have to hold it. Logs the refusal.
bool node_size_ok(const struct exfat_node* node) {
  const struct exfat_mount* mount = node->x_mount;
  const uint64_t heap = (uint64_t(mount->xm_max_cluster) - 1) * mount->xm_bytes_per_cluster;
  if (node->x_attributes & EXFAT_ATTR_DIRECTORY) {
    if (node->x_size <= kMaxDirectorySize && node->x_size <= heap)
      return true;
    kprintf("exfat: ExFAT directory is too large (0x%llx)\n",
            static_cast<unsigned long long>(node->x_size));
    return false;
  }
  if (node->x_size <= kMaxFileSize && node->x_size <= heap)
    return true;
  kprintf("exfat: ExFAT file is too large (0x%llx)\n",
          static_cast<unsigned long long>(node->x_size));
  return false;
}

// Fills a child node from the head of its entry set in the parent and
// decides its vnode type. Caller holds the node's lock and the parent's.
// Returns EIO (with XM_CORRUPT set) for a size the node can't have or a
// contiguous run outside the heap, or the read error.
int node_init_child(struct exfat_node* node, struct exfat_node* parent, enum vtype* type,
                    vfs_context_t context) {
  struct exfat_mount* mount = node->x_mount;
  uint8_t entries[kFileAndStreamBytes];

  int error =
      exfat_dir_read(parent, nullptr, entries, node->x_dir_offset, sizeof(entries), context);
  if (error)
    return error;
  node_load_entries(node, entries);

  // A ValidDataLength past DataLength was cut to it; it refuses nothing.
  if (!node_size_ok(node)) {
    mount->xm_flags |= XM_CORRUPT;
    return EIO;
  }
  if (!node_run_in_heap(node)) {
    kprintf("exfat: ExFAT file's clusters lie outside the volume (first %u, length 0x%llx)\n",
            node->x_start_cluster, static_cast<unsigned long long>(node->x_size));
    mount->xm_flags |= XM_CORRUPT;
    return EIO;
  }
  if (node->x_attributes & EXFAT_ATTR_DIRECTORY)
    *type = VDIR;  // whatever the caller asked for
  else if (*type == VNON)
    *type = exfat_check_link(node, context);
  return 0;
}

// Fills the root node, which has no entry set: fixed attributes and times,
// and a size equal to its cluster chain. Caller holds the node's lock.
// Returns the chain walk's error.
int node_init_root(struct exfat_node* node) {
  node->x_flags |= X_ROOT;
  node->x_attributes = EXFAT_ATTR_DIRECTORY;
  node->x_start_cluster = node->x_mount->xm_root_cluster;
  node->x_create_time = node->x_modify_time = node->x_access_time = kRootTimestamp;
  node->x_create_10ms = node->x_modify_10ms = 0;
  node->x_create_utc = node->x_modify_utc = node->x_access_utc = 0;
  return exfat_fat_find_last_cluster(node, &node->x_last_cluster, &node->x_size);
}

// Whether the caller asks the kernel to enter the name in the name cache.
inline bool wants_cache_entry(vnode_t parent_vp, const struct componentname* cnp) {
  return parent_vp != NULLVP && cnp != nullptr && (cnp->cn_flags & MAKEENTRY);
}

// Creates the vnode of a node being instantiated and stores it in x_vnode.
// Caller holds the node's lock. Returns vnode_create's error.
int node_create_vnode(struct exfat_node* node, vnode_t parent_vp, struct componentname* cnp,
                      enum vtype type) {
  struct vnode_fsparam param;
  uint32_t flags = VNFS_ADDFSREF;
  if (!wants_cache_entry(parent_vp, cnp))
    flags |= VNFS_NOCACHE;
  exfat_vnode_param_init(&param, node->x_mount->xm_mp, type, node, exfat_vnodeop_p,
                         static_cast<off_t>(node->x_size), flags);
  param.vnfs_dvp = parent_vp;
  param.vnfs_markroot = (parent_vp == NULLVP) ? 1 : 0;
  param.vnfs_cnp = cnp;
  return vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &param, &node->x_vnode);
}

// Drops a found node that can't be handed out: the hash lock first, then
// the I/O reference (its release may end in reclaim, which takes the hash
// lock). Returns `error`.
int node_get_refuse(struct exfat_node* node, struct exfat_node** nodep, int error) {
  lck_mtx_unlock(exfat_hash_lock);
  vnode_put(node->x_vnode);
  *nodep = nullptr;
  return error;
}

// Says why a node found in the hash under the key (dev, dir_cluster,
// offset) can't be the child sought in `parent` (NULL for the root): 0 when
// it can; ENOENT when it moved or went away after the hash search (the
// caller looks again); EIO (XM_CORRUPT set) when it lives in another
// directory. Two directories share a key only when they share their
// clusters, which damage can do: a directory that lists itself or an
// ancestor would otherwise hand out a directory as its own child, and the
// node locks that operations take on both would meet. Caller holds
// exfat_hash_lock, which guards the key and x_parent of a hashed node.
int node_found_mismatch(const struct exfat_node* node, const struct exfat_node* parent,
                        uint32_t dev, uint32_t dir_cluster, uint32_t offset) {
  if (!node_matches(node, dev, dir_cluster, offset))
    return ENOENT;
  if (node->x_parent == parent)
    return 0;
  kprintf("exfat_node_get: entry at offset %u of the directory at cluster %u belongs to "
          "another directory\n", offset, dir_cluster);
  node->x_mount->xm_flags |= XM_CORRUPT;
  return EIO;
}

// Takes an existing node found in the hash and fit to be handed out: enters
// it in the name cache when asked. Entered with exfat_hash_lock held and an
// I/O reference on the node's vnode; returns with the hash lock released.
int node_get_found(struct exfat_node* node, vnode_t parent_vp, struct componentname* cnp,
                   struct exfat_node** nodep) {
  *nodep = node;
  // Whether it is the root is asked of its vnode, whose marks never change:
  // the node's flags change under the node's lock, which is not held here.
  if (wants_cache_entry(parent_vp, cnp) && !vnode_isvroot(node->x_vnode))
    cache_enter(parent_vp, node->x_vnode, cnp);
  lck_mtx_unlock(exfat_hash_lock);
  return 0;
}

// Undoes a node whose instantiation failed after it entered the hash: its
// sleepers are woken (they search again and find nothing), and the record is
// freed. Caller holds the node's lock once; the parent's lock is handled by
// the caller.
void node_get_abandon(struct exfat_node* node) {
  exfat_node_unhash(node);
  exfat_node_unlock(node);
  exfat_node_free(node);
}

// Writes the node's attributes and times into the File entry of a set copy,
// and with X_STREAM_DIRTY its allocation into the Stream Extension entry.
void node_store_entries(const struct exfat_node* node, uint8_t* set) {
  auto* file = reinterpret_cast<struct exfat_file_entry*>(set);
  le16enc(file->FileAttributes, node->x_attributes);
  le32enc(file->CreateTimestamp, node->x_create_time);
  le32enc(file->LastModifiedTimestamp, node->x_modify_time);
  le32enc(file->LastAccessedTimestamp, node->x_access_time);
  file->Create10msIncrement = node->x_create_10ms;
  file->LastModified10msIncrement = node->x_modify_10ms;
  file->CreateUtcOffset = node->x_create_utc;
  file->LastModifiedUtcOffset = node->x_modify_utc;
  file->LastAccessedUtcOffset = node->x_access_utc;

  if (node->x_flags & X_STREAM_DIRTY) {
    auto* stream = reinterpret_cast<struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
    if (node->x_flags & X_CONTIGUOUS)
      stream->GeneralSecondaryFlags |= EXFAT_SECONDARY_NO_FAT_CHAIN;
    else
      stream->GeneralSecondaryFlags &= ~EXFAT_SECONDARY_NO_FAT_CHAIN;
    le32enc(stream->FirstCluster, node->x_start_cluster);
    le64enc(stream->ValidDataLength, node->x_valid_size);
    le64enc(stream->DataLength, node->x_size);
  }
}

}  // namespace

// Frees a node record and its two mutexes. The node must be out of the hash
// and unlocked; nothing else may refer to it.
void exfat_node_free(struct exfat_node* node) {
  if (node->x_io_lock != nullptr)
    lck_mtx_free(node->x_io_lock, exfat_lck_grp);
  if (node->x_lock != nullptr)
    lck_mtx_free(node->x_lock, exfat_lck_grp);
  OSFree(node, sizeof(*node), exfat_node_tag);
}

// Allocates a zero-filled node with its two mutexes. NULL when memory runs
// out; nothing is left allocated then. Takes no lock, so that it may be
// called with exfat_hash_lock held.
struct exfat_node* exfat_node_alloc(void) {
  auto* node = static_cast<struct exfat_node*>(OSMalloc(sizeof(struct exfat_node), exfat_node_tag));
  if (node == nullptr)
    return nullptr;
  memset(node, 0, sizeof(*node));
  node->x_lock = lck_mtx_alloc_init(exfat_lck_grp, exfat_lck_attr);
  node->x_io_lock = lck_mtx_alloc_init(exfat_lck_grp, exfat_lck_attr);
  if (node->x_lock == nullptr || node->x_io_lock == nullptr) {
    exfat_node_free(node);
    return nullptr;
  }
  return node;
}

// Takes a node whose initialisation failed out of the hash and wakes the
// threads that sleep on it: they search again and find nothing. The caller
// holds no exfat_hash_lock; it is taken and dropped here.
void exfat_node_unhash(struct exfat_node* node) {
  lck_mtx_lock(exfat_hash_lock);
  exfat_hash_remove(node);
  if (node->x_hash_flags & X_HASH_WAIT)
    wakeup(node);
  lck_mtx_unlock(exfat_hash_lock);
}

// Fills *param for a vnode of this file system of `type` and `size` over
// `fsnode` with the operations `vops` and the VNFS_ flags `flags`: no
// parent, no name, neither root nor system, which the caller changes where
// its vnode differs. Takes no lock.
void exfat_vnode_param_init(struct vnode_fsparam* param, mount_t mp, enum vtype type, void* fsnode,
                            VOPFUNC* vops, off_t size, uint32_t flags) {
  memset(param, 0, sizeof(*param));
  param->vnfs_mp = mp;
  param->vnfs_vtype = type;
  param->vnfs_str = "exfat";
  param->vnfs_dvp = NULLVP;
  param->vnfs_fsnode = fsnode;
  param->vnfs_vops = vops;
  param->vnfs_filesize = size;
  param->vnfs_cnp = nullptr;
  param->vnfs_flags = flags;
}

// Ends the initialisation of a node: clears X_HASH_INIT, and X_HASH_WAIT
// with a wakeup of the threads that found the node being initialised. The
// caller holds no exfat_hash_lock; it is taken and dropped here.
void exfat_node_init_done(struct exfat_node* node) {
  lck_mtx_lock(exfat_hash_lock);
  node->x_hash_flags &= ~X_HASH_INIT;
  if (node->x_hash_flags & X_HASH_WAIT) {
    node->x_hash_flags &= ~X_HASH_WAIT;
    wakeup(node);
  }
  lck_mtx_unlock(exfat_hash_lock);
}

// --- The node hash ------------------------------------------------------------------

// Creates the hash lock, the node memory tag and the table. Called once when
// the file system type is registered, after the lock group exists.
void exfat_hash_init(void) {
  exfat_hash_lock = lck_mtx_alloc_init(exfat_lck_grp, exfat_lck_attr);
  if (exfat_hash_lock == nullptr)
    panic("exfat_hash_init: cannot allocate the hash lock\n");
  exfat_node_tag = OSMalloc_Tagalloc("exfat node", OSMT_DEFAULT);
  exfat_node_hash =
      static_cast<struct exfat_node**>(hashinit(desiredvnodes, M_TEMP, &exfat_hash_mask));
}

// Frees what exfat_hash_init made. Every node must be gone (all volumes
// unmounted). The table itself is destroyed here as well, so that starting
// and stopping the module leaves no memory behind.
void exfat_hash_uninit(void) {
  if (exfat_node_hash != nullptr) {
    hashdestroy(exfat_node_hash, M_TEMP, exfat_hash_mask);
    exfat_node_hash = nullptr;
    exfat_hash_mask = 0;
  }
  OSMalloc_Tagfree(exfat_node_tag);
  exfat_node_tag = nullptr;
  lck_mtx_free(exfat_hash_lock, exfat_lck_grp);
  exfat_hash_lock = nullptr;
}

// Finds the live node of a key. Called and returns with exfat_hash_lock
// held; the lock is dropped while sleeping on a node being initialised and
// around taking the vnode's I/O reference. unlock_node, when given, loses
// one level of its lock as soon as a node is found (before the reference is
// taken, because that vnode may be in inactive or reclaim, which lock its
// parent). Returns the node with an I/O reference on its vnode, or NULL: with
// *error 0 when there is no node, with vnode_getwithvid's error (ENOENT) when
// the node's vnode is being recycled.
struct exfat_node* exfat_hash_get(uint32_t dev, uint32_t dir_cluster, uint32_t offset,
                                  struct exfat_node* unlock_node, int* error) {
  lck_mtx_assert(exfat_hash_lock, LCK_MTX_ASSERT_OWNED);
  if (error != nullptr)
    *error = 0;
restart:
  for (struct exfat_node* node = *hash_bucket(dev, dir_cluster, offset); node != nullptr;
       node = node->x_hash_next) {
    if (!node_matches(node, dev, dir_cluster, offset))
      continue;
    if (node->x_hash_flags & X_HASH_INIT) {
      // The node may be gone when we wake: search the bucket again.
      node->x_hash_flags |= X_HASH_WAIT;
      msleep(node, exfat_hash_lock, PINOD, "exfat_hashget", nullptr);
      goto restart;
    }
    vnode_t vp = node->x_vnode;
    uint32_t vid = vnode_vid(vp);
    lck_mtx_unlock(exfat_hash_lock);
    if (unlock_node != nullptr)
      exfat_node_unlock(unlock_node);
    int get_error = vnode_getwithvid(vp, vid);
    lck_mtx_lock(exfat_hash_lock);
    if (get_error) {
      if (error != nullptr)
        *error = get_error;
      return nullptr;
    }
    return node;
  }
  return nullptr;
}

enum vtype exfat_hash_peek_type(uint32_t dev, uint32_t dir_cluster, uint32_t offset) {
  enum vtype type = VNON;
  lck_mtx_lock(exfat_hash_lock);
  for (struct exfat_node* node = *hash_bucket(dev, dir_cluster, offset); node != nullptr;
       node = node->x_hash_next) {
    if (node_matches(node, dev, dir_cluster, offset) &&
        (node->x_hash_flags & (X_HASH_INIT | X_HASH_STALE)) == 0 && node->x_vnode != NULLVP) {
      type = vnode_vtype(node->x_vnode);
      break;
    }
  }
  lck_mtx_unlock(exfat_hash_lock);
  return type;
}

// Links a node at the head of its key's bucket. Caller holds exfat_hash_lock.
void exfat_hash_insert(struct exfat_node* node) {
  lck_mtx_assert(exfat_hash_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_node** head = hash_bucket(node->x_dev, node->x_dir_cluster, node->x_dir_offset);
  node->x_hash_next = *head;
  if (*head != nullptr)
    (*head)->x_hash_prevp = &node->x_hash_next;
  *head = node;
  node->x_hash_prevp = head;
}

// Unlinks a node from its bucket; a node that is not linked is left alone.
// Caller holds exfat_hash_lock.
void exfat_hash_remove(struct exfat_node* node) {
  lck_mtx_assert(exfat_hash_lock, LCK_MTX_ASSERT_OWNED);
  if (node->x_hash_prevp == nullptr)
    return;
  *node->x_hash_prevp = node->x_hash_next;
  if (node->x_hash_next != nullptr)
    node->x_hash_next->x_hash_prevp = node->x_hash_prevp;
  node->x_hash_next = nullptr;
  node->x_hash_prevp = nullptr;
}

// --- The node lock ------------------------------------------------------------------

// Takes the node lock, recursively when this thread already holds it. Node
// locks of several nodes are taken in ascending address order (see
// exfat_lock_two and friends); never call this with exfat_hash_lock held
// unless the node is brand new.
void exfat_node_lock(struct exfat_node* node) {
  thread_t self = current_thread();
  if (lock_owner(node).load(std::memory_order_relaxed) == self) {
    node->x_lock_count++;
    return;
  }
  lck_mtx_lock(node->x_lock);
  lock_owner(node).store(self, std::memory_order_relaxed);
  node->x_lock_count = 1;
}

// Takes the node lock without waiting. Returns 1 when the lock is now held
// (newly or one level deeper), 0 when another thread holds it.
int exfat_node_try_lock(struct exfat_node* node) {
  thread_t self = current_thread();
  if (lock_owner(node).load(std::memory_order_relaxed) == self) {
    node->x_lock_count++;
    return 1;
  }
  if (!lck_mtx_try_lock(node->x_lock))
    return 0;
  lock_owner(node).store(self, std::memory_order_relaxed);
  node->x_lock_count = 1;
  return 1;
}

// Drops one level of the node lock; the mutex is released with the last.
// The caller must hold it.
void exfat_node_unlock(struct exfat_node* node) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (--node->x_lock_count == 0) {
    lock_owner(node).store(nullptr, std::memory_order_relaxed);
    lck_mtx_unlock(node->x_lock);
  }
}

// --- Finding and instantiating nodes -------------------------------------------------

// Finds or makes the node of the entry set at `offset` in the directory of
// parent_vp (the root when parent_vp is NULL), with a vnode of the given type
// (VNON: a directory is VDIR, a file VLNK when its contents are a valid link,
// else VREG).
//
// Caller holds the parent's node lock once. With keep_locked 0 that level is
// always gone on return, success or failure; with keep_locked 1 it is always
// still held, and on success the new node comes back locked with
// X_HASH_INIT still set: the caller finishes the object, then clears
// X_HASH_INIT under exfat_hash_lock, wakes X_HASH_WAIT sleepers and unlocks
// the node.
//
// On success *nodep is the node and its vnode carries one I/O reference that
// the caller owns. Errors: EIO when a keep-locked caller's key already has a
// live node, for a size the format can't have, or for a node that belongs
// to another directory sharing the parent's clusters (XM_CORRUPT set for
// the last two); ENOENT when the key's node is being reclaimed or was
// moved meanwhile, which lookup retries; ENOMEM; a directory read, chain
// walk or vnode_create error.
int exfat_node_get(struct exfat_mount* mount, vnode_t parent_vp, struct componentname* cnp,
                   uint32_t offset, enum vtype type, int keep_locked, struct exfat_node** nodep,
                   vfs_context_t context) {
  uint32_t dev = mount->xm_dev;
  struct exfat_node* parent = nullptr;
  uint32_t dir_cluster = 0;
  if (parent_vp != NULLVP) {
    parent = static_cast<struct exfat_node*>(vnode_fsnode(parent_vp));
    lck_mtx_assert(parent->x_lock, LCK_MTX_ASSERT_OWNED);
    dir_cluster = parent->x_start_cluster;
  }

  lck_mtx_lock(exfat_hash_lock);
  int error = 0;
  struct exfat_node* node =
      exfat_hash_get(dev, dir_cluster, offset, keep_locked ? nullptr : parent, &error);
  if (node != nullptr) {
    // A freshly written entry set must not already have a node.
    error = keep_locked ? EIO : node_found_mismatch(node, parent, dev, dir_cluster, offset);
    if (error)
      return node_get_refuse(node, nodep, error);
    return node_get_found(node, parent_vp, cnp, nodep);
  }
  if (error) {
    // The node's vnode is being recycled; the parent's level was dropped by
    // exfat_hash_get.
    lck_mtx_unlock(exfat_hash_lock);
    *nodep = nullptr;
    return error;
  }

  node = exfat_node_alloc();
  if (node == nullptr) {
    lck_mtx_unlock(exfat_hash_lock);
    if (!keep_locked && parent != nullptr)
      exfat_node_unlock(parent);
    *nodep = nullptr;
    return ENOMEM;
  }
  node->x_mount = mount;
  node->x_dev = dev;
  node->x_dir_cluster = dir_cluster;
  node->x_dir_offset = offset;
  node->x_hash_flags = X_HASH_INIT;
  if (type == VLNK)
    node->x_flags |= X_SYMLINK;
  // Nobody can see the node yet, so locking it under the hash lock can't
  // wait; a try-lock says so, and keeps the hash lock out of the order of
  // node locks. From the insert on, other lookups of the key sleep until
  // initialisation ends.
  if (!exfat_node_try_lock(node))
    panic("exfat_node_get: new node is locked\n");
  exfat_hash_insert(node);
  lck_mtx_unlock(exfat_hash_lock);

  if (parent != nullptr)
    error = node_init_child(node, parent, &type, context);
  else {
    type = VDIR;
    error = node_init_root(node);
  }
  if (!error) {
    node->x_parent = parent;
    error = node_create_vnode(node, parent_vp, cnp, type);
  }
  if (error) {
    if (!keep_locked && parent != nullptr)
      exfat_node_unlock(parent);
    node_get_abandon(node);
    *nodep = nullptr;
    return error;
  }

  *nodep = node;
  if (keep_locked)
    return 0;
  exfat_node_init_done(node);
  exfat_node_unlock(node);
  if (parent != nullptr)
    exfat_node_unlock(parent);
  return 0;
}

// --- Writing nodes back ----------------------------------------------------------------

// Turns the pending time requests (X_MODIFIED, X_CREATED, X_ACCESSED) into
// timestamps taken from one reading of the clock, setting X_DIRTY for every
// change that must reach the disk. An access time that does not change does
// not make the node dirty. Caller holds the node's lock.
void exfat_update_times(struct exfat_node* node) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if ((node->x_flags & (X_MODIFIED | X_CREATED | X_ACCESSED)) == 0)
    return;

  struct timespec now;
  nanotime(&now);
  uint32_t timestamp;
  uint8_t increment;
  uint8_t utc_offset;
  exfat_timestamp_from_unix(&timestamp, &increment, &utc_offset, &now,
                            node->x_mount->xm_secondsWest);

  if (node->x_flags & X_MODIFIED) {
    node->x_modify_time = timestamp;
    node->x_modify_10ms = increment;
    node->x_modify_utc = utc_offset;
    node->x_attributes |= EXFAT_ATTR_ARCHIVE;
    node->x_flags |= X_DIRTY;
  }
  if (node->x_flags & X_ACCESSED) {
    // The access time has no 10 ms increment.
    if (node->x_access_time != timestamp || node->x_access_utc != utc_offset) {
      node->x_access_time = timestamp;
      node->x_access_utc = utc_offset;
      node->x_flags |= X_DIRTY;
    }
  }
  if (node->x_flags & X_CREATED) {
    node->x_create_time = timestamp;
    node->x_create_10ms = increment;
    node->x_create_utc = utc_offset;
    node->x_create_sec = static_cast<uint64_t>(now.tv_sec);
    node->x_create_msec = static_cast<uint32_t>(now.tv_nsec / 1000000);
    node->x_flags |= X_DIRTY;
  }
  node->x_flags &= ~(X_MODIFIED | X_CREATED | X_ACCESSED);
}

// Rewrites a dirty node's File entry (and with X_STREAM_DIRTY its Stream
// Extension entry) in the parent directory, with a new set checksum. Does
// nothing on a read-only volume or for the root, a deleted node or a system
// file. Caller holds the node's lock and the parent's (exfat_lock_parent).
// On success X_DIRTY and X_STREAM_DIRTY are cleared; on failure they stay.
// Errors: ENOMEM; EIO (XM_CORRUPT set) when the node's place no longer holds
// a File set of its size; or the directory read or write error.
int exfat_node_update(struct exfat_node* node, struct exfat_node* parent, vfs_context_t context) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (vnode_vfsisrdonly(node->x_vnode) || (node->x_flags & kNoEntrySetFlags))
    return 0;
  exfat_update_times(node);
  if ((node->x_flags & X_DIRTY) == 0)
    return 0;
  if (parent == nullptr)
    panic("exfat_node_update: parent == NULL");
  lck_mtx_assert(parent->x_lock, LCK_MTX_ASSERT_OWNED);

  auto* set = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (set == nullptr)
    return ENOMEM;
  uint32_t set_bytes = (static_cast<uint32_t>(node->x_secondary_count) + 1) * EXFAT_ENTRY_SIZE;
  int error = exfat_dir_read(parent, nullptr, set, node->x_dir_offset, set_bytes, context);
  if (!error && (set[0] != EXFAT_ENTRY_FILE || set[1] != node->x_secondary_count)) {
    // Not the set the node was made from: rewriting it would damage
    // whatever lies there now, and its checksum would cover bytes not read.
    kprintf("exfat_node_update: no entry set of %u entries at offset %u\n",
            node->x_secondary_count + 1u, node->x_dir_offset);
    node->x_mount->xm_flags |= XM_CORRUPT;
    error = EIO;
  }
  if (!error) {
    node_store_entries(node, set);
    le16enc(set + 2, exfat_checksum_file_set(set));
    // The name entries are unchanged: the checksum covers them as read, so
    // only the entries that changed go back.
    uint32_t write_bytes =
        (node->x_flags & X_STREAM_DIRTY) ? kFileAndStreamBytes : EXFAT_ENTRY_SIZE;
    error = exfat_dir_write(parent, nullptr, set, node->x_dir_offset, write_bytes, false, context);
  }
  if (!error) {
    node->x_flags &= ~(X_DIRTY | X_STREAM_DIRTY);
    // The set in the buffer cache no longer names clusters the node gave
    // back: they may be freed once it is on the disk.
    exfat_pending_release(node->x_mount, node);
  }
  OSFree(set, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  return error;
}
