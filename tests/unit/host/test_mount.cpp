#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/malloc.h"
#include "host/mount.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

TEST(MountQueries, FlagsStatfsAndIoAttributes) {
  TinyFs fs(MNT_RDONLY | MNT_NOATIME);
  mount_t mp = fs.mp();
  EXPECT_TRUE(vfs_isrdonly(mp));
  EXPECT_FALSE(vfs_isrdwr(mp));
  EXPECT_FALSE(vfs_isupdate(mp));
  EXPECT_TRUE(vfs_flags(mp) & MNT_NOATIME);
  EXPECT_TRUE(vfs_flags(mp) & MNT_IGNORE_OWNERSHIP) << "flag the file system set is lost";
  vfs_setflags(mp, MNT_ASYNC);
  EXPECT_TRUE(vfs_flags(mp) & MNT_ASYNC);
  vfs_clearflags(mp, MNT_ASYNC);
  EXPECT_FALSE(vfs_flags(mp) & MNT_ASYNC);
  EXPECT_STREQ(vfs_statfs(mp)->f_fstypename, "tinyfs");
  EXPECT_EQ(vfs_statfs(mp)->f_bsize, 4096u);
  EXPECT_EQ(vfs_statfs(mp)->f_fsid.val[1], vfs_typenum(mp));
  char name[MFSTYPENAMELEN];
  vfs_name(mp, name);
  EXPECT_STREQ(name, "tinyfs");
  EXPECT_EQ(fs.stats().args_magic.load(), 0x54494e59u) << "arguments not copied in";
  EXPECT_EQ(fs.stats().start.load(), 1);

  struct vfsioattr io;
  vfs_ioattr(mp, &io);
  EXPECT_GE(io.io_maxreadcnt, 8u << 20);
  EXPECT_GE(io.io_maxwritecnt, 8u << 20);
  EXPECT_GE((uint64_t)io.io_segreadcnt * io.io_maxsegreadsize, 8u << 20);
  EXPECT_GE((uint64_t)io.io_segwritecnt * io.io_maxsegwritesize, 8u << 20);
  io.io_maxreadcnt = 128 << 10;
  vfs_setioattr(mp, &io);
  struct vfsioattr again;
  vfs_ioattr(mp, &again);
  EXPECT_EQ(again.io_maxreadcnt, 128u << 10);

  vnode_t root = fs.root();
  EXPECT_TRUE(vnode_vfsisrdonly(root));
  EXPECT_TRUE(vnode_isvroot(root));
  vnode_put(root);
}

TEST(MountUpdate, DowngradeIsVisibleDuringTheCall) {
  TinyFs fs;
  ASSERT_TRUE(vfs_isrdwr(fs.mp()));
  ASSERT_EQ(host_mount_update(fs.mp(), MNT_RDONLY, nullptr, 0), 0);
  EXPECT_TRUE(fs.stats().saw_update);
  EXPECT_TRUE(fs.stats().saw_rdonly);
  EXPECT_FALSE(fs.stats().saw_writeupgrade);
  EXPECT_TRUE(vfs_isrdonly(fs.mp()));
  EXPECT_FALSE(vfs_isupdate(fs.mp())) << "MNT_UPDATE left set after the update";
}

TEST(MountUpdate, UpgradeStaysReadOnlyUntilAccepted) {
  TinyFs fs(MNT_RDONLY);
  struct tinyfs_args args = {7};
  ASSERT_EQ(host_mount_update(fs.mp(), 0, &args, sizeof args), 0);
  EXPECT_TRUE(fs.stats().saw_writeupgrade);
  EXPECT_TRUE(fs.stats().saw_rdonly) << "read-write before the file system agreed";
  EXPECT_EQ(fs.stats().args_magic.load(), 7u);
  EXPECT_TRUE(vfs_isrdwr(fs.mp()));
  EXPECT_FALSE(vfs_iswriteupgrade(fs.mp()));
}

