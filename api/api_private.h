#pragma once
// libexvol's insides: the state of a mounted volume shared by the Volume,
// its open files, mappings and node references, and the small tools with
// which the library drives the driver through VNOP_*/VFS_* dispatch.
//
// Locking, outermost first:
//   MountState::lock   shared by every call for its whole length, exclusive
//                      for unmount and update; so a call never sees the
//                      mount go away under it, and unmount waits for calls.
//   OpenFile::lock     shared by a file's I/O, exclusive for its close or
//                      revocation. Always taken after MountState::lock.
//   OpenFile::offset_lock  serialises read/write that use the file offset.
//   MountState::registry_lock  guards the registry of open files, mappings
//                      and held nodes; innermost, held only briefly and never
//                      across a call into the driver.
// No library lock is held while a caller's callback runs.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "api/device_lock.h"
#include "exvol/types.h"
#include "exvol/volume.h"
#include "host/mount.h"
#include "host/types.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace exvol::detail {

inline std::error_code make_error(int error) {
  return error == 0 ? std::error_code() : std::error_code(error, std::generic_category());
}

struct OpenFile;
struct MapState;

// The references a front end holds through NodeIds. A directory's node
// owns one use reference on its vnode (directories are few, and they anchor
// their files' keys). A file's node is a compact record: its vnode and vid,
// held weakly, so that an unused vnode can be reclaimed under the vnode
// limit, and the key to find it again, its directory's node and its name.
// A file that is unlinked or replaced while held is pinned from then on: no
// key leads to it any more. Guarded by MountState::registry_lock.
struct NodeTable {
  struct Entry {
    vnode_t vp = NULLVP;   // weak unless pinned; stale once its vid changed
    std::string name;      // a file's key (not gone): its name in parent,
    uint64_t parent = 0;   // as last looked up; 0 when it has no key
    uint64_t count = 0;    // the front end's references
    uint32_t vid = 0;
    uint32_t gen = 0;      // the slot's generation: id = gen << 32 | slot
    uint32_t key_next = 0; // next slot of its key chain; 0 ends it
    uint32_t kids : 28 = 0;   // file nodes keyed under this directory node
    uint32_t used : 1 = 0;
    uint32_t dir : 1 = 0;
    uint32_t pinned : 1 = 0;  // holds a use reference on vp
    uint32_t gone : 1 = 0;    // unlinked or replaced: no key
  };
  // Entries live in slots (0 and 1 are never used: 1 is the root); an id
  // is never handed out twice, since a slot's generation grows at reuse.
  std::deque<Entry> slots{2};
  std::vector<uint32_t> free_slots;
  // The keyed file nodes, hashed by key: chains of slots through key_next.
  std::vector<uint32_t> key_heads;
  size_t keyed = 0;
  // The node whose weak vnode is vp; check the vid, the record may be stale.
  // Vnode records are reused, so this stays as small as the vnode cache.
  std::unordered_map<vnode_t, uint64_t> by_vnode;
  // Unlinks and renames under way and done, by their directories' vnodes
  // hashed: a key is looked up again only across a span that no change in
  // its directory overlapped.
  static constexpr size_t kBuckets = 64;
  uint32_t changing[kBuckets] = {};
  uint64_t changes[kBuckets] = {};
  std::condition_variable quiet;  // a change ended
};

struct MountState {
  std::shared_mutex lock;
  mount_t mp = nullptr;       // nullptr once unmounted; lock
  vnode_t devvp = nullptr;    // lock
  bool read_only = false;     // lock
  bool device_writable = false;
  bool decomposed_names = false;  // lock; MountOptions::decomposed_names
  bool dirty_at_mount = false;    // VolumeDirty was set before the mount; set once

  // Who may use the device beside us, and whether we may write it
  // (volume.cpp). The lock is held from before the device is opened until
  // after it is closed: exclusive while the volume is mounted read-write,
  // shared while read-only. write_refusal says why the volume can't be
  // mounted read-write ("" when it can). Both guarded by lock.
  DeviceLock device_lock;
  std::string write_refusal;

  std::mutex registry_lock;
  std::unordered_set<OpenFile*> files;
  std::unordered_set<MapState*> maps;
  NodeTable nodes;
};

// An open file. vp holds a use reference taken with fmode (FREAD, FWRITE)
// until the file is closed or revoked.
struct OpenFile {
  std::shared_ptr<MountState> ms;
  std::shared_mutex lock;
  vnode_t vp = NULLVP;    // lock; NULLVP once closed
  bool revoked = false;   // lock; closed by unmount or downgrade
  int fmode = 0;
  int oflags = 0;
  std::mutex offset_lock;
  int64_t offset = 0;     // offset_lock
};

