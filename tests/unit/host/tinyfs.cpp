#include "tinyfs.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "host/namecache.h"

namespace {

// Per-volume state, the volume's private data. `lock` protects the tree,
// every node's vp/vid and the event list; it is never held across a call
// that can reach a tinyfs operation (vnode_put, vnode_getwithvid, vflush).
struct tinyfs_mount {
  std::mutex lock;
  tinyfs_node* root;
  tinyfs_stats stats;
  std::atomic<int> sync_ms{0};
  std::vector<std::string> events;
};

const uint32_t kArgsMagic = 0x54494e59;

VOPFUNC* tinyfs_vnodeop_p;

tinyfs_mount* tm_of(mount_t mp) { return static_cast<tinyfs_mount*>(vfs_fsprivate(mp)); }
tinyfs_mount* tm_of(vnode_t vp) { return tm_of(vnode_mount(vp)); }

tinyfs_node* new_node(enum vtype type, const std::string& name, tinyfs_node* parent) {
  auto* n = new tinyfs_node{type, name, parent, {}, false, nullptr, 0};
  if (parent != nullptr) parent->children[name] = n;
  return n;
}

void free_tree(tinyfs_node* n) {
  for (auto& [name, child] : n->children) free_tree(child);
  delete n;
}

// The node's vnode with an I/O reference, made when it has none. Called
// with tm->lock held (lk); returns with it held. Waits out a reclaim in
// progress (vnode_getwithvid does) and tries again.
int get_vnode_locked(std::unique_lock<std::mutex>& lk, tinyfs_mount* tm, mount_t mp,
                     tinyfs_node* node, vnode_t dvp, struct componentname* cnp, vnode_t* vpp) {
  bool enter = cnp != nullptr && (cnp->cn_flags & MAKEENTRY) && dvp != nullptr;
  while (node->vp != nullptr) {
    vnode_t vp = node->vp;
    uint32_t vid = node->vid;
    lk.unlock();
    int error = vnode_getwithvid(vp, vid);
    if (error == 0 && enter) cache_enter(dvp, vp, cnp);
    lk.lock();
    if (error == 0) {
      *vpp = vp;
      return 0;
    }
  }
  struct vnode_fsparam p = {};
  p.vnfs_mp = mp;
  p.vnfs_vtype = node->type;
  p.vnfs_str = "tinyfs";
  p.vnfs_dvp = dvp;
  p.vnfs_fsnode = node;
  p.vnfs_vops = tinyfs_vnodeop_p;
  p.vnfs_markroot = node == tm->root;
  p.vnfs_cnp = cnp;
  p.vnfs_flags = VNFS_ADDFSREF | (enter ? 0 : VNFS_NOCACHE);
  vnode_t vp;
  // vnode_create calls no file-system operation, so the lock may stay held.
  int error = vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, &vp);
  if (error != 0) return error;
  node->vp = vp;
  node->vid = vnode_vid(vp);
  *vpp = vp;
  return 0;
}

std::string name_of(struct componentname* cnp) {
  return std::string(cnp->cn_nameptr, (size_t)cnp->cn_namelen);
}

// --- vnode operations ---------------------------------------------------------

int t_lookup(void* v) {
  auto* ap = static_cast<struct vnop_lookup_args*>(v);
  struct componentname* cnp = ap->a_cnp;
  *ap->a_vpp = nullptr;
  int r = cache_lookup(ap->a_dvp, ap->a_vpp, cnp);
  if (r == -1) return 0;
  if (r == ENOENT) return ENOENT;
  tinyfs_mount* tm = tm_of(ap->a_dvp);
  auto* dir = static_cast<tinyfs_node*>(vnode_fsnode(ap->a_dvp));
  std::unique_lock<std::mutex> lk(tm->lock);
  auto it = dir->children.find(name_of(cnp));
  if (it == dir->children.end()) {
    lk.unlock();
    if (cnp->cn_flags & MAKEENTRY) cache_enter(ap->a_dvp, nullptr, cnp);
    return ENOENT;
  }
  return get_vnode_locked(lk, tm, vnode_mount(ap->a_dvp), it->second, ap->a_dvp, cnp, ap->a_vpp);
}

