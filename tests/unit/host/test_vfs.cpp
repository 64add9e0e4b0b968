#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "host/malloc.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode_slots_private.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

// A probe file system: every probed operation records the description it
// was called with; a second table has its own default entry. Operations that
// tinyfs, blockmapfs and the devices implement are reached by their tests.
struct vnodeop_desc* const kProbed[] = {
    &vnop_open_desc,  &vnop_close_desc,   &vnop_getattr_desc, &vnop_setattr_desc,
    &vnop_read_desc,  &vnop_write_desc,   &vnop_mnomap_desc,  &vnop_rename_desc,
    &vnop_rmdir_desc, &vnop_symlink_desc, &vnop_readdir_desc, &vnop_readlink_desc,
};
constexpr int kNumProbed = sizeof kProbed / sizeof kProbed[0];

struct vnodeop_desc* g_called = nullptr;  // the description of the last call

int probe(void* ap) {
  g_called = static_cast<struct vnop_generic_args*>(ap)->a_desc;
  return 1000 + g_called->vdesc_offset;
}
int custom_default(void* ap) { return 4242; }

VOPFUNC* probe_vnodeop_p;
VOPFUNC* probe_second_p;
struct vnodeopv_entry_desc probe_entries[kNumProbed + 1];
const struct vnodeopv_entry_desc second_entries[] = {
    {&vnop_default_desc, custom_default},
    {&vnop_fsync_desc, probe},
    {nullptr, nullptr},
};
struct vnodeopv_desc probe_desc = {&probe_vnodeop_p, probe_entries};
struct vnodeopv_desc second_desc = {&probe_second_p, second_entries};

struct vfsconf g_init_conf;
int g_init_calls = 0;
int probe_vfs_init(struct vfsconf* conf) {
  g_init_conf = *conf;
  g_init_calls++;
  return 0;
}
int probe_vfs_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx) { return 0; }
int probe_vfs_unmount(mount_t mp, int flags, vfs_context_t ctx) { return 0; }
struct vfsops probe_vfsops = {probe_vfs_mount, nullptr, probe_vfs_unmount};

// An entry for "probefs" with both tables, or (second_only) the second.
struct vfs_fsentry probe_entry(bool second_only = false) {
  for (int i = 0; i < kNumProbed; i++) probe_entries[i] = {kProbed[i], probe};
  probe_entries[kNumProbed] = {nullptr, nullptr};
  probe_vfsops.vfs_init = probe_vfs_init;
  static struct vnodeopv_desc* descs[] = {&probe_desc, &second_desc};
  struct vfs_fsentry vfe = {};
  vfe.vfe_vfsops = &probe_vfsops;
  vfe.vfe_vopcnt = second_only ? 1 : 2;
  vfe.vfe_opvdescs = second_only ? descs + 1 : descs;
  strncpy(vfe.vfe_fsname, "probefs", MFSNAMELEN);
  vfe.vfe_flags = VFS_TBLNOTYPENUM;
  return vfe;
}

struct Registered {
  vfstable_t handle = nullptr;
  Registered() {
    struct vfs_fsentry vfe = probe_entry();
    EXPECT_EQ(vfs_fsadd(&vfe, &handle), 0);
  }
  ~Registered() {
    if (handle != nullptr) {
      EXPECT_EQ(vfs_fsremove(handle), 0);
    }
  }
};

vnode_t probe_vnode(VOPFUNC* ops) {
  vnode_t vp = nullptr;
  EXPECT_EQ(host_test::create_vnode(host_test::fsparam(VREG, ops), &vp), 0);
  return vp;
}

