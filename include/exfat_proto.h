#pragma once
// Declarations that cross the driver's directories: module globals and
// every exfat_* function, grouped by subsystem. This header is the map of
// the driver; each function's contract is stated at its definition.

#include <ctime>

#include "host/locks.h"
#include "host/malloc.h"
#include "host/types.h"
#include "host/vfs.h"
#include "host/vnode.h"

#include "exfat_format.h"
#include "exfat_mount.h"
#include "exfat_node.h"


// --- Module globals -----------------------------------------------------------------

extern OSMallocTag exfat_malloc_tag;  // "exfat": general allocations
extern OSMallocTag exfat_node_tag;    // "exfat node": exfat_node records
extern char* exfat_zeroes;            // 4096 zero bytes, read-only after start
#define EXFAT_ZEROES_SIZE 4096
extern vfstable_t exfat_vfsconf;
extern lck_grp_attr_t* exfat_lck_grp_attr;
extern lck_grp_t* exfat_lck_grp;      // every driver mutex comes from this group
extern lck_attr_t* exfat_lck_attr;
extern VOPFUNC* exfat_vnodeop_p;      // files, directories, links, bitmap, up-case
extern VOPFUNC* exfat_fat_vnodeop_p;  // the FAT's vnode
extern lck_mtx_t* exfat_hash_lock;    // the node hash, chains and x_hash_flags
extern struct exfat_node** exfat_node_hash;
extern u_long exfat_hash_mask;
extern uint32_t exfat_meta_delay;     // delayed-flush delay in milliseconds (50)

// --- Volume: boot region, geometry and UUID (vfsops/exfat_boot.cpp) ------------------

// The largest cluster the driver mounts: the largest the format allows
// (32 MiB). The limit is the host's to choose, and nothing here needs a
// buffer of a whole cluster: metadata goes through the buffer cache in
// blocks of at most 4 KiB or one physical block (EXFAT_MAX_META_BLOCK), and
// file data through the page cache, page by page.
#define EXFAT_MAXBSIZE (32u << 20)
// The largest metadata block: the largest sector. A device that claims a
// larger physical block gets sector-sized metadata blocks instead, so that
// the buffer cache's buffers stay small whatever the device reports.
#define EXFAT_MAX_META_BLOCK 65536u

uint32_t exfat_boot_checksum(const uint8_t* buffer, uint32_t bytes_per_sector);
int exfat_bad_boot_checksum(const uint8_t* buffer, uint32_t bytes_per_sector);
uint32_t exfat_metadata_block_size(uint32_t phys_block_size, uint32_t bytes_per_sector,
                                   uint32_t bytes_per_cluster);
uint32_t exfat_max_io_size(uint32_t upl_maxbufsize, uint32_t maxreadcnt, uint32_t maxwritecnt,
                           uint32_t segreadcnt, uint32_t maxsegreadsize, uint32_t segwritecnt,
                           uint32_t maxsegwritesize, uint32_t bytes_per_cluster);
extern const unsigned char kFSUUIDNamespaceSHA1[16];
void uuid_create_md5_from_name(unsigned char* uuid_out, const unsigned char* name_space,
                               const void* name, int name_length);
void exfat_guid_to_uuid(unsigned char* uuid_out, const uint8_t* guid);

// --- Volume: mount and unmount ------------------------------------------------------------

int exfat_vfs_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t context);
int exfat_vfs_ioctl(mount_t mp, u_long command, caddr_t data, int flags, vfs_context_t context);
int exfat_mount_internal(vnode_t devvp, mount_t mp, vfs_context_t context);
int exfat_vfs_unmount(mount_t mp, int mntflags, vfs_context_t context);
int exfat_vfs_root(mount_t mp, vnode_t* vpp, vfs_context_t context);
int exfat_vfs_root_locked(mount_t mp, vnode_t* vpp, struct exfat_node** rootp,
                          vfs_context_t context);
int exfat_vfs_start(mount_t mp, int flags, vfs_context_t context);

// --- Volume: system files and the root directory scan ----------------------------------

