#pragma once
// blockmapfs: a small file system for the page-cache and cluster tests.
// Files are tables of 4 KiB blocks on an in-memory device (512-byte
// sectors), each a device block or a hole, laid out by the test; a write
// mapping allocates holes. Pagein and pageout build their own page lists
// and take the file's I/O lock, which writers hold across cluster_write, so
// the lock-order hazard between a writer and its page-out is real here.

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
  std::atomic<int> pageins{0}, pageouts{0}, pageout_pages{0}, blockmaps{0};
};

class BlockMapFs {
 public:
  explicit BlockMapFs(uint64_t dev_bytes = 64ull << 20);
  ~BlockMapFs();
  BlockMapFs(const BlockMapFs&) = delete;
  BlockMapFs& operator=(const BlockMapFs&) = delete;

  vnode_t devvp() const { return devvp_; }
  mount_t mp() const { return mp_; }

  // A file laid out by `runs` (holes past them); the vnode has an I/O reference.
  bmfs_file* create(off_t size, const std::vector<bmfs_run>& runs);
  // Drops the test's reference and reclaims the vnode (pushing its pages).
  void release(bmfs_file* f);

  // A file system's write and read: I/O lock, size update and cluster call.
  int write(bmfs_file* f, off_t off, const void* data, size_t len, int flags = 0);
  int read(bmfs_file* f, off_t off, void* data, size_t len, size_t* resid = nullptr);

  // The file's bytes as the device holds them (holes as zeros).
  std::vector<char> on_device(bmfs_file* f);
  // Fills every mapped block of the file on the device with `byte`.
  void fill(bmfs_file* f, char byte);
  // A truncate that writes nothing; returns ubc_setsize's result.
  int set_size(bmfs_file* f, off_t size);

  // A random read or write (write_percent in 100) mirrored in `model`;
  // returns the first fault found, or "". One thread per file.
  std::string random_op(bmfs_file* f, std::vector<char>& model, std::mt19937& rng, size_t max_len,
                        unsigned write_percent);

 private:
  vnode_t devvp_ = nullptr;
  mount_t mp_ = nullptr;
  std::vector<bmfs_file*> files_;
};