int make_node(vnode_t dvp, vnode_t* vpp, struct componentname* cnp, enum vtype type) {
  tinyfs_mount* tm = tm_of(dvp);
  auto* dir = static_cast<tinyfs_node*>(vnode_fsnode(dvp));
  std::unique_lock<std::mutex> lk(tm->lock);
  std::string name = name_of(cnp);
  if (dir->children.count(name)) return EEXIST;
  tinyfs_node* n = new_node(type, name, dir);
  int error = get_vnode_locked(lk, tm, vnode_mount(dvp), n, dvp, cnp, vpp);
  if (error != 0) {
    dir->children.erase(name);
    delete n;
  }
  lk.unlock();
  cache_purge_negatives(dvp);
  return error;
}

int t_create(void* v) {
  auto* ap = static_cast<struct vnop_create_args*>(v);
  return make_node(ap->a_dvp, ap->a_vpp, ap->a_cnp, VREG);
}

int t_mkdir(void* v) {
  auto* ap = static_cast<struct vnop_mkdir_args*>(v);
  return make_node(ap->a_dvp, ap->a_vpp, ap->a_cnp, VDIR);
}

int t_remove(void* v) {
  auto* ap = static_cast<struct vnop_remove_args*>(v);
  tinyfs_mount* tm = tm_of(ap->a_vp);
  auto* n = static_cast<tinyfs_node*>(vnode_fsnode(ap->a_vp));
  {
    std::lock_guard<std::mutex> guard(tm->lock);
    if (n->removed || n->parent == nullptr) return ENOENT;
    n->parent->children.erase(n->name);
    n->parent = nullptr;
    n->removed = true;
  }
  cache_purge(ap->a_vp);
  return 0;
}

int t_fsync(void* v) {
  auto* ap = static_cast<struct vnop_fsync_args*>(v);
  tm_of(ap->a_vp)->stats.fsync++;
  return 0;
}

void record(tinyfs_mount* tm, const char* what, tinyfs_node* n) {
  std::lock_guard<std::mutex> guard(tm->lock);
  tm->events.push_back(std::string(what) + " " + (n == tm->root ? "/" : n->name));
}

int t_inactive(void* v) {
  auto* ap = static_cast<struct vnop_inactive_args*>(v);
  auto* n = static_cast<tinyfs_node*>(vnode_fsnode(ap->a_vp));
  if (n == nullptr) return 0;
  tinyfs_mount* tm = tm_of(ap->a_vp);
  record(tm, "inactive", n);
  bool removed;
  {
    std::lock_guard<std::mutex> guard(tm->lock);
    removed = n->removed;
  }
  if (removed) vnode_recycle(ap->a_vp);
  return 0;
}

int t_reclaim(void* v) {
  auto* ap = static_cast<struct vnop_reclaim_args*>(v);
  vnode_t vp = ap->a_vp;
  auto* n = static_cast<tinyfs_node*>(vnode_fsnode(vp));
  if (n == nullptr) return 0;
  tinyfs_mount* tm = tm_of(vp);
  record(tm, "reclaim", n);
  {
    std::lock_guard<std::mutex> guard(tm->lock);
    if (n->vp == vp) n->vp = nullptr;
    if (n->removed) delete n;
  }
  vnode_clearfsnode(vp);
  vnode_removefsref(vp);
  return 0;
}

const struct vnodeopv_entry_desc tinyfs_entries[] = {
    {&vnop_default_desc, vn_default_error}, {&vnop_lookup_desc, t_lookup},
    {&vnop_create_desc, t_create},          {&vnop_mkdir_desc, t_mkdir},
    {&vnop_remove_desc, t_remove},          {&vnop_fsync_desc, t_fsync},
    {&vnop_inactive_desc, t_inactive},      {&vnop_reclaim_desc, t_reclaim},
    {&vnop_bwrite_desc, vn_bwrite},         {nullptr, nullptr},
};

