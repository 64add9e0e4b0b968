// Mounting: the boot region checks, the device block size, mount updates
// and per-volume arguments, statfs figures and volume attributes,
// unmounting, and mkfs.exfat volumes with the largest clusters.

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "host/buf.h"
#include "host/ubc.h"
#include "tests/unit/driver/host_mount_fixture.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

uint32_t device_block_size(vnode_t devvp) {
  uint32_t size = 0;
  EXPECT_EQ(0, VNOP_IOCTL(devvp, DKIOCGETBLOCKSIZE, reinterpret_cast<caddr_t>(&size), 0,
                          vfs_context_kernel()));
  return size;
}

}  // namespace

class BootRegion : public MountTest {};

// A 512-byte device holding 4096-byte sectors.
TEST_F(BootRegion, SmallDeviceBlocksAreRaisedToTheSectorSize) {
  ImageBuilder b = mountable(Geometry{.sector_shift = 12, .cluster_shift = 0, .cluster_count = 64});
  ASSERT_EQ(0, load(b.build(), 512, 512));
  KernLogCapture log;
  ASSERT_EQ(0, mount());
  EXPECT_EQ(1u, log.count("exfat_mount_internal: Changed logical block size to 4096"));
  EXPECT_EQ(4096u, device_block_size(devvp));
  EXPECT_EQ(4096u, xm->xm_bytes_per_sector);
  EXPECT_EQ(4096u, xm->xm_block_size);
  EXPECT_EQ(1u, xm->xm_sectors_per_block);
  ASSERT_EQ(0, unmount());

  ASSERT_EQ(0, load(b.build(), 512, 512));
  host_memdev_refuse_setblocksize(devvp, EPERM);
  EXPECT_EQ(EPERM, mount());
  EXPECT_EQ(1u, log.count("exfat_mount_internal: Couldn't change logical block size to 4096 "
                          "(error " + std::to_string(EPERM) + ")"));
  expect_nothing_left("after a refused block size");
}