int exfat_scan_root_dir(mount_t mp, vfs_context_t context);
int exfat_scan_root_callback(void* scan_context, uint8_t* set, uint8_t* entry, uint32_t offset);
int exfat_system_node_get(struct exfat_mount* mount, vnode_t dir_vp, const char* name,
                          uint32_t offset, uint32_t first_cluster, uint64_t size, vnode_t* vpp);
int exfat_get_bitmap_file(struct exfat_mount* mount, vnode_t dir_vp, uint32_t offset,
                          const uint8_t* entry);

// --- Volume: up-case table (vnops/exfat_upcase.cpp) ---------------------------------------

int exfat_read_upcase(struct exfat_mount* mount, vnode_t dir_vp, uint32_t offset,
                      const uint8_t* entry);
uint32_t exfat_upcase_checksum(const uint8_t* buffer, uint32_t length);
int exfat_upcase_check_length(struct exfat_mount* mount, uint64_t length);
int exfat_upcase_expand(struct exfat_mount* mount, const uint8_t* buffer, uint32_t length,
                        uint16_t* table);
int exfat_upcase_load(struct exfat_mount* mount, const uint8_t* buffer, uint32_t length,
                      uint32_t table_checksum, uint16_t* table);

// --- Volume: attributes and label ------------------------------------------------------------

int exfat_vfs_getattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context);
int exfat_vfs_setattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context);
int exfat_update_root_entry(vnode_t root_vp, uint32_t* label_offset, const uint8_t* entry,
                            vfs_context_t context);

// --- Volume: metadata flush, sync and dirty state ---------------------------------------

// A metadata write that failed (a FAT or bitmap block, their pages, the
// device's buffers of directory blocks, the boot sector) leaves the
// metadata on disk in an unknown state, as damage found on disk does, and
// is recorded the same way: XM_CORRUPT, so that this mount never marks the
// volume clean and a later dirty mark adds MediaFailure (the format's flag
// for failed media I/O). A second flag would mean the same in every place
// that looks. Any thread may call it. Returns `error`.
static inline int exfat_note_write_error(struct exfat_mount* mount, int error) {
  if (error != 0)
    mount->xm_flags |= XM_CORRUPT;
  return error;
}

int exfat_mark_vol_dirty(struct exfat_mount* mount, int dirty, vfs_context_t context);
int exfat_sync_boot_sector(struct exfat_mount* mount, int wait, vfs_context_t context);
void exfat_meta_flush(struct exfat_mount* mount, int sync);
int exfat_flush_alloc_caches(struct exfat_mount* mount, const char* who);
int exfat_flush_metadata(struct exfat_mount* mount, int wait, const char* who);
void exfat_meta_flush_internal(struct exfat_mount* mount, int wait);
void exfat_meta_sync_callback(thread_call_param_t mount, thread_call_param_t unused);
int exfat_vfs_sync(mount_t mp, int waitfor, vfs_context_t context);
int exfat_sync_callback(vnode_t vp, void* argument_record);

// --- Volume: module start and registration -------------------------------------------------

int exfat_module_start(void);
int exfat_module_stop(void);
int exfat_vfs_init(struct vfsconf* vfsconf);
int exfat_vfs_uninit(void);

// --- Allocation: FAT access and FAT cache -------------------------------------------------

// exfat_fat_get_set_internal op bits.
#define EXFAT_FAT_GET 0x1  // read the entry through the out-pointer
#define EXFAT_FAT_SET 0x2  // store the new value

int exfat_fat_init_vol(struct exfat_mount* mount);
void exfat_fat_uninit_vol(struct exfat_mount* mount);
uint32_t* exfat_fat_map(struct exfat_mount* mount, uint32_t cluster, int* error);
int exfat_fat_cache_flush(struct exfat_mount* mount, int ioflags);
int exfat_fat_get_set_internal(int op, struct exfat_mount* mount, uint32_t cluster,
                               uint32_t* old_value, uint32_t new_value);
