#pragma once
// mount.exvol: the state the FUSE operations share, and the operations.
//
// FUSE inode numbers ARE the library's NodeIds: the root is 1 on both
// sides, and every other id the library hands out is unique among the
// nodes it holds and never reused. Each reply that tells the kernel about a
// node (lookup, create, mknod, mkdir, symlink, and every entry of a
// readdirplus reply but "." and "..") passes on one library reference,
// which the kernel's forget gives back. A reply the kernel never received
// gives its reference back at once.
//
// Open files and directories are libexvol Files; the FUSE file handle is
// the address of the Handle that owns one. The kernel uses a handle only
// between the open reply and release, so the I/O paths use it without a
// lookup or a lock; the registry exists only so that handles the kernel
// never released can be closed before the volume is unmounted.
//
// Times. The library sets explicit times over any modification stamp the
// volume still had pending, so times set through the kernel (utimensat,
// futimens on a descriptor that wrote) need nothing of the daemon. A
// descriptor's close (flush) syncs a handle that has written since its last
// flush, so that close(2) reports write errors; the kernel sends FUSE's
// release without waiting for it.

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <system_error>
#include <unordered_set>

#include "exvol/file.h"
#include "exvol/volume.h"
#include "fuse/options.h"

namespace exvol::fuse {

struct Handle {
  File file;
  bool directory = false;
  // Written since the last flush; set by write, cleared by flush.
  std::atomic<bool> written{false};
};

class Daemon {
 public:
  Daemon(Config config, std::unique_ptr<Volume> volume);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const Config& config() const { return config_; }
  Volume& volume() { return *volume_; }

  // Registers a handle for an open file and returns the FUSE handle for it.
  uint64_t add_handle(std::unique_ptr<Handle> handle);
  // The handle of a FUSE file handle the kernel holds.
  static Handle& handle(uint64_t fh) { return *reinterpret_cast<Handle*>(fh); }
  // Takes a handle out of the registry and closes its file (release).
  std::error_code close_handle(uint64_t fh);

  // Closes what the kernel left open and unmounts the volume: cleanly when
  // possible, else forcibly. Returns the unmount's result. Call once, after
  // the request loop has ended.
  std::error_code shut_down();

  // The kernel's view of a library Stat: owner and modes from the options.
  struct stat to_kernel(NodeId node, const Stat& st) const;
  // The attributes and entry of a node, with this mount's cache timeouts.
  fuse_entry_param entry(NodeId node, const Stat& st) const;

  // How long the kernel may trust attributes and positive lookups. Only
  // this daemon changes the volume, but names match without regard to
  // case, so a rename through one spelling can't invalidate the kernel's
  // entries for another spelling: keep them short. Negative lookups are
  // never cached, since creating "Foo" must make "foo" exist.
  static constexpr double kAttrTimeout = 1.0;
  static constexpr double kEntryTimeout = 1.0;

 private:
  // Closes a handle already out of the registry.
  std::error_code close(std::unique_ptr<Handle> h);

  Config config_;
  std::unique_ptr<Volume> volume_;
  // Never held while calling the library.
  std::mutex handles_lock_;
  std::unordered_set<Handle*> handles_;  // protected by handles_lock_
};

// The operation table; the userdata of the session is the Daemon.
const fuse_lowlevel_ops& operations();

}  // namespace exvol::fuse