// A mapped range. vp holds a use reference until the mapping goes.
struct MapState {
  std::shared_ptr<MountState> ms;
  std::shared_mutex lock;
  vnode_t vp = NULLVP;    // lock; NULLVP once unmapped
  bool revoked = false;   // lock
  int64_t offset = 0;
  size_t length = 0;
  bool writable = false;
};

// A call's hold on the mount: MountState::lock shared. error is ENXIO when
// the volume is no longer mounted.
class CallGuard {
 public:
  explicit CallGuard(MountState& ms) : ms_(ms), lock_(ms.lock) {}
  int error() const { return ms_.mp == nullptr ? ENXIO : 0; }
  MountState& ms() const { return ms_; }

 private:
  MountState& ms_;
  std::shared_lock<std::shared_mutex> lock_;
};

// An I/O reference (vnode_get or one handed out by the driver), dropped
// with vnode_put at scope exit unless released.
class IoRef {
 public:
  IoRef() = default;
  explicit IoRef(vnode_t vp) : vp_(vp) {}
  IoRef(IoRef&& o) noexcept : vp_(o.release()) {}
  IoRef& operator=(IoRef&& o) noexcept {
    if (this != &o) {
      reset();
      vp_ = o.release();
    }
    return *this;
  }
  IoRef(const IoRef&) = delete;
  IoRef& operator=(const IoRef&) = delete;
  ~IoRef() { reset(); }

  vnode_t get() const { return vp_; }
  explicit operator bool() const { return vp_ != NULLVP; }
  vnode_t release() {
    vnode_t vp = vp_;
    vp_ = NULLVP;
    return vp;
  }
  void reset(vnode_t vp = NULLVP) {
    if (vp_ != NULLVP)
      vnode_put(vp_);
    vp_ = vp;
  }

 private:
  vnode_t vp_ = NULLVP;
};

// One pathname component as VNOP_LOOKUP and the namespace operations take
// it, with its own copy of the name.
class Component {
 public:
  Component(std::string_view name, uint32_t nameiop, uint32_t flags);
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
  struct componentname* cn() { return &cn_; }

 private:
  std::string name_;
  struct componentname cn_ = {};
};

// The result of a path resolution. vp is the file the path names, with an
// I/O reference, or empty when the last component is free and the
// resolution was for CREATE or RENAME. dvp (when asked for) is the
// directory that holds the last component. last is that component as the
// driver saw it; trailing_slash says that the path ended in '/'.
struct Nameidata {
  IoRef dvp;
  IoRef vp;
  std::string last;
  bool trailing_slash = false;
  bool is_dot() const { return last == "."; }
  bool is_dotdot() const { return last == ".."; }
};

// namei flags.
inline constexpr int kFollow = 0x1;      // follow a symbolic link as last component
inline constexpr int kWantParent = 0x2;  // return the last component's directory

// Resolves `path` from the directory `start` (with an I/O reference held by
// the caller; NULLVP for the root). nameiop (LOOKUP, CREATE, DELETE,
// RENAME) is what the last component is looked up for. The caller holds a
// CallGuard. Returns 0, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG or a lookup
// error.
int namei(MountState& ms, vnode_t start, std::string_view path, uint32_t nameiop, int flags,
          Nameidata* nd);

// Runs `op` again while it asks for the whole call to be redone (ERESTART:
// a namespace operation found under its locks that a node it was handed had
// changed). Gives up with EAGAIN after a bounded number of rounds.
int restartable(const std::function<int()>& op);

// --- Operations on vnodes (caller holds a CallGuard and an I/O reference) ---

int vn_getattr(vnode_t vp, Stat* out);
// The file flags of a vnode (kFlag*), or 0 when getattr fails.
uint32_t vn_flags(vnode_t vp);
int vn_truncate(MountState& ms, vnode_t vp, int64_t size);
int vn_utimes(MountState& ms, vnode_t vp, const TimeChange& times);
int vn_chflags(MountState& ms, vnode_t vp, uint32_t flags);
int vn_readlink(vnode_t vp, std::string* target);

// One batch of a directory listing from `cookie`: entries (each with its
// own cookie), the cookie after the batch and whether the end was reached.
// Names are composed unless the mount asks for them decomposed; entries
// whose names no path can reach are left out (see readdir.cpp).
struct DirBatch {
  std::vector<DirEntry> entries;
  uint64_t next = 0;
  bool end = false;
};
int vn_readdir_batch(MountState& ms, vnode_t dvp, uint64_t cookie, DirBatch* out);

