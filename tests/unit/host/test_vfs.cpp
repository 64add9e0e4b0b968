#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "host/malloc.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode_internal.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

// --- A probe file system: one distinct function per operation -----------------

struct vnodeop_desc* const kProbed[] = {
    &vnop_lookup_desc,   &vnop_create_desc,   &vnop_mknod_desc,   &vnop_open_desc,
    &vnop_close_desc,    &vnop_getattr_desc,  &vnop_setattr_desc, &vnop_read_desc,
    &vnop_write_desc,    &vnop_ioctl_desc,    &vnop_mnomap_desc,  &vnop_fsync_desc,
    &vnop_remove_desc,   &vnop_rename_desc,   &vnop_mkdir_desc,   &vnop_rmdir_desc,
    &vnop_symlink_desc,  &vnop_readdir_desc,  &vnop_readlink_desc, &vnop_inactive_desc,
    &vnop_reclaim_desc,  &vnop_pagein_desc,   &vnop_pageout_desc, &vnop_blktooff_desc,
    &vnop_offtoblk_desc, &vnop_blockmap_desc,
};
constexpr int kNumProbed = sizeof kProbed / sizeof kProbed[0];

int g_called = -1;                         // index into kProbed of the last call
struct vnodeop_desc* g_called_desc = nullptr;  // the description it was given

template <int I>
int probe(void* ap) {
  g_called = I;
  g_called_desc = static_cast<struct vnop_generic_args*>(ap)->a_desc;
  return 1000 + I;
}

template <int... I>
void fill_entries(struct vnodeopv_entry_desc* out, std::integer_sequence<int, I...>) {
  ((out[I] = {kProbed[I], probe<I>}), ...);
}

VOPFUNC* probe_vnodeop_p;
VOPFUNC* probe_second_p;
struct vnodeopv_entry_desc probe_entries[kNumProbed + 1];

