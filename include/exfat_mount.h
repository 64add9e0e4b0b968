#pragma once
// The per-mount record of the exFAT driver and the mount argument record.
//
// One exfat_mount exists per mounted volume, allocated zero-filled at mount
// under exfat_malloc_tag, attached to the kernel mount as its private data
// and freed at unmount. Lock order among its mutexes, outermost first:
// xm_rename_lock, xm_bitmap_lock, xm_fat_lock. xm_meta_lock (held by the
// delayed flush for the whole flush) and xm_pending_lock (held while a
// batch of freed clusters is released) are taken before xm_bitmap_lock and
// xm_fat_lock, xm_meta_lock first; docs/LOCKING.md gives the whole order.

#include <atomic>

#include "host/locks.h"
#include "host/thread_call.h"
#include "host/types.h"

// xm_flags bits.
// XM_CORRUPT: metadata corruption was seen, or a metadata write failed (see
// exfat_note_write_error): this mount never marks the volume clean.
#define XM_CORRUPT 0x20000000
#define XM_DISCARD 0x40000000  // freed clusters are discarded on the device (DKIOCUNMAP)
#define XM_RDONLY 0x80000000   // mounted read-only: write nothing

// xm_meta_state bits.
#define META_SCHEDULED 0x00000001  // the delayed flush is armed

#define EXFAT_LABEL_BYTES 64  // xm_label: UTF-8, NUL-terminated
#define EXFAT_NO_LABEL_OFFSET 0xFFFFFFFFu
#define EXFAT_CACHE_NONE 0xFFFFFFFFu  // cache offset: nothing cached

// Clusters a truncation or removal gave back, kept allocated until no
// directory entry on disk can still name them (alloc/exfat_pending.cpp).
#define EXFAT_PENDING_FREES 64
#define EXFAT_PENDING_HELD 1   // the owner's entry still names them: not yet written
#define EXFAT_PENDING_READY 2  // the change that dropped them is in the buffer cache

struct exfat_pending_free {
  uint32_t first;       // first cluster of the run, or the chain's first cluster
  uint32_t clusters;    // how many clusters the entry frees
  uint32_t cut;         // chain: the cluster whose FAT entry becomes the end mark, or 0
  uint8_t chain;        // 1: the FAT chain from `first`; 0: `clusters` clusters from `first`
  uint8_t state;        // EXFAT_PENDING_*
  const void* owner;    // HELD: the node whose entry must be written first
  const void* origin;   // the node that gave them back (nullptr once it is gone)
};

