#pragma once
// blockmapfs: a small file system for the page-cache and cluster-layer
// tests.
//
// Files live on an in-memory device (512-byte sectors) as a table of 4 KiB
// file blocks, each either a device block or a hole. The table is the
// test's to lay out: discontiguous runs, holes, a contiguous extent. The
// blockmap operation reports runs of consecutive device blocks and runs of
// holes (sector -1) for reads; a write mapping gives a hole a fresh device
// block, as a file system allocating on write does. Pagein and pageout build
// their own page lists and hand runs to cluster_pagein/cluster_pageout, as a
// disk file system does; both take the file's I/O lock, the lock its writer
// holds across cluster_write, so that the lock-order hazard between a writer
// and the page-out of its own file is real in these tests.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "host/mount.h"
#include "host/types.h"
#include "host/vfs.h"
#include "host/vnode.h"

// n bytes from a seeded generator: different at every offset and per seed.
std::vector<char> random_bytes(size_t n, uint32_t seed);

struct bmfs_run {
  int64_t dev_block;  // first 4 KiB device block, or -1 for a hole
  uint32_t blocks;    // 4 KiB blocks in the run
};

struct bmfs_file {
  std::mutex io_lock;  // the file's I/O lock (writers, pagein, pageout)
  std::mutex lock;     // protects size and blocks (taken by blockmap)
  off_t size = 0;
  std::vector<int64_t> blocks;  // file block -> device block, -1: hole
  vnode_t vp = nullptr;
  std::atomic<int> pageins{0}, pageouts{0}, pageout_pages{0};
};

class BlockMapFs {
 public:
  // An in-memory device of dev_bytes, mounted as a blockmapfs volume.
  explicit BlockMapFs(uint64_t dev_bytes = 64ull << 20);
  ~BlockMapFs();
  BlockMapFs(const BlockMapFs&) = delete;
  BlockMapFs& operator=(const BlockMapFs&) = delete;

  vnode_t devvp() const { return devvp_; }
  mount_t mp() const { return mp_; }

  // A file of `size` bytes laid out by `runs` (file blocks past the runs are
  // holes). The vnode comes with an I/O reference.
  bmfs_file* create(off_t size, const std::vector<bmfs_run>& runs);
  // Drops the test's reference and reclaims the vnode (pushing its pages).
  void release(bmfs_file* f);

  // What a file system's write and read do around the cluster layer: the
  // I/O lock, the size update (ubc_setsize) and the call. Return the error;
  // *resid (when given) the bytes not transferred.
  int write(bmfs_file* f, off_t off, const void* data, size_t len, int flags = 0,
            size_t* resid = nullptr);
  int read(bmfs_file* f, off_t off, void* data, size_t len, size_t* resid = nullptr);

  // The file's bytes as the device holds them (holes as zeros).
  std::vector<char> on_device(bmfs_file* f);
  // Writes raw bytes of the device under file offset `off` (its mapped
  // blocks must exist), bypassing the cache.
  void poke_device(bmfs_file* f, off_t off, const void* data, size_t len);
  // Fills every mapped block of the file on the device with `byte`.
  void fill(bmfs_file* f, char byte);
  // Changes the file's size as a truncate that writes nothing does; returns
  // ubc_setsize's result.
  int set_size(bmfs_file* f, off_t size);

  // One read or write (write_percent in a hundred) of 1..max_len bytes,
  // sometimes only a few, at a random offset within the file, mirrored in
  // `model`; a read must match the model. Returns a description of the
  // first fault, or an empty string. Safe for one thread per file.
  std::string random_op(bmfs_file* f, std::vector<char>& model, std::mt19937& rng, size_t max_len,
                        unsigned write_percent);

 private:
  vnode_t devvp_ = nullptr;
  mount_t mp_ = nullptr;
  std::vector<bmfs_file*> files_;
};