int custom_default(void* ap) { return 4242; }
const struct vnodeopv_entry_desc second_entries[] = {
    {&vnop_default_desc, custom_default},
    {&vnop_fsync_desc, probe<0>},
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

struct Registered {
  vfstable_t handle = nullptr;
  explicit Registered(const char* name, uint32_t flags = VFS_TBLNOTYPENUM, int typenum = 0) {
    fill_entries(probe_entries, std::make_integer_sequence<int, kNumProbed>());
    probe_entries[kNumProbed] = {nullptr, nullptr};
    probe_vfsops.vfs_init = probe_vfs_init;
    struct vnodeopv_desc* descs[] = {&probe_desc, &second_desc};
    struct vfs_fsentry vfe = {};
    vfe.vfe_vfsops = &probe_vfsops;
    vfe.vfe_vopcnt = 2;
    vfe.vfe_opvdescs = descs;
    vfe.vfe_fstypenum = typenum;
    strncpy(vfe.vfe_fsname, name, MFSNAMELEN);
    vfe.vfe_flags = flags;
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

using host_test::discard;

TEST(VfsDispatch, EveryOperationReachesItsFunction) {
  Registered reg("probefs");
  vnode_t vp = probe_vnode(probe_vnodeop_p);
  vfs_context_t ctx = vfs_context_kernel();
  struct componentname cn = tinyfs_cn("x");
  struct vnode_attr va;
  VATTR_INIT(&va);
  vnode_t out = nullptr;
  int i32 = 0;
  off_t off = 0;
  daddr64_t blk = 0;
  size_t run = 0;
  char target[] = "t";

  // Each call names the operation it must reach, by its index in kProbed.
  std::pair<int, std::function<int()>> calls[] = {
      {0, [&] { return VNOP_LOOKUP(vp, &out, &cn, ctx); }},
      {1, [&] { return VNOP_CREATE(vp, &out, &cn, &va, ctx); }},
      {2, [&] { return VNOP_MKNOD(vp, &out, &cn, &va, ctx); }},
      {3, [&] { return VNOP_OPEN(vp, FREAD, ctx); }},
      {4, [&] { return VNOP_CLOSE(vp, FREAD, ctx); }},
      {5, [&] { return VNOP_GETATTR(vp, &va, ctx); }},
      {6, [&] { return VNOP_SETATTR(vp, &va, ctx); }},
      {7, [&] { return VNOP_READ(vp, nullptr, 0, ctx); }},
      {8, [&] { return VNOP_WRITE(vp, nullptr, 0, ctx); }},
      {9, [&] { return VNOP_IOCTL(vp, 1, nullptr, 0, ctx); }},
      {10, [&] { return VNOP_MNOMAP(vp, ctx); }},
      {11, [&] { return VNOP_FSYNC(vp, MNT_WAIT, ctx); }},
      {12, [&] { return VNOP_REMOVE(vp, vp, &cn, 0, ctx); }},
      {13, [&] { return VNOP_RENAME(vp, vp, &cn, vp, nullptr, &cn, ctx); }},
      {14, [&] { return VNOP_MKDIR(vp, &out, &cn, &va, ctx); }},
      {15, [&] { return VNOP_RMDIR(vp, vp, &cn, ctx); }},
      {16, [&] { return VNOP_SYMLINK(vp, &out, &cn, &va, target, ctx); }},
      {17, [&] { return VNOP_READDIR(vp, nullptr, 0, &i32, &i32, ctx); }},
      {18, [&] { return VNOP_READLINK(vp, nullptr, ctx); }},
      {19, [&] { return VNOP_INACTIVE(vp, ctx); }},
      {20, [&] { return VNOP_RECLAIM(vp, ctx); }},
      {21, [&] { return VNOP_PAGEIN(vp, nullptr, 0, 0, 4096, 0, ctx); }},
      {22, [&] { return VNOP_PAGEOUT(vp, nullptr, 0, 0, 4096, 0, ctx); }},
      {23, [&] { return VNOP_BLKTOOFF(vp, 1, &off); }},
      {24, [&] { return VNOP_OFFTOBLK(vp, 0, &blk); }},
      {25, [&] { return VNOP_BLOCKMAP(vp, 0, 4096, &blk, &run, nullptr, VNODE_READ, ctx); }},
  };
  static_assert(sizeof calls / sizeof calls[0] == kNumProbed);
  for (auto& [index, call] : calls) {
    g_called = -1;
    g_called_desc = nullptr;
    EXPECT_EQ(call(), 1000 + index) << kProbed[index]->vdesc_name;
    EXPECT_EQ(g_called, index) << kProbed[index]->vdesc_name;
    EXPECT_EQ(g_called_desc, kProbed[index]) << kProbed[index]->vdesc_name;
  }
  // Not in the table: the default entry's function.
  EXPECT_EQ(VNOP_PATHCONF(vp, 0, &i32, ctx), ENOTSUP);
  discard(vp);
}

TEST(VfsDispatch, UnsetSlotsGetTheDefaultEntry) {
  Registered reg("probefs");
  vnode_t vp = probe_vnode(probe_second_p);
  EXPECT_EQ(VNOP_FSYNC(vp, MNT_WAIT, vfs_context_kernel()), 1000);
  EXPECT_EQ(VNOP_OPEN(vp, FREAD, vfs_context_kernel()), 4242);
  int32_t v;
  EXPECT_EQ(VNOP_PATHCONF(vp, 0, &v, vfs_context_kernel()), 4242);
  discard(vp);
}

int check_blockmap(void* v) {
  auto* ap = static_cast<struct vnop_blockmap_args*>(v);
  EXPECT_EQ(ap->a_foffset, 8192);
  EXPECT_EQ(ap->a_size, 65536u);
  EXPECT_EQ(ap->a_flags, VNODE_WRITE);
  *ap->a_bpn = 77;
  *ap->a_run = 4096;
  *static_cast<int*>(ap->a_poff) = 12;
  return 0;
}

TEST(VfsDispatch, ArgumentsTravelBothWays) {
  std::vector<VOPFUNC> ops(vnop_desc_count(), vn_default_error);
  ops[vnop_blockmap_desc.vdesc_offset] = check_blockmap;
  vnode_t vp = probe_vnode(ops.data());
  daddr64_t bpn = 0;
  size_t run = 0;
  int poff = 0;
  EXPECT_EQ(VNOP_BLOCKMAP(vp, 8192, 65536, &bpn, &run, &poff, VNODE_WRITE, nullptr), 0);
  EXPECT_EQ(bpn, 77);
  EXPECT_EQ(run, 4096u);
  EXPECT_EQ(poff, 12);
  discard(vp);
}

// --- Registration --------------------------------------------------------------------

TEST(VfsRegistry, AddFillsVectorsAndCallsInit) {
  g_init_calls = 0;
  Registered reg("probefs");
  ASSERT_NE(reg.handle, nullptr);
  EXPECT_NE(probe_vnodeop_p, nullptr);
  EXPECT_NE(probe_second_p, nullptr);
  EXPECT_EQ(g_init_calls, 1);
  EXPECT_STREQ(g_init_conf.vfc_name, "probefs");
  EXPECT_GT(g_init_conf.vfc_typenum, 0);
}

TEST(VfsRegistry, TypeNumbersAreAssignedOrTaken) {
  int first, second;
  {
    Registered a("probefs");
    first = g_init_conf.vfc_typenum;
  }
  {
    Registered b("probefs");
    second = g_init_conf.vfc_typenum;
  }
  EXPECT_NE(first, second) << "assigned type numbers are reused";
  Registered fixed("probefs", 0, 0x1234);
  EXPECT_EQ(g_init_conf.vfc_typenum, 0x1234);
}

// An entry of one operation table under `name`.
struct vfs_fsentry second_entry(const char* name) {
  static struct vnodeopv_desc* descs[] = {&second_desc};
  struct vfs_fsentry vfe = {};
  vfe.vfe_vfsops = &probe_vfsops;
  vfe.vfe_vopcnt = 1;
  vfe.vfe_opvdescs = descs;
  strncpy(vfe.vfe_fsname, name, MFSNAMELEN);
  vfe.vfe_flags = VFS_TBLNOTYPENUM;
  return vfe;
}

TEST(VfsRegistry, DuplicateNameIsRefused) {
  Registered reg("probefs");
  struct vfs_fsentry vfe = second_entry("probefs");
  vfstable_t h = nullptr;
  EXPECT_EQ(vfs_fsadd(&vfe, &h), EEXIST);
  EXPECT_EQ(h, nullptr);
}

TEST(VfsRegistry, RemoveRefusesWhileMountedAndClearsVectors) {
  Registered reg("probefs");
  mount_t mp;
  ASSERT_EQ(host_mount("probefs", nullptr, 0, nullptr, 0, &mp), 0);
  EXPECT_EQ(vfs_fsremove(reg.handle), EBUSY);
  EXPECT_EQ(vfs_typenum(mp), g_init_conf.vfc_typenum);
  // Operations the file system does not provide.
  vnode_t root = nullptr;
  EXPECT_EQ(VFS_ROOT(mp, &root, vfs_context_kernel()), ENOTSUP);
  EXPECT_EQ(VFS_SYNC(mp, MNT_WAIT, vfs_context_kernel()), ENOTSUP);
  ASSERT_EQ(host_unmount(mp, 0), 0);
  EXPECT_EQ(vfs_fsremove(reg.handle), 0);
  reg.handle = nullptr;
  EXPECT_EQ(probe_vnodeop_p, nullptr);
  EXPECT_EQ(host_mount("probefs", nullptr, 0, nullptr, 0, &mp), ENODEV);
}

TEST(VfsRegistry, AddFailsCleanlyWithoutMemory) {
  struct vfs_fsentry vfe = second_entry("nomemfs");
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
