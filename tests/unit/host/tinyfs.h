#pragma once
// tinyfs: a small in-memory file system for host tests.
//
// It registers as type "tinyfs" through vfs_fsadd and keeps a directory tree
// in memory: lookup (through the name cache), create, mkdir, remove, rmdir,
// getattr, fsync, inactive and reclaim; it moves no data (those operations
// are ENOTSUP). A node lives in the tree; its vnode comes and goes, with the
// node's parent directory as the vnode's parent. A removed node is recycled
// at inactive and freed at reclaim, as a disk file system does.
//
// Usage:
//   TinyFs fs;                       // registers the type, mounts a volume
//   vnode_t root = fs.root();        // I/O reference
//   vnode_t f;
//   ASSERT_EQ(fs.create(root, "a", &f), 0);
//   ... vnode_put(f); vnode_put(root);
//   // the destructor unmounts (forcibly, if the test left vnodes in use)

#include <atomic>
#include <functional>
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
  std::vector<char> data;  // contents, for hooks that want some
  uint64_t id;
  bool removed;
  vnode_t vp;  // current vnode, or NULL (protected by the mount's lock)
  uint32_t vid;
};

// Failures a test can make the volume's operations return.
struct tinyfs_hooks {
  int mount_error = 0;    // VFS_MOUNT (new mounts) fails with this
  int update_error = 0;   // VFS_MOUNT (updates) fails with this
  int unmount_error = 0;  // VFS_UNMOUNT fails with this (unforced only)
};

// The hooks of every tinyfs volume. Set them before threads start using the
// volume; TinyFs's constructor resets them.
tinyfs_hooks& tinyfs_get_hooks(void);

// What a volume saw, for assertions.
struct tinyfs_stats {
  std::atomic<int> fsync{0}, sync{0}, start{0};
  // Mount state observed during the last VFS_MOUNT call.
  std::atomic<bool> saw_update{false}, saw_rdonly{false}, saw_writeupgrade{false},
      saw_reload{false}, saw_force{false};
  std::atomic<uint32_t> args_magic{0};  // first 4 bytes copied in, 0 without data
  std::atomic<int> unmount_vflush_error{0};
};

// Mount argument record of tinyfs: optional; its magic is recorded.
struct tinyfs_args {
  uint32_t magic;
};

// Registers the "tinyfs" type (once per process); returns its handle.
vfstable_t tinyfs_register(void);
// The node of a tinyfs vnode.
tinyfs_node* tinyfs_node_of(vnode_t vp);

class TinyFs {
 public:
  // Mounts a new volume (flags MNT_*); devvp may be NULL. ASSERTs success.
  explicit TinyFs(uint64_t flags = 0, vnode_t devvp = nullptr);
  // Unmounts if still mounted: normally, then forcibly if that fails.
  ~TinyFs();
  TinyFs(const TinyFs&) = delete;
  TinyFs& operator=(const TinyFs&) = delete;

  mount_t mp() const { return mp_; }
  tinyfs_stats& stats();
  // The root with an I/O reference.
  vnode_t root();
  // Component-name operations through VNOP_* (names are one component).
  int lookup(vnode_t dvp, const char* name, vnode_t* vpp, uint32_t nameiop = LOOKUP,
             uint32_t flags = MAKEENTRY | ISLASTCN);
  int create(vnode_t dvp, const char* name, vnode_t* vpp);
  int mkdir(vnode_t dvp, const char* name, vnode_t* vpp);
  int remove(vnode_t dvp, vnode_t vp, const char* name, int flags = 0);
  int rmdir(vnode_t dvp, vnode_t vp, const char* name);
  // Unmounts now; returns host_unmount's result (the volume stays mounted on
  // failure).
  int unmount(int mntflags = 0);
  // Events "inactive <name>" and "reclaim <name>" in order.
  std::vector<std::string> events();
  void clear_events();

 private:
  mount_t mp_ = nullptr;
};

// A componentname for one NUL-terminated component.
struct componentname tinyfs_cn(const char* name, uint32_t nameiop = LOOKUP,
                               uint32_t flags = MAKEENTRY | ISLASTCN);