int exfat_fat_get_set(int op, struct exfat_mount* mount, uint32_t cluster, uint32_t* old_value,
                      uint32_t new_value);
int exfat_fat_find_last_cluster(struct exfat_node* node, uint32_t* last_cluster,
                                uint64_t* allocated_bytes);

// --- Allocation: bitmap ------------------------------------------------------------------

// The free-extent table: 512 runs in 4096 bytes, longest first, runs of equal
// length by increasing first cluster; a run of length 0 ends the list.
struct exfat_free_extent {
  uint32_t fe_start;   // first cluster of the run
  uint32_t fe_length;  // clusters
};
#define EXFAT_FREE_EXTENTS 512
static_assert(sizeof(struct exfat_free_extent) * EXFAT_FREE_EXTENTS == 4096);

uint32_t* exfat_bitmap_map(struct exfat_mount* mount, uint32_t bit, uint32_t** block_end,
                           int* error);
int exfat_bitmap_cache_flush(struct exfat_mount* mount, int ioflags);
int exfat_bitmap_mark_used(struct exfat_mount* mount, uint32_t first, uint32_t count);
int exfat_bitmap_mark_free(struct exfat_mount* mount, uint32_t first, uint32_t count);
int exfat_bitmap_count_free_contig(struct exfat_mount* mount, uint32_t first, uint32_t maximum,
                                   uint32_t* count);
int exfat_bitmap_find_free(struct exfat_mount* mount, uint32_t wanted,
                           struct exfat_free_extent* table);
void exfat_extent_insert(uint32_t first, uint32_t length, struct exfat_free_extent* table);
int exfat_count_free_clusters(struct exfat_mount* mount);

// --- Allocation: cluster chains and file size changes ------------------------------------

int exfat_chain_alloc(struct exfat_mount* mount, uint32_t first, uint32_t count);
int exfat_chain_free(struct exfat_mount* mount, uint32_t first);
// What exfat_chain_walk hands each run of a chain to (exfat_chain.cpp).
typedef int (*exfat_chain_visit_t)(struct exfat_mount* mount, uint32_t start, uint32_t length,
                                   uint32_t next, int read_error, void* argument);
int exfat_chain_walk(struct exfat_mount* mount, uint32_t first, exfat_chain_visit_t visit,
                     void* argument, uint64_t* clusters);
// The owner of clusters no entry set ever named: exfat_free_run and
// exfat_free_chain free them at once.
#define EXFAT_FREE_NOW (reinterpret_cast<struct exfat_node*>(uintptr_t(1)))
int exfat_free_run(struct exfat_mount* mount, uint32_t first, uint32_t count,
                   struct exfat_node* owner, struct exfat_node* origin);
int exfat_free_chain(struct exfat_mount* mount, uint32_t first, uint32_t cut,
                     struct exfat_node* owner, struct exfat_node* origin);
int exfat_free_allocation(struct exfat_node* owner, bool no_fat_chain, uint32_t first,
                          uint64_t length);
void exfat_pending_release(struct exfat_mount* mount, const struct exfat_node* node);
void exfat_pending_node_gone(struct exfat_mount* mount, const struct exfat_node* node,
                             bool removed);
int exfat_pending_take_back(struct exfat_node* node, uint64_t wanted, uint32_t* got);
uint32_t exfat_pending_take(struct exfat_mount* mount, struct exfat_pending_free* batch);
void exfat_pending_finish(struct exfat_mount* mount, const struct exfat_pending_free* batch,
                          uint32_t n, const char* who);
void exfat_pending_flush(struct exfat_mount* mount, const char* who);
void exfat_pending_make_room(struct exfat_mount* mount);
bool exfat_pending_retry(struct exfat_mount* mount, int error, int attempt);
uint32_t exfat_pending_flight_stop(const struct exfat_mount* mount, uint32_t start, uint32_t length,
                                   uint32_t next);
int exfat_file_add_extent(struct exfat_node* node, uint32_t first, uint32_t count);
int exfat_file_extend(struct exfat_node* node, uint64_t new_size, int flags);
int exfat_file_shrink(struct exfat_node* node, uint64_t new_size);
int exfat_truncate(struct exfat_node* node, uint64_t new_size, int flags, vfs_context_t context);

