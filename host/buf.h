#pragma once
// The buffer cache: blocks keyed by (vnode, logical block number), each with
// its own size.
//
// A buffer is held by one thread at a time (busy); others asking for it wait.
// Reads fill it through the vnode's strategy: for a device vnode the block
// number is a device block (of the device's current logical block size); for
// a file vnode the logical block is mapped to the device through the file
// system's blockmap operation first (VNOP_BLKTOOFF, VNOP_BLOCKMAP), holes
// reading as zeros. A delayed write (buf_bdwrite) keeps the buffer on the
// vnode's dirty list until buf_flushdirtyblks, buf_invalidateblks, or
// eviction writes it. Asking for a cached block with another size writes the
// old buffer back if it is dirty and reads the block again. The cache is
// bounded in bytes; clean buffers are evicted least recently used first,
// dirty ones are written before they go.

#include "host/types.h"

// buf_getblk operations
#define BLK_READ 0x01
#define BLK_WRITE 0x02
#define BLK_META 0x10
#define BLK_ONLYVALID 0x80000000

// buf_flags()
#define B_WRITE 0x00000000
#define B_READ 0x00000001
#define B_ASYNC 0x00000002
#define B_NOCACHE 0x00000004
#define B_DELWRI 0x00000008
#define B_LOCKED 0x00000010
#define B_PHYS 0x00000020
#define B_CLUSTER 0x00000040
#define B_PAGEIO 0x00000080
#define B_META 0x00000100
#define B_RAW 0x00000200
#define B_FUA 0x00000400
#define B_PASSIVE 0x00000800
#define B_IOSTREAMING 0x00001000
#define B_THROTTLED_IO 0x00002000
#define B_ENCRYPTED_IO 0x00004000
#define B_STATICCONTENT 0x00008000

// buf_invalidateblks flags
#define BUF_WRITE_DATA 0x0001
#define BUF_SKIP_META 0x0002
#define BUF_INVALIDATE_LOCKED 0x0004
// buf_invalblkno flags
#define BUF_WAIT 0x01

// Returns the buffer busy, with valid data when BLK_READ/BLK_META found it
// cached (else its contents are undefined until read or cleared). With
// BLK_ONLYVALID returns NULL when the block is not cached (or cached with
// another size). Waits while another thread holds the block; asking for a
// block the calling thread holds panics. size: 1 byte to 1 MiB.
// slpflag, slptimeo: ignored; the host has no signals, so a wait for a busy
// buffer is never interrupted and lasts until the holder releases it.
buf_t buf_getblk(vnode_t vp, daddr64_t blkno, int size, int slpflag, int slptimeo, int operation);
// Read the block (through the cache). On error *bpp is still a busy buffer
// that the caller must release (the release drops it: nothing of a failed
// read stays cached). cred: ignored; devices check no credentials here.
errno_t buf_bread(vnode_t vp, daddr64_t blkno, int size, kauth_cred_t cred, buf_t* bpp);
errno_t buf_meta_bread(vnode_t vp, daddr64_t blkno, int size, kauth_cred_t cred, buf_t* bpp);

// The writes take a busy buffer and release it. A write that fails is not
// retried: the error is returned, and the buffer stays cached (unless it
// was being dropped) clean, with the data it was given.
errno_t buf_bwrite(buf_t bp);   // synchronous write, then released
errno_t buf_bdwrite(buf_t bp);  // delayed write: marked dirty and released
errno_t buf_bawrite(buf_t bp);  // asynchronous write; completes before returning here
void buf_brelse(buf_t bp);      // release unchanged (an invalid buffer is dropped)
void buf_clear(buf_t bp);       // zero the data
void buf_markaged(buf_t bp);    // evict first
void buf_markinvalid(buf_t bp); // drop at release, without writing

// Drops every buffer of vp, writing dirty ones first with BUF_WRITE_DATA
// (BUF_SKIP_META: leaves B_META buffers alone). Waits for held buffers.
// Returns the first write error. slpflag, slptimeo: ignored, as for
// buf_getblk.
int buf_invalidateblks(vnode_t vp, int flags, int slpflag, int slptimeo);
// Drops one block without writing it (waits for a busy one with BUF_WAIT,
// else EBUSY).
errno_t buf_invalblkno(vnode_t vp, daddr64_t lblkno, int flags);
// Writes every delayed-write buffer of vp; waits for held ones when wait is
// set (except those the calling thread holds). flags must be 0. msg:
// ignored; it names the caller in a kernel's diagnostics, and the host
// prints none here. Returns the first write error, or else, once, the
// error of a delayed write of vp that failed since the last flush where no
// caller could be told (written at eviction, at a change of block size).
// A kernel's version returns nothing; here a file system that must know
// whether its metadata reached the disk learns it.
errno_t buf_flushdirtyblks(vnode_t vp, int wait, int flags, const char* msg);

// Performs the I/O described by bp on the device devvp; ap is the
// vnop_strategy_args of the file system's strategy call. Maps the buffer's
// logical block first when it is not mapped yet: VNOP_BLKTOOFF, then
// VNOP_BLOCKMAP run after run (VNODE_READ or VNODE_WRITE as the buffer
// says); holes read as zeros, and a write into a hole fails with EIO. A
// buffer mapped as one run starting on a device block keeps its device
// block (buf_blkno) and is not mapped again. Completes the buffer and
// returns its error.
errno_t buf_strategy(vnode_t devvp, void* ap);

// Buffers not from the cache, for I/O the caller describes (the cluster
// layer). buf_free releases one.
buf_t buf_alloc(vnode_t vp);
void buf_free(buf_t bp);
void buf_setdataptr(buf_t bp, uintptr_t data);
void buf_setcount(buf_t bp, uint32_t bcount);
void buf_setflags(buf_t bp, int32_t flags);
void buf_clearflags(buf_t bp, int32_t flags);
void buf_setlblkno(buf_t bp, daddr64_t lblkno);
void buf_setvnode(buf_t bp, vnode_t vp);
// Cluster I/O: the buffer's data lives in the pages of a page list, from
// byte `offset` of the list on (the device does vectored I/O into them).
void buf_setupl(buf_t bp, upl_t upl, uint32_t offset);
upl_t buf_upl(buf_t bp);
uint32_t buf_uploffset(buf_t bp);
// Waits for an asynchronous buffer to complete; returns its error.
errno_t buf_biowait(buf_t bp);
void buf_biodone(buf_t bp);

// Accessors.
uintptr_t buf_dataptr(buf_t bp);
uint32_t buf_count(buf_t bp);
uint32_t buf_size(buf_t bp);
uint32_t buf_resid(buf_t bp);
void buf_setresid(buf_t bp, uint32_t resid);
daddr64_t buf_blkno(buf_t bp);
daddr64_t buf_lblkno(buf_t bp);
void buf_setblkno(buf_t bp, daddr64_t blkno);
vnode_t buf_vnode(buf_t bp);
int32_t buf_flags(buf_t bp);
errno_t buf_error(buf_t bp);
void buf_seterror(buf_t bp, errno_t error);
dev_t buf_device(buf_t bp);

// Host controls.
// The bound on cached bytes (0: the default, 64 MiB). Idle buffers beyond a
// lower bound are evicted at once. Held buffers are never evicted, so the
// cache may exceed the bound while they are held.
void host_bufcache_set_limit(size_t bytes);
size_t host_bufcache_bytes(void);
// Cached buffers of a vnode (any state).
int host_buf_count(vnode_t vp);
// Threads sleeping until a busy buffer is released (tests).
int host_buf_waiters(void);