struct exfat_mount {
  mount_t xm_mp;               // the kernel mount
  vnode_t xm_fat_vp;           // "<FAT>", a use reference from fat_init_vol to uninit
  vnode_t xm_bitmap_vp;        // "<bitmap>", a use reference from the root scan to uninit
  lck_mtx_t* xm_rename_lock;   // serialises directory moves between parents
  uint16_t* xm_upcase;         // 65,536 entries, exfat_malloc_tag; read-only once set
  // XM_*. Atomic: XM_CORRUPT is set by whichever thread finds damage, while
  // others test the bits; every |= and &= is one atomic read-modify-write.
  std::atomic<uint32_t> xm_flags;
  uint32_t xm_dev;             // device number (hash key of every node)
  uint16_t xm_mask;            // permission bits reported for every file
  // The time-zone value of this volume's timestamps (exfat_secondsWest, in
  // seconds west of UTC), from its mount arguments. Kept per mount, not as
  // one value for the module: a process may hold several volumes mounted
  // with different values (a copy between two images), and each must stamp
  // and read its own files with its own. Set at mount and at every update;
  // read without a lock.
  std::atomic<int32_t> xm_secondsWest;
  vnode_t xm_devvp;            // the block device
  uint32_t xm_max_io;          // largest file I/O in bytes
  uint32_t xm_root_cluster;    // first cluster of the root directory
  uint32_t xm_max_cluster;     // highest valid cluster number
  uint32_t xm_free_clusters;   // protected by xm_bitmap_lock
  uint32_t xm_heap_offset;     // sector of cluster 2
  uint32_t xm_bytes_per_cluster;
  uint32_t xm_bytes_per_sector;
  uint32_t xm_phys_block_size;
  uint32_t xm_block_size;      // metadata (directory) block size
  uint32_t xm_sectors_per_block;
  uint32_t xm_blocks_per_cluster;
  lck_mtx_t* xm_fat_lock;      // guards the FAT cache, FAT entries, node extent caches
  uint32_t* xm_fat_cache;      // 4096 bytes of the FAT (little-endian entries); xm_fat_lock
  uint32_t xm_fat_cache_offset;  // byte offset in the FAT, or EXFAT_CACHE_NONE; xm_fat_lock
  uint32_t xm_fat_cache_dirty;   // xm_fat_lock
  uint32_t xm_fat_offset;      // sector of the FAT
  uint32_t xm_fat_size;        // FAT size in bytes
  lck_mtx_t* xm_bitmap_lock;   // guards the bitmap cache and xm_free_clusters
  uint32_t* xm_bitmap_cache;   // 4096 bytes of the bitmap; xm_bitmap_lock
  uint32_t xm_bitmap_cache_offset;  // byte offset in the bitmap, or EXFAT_CACHE_NONE
  uint32_t xm_bitmap_size;     // bitmap file length in bytes
  uint8_t xm_bitmap_cache_dirty;    // xm_bitmap_lock
  uint8_t xm_percent_in_use;   // percentInUse on disk (read at mount, then as written)
  char xm_label[EXFAT_LABEL_BYTES];  // volume label, UTF-8
  uint8_t xm_uuid[16];         // volume UUID, RFC 4122 byte order
  uint32_t xm_label_offset;    // label entry's offset in the root, or EXFAT_NO_LABEL_OFFSET
  // Clusters given back but not yet free: see alloc/exfat_pending.cpp.
  lck_mtx_t* xm_pending_lock;  // held while a batch of them is being freed
  struct exfat_pending_free xm_pending[EXFAT_PENDING_FREES];  // xm_bitmap_lock
  uint32_t xm_pending_count;   // used slots of xm_pending; xm_bitmap_lock
  uint32_t xm_pending_ready;   // clusters of entries that no entry on disk needs; xm_bitmap_lock
  uint32_t xm_pending_taken;   // bumped whenever a node takes its own back; xm_bitmap_lock
  const struct exfat_pending_free* xm_pending_flight;  // the batch being freed; xm_bitmap_lock
  uint32_t xm_pending_flight_count;                    // its entries; xm_bitmap_lock
  lck_mtx_t* xm_meta_lock;     // guards xm_meta_state
  thread_call_t xm_meta_timer; // the delayed metadata flush
  uint32_t xm_meta_state;      // META_*; xm_meta_lock
};

// --- Mount arguments --------------------------------------------------------------
//
// The 24-byte record a mount tool passes to the mount call. Its fields are
// little-endian; the mount decodes them byte by byte, and this struct only
// fixes the layout (checked below) for callers that build the record.

#define EXFAT_ARGS_MAGIC 0xD4C1C6F8u

struct exfat_args {
  uint32_t magic;        //  0: EXFAT_ARGS_MAGIC
  uint32_t uid;          //  4: accepted, not used
  uint32_t gid;          //  8: accepted, not used
  uint16_t mask;         // 12: permission bits, low 12 bits used
  uint16_t pad;          // 14
  int32_t secondsWest;   // 16: time-zone value for timestamps
  uint32_t flags;        // 20: EXFAT_ARGS_*; cleared when the magic is wrong
};

// exfat_args.flags bits.
#define EXFAT_ARGS_DISCARD 0x00000001  // discard clusters as they are freed

// The mount's ioctl (VFS_IOCTL): EXFAT_IOC_GETSTATE fills a uint32_t with
// EXFAT_STATE_* bits, so that the mount's owner can act on damage the
// driver found (stop writing, stop serving).
#define EXFAT_IOC_GETSTATE 0x40045801u
#define EXFAT_STATE_CORRUPT 0x00000001  // XM_CORRUPT: damage seen, or a metadata write failed
static_assert(sizeof(struct exfat_args) == 24);
static_assert(offsetof(struct exfat_args, uid) == 4);
static_assert(offsetof(struct exfat_args, gid) == 8);
static_assert(offsetof(struct exfat_args, mask) == 12);
static_assert(offsetof(struct exfat_args, secondsWest) == 16);
static_assert(offsetof(struct exfat_args, flags) == 20);