// --- Allocation: block mapping -------------------------------------------------------------

int exfat_blockmap_internal(struct exfat_node* node, uint32_t index, uint32_t count,
                            uint64_t* sector, uint32_t* cluster, uint64_t* bytes);
int exfat_blockmap(struct exfat_node* node, uint32_t index, uint32_t count, uint64_t* sector,
                   uint32_t* cluster, uint64_t* bytes);
int exfat_vnop_blockmap(struct vnop_blockmap_args* ap);
int exfat_vnop_strategy(struct vnop_strategy_args* ap);
int exfat_vnop_blktooff(struct vnop_blktooff_args* ap);
int exfat_vnop_offtoblk(struct vnop_offtoblk_args* ap);

// --- Allocation: the FAT vnode's operations -----------------------------------------------

int exfat_fat_pagein(struct vnop_pagein_args* ap);
int exfat_fat_pageout(struct vnop_pageout_args* ap);
int exfat_fat_blockmap(struct vnop_blockmap_args* ap);
int exfat_fat_strategy(struct vnop_strategy_args* ap);
int exfat_fat_fsync(struct vnop_fsync_args* ap);
int exfat_fat_inactive(struct vnop_inactive_args* ap);
int exfat_fat_reclaim(struct vnop_reclaim_args* ap);

// --- Directories: entry sets (node/exfat_entryset.cpp) -------------------------------------

uint16_t exfat_checksum_file_set(const uint8_t* set);
int exfat_valid_entry_set(const uint8_t* set);
int exfat_entry_set_shape_ok(const uint8_t* set);
uint16_t exfat_name_hash(const uint16_t* upcase, uint8_t name_length, const uint16_t* name);
uint16_t exfat_file_set_init(uint8_t* set, const uint16_t* name, long name_length,
                             uint16_t name_hash, uint16_t attributes, int32_t seconds_west);
void exfat_file_set_copy_name(uint8_t* set, const uint16_t* name, long name_length,
                              uint16_t name_hash);
uint16_t exfat_file_set_rename(uint8_t* set, const uint16_t* name, long name_length,
                               uint32_t name_hash);

// --- Directories: timestamps (node/exfat_time.cpp) -------------------------------------------

// seconds_west: the volume's xm_secondsWest.
void exfat_timestamp_to_unix(uint32_t timestamp, uint8_t increment, uint8_t utc_offset,
                             struct timespec* ts, int32_t seconds_west);
void exfat_timestamp_from_unix(uint32_t* timestamp, uint8_t* increment, uint8_t* utc_offset,
                               const struct timespec* ts, int32_t seconds_west);
int64_t exfat_timestamp_to_nanoseconds(uint32_t timestamp, uint8_t increment,
                                       uint8_t utc_offset, int32_t seconds_west);

// --- Directories: blocks and iteration -----------------------------------------------------

// exfat_dir_iterate modes (combinable).
#define ITER_SETS 0x1     // whole valid sets of File or unknown benign primaries
#define ITER_SINGLES 0x2  // in-use 0x81, 0x82, 0x83, 0xA0, 0xA1, 0xA2 entries
#define ITER_FREE 0x4     // free entries, the end marker included
#define ITER_INUSE 0x8    // every in-use entry, before other handling

// Iteration callbacks return 0 to go on, EXFAT_ITER_FOUND when they found
// what they sought (the walk stops; callers turn it into success), or an errno.
#define EXFAT_ITER_FOUND (-2)

// A set callback gets (argument, set copy, NULL, set offset); an entry
// callback gets (argument, NULL, entry in the block, entry offset).
typedef int (*exfat_iterate_callback)(void* argument, uint8_t* set, uint8_t* entry,
                                      uint32_t offset);

int exfat_dir_iterate(struct exfat_node* dir, uint32_t offset, void* argument,
                      exfat_iterate_callback callback, int flags, vfs_context_t context);