TEST(MountUpdate, RefusedUpgradeRestoresTheFlags) {
  TinyFs fs(MNT_RDONLY | MNT_NOATIME);
  tinyfs_get_hooks().update_error = EIO;
  EXPECT_EQ(host_mount_update(fs.mp(), MNT_ASYNC, nullptr, 0), EIO);
  EXPECT_TRUE(vfs_isrdonly(fs.mp()));
  EXPECT_TRUE(vfs_flags(fs.mp()) & MNT_NOATIME);
  EXPECT_FALSE(vfs_flags(fs.mp()) & MNT_ASYNC);
  EXPECT_FALSE(vfs_isupdate(fs.mp()));
}

TEST(MountUpdate, ReloadAndForceAreRequestsOnly) {
  TinyFs fs;
  ASSERT_EQ(host_mount_update(fs.mp(), MNT_RDONLY | MNT_RELOAD | MNT_FORCE | MNT_ASYNC, nullptr, 0),
            0);
  EXPECT_TRUE(fs.stats().saw_reload);
  EXPECT_TRUE(fs.stats().saw_force);
  EXPECT_FALSE(vfs_isreload(fs.mp()));
  EXPECT_FALSE(vfs_isforce(fs.mp()));
  EXPECT_TRUE(vfs_flags(fs.mp()) & MNT_ASYNC);
  EXPECT_TRUE(vfs_flags(fs.mp()) & MNT_IGNORE_OWNERSHIP) << "an update cleared a file-system flag";
}

TEST(MountUnmount, BusyVolumeStaysMountedUnlessForced) {
  int refs = host_module_refcount();
  TinyFs fs;
  EXPECT_EQ(host_module_refcount(), refs + 1);
  vnode_t root = fs.root();
  vnode_t f;
  ASSERT_EQ(fs.create(root, "open", &f), 0);
  ASSERT_EQ(vnode_ref(f), 0);
  vnode_put(f);
  vnode_put(root);

  EXPECT_EQ(fs.unmount(0), EBUSY);
  EXPECT_EQ(fs.stats().unmount_vflush_error.load(), EBUSY);
  // Still usable.
  root = fs.root();
  vnode_t again;
  ASSERT_EQ(fs.lookup(root, "open", &again), 0);
  EXPECT_EQ(again, f);
  vnode_put(again);
  vnode_put(root);

  EXPECT_EQ(fs.unmount(MNT_FORCE), 0);
  EXPECT_TRUE(host_vnode_isdead(f));
  EXPECT_EQ(host_module_refcount(), refs);
  vnode_rele(f);
}

TEST(MountUnmount, RefusedUnmountKeepsTheMount) {
  TinyFs fs;
  tinyfs_get_hooks().unmount_error = EIO;
  EXPECT_EQ(fs.unmount(0), EIO);
  EXPECT_FALSE(vfs_isforce(fs.mp()));
  vnode_t root = fs.root();
  EXPECT_NE(root, nullptr);
  vnode_put(root);
}

TEST(MountUnmount, OperationsOnAGoneMountFail) {
  TinyFs fs;
  mount_t mp = fs.mp();
  ASSERT_EQ(fs.unmount(0), 0);
  EXPECT_EQ(host_sync(mp, MNT_WAIT), EINVAL);
  EXPECT_EQ(host_unmount(mp, 0), EINVAL);
  EXPECT_EQ(host_mount_update(mp, 0, nullptr, 0), EINVAL);
}

vnode_t make_device() {
  vnode_t vp = nullptr;
  EXPECT_EQ(host_test::create_vnode(host_test::fsparam(VBLK, host_test::bare_device_ops()), &vp), 0);
  return vp;
}

TEST(MountDevice, MountHoldsTheDevice) {
  vnode_t dev = make_device();
  {
    TinyFs fs(0, dev);
    EXPECT_EQ(vfs_devvp(fs.mp()), dev);
    EXPECT_EQ(host_vnode_usecount(dev), 1);
    struct vfsioattr io;
    vfs_ioattr(fs.mp(), &io);
    EXPECT_EQ(io.io_devblocksize, 512u) << "a device that can't say gets 512";
  }
  EXPECT_EQ(host_vnode_usecount(dev), 0);
  host_test::discard(dev);
}