// Catches operations in the wrong slot, wrappers packing another description.
TEST(VfsDispatch, EveryOperationReachesItsFunction) {
  Registered reg;
  vnode_t vp = probe_vnode(probe_vnodeop_p);
  vfs_context_t ctx = vfs_context_kernel();
  struct componentname cn = tinyfs_cn("x");
  struct vnode_attr va;
  VATTR_INIT(&va);
  vnode_t out = nullptr;
  int i32 = 0;
  char target[] = "t";
  // In the order of kProbed.
  std::function<int()> calls[] = {
      [&] { return VNOP_OPEN(vp, FREAD, ctx); },
      [&] { return VNOP_CLOSE(vp, FREAD, ctx); },
      [&] { return VNOP_GETATTR(vp, &va, ctx); },
      [&] { return VNOP_SETATTR(vp, &va, ctx); },
      [&] { return VNOP_READ(vp, nullptr, 0, ctx); },
      [&] { return VNOP_WRITE(vp, nullptr, 0, ctx); },
      [&] { return VNOP_MNOMAP(vp, ctx); },
      [&] { return VNOP_RENAME(vp, vp, &cn, vp, nullptr, &cn, ctx); },
      [&] { return VNOP_RMDIR(vp, vp, &cn, ctx); },
      [&] { return VNOP_SYMLINK(vp, &out, &cn, &va, target, ctx); },
      [&] { return VNOP_READDIR(vp, nullptr, 0, &i32, &i32, ctx); },
      [&] { return VNOP_READLINK(vp, nullptr, ctx); },
  };
  static_assert(sizeof calls / sizeof calls[0] == kNumProbed);
  int probe_slots = 0;
  for (int s = 0; s < vnop_desc_count(); s++) probe_slots += probe_vnodeop_p[s] == &probe;
  EXPECT_EQ(probe_slots, kNumProbed);
  for (int i = 0; i < kNumProbed; i++) {
    EXPECT_EQ(probe_vnodeop_p[kProbed[i]->vdesc_offset], &probe) << kProbed[i]->vdesc_name;
    g_called = nullptr;
    EXPECT_EQ(calls[i](), 1000 + kProbed[i]->vdesc_offset) << kProbed[i]->vdesc_name;
    EXPECT_EQ(g_called, kProbed[i]) << kProbed[i]->vdesc_name;
  }
  EXPECT_EQ(VNOP_PATHCONF(vp, 0, &i32, ctx), ENOTSUP);  // not in the table: vn_default_error
  host_test::discard(vp);

  vp = probe_vnode(probe_second_p);
  EXPECT_EQ(VNOP_FSYNC(vp, MNT_WAIT, ctx), 1000 + vnop_fsync_desc.vdesc_offset);
  EXPECT_EQ(VNOP_OPEN(vp, FREAD, ctx), 4242);
  EXPECT_EQ(VNOP_PATHCONF(vp, 0, &i32, ctx), 4242);
  host_test::discard(vp);
}

// Type numbers, names taken once, removal refused while mounted, vectors cleared,
// failed adds undone.
TEST(VfsRegistry, AddAndRemove) {
  g_init_calls = 0;
  int first;
  {
    Registered reg;
    EXPECT_NE(probe_vnodeop_p, nullptr);
    EXPECT_NE(probe_second_p, nullptr);
    EXPECT_EQ(g_init_calls, 1);
    EXPECT_STREQ(g_init_conf.vfc_name, "probefs");
    first = g_init_conf.vfc_typenum;
    struct vfs_fsentry dup = probe_entry(true);
    vfstable_t h = nullptr;
    EXPECT_EQ(vfs_fsadd(&dup, &h), EEXIST);
    EXPECT_EQ(h, nullptr);

    mount_t mp;
    ASSERT_EQ(host_mount("probefs", nullptr, 0, nullptr, 0, &mp), 0);
    EXPECT_EQ(vfs_fsremove(reg.handle), EBUSY);
    EXPECT_EQ(vfs_typenum(mp), first);
    vnode_t root = nullptr;  // operations the file system does not provide
    EXPECT_EQ(VFS_ROOT(mp, &root, vfs_context_kernel()), ENOTSUP);
    EXPECT_EQ(VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()), ENOTSUP);
    ASSERT_EQ(host_unmount(mp, 0), 0);
  }
  EXPECT_EQ(probe_vnodeop_p, nullptr);
  mount_t mp;
  EXPECT_EQ(host_mount("probefs", nullptr, 0, nullptr, 0, &mp), ENODEV);
  {
    Registered again;
    EXPECT_NE(g_init_conf.vfc_typenum, first) << "assigned type numbers are reused";
  }

  struct vfs_fsentry vfe = probe_entry(true);
  strncpy(vfe.vfe_fsname, "nomemfs", MFSNAMELEN);
  vfstable_t h = nullptr;
  for (int n = 1; n <= 2; n++) {
    host_malloc_fail_nth(n);
    EXPECT_EQ(vfs_fsadd(&vfe, &h), ENOMEM) << "allocation " << n;
  }
  host_malloc_fail_nth(0);
  ASSERT_EQ(vfs_fsadd(&vfe, &h), 0) << "a failed add left the name taken";
  EXPECT_EQ(vfs_fsremove(h), 0);
}

}  // namespace
