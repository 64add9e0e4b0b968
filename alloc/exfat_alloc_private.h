#pragma once
// Constants and small helpers shared by the allocation layer's files (FAT,
// FAT vnode, bitmap, block mapping) and by nobody else.

#include <cstdint>

#include "exfat_format.h"
#include "exfat_mount.h"
#include "host/types.h"

// Both one-block caches hold one 4096-byte block of their system file.
#define EXFAT_META_CACHE_SIZE 4096u
#define EXFAT_META_CACHE_MASK (EXFAT_META_CACHE_SIZE - 1)

// The page cache's logical block for regular files and the FAT vnode.
#define EXFAT_LOGICAL_BLOCK_SHIFT 12
#define EXFAT_LOGICAL_BLOCK_SIZE (1u << EXFAT_LOGICAL_BLOCK_SHIFT)

// A FAT value at or above this ends a chain: the bad-cluster mark and the
// end-of-chain values alike.
#define EXFAT_FAT_CHAIN_END EXFAT_FAT_BAD

// Is `cluster` a data cluster of this volume (2 .. xm_max_cluster)?
static inline bool exfat_cluster_valid(const struct exfat_mount* mount, uint32_t cluster) {
  return cluster >= EXFAT_FIRST_CLUSTER && cluster <= mount->xm_max_cluster;
}

// Records that on-disk metadata was found inconsistent (an atomic
// read-modify-write of xm_flags: any thread may do it, without a lock).
static inline void exfat_set_corrupt(struct exfat_mount* mount) {
  mount->xm_flags |= XM_CORRUPT;
}

// First device sector (in xm_bytes_per_sector units) of data cluster c.
static inline uint64_t exfat_cluster_to_sector(const struct exfat_mount* mount, uint32_t cluster) {
  return mount->xm_heap_offset + static_cast<uint64_t>(cluster - EXFAT_FIRST_CLUSTER) *
                                     mount->xm_bytes_per_cluster / mount->xm_bytes_per_sector;
}

// Moves `length` bytes between a cache buffer and a system file through the
// file's page cache (defined in exfat_fat.cpp; used by both caches).
int exfat_cache_io(vnode_t vp, void* buffer, uint32_t offset, uint32_t length, uint32_t filesize,
                   int rw, int ioflags);

// Gathers the run of consecutive clusters from `start` in a chain
// (exfat_chain.cpp). The caller holds xm_fat_lock.
int exfat_chain_run(struct exfat_mount* mount, uint32_t start, uint32_t* length, uint32_t* next);