struct vnodeopv_desc tinyfs_opv_desc = {&tinyfs_vnodeop_p, tinyfs_entries};

// --- file system operations -----------------------------------------------------

void observe_mount_state(tinyfs_stats& s, mount_t mp) {
  s.saw_update = vfs_isupdate(mp);
  s.saw_rdonly = vfs_isrdonly(mp);
  s.saw_writeupgrade = vfs_iswriteupgrade(mp);
}

int t_vfs_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx) {
  tinyfs_hooks& h = tinyfs_get_hooks();
  struct tinyfs_args args = {};
  int copy_error = data != 0 ? copyin(data, &args, sizeof args) : 0;
  if (vfs_isupdate(mp)) {
    tinyfs_mount* tm = tm_of(mp);
    observe_mount_state(tm->stats, mp);
    tm->stats.args_magic = args.magic;
    return copy_error != 0 ? copy_error : h.update_error;
  }
  if (copy_error != 0) return copy_error;
  if (h.mount_error != 0) return h.mount_error;
  auto* tm = new tinyfs_mount;
  tm->root = new_node(VDIR, "", nullptr);
  observe_mount_state(tm->stats, mp);
  tm->stats.args_magic = args.magic;
  vfs_setfsprivate(mp, tm);
  vfs_statfs(mp)->f_bsize = 4096;
  vfs_setflags(mp, MNT_IGNORE_OWNERSHIP);
  host_module_ref();
  return 0;
}

int t_vfs_start(mount_t mp, int flags, vfs_context_t ctx) {
  tm_of(mp)->stats.start++;
  return 0;
}

int t_vfs_unmount(mount_t mp, int mntflags, vfs_context_t ctx) {
  tinyfs_mount* tm = tm_of(mp);
  bool force = (mntflags & MNT_FORCE) != 0;
  if (!force && tinyfs_get_hooks().unmount_error != 0) return tinyfs_get_hooks().unmount_error;
  int error = vflush(mp, nullptr, force ? FORCECLOSE : 0);
  if (error != 0 && !force) return error;
  vfs_setfsprivate(mp, nullptr);
  free_tree(tm->root);
  delete tm;
  host_module_rele();
  return 0;
}

int t_vfs_root(mount_t mp, vnode_t* vpp, vfs_context_t ctx) {
  tinyfs_mount* tm = tm_of(mp);
  std::unique_lock<std::mutex> lk(tm->lock);
  return get_vnode_locked(lk, tm, mp, tm->root, nullptr, nullptr, vpp);
}

int sync_one(vnode_t vp, void* arg) {
  (void)VNOP_FSYNC(vp, *static_cast<int*>(arg), vfs_context_kernel());
  return VNODE_RETURNED;
}

int t_vfs_sync(mount_t mp, int waitfor, vfs_context_t ctx) {
  tm_of(mp)->stats.sync++;
  if (int ms = tm_of(mp)->sync_ms.load()) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  return vnode_iterate(mp, VNODE_ITERATE_ACTIVE, sync_one, &waitfor);
}

struct vfsops tinyfs_vfsops = {
    t_vfs_mount, t_vfs_start, t_vfs_unmount, t_vfs_root, nullptr, nullptr, t_vfs_sync,
};

}  // namespace

tinyfs_hooks& tinyfs_get_hooks(void) {
  static tinyfs_hooks hooks;
  return hooks;
}

