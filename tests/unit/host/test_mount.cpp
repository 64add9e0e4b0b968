#include <gtest/gtest.h>

#include "host/blkdev.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "tinyfs.h"

namespace {

// Catches flags, statistics or I/O attributes misreported, I/O bounds too small, syncs lost.
TEST(MountQueries, FlagsStatfsAndIoAttributes) {
  TinyFs fs(MNT_RDONLY | MNT_NOATIME);
  mount_t mp = fs.mp();
  EXPECT_TRUE(vfs_isrdonly(mp));
  EXPECT_FALSE(vfs_isrdwr(mp));
  EXPECT_FALSE(vfs_isupdate(mp));
  EXPECT_TRUE(vfs_flags(mp) & MNT_NOATIME);
  EXPECT_TRUE(vfs_flags(mp) & MNT_IGNORE_OWNERSHIP);
  EXPECT_STREQ(vfs_statfs(mp)->f_fstypename, "tinyfs");
  EXPECT_EQ(vfs_statfs(mp)->f_bsize, 4096u);
  EXPECT_EQ(vfs_statfs(mp)->f_fsid.val[1], vfs_typenum(mp));
  char name[MFSTYPENAMELEN];
  vfs_name(mp, name);
  EXPECT_STREQ(name, "tinyfs");
  EXPECT_EQ(fs.stats().args_magic.load(), 0x54494e59u);
  EXPECT_EQ(fs.stats().start.load(), 1);

  struct vfsioattr io;
  vfs_ioattr(mp, &io);
  EXPECT_GE(io.io_maxreadcnt, 8u << 20);
  EXPECT_GE(io.io_maxwritecnt, 8u << 20);
  EXPECT_GE((uint64_t)io.io_segreadcnt * io.io_maxsegreadsize, 8u << 20);
  EXPECT_GE((uint64_t)io.io_segwritecnt * io.io_maxsegwritesize, 8u << 20);
  EXPECT_GE(io.io_maxreadcnt, ubc_upl_maxbufsize());

  // A sync reaches the file system and its vnodes in use: root and f, not g.
  vnode_t root = fs.root();
  EXPECT_TRUE(vnode_vfsisrdonly(root));
  EXPECT_TRUE(vnode_isvroot(root));
  vnode_t f, g;
  ASSERT_EQ(fs.create(root, "f", &f), 0);
  ASSERT_EQ(fs.create(root, "g", &g), 0);
  vnode_put(g);
  ASSERT_EQ(host_sync(mp, MNT_WAIT), 0);
  EXPECT_EQ(fs.stats().sync.load(), 1);
  EXPECT_EQ(fs.stats().fsync.load(), 2);
  vnode_put(f);
  vnode_put(root);
}

// What the file system sees during an update, and what stays after it or its refusal.
TEST(MountUpdate, FlagsDuringAndAfterTheCall) {
  const struct {
    uint64_t mounted, update;
    int error;
    bool rdonly_during, upgrade_during, rdonly_after;
    uint64_t kept, dropped;
  } cases[] = {
      {0, MNT_RDONLY, 0, true, false, true, MNT_IGNORE_OWNERSHIP, 0},
      {MNT_RDONLY, 0, 0, true, true, false, 0, 0},
      {0, MNT_RDONLY | MNT_RELOAD | MNT_FORCE | MNT_ASYNC, 0, true, false, true,
       MNT_ASYNC | MNT_IGNORE_OWNERSHIP, MNT_RELOAD | MNT_FORCE},
      {MNT_RDONLY | MNT_NOATIME, MNT_ASYNC, EIO, true, true, true, MNT_NOATIME, MNT_ASYNC},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "update " << c.update << " of " << c.mounted);
    TinyFs fs(c.mounted);
    tinyfs_get_hooks().update_error = c.error;
    struct tinyfs_args args = {7};
    ASSERT_EQ(host_mount_update(fs.mp(), c.update, &args, sizeof args), c.error);
    EXPECT_TRUE(fs.stats().saw_update.load());
    EXPECT_EQ(fs.stats().saw_rdonly.load(), c.rdonly_during);
    EXPECT_EQ(fs.stats().saw_writeupgrade.load(), c.upgrade_during);
    EXPECT_EQ(fs.stats().args_magic.load(), 7u);
    EXPECT_EQ(bool(vfs_isrdonly(fs.mp())), c.rdonly_after);
    EXPECT_EQ(vfs_flags(fs.mp()) & c.kept, c.kept);
    EXPECT_EQ(vfs_flags(fs.mp()) & (c.dropped | MNT_UPDATE), 0u);
    EXPECT_FALSE(vfs_iswriteupgrade(fs.mp()));
  }
}

// Busy or refusing volumes stay mounted unless forced; a gone mount refuses all.
TEST(MountUnmount, BusyOrRefusedVolumesStayMountedUnlessForced) {
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
  tinyfs_get_hooks().unmount_error = EIO;
  EXPECT_EQ(fs.unmount(0), EIO);
  root = fs.root();
  vnode_t again;
  ASSERT_EQ(fs.lookup(root, "open", &again), 0);
  EXPECT_EQ(again, f);
  vnode_put(again);
  vnode_put(root);

  mount_t mp = fs.mp();
  EXPECT_EQ(fs.unmount(MNT_FORCE), 0);
  EXPECT_TRUE(host_vnode_isdead(f));
  EXPECT_EQ(host_module_refcount(), refs);
  vnode_rele(f);
  EXPECT_EQ(host_sync(mp, MNT_WAIT), EINVAL);
  EXPECT_EQ(host_unmount(mp, 0), EINVAL);
  EXPECT_EQ(host_mount_update(mp, 0, nullptr, 0), EINVAL);
}

// A mount holds its device; a failed mount leaves no device or module reference.
TEST(MountDevice, MountHoldsTheDeviceAndAFailedOneLeavesNothing) {
  vnode_t dev = nullptr;
  ASSERT_EQ(host_memdev_create(1 << 20, 4096, 4096, &dev), 0);
  {
    TinyFs fs(0, dev);
    EXPECT_EQ(host_vnode_usecount(dev), 1);
    struct vfsioattr io;
    vfs_ioattr(fs.mp(), &io);
    EXPECT_EQ(io.io_devblocksize, 4096u);
  }
  EXPECT_EQ(host_vnode_usecount(dev), 0);

  int refs = host_module_refcount();
  tinyfs_get_hooks().mount_error = EINVAL;
  mount_t mp = reinterpret_cast<mount_t>(1);
  EXPECT_EQ(host_mount("tinyfs", dev, 0, nullptr, 0, &mp), EINVAL);
  tinyfs_get_hooks() = tinyfs_hooks();
  EXPECT_EQ(mp, nullptr);
  EXPECT_EQ(host_mount("nosuchfs", dev, 0, nullptr, 0, &mp), ENODEV);
  host_malloc_fail_nth(1);
  EXPECT_EQ(host_mount("tinyfs", dev, 0, nullptr, 0, &mp), ENOMEM);
  host_malloc_fail_nth(0);
  EXPECT_EQ(host_vnode_usecount(dev), 0);
  EXPECT_EQ(host_module_refcount(), refs);
  host_blkdev_close(dev);
}

}  // namespace
