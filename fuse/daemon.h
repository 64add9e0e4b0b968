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
//
// The kernel's caches. Nothing but this daemon changes the volume while it
// is mounted, and every change comes through the kernel, which drops what
// it cached of what it changed. So names and listings are kept for long
// (see the timeouts below), and file data stays cached between opens. The
// kernel can't see that names match without regard to case (see
// Spellings), nor when the volume stamps times (see kAttrTimeout).

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "exvol/file.h"
#include "exvol/volume.h"
#include "fuse/options.h"

namespace exvol::fuse {

struct Handle {
  File file;
  NodeId node{};
  bool directory = false;
  bool writable = false;  // opened for writing: counted in Daemon's writers
  // Written since the last flush; set by write, cleared by flush.
  std::atomic<bool> written{false};
  // Written, or read (an access stamp), at all: the file's close may still
  // stamp it.
  std::atomic<bool> ever_written{false};
  std::atomic<bool> ever_read{false};
};

// The kernel keeps a directory entry per name it was told about, compared
// byte for byte; the volume matches names without regard to case. A name
// handed out by a listing, create, mkdir or symlink is the one the volume
// stores, and the kernel keeps it long. A lookup may come with another
// spelling ("FOO" for "foo"): the kernel keeps that one only for a second,
// and the daemon remembers for a while which spellings it was asked. A
// removal or rename through one spelling leaves the kernel's entries of
// the others behind, pointing to a file that is gone or elsewhere; so the
// daemon finds them first (the stored one by a listing of the directory,
// only when a lookup came with the name of late) and has the kernel drop
// those entries after its answer, from a thread of its own: the kernel
// holds the directory's lock until the request is answered, and its drop
// takes that lock. A program that asks through another spelling in the
// instant between the answer and the drop may still see the old file.
class Spellings {
 public:
  // A lookup of `name` in `parent` was answered.
  void looked_up(NodeId parent, const std::string& name);
  // The spellings of `name` in `parent` that lookups were answered for of
  // late (the kernel may hold entries for them), `name` itself included;
  // none when no lookup was.
  std::vector<std::string> recent(NodeId parent, const std::string& name);

  // How long a lookup stays remembered: well beyond the kernel's
  // kLookupEntryTimeout, since a request can wait for a lock after the
  // lookup that resolved its name.
  static constexpr std::chrono::seconds kRemembered{10};

 private:
  using Clock = std::chrono::steady_clock;
  struct Seen {
    Clock::time_point when;
    std::vector<std::string> spellings;
  };
  static std::string key(NodeId parent, const std::string& name);
  void prune(Clock::time_point now);

  std::mutex lock_;
  std::unordered_map<std::string, Seen> recent_;  // by parent and folded name; lock_
  Clock::time_point pruned_{};                    // lock_
};

// Sends the kernel's entry invalidations from a thread of its own.
class Invalidator {
 public:
  Invalidator() = default;
  ~Invalidator() { stop(); }
  Invalidator(const Invalidator&) = delete;
  Invalidator& operator=(const Invalidator&) = delete;

  void start(fuse_session* se);
  // Sends what was queued, then ends the thread. Call before the session
  // is destroyed.
  void stop();
  void drop(NodeId parent, std::vector<std::string> names);

 private:
  void run();

  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<std::pair<NodeId, std::string>> queue_;  // lock_
  bool stopping_ = false;                             // lock_
  fuse_session* se_ = nullptr;
  std::thread thread_;
};

class Daemon {
 public:
  Daemon(Config config, std::unique_ptr<Volume> volume);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const Config& config() const { return config_; }
  Volume& volume() { return *volume_; }

  // The session is mounted: entry invalidations can be sent, and the
  // kernel's read-ahead for the mount is raised where we may.
  void mounted(fuse_session* se);
  // Called by requests that follow the init handshake.
  void initialized();

  // Registers a handle for an open file and returns the FUSE handle for it.
  // A writable handle counts as a writer of its node until it is closed.
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
  // The attributes and entry of a node, with this mount's cache timeouts:
  // kLookupEntryTimeout for the entry when `looked_up` (the name may be
  // another spelling than the stored one), else kEntryTimeout.
  fuse_entry_param entry(NodeId node, const Stat& st, bool looked_up = false);
  // Has the kernel drop the attributes it holds of a node: the volume
  // stamped its times or trimmed its clusters when a handle that wrote (or
  // read) was flushed or closed, which the kernel does not see. Sent before
  // the request is answered; it takes no lock of the kernel's.
  void drop_attrs(NodeId node);

  // How long the kernel may trust names: nothing but this daemon changes
  // the volume, and the kernel drops what it changes itself (and what
  // Spellings says). Negative lookups are never cached, since creating
  // "Foo" must make "foo" exist. Attributes are asked for again after a
  // second: the volume stamps the times of a file or directory when it
  // writes its entry back (at close, fsync or the periodic sync), which
  // the kernel does not see.
  // A file that no handle has open for writing gets no new stamp, so its
  // attributes could be kept as long as names are, but for one thing:
  // after its state was reclaimed, a file looked up through another
  // spelling of its name gets a second inode number (see api/nodes.cpp),
  // and what is written or truncated through one number leaves the other's
  // size and times in the kernel unchanged. Until the node table gives a
  // file one number whatever the spelling, every node's are kept a second.
  static constexpr double kAttrTimeout = 1.0;
  static constexpr double kEntryTimeout = 3600.0;
  static constexpr double kLookupEntryTimeout = 1.0;

  Spellings& spellings() { return spellings_; }
  // The spellings of `name` in `dir` the kernel may hold entries for,
  // other than `name` itself: when a lookup came with `name` of late, the
  // stored spelling and those other lookups came with; else none.
  std::vector<std::string> other_spellings(NodeId dir, const std::string& name);
  void drop_entries(NodeId dir, std::vector<std::string> names) {
    invalidator_.drop(dir, std::move(names));
  }

 private:
  // Closes a handle already out of the registry.
  std::error_code close(std::unique_ptr<Handle> h);

  Config config_;
  std::unique_ptr<Volume> volume_;
  // Never held while calling the library.
  std::mutex handles_lock_;
  std::unordered_set<Handle*> handles_;  // protected by handles_lock_
  // Set before the session serves requests; cleared by shut_down, which
  // runs after the session's descriptor was closed.
  fuse_session* se_ = nullptr;
  Spellings spellings_;
  Invalidator invalidator_;
  std::string read_ahead_file_;  // set before the session serves requests
  std::once_flag read_ahead_once_;
};

// The operation table; the userdata of the session is the Daemon.
const fuse_lowlevel_ops& operations();

}  // namespace exvol::fuse
