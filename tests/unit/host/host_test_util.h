#pragma once
// Helpers shared by the host's tests: waiting, bounds, bare vnodes, and
// in-memory devices with known contents.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace host_test {

// Polls until pred holds or about five seconds pass; returns the last answer.
template <typename Pred>
bool eventually(Pred pred) {
  for (int i = 0; i < 5000; i++) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return pred();
}

// Runs `child` in a forked child: true when it returned true within
// `seconds` (a child still running then is killed).
inline bool in_child(const std::function<bool()>& child, int seconds = 20) {
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) _exit(child() ? 0 : 1);
  int status = 0;
  for (int i = 0; i < seconds * 100; i++) {
    if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return false;
}

// Lowers the page pool's bound for one test and restores it after.
struct PoolLimit {
  size_t saved = host_ubc_limit();
  explicit PoolLimit(size_t bytes) { host_ubc_set_limit(bytes); }
  ~PoolLimit() { host_ubc_set_limit(saved); }
};

inline struct vnode_fsparam fsparam(enum vtype type, VOPFUNC* ops, uint32_t flags = VNFS_NOCACHE,
                                    mount_t mp = nullptr) {
  struct vnode_fsparam p = {};
  p.vnfs_mp = mp;
  p.vnfs_vtype = type;
  p.vnfs_vops = ops;
  p.vnfs_flags = flags;
  return p;
}

inline int create_vnode(struct vnode_fsparam p, vnode_t* vpp) {
  return vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, vpp);
}

// Recycles a vnode and drops the caller's I/O reference: reclaimed now.
inline void discard(vnode_t vp) {
  vnode_recycle(vp);
  vnode_put(vp);
}

inline host_devstats devstats(vnode_t dev) {
  host_devstats s;
  host_blkdev_stats(dev, &s);
  return s;
}

// The byte a pattern device holds at `off`: differs between neighbouring
// bytes and between 512-byte blocks, so misplaced transfers show.
inline uint8_t pattern(uint64_t off) { return static_cast<uint8_t>(off * 7 + off / 512); }

// Fills the first `bytes` of an in-memory device with pattern(); counters at zero.
inline void load_pattern(vnode_t dev, uint64_t bytes) {
  std::vector<uint8_t> img(bytes);
  for (uint64_t i = 0; i < bytes; i++) img[i] = pattern(i);
  EXPECT_EQ(host_memdev_load(dev, img.data(), img.size(), 0), 0);
  host_blkdev_reset_stats(dev);
}

// What an in-memory device holds, read past any cache.
inline std::vector<uint8_t> device_bytes(vnode_t dev, uint64_t off, size_t len) {
  std::vector<uint8_t> v(len);
  EXPECT_EQ(host_memdev_read(dev, v.data(), len, off), 0);
  return v;
}
inline uint8_t device_byte(vnode_t dev, uint64_t off) { return device_bytes(dev, off, 1)[0]; }

// One uncached transfer at device block `blk`; returns its error.
inline int dev_io(vnode_t dev, bool write, daddr64_t blk, void* data, uint32_t len) {
  buf_t bp = buf_alloc(dev);
  buf_setdataptr(bp, reinterpret_cast<uintptr_t>(data));
  buf_setcount(bp, len);
  buf_setblkno(bp, blk);
  if (!write) buf_setflags(bp, B_READ);
  VNOP_STRATEGY(bp);  // the outcome is buf_biowait's
  int error = buf_biowait(bp);
  if (error == 0) {
    EXPECT_EQ(buf_resid(bp), 0u);
  }
  buf_free(bp);
  return error;
}

inline int write_fill(vnode_t dev, daddr64_t blk, uint32_t len, uint8_t byte) {
  std::vector<uint8_t> v(len, byte);
  return dev_io(dev, true, blk, v.data(), len);
}

inline int set_blocksize(vnode_t dev, uint32_t size) {
  return VNOP_IOCTL(dev, DKIOCSETBLOCKSIZE, reinterpret_cast<caddr_t>(&size), FWRITE, nullptr);
}

inline int cache_flush(vnode_t dev) {
  return VNOP_IOCTL(dev, DKIOCSYNCHRONIZECACHE, nullptr, FWRITE, nullptr);
}

}  // namespace host_test
