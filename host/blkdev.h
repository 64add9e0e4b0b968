#pragma once
// Block devices: a device vnode (VBLK) over a file, a real block device, or
// memory.
//
// Strategy reads and writes the device in large pread/pwrite requests.
// VNOP_IOCTL answers the disk requests below (others: ENOTTY); VNOP_FSYNC
// writes the vnode's dirty buffers and, with MNT_WAIT, flushes the backing
// store. DKIOCSETBLOCKSIZE takes a power of two from 512 to 65536 (else
// EINVAL) and first writes and drops the device's idle cached buffers,
// whose block numbers count in the old size. Every device vnode has its own
// device number (vnode_specrdev). Test devices live in memory and can
// inject faults.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/types.h"

#define DKIOCGETBLOCKSIZE 0x40046418u          // uint32_t: logical block size
#define DKIOCSETBLOCKSIZE 0x80046418u          // uint32_t in: logical block size
#define DKIOCGETBLOCKCOUNT 0x40086419u         // uint64_t: blocks of the logical size
#define DKIOCGETPHYSICALBLOCKSIZE 0x4004644Du  // uint32_t
#define DKIOCSYNCHRONIZECACHE 0x20006416u      // no argument
#define DKIOCUNMAP 0x8010641Fu                 // dk_unmap_t in: ranges no longer in use

// A byte range of the device, for DKIOCUNMAP.
struct dk_extent_t {
  uint64_t offset;
  uint64_t length;
};

// DKIOCUNMAP: the file system no longer uses these ranges. The device may
// forget what they hold (reads return zeroes or the old data). A file
// backing punches holes (the image stays sparse), a block device is sent
// BLKDISCARD, memory is zeroed. Ranges must be whole logical blocks inside
// the device (else EINVAL); a backing that can't discard says ENOTSUP and
// changes nothing. Fails with EROFS on a device opened read-only.
struct dk_unmap_t {
  dk_extent_t* extents;
  uint32_t extentsCount;
  uint32_t options;  // none defined; 0
};

// Fault injection and counters of an in-memory device. Thread-safe.
// A request fails (EIO, changing nothing) when its byte range covers one of
// the chosen bytes. The count of fail_writes_after starts when the faults
// are set. In power-cut mode every write is kept in an undo log until the
// device's write cache is flushed (DKIOCSYNCHRONIZECACHE, or VNOP_FSYNC
// with MNT_WAIT); leaving the mode makes pending writes durable.
struct host_memdev_faults {
  std::vector<uint64_t> fail_read_bytes;   // byte offsets whose reads fail (EIO)
  std::vector<uint64_t> fail_write_bytes;  // byte offsets whose writes fail (EIO)
  int64_t fail_writes_after = -1;          // writes after this many succeed fail
  bool power_cut_mode = false;             // writes are volatile until a cache flush
};

struct host_memdev;  // opaque

// Requests that reached the device (failed ones included) and cache flushes.
struct host_devstats {
  uint64_t reads, writes, bytes_read, bytes_written, flushes;
  uint64_t discards, bytes_discarded;  // DKIOCUNMAP ranges that the device took
};

// Opens a file or block device as a device vnode with an I/O reference.
// Logical block size: the device's for a block device, 512 for a file
// (overridable). Physical block size: the device's, 512 for a file.
// ENOENT, EACCES … from open; EROFS for a write-protected block device
// opened for writing; ENODEV for anything else (a directory). Writes to a
// device opened read-only fail with EROFS.
int host_blkdev_open(const char* path, int rdonly, vnode_t* devvpp);
// The error of the first write or cache flush that failed on the device
// since it was opened (EIO, ENOSPC, EROFS …), or 0. It stays: a failed
// write is otherwise known only to the thread that waited for it, and
// nobody waits for a delayed write or a write-behind, so whoever answers
// for the device's contents (a sync, an unmount) asks here. Thread-safe.
int host_blkdev_write_error(vnode_t devvp);
// An in-memory device of `bytes` bytes with the given block sizes.
int host_memdev_create(uint64_t bytes, uint32_t logical_block, uint32_t physical_block,
                       vnode_t* devvpp);
// Loads/saves the contents of an in-memory device.
int host_memdev_load(vnode_t devvp, const void* data, size_t len, uint64_t offset);
int host_memdev_read(vnode_t devvp, void* data, size_t len, uint64_t offset);
void host_memdev_set_faults(vnode_t devvp, const host_memdev_faults& faults);
// Drops every write since the last cache flush (power_cut_mode), newest
// first. The buffer cache is not touched: a test discards it by unmounting
// or with buf_invalidateblks(devvp, 0, 0, 0).
void host_memdev_power_cut(vnode_t devvp);
// Refuses DKIOCSETBLOCKSIZE with this error (0: accept).
void host_memdev_refuse_setblocksize(vnode_t devvp, int error);
void host_blkdev_stats(vnode_t devvp, host_devstats* stats);
void host_blkdev_reset_stats(vnode_t devvp);
// Releases the device vnode (after any mount of it is gone): drops the
// caller's I/O reference and reclaims the vnode, which writes its delayed
// writes and closes the backing store.
void host_blkdev_close(vnode_t devvp);