int exfat_dir_read(struct exfat_node* dir, uio_t uio, void* buffer, uint64_t offset,
                   uint32_t length, vfs_context_t context);
int exfat_dir_write(struct exfat_node* dir, uio_t uio, const void* buffer, uint64_t offset,
                    uint32_t length, bool advance_mark, vfs_context_t context);
void exfat_dir_buf_check(buf_t bp, struct exfat_mount* mount);

// --- Directories: nodes and the node hash --------------------------------------------------

void exfat_hash_init(void);
void exfat_hash_uninit(void);
struct exfat_node* exfat_hash_get(uint32_t dev, uint32_t dir_cluster, uint32_t offset,
                                  struct exfat_node* unlock_node, int* error);
void exfat_hash_insert(struct exfat_node* node);
void exfat_hash_remove(struct exfat_node* node);
void exfat_node_lock(struct exfat_node* node);
int exfat_node_try_lock(struct exfat_node* node);
void exfat_node_unlock(struct exfat_node* node);
void exfat_node_init_done(struct exfat_node* node);
struct exfat_node* exfat_node_alloc(void);
void exfat_node_free(struct exfat_node* node);
void exfat_node_unhash(struct exfat_node* node);
void exfat_vnode_param_init(struct vnode_fsparam* param, mount_t mp, enum vtype type, void* fsnode,
                            VOPFUNC* vops, off_t size, uint32_t flags);
int exfat_node_get(struct exfat_mount* mount, vnode_t parent_vp, struct componentname* cnp,
                   uint32_t offset, enum vtype type, int keep_locked, struct exfat_node** nodep,
                   vfs_context_t context);
int exfat_node_update(struct exfat_node* node, struct exfat_node* parent, vfs_context_t context);
void exfat_update_times(struct exfat_node* node);

// --- Directories: lookup ------------------------------------------------------------------

int exfat_lookup_componentname(struct exfat_node* dir, struct componentname* cnp,
                               uint32_t* offset, uint32_t* count, vfs_context_t context);
int exfat_lookup_name(struct exfat_node* dir, const uint16_t* name, uint32_t length,
                      uint16_t hash, const uint16_t* upcase, uint32_t* offset, uint32_t* count,
                      vfs_context_t context);
int exfat_lookup_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset);
int exfat_vnop_lookup(struct vnop_lookup_args* ap);

// --- Directories: listing -----------------------------------------------------------------

int exfat_vnop_readdir(struct vnop_readdir_args* ap);
int exfat_readdir_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset);

// --- Directories: free slots and deletion -------------------------------------------------

int exfat_find_empty_entries(struct exfat_node* dir, uint32_t count, uint32_t* offset,
                             vfs_context_t context);
int exfat_find_empty_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset);
int exfat_delete_dirents(struct exfat_node* dir, uint32_t offset, uint32_t count,
                         int free_clusters, vfs_context_t context);

// --- Namespace: node lock ordering --------------------------------------------------------

void exfat_lock_two(struct exfat_node* node1, struct exfat_node* node2);
void exfat_sort_nodes(struct exfat_node* nodes[4]);
void exfat_lock_four(struct exfat_node* a, struct exfat_node* b, struct exfat_node* c,
                     struct exfat_node* d);
void exfat_unlock_four(struct exfat_node* a, struct exfat_node* b, struct exfat_node* c,
                       struct exfat_node* d);
int exfat_lock_parent(struct exfat_node* node, struct exfat_node** parent);

// --- Namespace: create, remove, rename, symbolic links ------------------------------------

int exfat_vnop_create(struct vnop_create_args* ap);
int exfat_vnop_mkdir(struct vnop_mkdir_args* ap);
int exfat_vnop_mknod(struct vnop_mknod_args* ap);
int exfat_vnop_remove(struct vnop_remove_args* ap);
int exfat_vnop_rmdir(struct vnop_rmdir_args* ap);
int exfat_dir_empty_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset);
int exfat_dir_free_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset);
int exfat_dir_invalidate(struct exfat_node* dir);
int exfat_vnop_rename(struct vnop_rename_args* ap);
int exfat_vnop_symlink(struct vnop_symlink_args* ap);
int exfat_vnop_readlink(struct vnop_readlink_args* ap);
enum vtype exfat_check_link(struct exfat_node* node, vfs_context_t context);