TEST(MountFailure, FailedMountLeavesNothingBehind) {
  tinyfs_register();
  vnode_t dev = make_device();
  int refs = host_module_refcount();
  tinyfs_get_hooks() = tinyfs_hooks();
  tinyfs_get_hooks().mount_error = EINVAL;
  mount_t mp = reinterpret_cast<mount_t>(1);
  EXPECT_EQ(host_mount("tinyfs", dev, 0, nullptr, 0, &mp), EINVAL);
  tinyfs_get_hooks() = tinyfs_hooks();
  EXPECT_EQ(mp, nullptr);
  EXPECT_EQ(host_vnode_usecount(dev), 0);
  EXPECT_EQ(host_module_refcount(), refs);
  EXPECT_EQ(host_mount("nosuchfs", dev, 0, nullptr, 0, &mp), ENODEV);
  host_malloc_fail_nth(1);
  EXPECT_EQ(host_mount("tinyfs", dev, 0, nullptr, 0, &mp), ENOMEM);
  host_malloc_fail_nth(0);
  host_test::discard(dev);
}

TEST(MountFailure, TypeCannotBeRemovedWhileMounted) {
  TinyFs fs;
  EXPECT_EQ(vfs_fsremove(tinyfs_register()), EBUSY);
}

TEST(MountSync, SyncReachesTheFileSystemAndItsActiveVnodes) {
  TinyFs fs;
  vnode_t root = fs.root();
  vnode_t f;
  ASSERT_EQ(fs.create(root, "f", &f), 0);
  vnode_t g;
  ASSERT_EQ(fs.create(root, "g", &g), 0);
  vnode_put(g);
  ASSERT_EQ(host_sync(fs.mp(), MNT_WAIT), 0);
  EXPECT_EQ(fs.stats().sync.load(), 1);
  EXPECT_EQ(fs.stats().fsync.load(), 2);  // root and f; g is unused
  vnode_put(f);
  vnode_put(root);
}

// --- Contexts, copyin, module references ------------------------------------------

TEST(MountContext, ContextsCarryTheCredential) {
  vfs_context_t k = vfs_context_create(nullptr);
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(vfs_context_ucred(k), vfs_context_ucred(vfs_context_kernel()));
  vfs_context_t copy = vfs_context_create(k);
  EXPECT_EQ(vfs_context_ucred(copy), vfs_context_ucred(k));
  EXPECT_NE(copy, k);
  EXPECT_EQ(vfs_context_rele(copy), 0);
  EXPECT_EQ(vfs_context_rele(k), 0);
}

TEST(MountContext, CopyinAndCopyout) {
  uint32_t src = 0xD4C1C6F8, dst = 0;
  EXPECT_EQ(copyin(reinterpret_cast<user_addr_t>(&src), &dst, sizeof dst), 0);
  EXPECT_EQ(dst, src);
  EXPECT_EQ(copyin(0, &dst, sizeof dst), EFAULT);
  uint32_t out = 0;
  EXPECT_EQ(copyout(&src, reinterpret_cast<user_addr_t>(&out), sizeof out), 0);
  EXPECT_EQ(out, src);
  EXPECT_EQ(copyout(&src, 0, sizeof src), EFAULT);
}

TEST(MountModuleDeathTest, ReleaseBelowZeroPanics) {
  int base = host_module_refcount();
  EXPECT_DEATH(
      {
        for (int i = 0; i <= base; i++) host_module_rele();
      },
      "panic: host_module_rele");
}

// --- Concurrency ---------------------------------------------------------------------

// Syncs from several threads race an unmount: each either runs before the
// unmount (serialised with it) or finds the mount gone.
TEST(MountConcurrency, SyncRacesUnmount) {
  for (int round = 0; round < 20; round++) {
    TinyFs fs;
    mount_t mp = fs.mp();
    std::atomic<int> ok{0}, gone{0};
    std::vector<std::thread> syncers;
    for (int t = 0; t < 3; t++) {
      syncers.emplace_back([&] {
        for (int i = 0; i < 20; i++) {
          int e = host_sync(mp, MNT_NOWAIT);
          if (e == 0) {
            ok++;
          } else {
            EXPECT_EQ(e, EINVAL);
            gone++;
          }
        }
      });
    }
    EXPECT_EQ(fs.unmount(0), 0);
    for (auto& t : syncers) t.join();
    EXPECT_EQ(ok + gone, 60);
  }
}

}  // namespace