// A name as the driver lists it (decomposed), in the form a listing hands
// on: composed (NFC), or as it is when `decomposed`.
std::string listed_name(std::string_view name, bool decomposed);
// Whether a listed name can be a path component: not empty, not "." or
// "..", without '/' or NUL. Only a damaged or crafted volume holds others.
bool reachable_name(std::string_view name);

// Hands a listing to `callback` batch by batch. fetch(cookie, batch) reads
// one batch under the caller's own guards; none is held while the callback
// runs.
int deliver_listing(const std::function<int(uint64_t, DirBatch*)>& fetch, uint64_t cookie,
                    const DirCallback& callback, uint64_t* next_cookie, bool* end);

// Opens vp (I/O reference held by the caller) for a new File: checks the
// mode against the file's type and flags, truncates with O_TRUNC, calls
// VNOP_OPEN and takes the use reference the open file holds.
int vn_open(const std::shared_ptr<MountState>& ms, vnode_t vp, int oflags, bool created,
            std::shared_ptr<OpenFile>* out);

// The vnode a NodeId stands for, with an I/O reference; ESTALE when not
// held. Caller holds a CallGuard.
int node_vnode(MountState& ms, NodeId id, IoRef* out);
// Adds one reference to the node of vp (I/O reference held by the caller),
// making a new NodeId when vp is not held yet. The root is kRootNode.
// `parent` and `name` are where the caller found vp, the key of a file node.
int node_hold(MountState& ms, vnode_t vp, NodeId parent, const std::string& name, NodeId* out);
// Adds one reference to a held node.
int node_ref(MountState& ms, NodeId id);
// Drops count references of a node: ESTALE when it is not held, EINVAL for
// more references than it has (nothing dropped then).
int node_release(MountState& ms, NodeId id, uint64_t count);
size_t node_count(MountState& ms);
// Drops every node reference (unmount). Caller holds MountState::lock
// exclusively.
void nodes_release_all(MountState& ms);
// Keep file nodes' keys true. The namespace calls announce an unlink or
// rename with nodes_changing (its directories) before they ask the driver,
// and end it with
// nodes_removed (the driver removed vp, found as `name` in dvp) or
// nodes_renamed (it renamed fvp from fname in fdvp to tname in tdvp,
// replacing tvp, NULLVP when none), which change nothing when `error` is
// not 0. The caller holds I/O references on every vnode given.
void nodes_changing(MountState& ms, vnode_t dvp, vnode_t tdvp = NULLVP);
void nodes_removed(MountState& ms, int error, vnode_t vp, vnode_t dvp, const std::string& name);
void nodes_renamed(MountState& ms, int error, vnode_t fvp, vnode_t fdvp, const std::string& fname,
                   vnode_t tdvp, const std::string& tname, vnode_t tvp);

// Closes an open file or ends a mapping: the caller holds its lock
// exclusively and it is open. Returns VNOP_CLOSE's or VNOP_MNOMAP's error.
int file_close_locked(OpenFile* f);
int map_close_locked(MapState* m);

// Revokes an open file or mapping at unmount or downgrade: closes it as its
// owner would have. Caller holds MountState::lock exclusively.
void file_revoke(OpenFile* f);
void map_revoke(MapState* m);

// --- Namespace calls (caller holds a CallGuard) --------------------------------
//
// Each resolves `path` from `start` (NULLVP: the root) and redoes the whole
// call, resolution included, when the driver asks for a restart. Where
// `made` is given it receives the vnode the call made or opened.

int op_lookup(MountState& ms, vnode_t start, std::string_view path, bool follow, IoRef* out);
int op_open(const std::shared_ptr<MountState>& ms, vnode_t start, std::string_view path,
            int oflags, std::shared_ptr<OpenFile>* file, IoRef* made);
int op_mkdir(MountState& ms, vnode_t start, std::string_view path, IoRef* made);
int op_symlink(MountState& ms, vnode_t start, std::string_view path, std::string_view target,
               IoRef* made);
int op_unlink(MountState& ms, vnode_t start, std::string_view path);
int op_rmdir(MountState& ms, vnode_t start, std::string_view path);
int op_rename(MountState& ms, vnode_t from_start, std::string_view from, vnode_t to_start,
              std::string_view to, unsigned flags);

}  // namespace exvol::detail

namespace exvol {

struct Volume::Impl {
  std::shared_ptr<detail::MountState> ms;
};

}  // namespace exvol