// The buffer through which a link file's 1067 bytes are read and written
// (block 0 of its vnode): the contents rounded up to whole sectors, which
// the link's allocation (whole clusters) always covers. Not a whole
// cluster: clusters go up to 32 MiB, and the buffer cache's buffers up to
// 1 MiB.
static inline uint32_t exfat_link_buffer_size(const struct exfat_mount* mount) {
  const uint32_t sector = mount->xm_bytes_per_sector;
  return (kSymlinkFileSize + sector - 1) / sector * sector;
}
void exfat_md5_digest(const void* data, size_t length, char* digest);

// The steps create, mkdir and symlink share (vnops/exfat_create.cpp states
// their contracts).
int exfat_new_name(struct exfat_node* dir, struct componentname* cnp, uint16_t* name,
                   uint32_t* length, uint16_t* hash, vfs_context_t context);
uint16_t exfat_new_attributes(const struct componentname* cnp, struct vnode_attr* vap,
                              uint16_t base);
int exfat_new_set_write(struct exfat_node* dir, uint8_t* buffer, const uint16_t* name,
                        uint32_t length, uint16_t hash, uint16_t attributes, uint32_t* offset,
                        vfs_context_t context);
int exfat_new_node_allocate(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                            uint32_t entries, uint64_t size, const char* operation,
                            const char* kind, vfs_context_t context);
void exfat_new_node_ready(struct exfat_node* node);
int exfat_new_entry(vnode_t dvp, struct componentname* cnp, struct vnode_attr* vap, uint16_t base,
                    uint8_t** bufferp, uint32_t* offset, vfs_context_t context);
void exfat_new_buffer_free(uint8_t* buffer);
// What gives a new directory or link its clusters and contents; called with
// the parent's and the new node's locks held.
typedef int (*exfat_new_finish_t)(struct exfat_node* dir, struct exfat_node* node, uint32_t offset,
                                  uint32_t entries, const void* argument, vfs_context_t context);
int exfat_new_node_make(vnode_t dvp, struct componentname* cnp, uint32_t offset, uint32_t entries,
                        enum vtype type, exfat_new_finish_t finish, const void* argument,
                        vnode_t* vpp, vfs_context_t context);

// --- Namespace: inactive, close, fsync, reclaim, attributes ------------------------------

int exfat_vnop_open(struct vnop_open_args* ap);
int exfat_vnop_close(struct vnop_close_args* ap);
int exfat_vnop_inactive(struct vnop_inactive_args* ap);
int exfat_inactive(vnode_t vp, vfs_context_t context);
int exfat_vnop_fsync(struct vnop_fsync_args* ap);
int exfat_fsync_internal(vnode_t vp, bool wait, bool flush_dir_blocks, vfs_context_t context);
int exfat_dir_flush(struct exfat_node* dir, bool wait);
int exfat_dir_each_block(struct exfat_node* dir,
                         void (*apply)(struct exfat_mount* mount, daddr64_t block, bool wait),
                         bool wait);
int exfat_vnop_reclaim(struct vnop_reclaim_args* ap);
int exfat_vnop_ioctl(struct vnop_ioctl_args* ap);
int exfat_vnop_getattr(struct vnop_getattr_args* ap);
int exfat_vnop_setattr(struct vnop_setattr_args* ap);
int exfat_vnop_pathconf(struct vnop_pathconf_args* ap);

// --- File data: read, write, paging -------------------------------------------------------

int exfat_vnop_read(struct vnop_read_args* ap);
int exfat_vnop_write(struct vnop_write_args* ap);
int exfat_vnop_pagein(struct vnop_pagein_args* ap);
int exfat_vnop_pageout(struct vnop_pageout_args* ap);
int exfat_vnop_mnomap(struct vnop_mnomap_args* ap);