// Boot regions the mount refuses, each with its error and exact log line,
// leaving nothing behind.
TEST_F(BootRegion, RefusedBootRegions) {
  struct Case {
    const char* what;
    Geometry g;
    std::function<void(ImageBuilder&)> change;
    int error;
    std::string log;  // "" = nothing logged
    bool prefix = false;
  };
  const Geometry sectors_4k{.sector_shift = 12, .cluster_shift = 0, .cluster_count = 40};
  const Geometry sectors_64k{.sector_shift = 16, .cluster_shift = 0, .cluster_count = 40};
  const Case cases[] = {
      {"sector shift 8", {}, [](ImageBuilder& b) { b.boot_field(108, 8, 1).corrupt_boot_checksum_word(0); },
       EINVAL, "exfat_mount_internal: bsBytesPerSectorShift (8) is out of range 9..16"},
      {"sector shift 17", {}, [](ImageBuilder& b) { b.boot_field(108, 17, 1).corrupt_boot_checksum_word(0); },
       EINVAL, "exfat_mount_internal: bsBytesPerSectorShift (17) is out of range 9..16"},
      {"64 MiB clusters", sectors_4k, [](ImageBuilder& b) { b.boot_field(109, 14, 1); }, EINVAL,
       "exfat: bytes per cluster (67108864) > MAXBSIZE (33554432).  Can't mount."},
      {"4 GiB clusters", sectors_64k, [](ImageBuilder& b) { b.boot_field(109, 16, 1); }, EINVAL,
       "exfat: bytes per cluster (4294967296) > MAXBSIZE (33554432).  Can't mount."},
      {"cluster shift 17", {}, [](ImageBuilder& b) { b.boot_field(109, 17, 1); }, EINVAL,
       "exfat_mount_internal: bsSectorsPerClusterShift (17) is too large"},
      {"root cluster 1", {}, [](ImageBuilder& b) { b.boot_field(96, 1, 4); }, EINVAL,
       "exfat: root starting cluster (1) out of range"},
      {"root cluster count + 2", {}, [](ImageBuilder& b) { b.boot_field(96, 514, 4); }, EINVAL,
       "exfat: root starting cluster (514) out of range"},
      {"empty FAT", {}, [](ImageBuilder& b) { b.boot_field(84, 0, 4); }, EINVAL,
       "exfat: Warning: number of clusters", true},
      {"signature", {}, [](ImageBuilder& b) { b.boot_field(3, 0x2020205441465845ull + 1, 8); },
       EINVAL, ""},
      {"checksum word", {}, [](ImageBuilder& b) { b.corrupt_boot_checksum_word(77); }, EIO,
       "exfat: Boot region's checksum is invalid"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ImageBuilder b = mountable(c.g);
    c.change(b);
    uint32_t block = 1u << c.g.sector_shift;
    ASSERT_EQ(0, load(b.build(), block, block));
    int use = host_vnode_usecount(devvp);
    KernLogCapture log;
    EXPECT_EQ(c.error, mount());
    EXPECT_EQ(use, host_vnode_usecount(devvp)) << "the device is released";
    if (c.log.empty())
      EXPECT_TRUE(log.lines().empty());
    else if (c.prefix)
      EXPECT_EQ(1u, log.count_prefix(c.log));
    else
      EXPECT_EQ(1u, log.count(c.log));
    EXPECT_EQ(c.error == EIO ? 1u : 0u, log.count("exfat: Boot region's checksum is invalid"));
    expect_nothing_left(c.what);
  }
}

// 64 KiB sectors, 1 MiB clusters, and flags and percentage changed since
// the checksum was computed all mount.
TEST_F(BootRegion, BootRegionsAtTheLimitsMount) {
  ImageBuilder b = mountable(Geometry{.sector_shift = 16, .cluster_shift = 0, .cluster_count = 40});
  ASSERT_EQ(0, load(b.build()));
  ASSERT_EQ(0, mount());
  EXPECT_EQ(65536u, xm->xm_bytes_per_sector);
  EXPECT_EQ(65536u, xm->xm_bytes_per_cluster);
  ASSERT_EQ(0, unmount());

  b = mountable(Geometry{.sector_shift = 12, .cluster_shift = 8, .cluster_count = 6});
  ASSERT_EQ(0, load(b.build(), 4096, 4096));
  ASSERT_EQ(0, mount());
  EXPECT_EQ(1048576u, xm->xm_bytes_per_cluster);
  EXPECT_EQ(4096u, xm->xm_block_size);
  EXPECT_EQ(256u, xm->xm_blocks_per_cluster);
  EXPECT_GE(xm->xm_max_io, 1048576u);
  ASSERT_EQ(0, unmount());

  std::vector<uint8_t> image = mountable().build();
  image[106] ^= 0x04;
  image[107] ^= 0x80;
  image[112] = 99;
  ASSERT_EQ(0, load(image));
  EXPECT_EQ(0, mount(MNT_RDONLY));
}

// A FAT too small for the cluster count: a warning, and the highest
// cluster is the last one the FAT can describe.
TEST_F(BootRegion, MoreClustersThanFatEntriesLowersTheLimit) {
  ImageBuilder b = mountable(Geometry{.cluster_shift = 0, .cluster_count = 200, .fat_length = 1});
  ASSERT_EQ(0, load(b.build()));
  KernLogCapture log;
  ASSERT_EQ(0, mount());
  EXPECT_EQ(1u, log.count("exfat: Warning: number of clusters (202) exceeds FAT capacity (128)"));
  EXPECT_EQ(127u, xm->xm_max_cluster);
  EXPECT_EQ(512u, xm->xm_fat_size);
}

class MountArguments : public MountTest {};

// An update applies its arguments, a reload is refused, and an upgrade to
// read-write marks the volume dirty until the unmount.
TEST_F(MountArguments, UpdateReloadAndWriteUpgrade) {
  ASSERT_EQ(0, load(mountable().build()));
  ASSERT_EQ(0, mount(MNT_RDONLY, exfat_mount_args(0700, 0)));
  auto args = exfat_mount_args(0555, 7200);
  ASSERT_EQ(0, host_mount_update(mp, MNT_RDONLY, args.data(), args.size()));
  EXPECT_EQ(0555, xm->xm_mask);
  EXPECT_EQ(7200, xm->xm_secondsWest);
  EXPECT_EQ(ENOTSUP, host_mount_update(mp, MNT_RDONLY | MNT_RELOAD, args.data(), args.size()));

  EXPECT_EQ(0, disk_volume_flags() & EXFAT_VOLUME_DIRTY);
  args = exfat_mount_args();
  ASSERT_EQ(0, host_mount_update(mp, 0, args.data(), args.size()));
  EXPECT_EQ(0u, xm->xm_flags & XM_RDONLY);
  EXPECT_EQ(EXFAT_VOLUME_DIRTY, disk_volume_flags() & EXFAT_VOLUME_DIRTY);
  ASSERT_EQ(0, unmount());
  EXPECT_EQ(0, disk_volume_flags() & EXFAT_VOLUME_DIRTY);
}

// A downgrade whose sync can't write stays read-write and says why; forced
// (errors=remount-ro after a failed write), it makes the mount read-only
// all the same, so that nothing more is written.
TEST_F(MountArguments, ForcedDowngradeHoldsWhenTheSyncFails) {
  ASSERT_EQ(0, load(mountable().build()));
  ASSERT_EQ(0, mount());
  lck_mtx_lock(xm->xm_bitmap_lock);
  ASSERT_EQ(0, exfat_bitmap_mark_used(xm, 10, 1));  // a dirty bitmap block to write
  lck_mtx_unlock(xm->xm_bitmap_lock);
  host_memdev_set_faults(devvp, host_memdev_faults{.fail_writes_after = 0});
  auto args = exfat_mount_args();
  EXPECT_NE(0, host_mount_update(mp, MNT_RDONLY, args.data(), args.size()));
  EXPECT_EQ(0u, xm->xm_flags & XM_RDONLY);
  EXPECT_EQ(0, host_mount_update(mp, MNT_RDONLY | MNT_FORCE, args.data(), args.size()));
  EXPECT_EQ(XM_RDONLY, xm->xm_flags & XM_RDONLY);
  EXPECT_TRUE(vfs_isrdonly(mp));
  EXPECT_EQ(0, unmount(MNT_FORCE));
}

// Two volumes in one process with different time zones each read and
// stamp their own files with their own: a file's time without a valid UTC
// offset is local time of its volume's zone, and a time set is stored with
// that zone's offset byte.
TEST_F(MountArguments, EachVolumeKeepsItsOwnTimeZone) {
  FileDesc desc;  // modified 2024-01-01 00:00:00
  desc.name = u"f";
  ImageBuilder b = mountable();
  uint32_t set_offset = b.add_set(b.root(), desc).offset;
  uint64_t entry = b.dir_byte_offset(b.root(), set_offset);
  std::vector<uint8_t> image = b.build();
  std::vector<uint8_t> set(image.begin() + entry, image.begin() + entry + 96);
  set[23] = 0;  // LastModifiedUtcOffset not valid: the time is local
  fix_set_checksum(set);
  std::copy(set.begin(), set.end(), image.begin() + entry);
  const int64_t local = 1704067200;  // 2024-01-01 00:00:00 as if UTC

  MountedVolume east;  // an hour ahead of UTC: seconds west -3600
  ASSERT_EQ(0, load(image));
  ASSERT_EQ(0, east.load(image));
  ASSERT_EQ(0, mount(0, exfat_mount_args(0755, 7200)));
  ASSERT_EQ(0, east.mount(0, exfat_mount_args(0755, -3600)));
  const struct timespec when = {1718446273, 0};
  for (MountedVolume* v : {static_cast<MountedVolume*>(this), &east}) {
    int32_t west = v == &east ? -3600 : 7200;
    SCOPED_TRACE(west);
    vnode_t root = NULLVP, vp = NULLVP;
    ASSERT_EQ(0, VFS_ROOT(v->mp, &root, vfs_context_kernel()));
    ASSERT_EQ(0, vn_lookup(root, "f", &vp));
    struct vnode_attr va;
    VATTR_INIT(&va);
    VATTR_WANTED(&va, va_modify_time);
    ASSERT_EQ(0, VNOP_GETATTR(vp, &va, vfs_context_kernel()));
    EXPECT_EQ(local + west, va.va_modify_time.tv_sec);
    VATTR_INIT(&va);
    VATTR_SET(&va, va_modify_time, when);
    ASSERT_EQ(0, VNOP_SETATTR(vp, &va, vfs_context_kernel()));
    vnode_put(vp);
    vnode_put(root);
    ASSERT_EQ(0, v->unmount());
    std::vector<uint8_t> file = v->read_device(entry, 32);
    EXPECT_EQ(static_cast<uint8_t>(0x80 | ((west / 900) & 0x7F)), file[23]) << "LastModifiedUtcOffset";
  }
}

class VolumeFigures : public MountTest {};

// statfs and getattr report the geometry, the free space, the label, the
// UUID and the fixed capability masks.
TEST_F(VolumeFigures, StatfsAndGetattrReportTheGeometryAndFreeSpace) {
  ImageBuilder b = mountable(Geometry{.cluster_shift = 3, .cluster_count = 1000});
  b.add_label(u"FIGURES");
  uint32_t used = 0;
  for (uint32_t c = 2; c < 1002; c++)
    used += b.allocated(c) ? 1 : 0;
  ASSERT_EQ(0, load(b.build()));
  ASSERT_EQ(0, mount(MNT_RDONLY));

  struct vfsstatfs* sbp = vfs_statfs(mp);
  EXPECT_EQ(4096u, sbp->f_bsize);
  EXPECT_EQ(1000u, sbp->f_blocks);
  EXPECT_EQ(1000u - used, sbp->f_bfree);
  EXPECT_EQ(1000u - used, sbp->f_bavail);
  EXPECT_EQ(used, sbp->f_bused);
  EXPECT_EQ(0u, sbp->f_files);
  EXPECT_STREQ("exfat", sbp->f_fstypename);
  EXPECT_EQ(static_cast<int32_t>(xm->xm_dev), sbp->f_fsid.val[0]);
  EXPECT_EQ(vfs_typenum(mp), sbp->f_fsid.val[1]);
  EXPECT_TRUE(vfs_flags(mp) & MNT_IGNORE_OWNERSHIP);

  struct vfs_attr va;
  VFSATTR_INIT(&va);
  char name[MAXPATHLEN];
  va.f_vol_name = name;
  VFSATTR_WANTED(&va, f_vol_name);
  VFSATTR_WANTED(&va, f_uuid);
  VFSATTR_WANTED(&va, f_capabilities);
  VFSATTR_WANTED(&va, f_attributes);
  ASSERT_EQ(0, VFS_GETATTR(mp, &va, vfs_context_kernel()));
  EXPECT_EQ(1000u, va.f_blocks);
  EXPECT_EQ(va.f_blocks, va.f_files);
  EXPECT_EQ(va.f_bfree, va.f_ffree);
  EXPECT_EQ(1000u - used, va.f_bfree);
  EXPECT_STREQ("FIGURES", name);
  EXPECT_EQ(0, memcmp(va.f_uuid, xm->xm_uuid, 16));
  EXPECT_EQ(0x00402E22u, va.f_capabilities.capabilities[VOL_CAPABILITIES_FORMAT]);
  EXPECT_EQ(0x0040FFFFu, va.f_capabilities.valid[VOL_CAPABILITIES_FORMAT]);
  EXPECT_EQ(0x00000382u, va.f_capabilities.capabilities[VOL_CAPABILITIES_INTERFACES]);
  EXPECT_EQ(0x022416BFu, va.f_attributes.nativeattr.commonattr);
  EXPECT_TRUE(VFSATTR_IS_SUPPORTED(&va, f_vol_name));
  EXPECT_TRUE(VFSATTR_IS_SUPPORTED(&va, f_bsize));
  EXPECT_FALSE(VFSATTR_IS_SUPPORTED(&va, f_fsid)) << "filled only when asked for";
}

class Unmount : public MountTest {};

// The module refuses to stop while a volume is mounted, and stays usable.
TEST_F(Unmount, ModuleCantStopWhileAVolumeIsMounted) {
  ASSERT_EQ(0, load(mountable().build()));
  ASSERT_EQ(0, mount(MNT_RDONLY));
  EXPECT_EQ(5, exfat_module_stop());
  ASSERT_EQ(0, unmount());
  EXPECT_EQ(0, mount(MNT_RDONLY));
}

// Volumes made by mkfs.exfat with 2 MiB clusters and with 32 MiB ones, the
// largest the format allows, mount read-write and take a directory, a file
// that crosses a cluster boundary and a link, with the buffer cache and the
// page cache held to small bounds throughout (neither needs a buffer of a
// whole cluster); after a remount everything reads back and the checker
// finds the volume clean.
class LargeClusters : public NamespaceTest {
 protected:
  // Sets the two caches' bounds for the test and restores them after.
  struct CacheBounds {
    size_t pages = host_ubc_limit();
    CacheBounds(size_t buffer_bytes, size_t page_bytes) {
      host_bufcache_set_limit(buffer_bytes);
      host_ubc_set_limit(page_bytes);
    }
    ~CacheBounds() {
      host_bufcache_set_limit(0);
      host_ubc_set_limit(pages);
    }
  };

  static std::string tool(const char* name) {
    std::string fsck = fsck_program();
    return fsck.empty() ? "" : fsck.substr(0, fsck.rfind('/') + 1) + name;
  }

  void mount_file(const std::string& path, uint64_t flags) {
    ASSERT_EQ(0, host_blkdev_open(path.c_str(), 0, &devvp));
    ASSERT_EQ(0, mount(flags));
    ctx_ = vfs_context_kernel();
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
    root_ = node_of(root_vp_);
  }
  // The page cache's page-out thread may still hold an I/O reference on a
  // file it is writing out, which an unforced unmount counts as a busy
  // vnode (EBUSY): the unmount is tried again for a while.
  void unmount_file() {
    release_nodes();
    KernLogCapture quiet;
    int error = EBUSY;
    for (int i = 0; i < 500 && error == EBUSY; i++) {
      if ((error = unmount()) == EBUSY)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(0, error);
    close_device();
  }
};

TEST_F(LargeClusters, MkfsVolumesWithTheLargestClustersReadAndWrite) {
  if (tool("mkfs.exfat").empty() || access(tool("mkfs.exfat").c_str(), X_OK) != 0)
    GTEST_SKIP() << "mkfs.exfat is not installed";
  const size_t kBufferBytes = 512u << 10, kPageBytes = 4u << 20;
  CacheBounds bounds(kBufferBytes, kPageBytes);
  struct Case {
    const char* option;
    uint32_t cluster;
    uint64_t image_bytes;  // room for 3 system clusters and 4 more
  } cases[] = {{"2M", 2u << 20, 48ull << 20}, {"32M", 32u << 20, 320ull << 20}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.option);
    TempFile image;
    ASSERT_EQ(0, truncate(image.path().c_str(), static_cast<off_t>(c.image_bytes)));
    std::string mkfs = tool("mkfs.exfat") + " -c " + c.option + " '" + image.path() + "'";
    ASSERT_EQ(0, std::system((mkfs + " >/dev/null 2>&1").c_str()));
    const std::vector<uint8_t> head = pattern_bytes(0, 5000, 1);
    const std::vector<uint8_t> across = pattern_bytes(c.cluster - 1000, 5000, 2);

    mount_file(image.path(), 0);
    EXPECT_EQ(c.cluster, xm->xm_bytes_per_cluster);
    EXPECT_EQ(4096u, xm->xm_block_size);
    {
      Vref dir, file, link;
      ASSERT_EQ(0, mkdir(root_vp_, "d", &dir));
      ASSERT_EQ(0, create(dir.vp, "f", &file));
      ASSERT_EQ(0, vn_write_at(file.vp, 0, head));
      ASSERT_EQ(0, vn_write_at(file.vp, c.cluster - 1000, across));
      ASSERT_EQ(0, symlink(dir.vp, "l", "f", &link));
      EXPECT_EQ(0, VNOP_CLOSE(file.vp, FWRITE, ctx_));
      EXPECT_LE(host_bufcache_bytes(), kBufferBytes);
      EXPECT_LE(host_ubc_resident_bytes(), kPageBytes);
    }
    unmount_file();
    if (!fsck_program().empty()) {
      std::string fsck = fsck_program() + " -n '" + image.path() + "' >/dev/null 2>&1";
      EXPECT_EQ(0, std::system(fsck.c_str())) << "the checker finds damage";
    }

    mount_file(image.path(), MNT_RDONLY);
    {
      Vref dir, file, link;
      ASSERT_EQ(0, lookup(root_vp_, "d", LOOKUP, &dir));
      ASSERT_EQ(0, lookup(dir.vp, "f", LOOKUP, &file));
      ASSERT_EQ(0, lookup(dir.vp, "l", LOOKUP, &link));
      EXPECT_EQ(head, vn_read(file.vp, 0, head.size()).data);
      EXPECT_EQ(across, vn_read(file.vp, c.cluster - 1000, across.size()).data);
      EXPECT_TRUE(all_zero(vn_read(file.vp, c.cluster / 2, 65536).data));
      std::string target;
      EXPECT_EQ(0, vn_readlink(link.vp, &target));
      EXPECT_EQ("f", target);
      EXPECT_LE(host_bufcache_bytes(), kBufferBytes);
      EXPECT_LE(host_ubc_resident_bytes(), kPageBytes);
    }
    unmount_file();
  }
}