vfstable_t tinyfs_register(void) {
  static vfstable_t handle = [] {
    struct vnodeopv_desc* descs[] = {&tinyfs_opv_desc};
    struct vfs_fsentry vfe = {};
    vfe.vfe_vfsops = &tinyfs_vfsops;
    vfe.vfe_vopcnt = 1;
    vfe.vfe_opvdescs = descs;
    strncpy(vfe.vfe_fsname, "tinyfs", MFSNAMELEN);
    vfe.vfe_flags = VFS_TBLTHREADSAFE | VFS_TBLNOTYPENUM | VFS_TBLLOCALVOL | VFS_TBL64BITREADY;
    vfstable_t h = nullptr;
    EXPECT_EQ(vfs_fsadd(&vfe, &h), 0);
    return h;
  }();
  return handle;
}

tinyfs_node* tinyfs_node_of(vnode_t vp) { return static_cast<tinyfs_node*>(vnode_fsnode(vp)); }

struct componentname tinyfs_cn(const char* name, uint32_t nameiop, uint32_t flags) {
  struct componentname cn = {};
  cn.cn_nameiop = nameiop;
  cn.cn_flags = flags;
  cn.cn_nameptr = const_cast<char*>(name);
  cn.cn_namelen = (int)strlen(name);
  cn.cn_pnbuf = cn.cn_nameptr;
  cn.cn_pnlen = cn.cn_namelen + 1;
  return cn;
}

TinyFs::TinyFs(uint64_t flags, vnode_t devvp) {
  tinyfs_register();
  tinyfs_get_hooks() = tinyfs_hooks();
  struct tinyfs_args args = {kArgsMagic};
  int error = host_mount("tinyfs", devvp, flags, &args, sizeof args, &mp_);
  EXPECT_EQ(error, 0) << "tinyfs mount";
}

TinyFs::~TinyFs() {
  if (mp_ == nullptr) return;
  tinyfs_get_hooks() = tinyfs_hooks();
  if (host_unmount(mp_, 0) != 0) {
    EXPECT_EQ(host_unmount(mp_, MNT_FORCE), 0);
  }
}

tinyfs_stats& TinyFs::stats() { return tm_of(mp_)->stats; }

void TinyFs::set_sync_ms(int ms) { tm_of(mp_)->sync_ms = ms; }

vnode_t TinyFs::root() {
  vnode_t vp = nullptr;
  EXPECT_EQ(VFS_ROOT(mp_, &vp, vfs_context_kernel()), 0);
  return vp;
}

int TinyFs::lookup(vnode_t dvp, const char* name, vnode_t* vpp) {
  struct componentname cn = tinyfs_cn(name);
  return VNOP_LOOKUP(dvp, vpp, &cn, vfs_context_kernel());
}

int TinyFs::create(vnode_t dvp, const char* name, vnode_t* vpp) {
  struct componentname cn = tinyfs_cn(name, CREATE);
  struct vnode_attr va;
  VATTR_INIT(&va);
  return VNOP_CREATE(dvp, vpp, &cn, &va, vfs_context_kernel());
}

int TinyFs::mkdir(vnode_t dvp, const char* name, vnode_t* vpp) {
  struct componentname cn = tinyfs_cn(name, CREATE);
  struct vnode_attr va;
  VATTR_INIT(&va);
  return VNOP_MKDIR(dvp, vpp, &cn, &va, vfs_context_kernel());
}

int TinyFs::remove(vnode_t dvp, vnode_t vp, const char* name) {
  struct componentname cn = tinyfs_cn(name, DELETE);
  return VNOP_REMOVE(dvp, vp, &cn, 0, vfs_context_kernel());
}

int TinyFs::unmount(int mntflags) {
  int error = host_unmount(mp_, mntflags);
  if (error == 0) mp_ = nullptr;
  return error;
}

std::vector<std::string> TinyFs::events() {
  tinyfs_mount* tm = tm_of(mp_);
  std::lock_guard<std::mutex> guard(tm->lock);
  return tm->events;
}

void TinyFs::clear_events() {
  tinyfs_mount* tm = tm_of(mp_);
  std::lock_guard<std::mutex> guard(tm->lock);
  tm->events.clear();
}
