#pragma once
// tinyfs: a small in-memory file system for host tests, registered as
// "tinyfs" through vfs_fsadd. It keeps a directory tree (lookup through the
// name cache, create, mkdir, remove, fsync, inactive, reclaim) and moves no
// data. A node's vnode comes and goes, with the node's directory as its
// parent; a removed node is recycled at inactive and freed at reclaim.

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"

struct tinyfs_node {
  enum vtype type;
  std::string name;
  tinyfs_node* parent;  // NULL for the root and removed nodes
  std::map<std::string, tinyfs_node*> children;
  bool removed;
  vnode_t vp;  // current vnode, or NULL (protected by the mount's lock)
  uint32_t vid;
};

// Failures a test can make every volume's operations return; TinyFs's
// constructor resets them.
struct tinyfs_hooks {
  int mount_error = 0;    // VFS_MOUNT of a new mount
  int update_error = 0;   // VFS_MOUNT of an update
  int unmount_error = 0;  // unforced VFS_UNMOUNT
};
tinyfs_hooks& tinyfs_get_hooks(void);

// What a volume saw, for assertions.
struct tinyfs_stats {
  std::atomic<int> fsync{0}, sync{0}, start{0};
  // Mount state observed during the last VFS_MOUNT call.
  std::atomic<bool> saw_update{false}, saw_rdonly{false}, saw_writeupgrade{false};
  std::atomic<uint32_t> args_magic{0};  // the mount argument copied in, 0 without
};

struct tinyfs_args {
  uint32_t magic;
};

// Registers the "tinyfs" type (once per process); returns its handle.
vfstable_t tinyfs_register(void);
tinyfs_node* tinyfs_node_of(vnode_t vp);

class TinyFs {
 public:
  // Mounts a new volume (flags MNT_*); devvp may be NULL.
  explicit TinyFs(uint64_t flags = 0, vnode_t devvp = nullptr);
  // Unmounts if still mounted: normally, then forcibly if that fails.
  ~TinyFs();
  TinyFs(const TinyFs&) = delete;
  TinyFs& operator=(const TinyFs&) = delete;

  mount_t mp() const { return mp_; }
  tinyfs_stats& stats();
  // How long each VFS_SYNC of this volume takes (it counts at its start).
  void set_sync_ms(int ms);
  vnode_t root();  // with an I/O reference
  // Operations on one component name, through VNOP_*.
  int lookup(vnode_t dvp, const char* name, vnode_t* vpp);
  int create(vnode_t dvp, const char* name, vnode_t* vpp);
  int mkdir(vnode_t dvp, const char* name, vnode_t* vpp);
  int remove(vnode_t dvp, vnode_t vp, const char* name);
  // host_unmount's result; the volume stays mounted on failure.
  int unmount(int mntflags = 0);
  // Events "inactive <name>" and "reclaim <name>" in order.
  std::vector<std::string> events();
  void clear_events();

 private:
  mount_t mp_ = nullptr;
};

struct componentname tinyfs_cn(const char* name, uint32_t nameiop = LOOKUP,
                               uint32_t flags = MAKEENTRY | ISLASTCN);
