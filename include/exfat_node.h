#pragma once
// The in-memory node of a file, directory, symbolic link or system file.
//
// One exfat_node per vnode, attached as the vnode's fsnode, allocated
// zero-filled under exfat_node_tag. A node is identified by where its entry
// set lives: (x_dev, x_dir_cluster, x_dir_offset), the key of the global
// node hash. The hash links and x_hash_flags are protected by
// exfat_hash_lock; x_index by exfat_dirindex_lock (the index it points to
// belongs to the holder of x_lock, see exfat_dirindex.h); everything else by
// the node lock x_lock (recursive per thread through x_lock_owner and
// x_lock_count), with the extent cache fields under the mount's xm_fat_lock.

#include "host/locks.h"
#include "host/types.h"
#include "host/vnode.h"

struct exfat_mount;
struct exfat_dirindex;

// x_hash_flags bits (exfat_hash_lock).
#define X_HASH_INIT 0x0001   // being initialised: lookups sleep on the node
#define X_HASH_WAIT 0x0002   // a thread sleeps until X_HASH_INIT is cleared
#define X_HASH_STALE 0x0004  // the entry set is gone: lookups skip the node

// x_flags bits (node lock).
#define X_ROOT 0x0001
#define X_SYMLINK 0x0002
#define X_MODIFIED 0x0004        // stamp the modification time at update_times
#define X_CREATED 0x0008         // stamp the creation time
#define X_ACCESSED 0x0010        // stamp the access time
#define X_DIRTY 0x0020           // the File entry must be written back
#define X_STREAM_DIRTY 0x0040    // the Stream Extension must be written back too
#define X_CONTIGUOUS 0x0080      // NoFatChain: the data is one run
#define X_DELETED 0x0400         // the entry set was removed from the parent
#define X_SYSTEM 0x0800          // FAT, bitmap or up-case system file
#define X_BAD_SET 0x1000         // a set of this directory failed validation
#define X_NO_INDEX 0x2000        // directories: laid out so that no index can describe them

struct exfat_node {
  lck_mtx_t* x_lock;            // the node lock
  thread_t x_lock_owner;        // holder of x_lock, NULL when free
  lck_mtx_t* x_io_lock;         // serialises data transfer and size changes
  struct exfat_node* x_hash_next;    // exfat_hash_lock
  struct exfat_node** x_hash_prevp;  // exfat_hash_lock
  struct exfat_node* x_parent;  // parent directory's node; NULL for root/system/deleted
  struct exfat_mount* x_mount;
  vnode_t x_vnode;
  uint32_t x_dev;               // hash key
  uint32_t x_dir_cluster;       // hash key: parent's first cluster (0 for the root)
  uint32_t x_dir_offset;        // hash key: set offset in the parent (0 for the root)
  uint32_t x_hash_flags;        // X_HASH_*; exfat_hash_lock
  uint32_t x_flags;             // X_*
  uint32_t x_lock_count;        // recursion depth of x_lock
  uint16_t x_attributes;        // FileAttributes
  uint8_t x_secondary_count;    // SecondaryCount as read
  uint8_t x_create_10ms;
  uint8_t x_modify_10ms;
  uint8_t x_create_utc;
  uint8_t x_modify_utc;
  uint8_t x_access_utc;
  uint32_t x_create_time;
  uint32_t x_modify_time;
  uint32_t x_access_time;
  uint32_t x_create_msec;       // creation time, sub-second part in milliseconds
  uint64_t x_create_sec;        // creation time in seconds since 1970
  uint32_t x_start_cluster;     // FirstCluster, 0 when nothing is allocated
  uint32_t x_last_cluster;      // last cluster of the allocation, where known
  uint64_t x_valid_size;        // ValidDataLength
  uint64_t x_size;              // DataLength (root: its chain length)
  uint64_t x_link_length;       // symbolic links: length of the target
  uint32_t x_checked_end;       // directories: sets before this offset are validated
  uint32_t x_extent_cluster;    // one-run extent cache (xm_fat_lock): first cluster
  uint32_t x_extent_index;      // file cluster index of x_extent_cluster
  uint32_t x_extent_length;     // run length in clusters; 0 = empty
  struct exfat_dirindex* x_index;  // directories: the index, or NULL (exfat_dirindex_lock)
};

// The vnode type of the ready node of a key, without taking a reference:
// VNON when there is none (or it is being set up or removed). Takes
// exfat_hash_lock. A vnode's type is fixed when it is made, and the node
// leaves the hash before its vnode changes, so the answer is exact for as
// long as the caller holds the lock of the directory the key lies in.
enum vtype exfat_hash_peek_type(uint32_t dev, uint32_t dir_cluster, uint32_t offset);

// The private record of the FAT's own vnode ("<FAT>"). Not an exfat_node:
// the FAT is one contiguous range of sectors, mapped by arithmetic.
struct exfat_fat_node {
  struct exfat_mount* xf_mount;
  uint32_t xf_fat_offset;  // first sector of the FAT
  uint32_t xf_fat_size;    // FAT length in bytes
};
