// Device errors on chosen blocks of a mounted volume (boot sector, FAT,
// bitmap, up-case table, directories, file data): every operation returns 0
// or a positive errno, nothing of the driver is left after the unmount, and
// the volume mounts again once the fault is gone. Where it matters the error
// must be the right one: a structure the mount reads fails it with EIO, an
// unreadable directory is not empty, unreadable data is EIO and not zeros,
// and a lost write reaches whoever waits for it; a lost metadata write
// keeps the volume from being marked clean.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

struct Region {
  const char* name;
  uint64_t byte;       // a byte of the device inside the region
  bool mount_reads_it;  // unreadable, it fails every mount with EIO
};

}  // namespace

class IoFaults : public NamespaceTest {
 protected:
  // A filler takes the first 1100 of 2048 clusters, so that the chained
  // file's FAT entries lie in a FAT page that mounting never reads.
  IoFaults() {
    builder_ = mountable(Geometry{.cluster_shift = 0, .cluster_count = 2048});
    builder_.add_file(builder_.root(), u"filler", std::vector<uint8_t>(1100 * 512, 'f'));
    sub_ = builder_.mkdir(builder_.root(), u"d");
    builder_.add_file(sub_, u"a", pattern_bytes(0, 700, 1));
    builder_.add_file(sub_, u"a file with a name longer than fifteen", pattern_bytes(0, 100, 2));
    chain_ = builder_.add_file(builder_.root(), u"chain", pattern_bytes(0, 3 * 512, 3));
    contig_ = builder_.add_file(builder_.root(), u"contig", pattern_bytes(0, 2 * 512, 4), Alloc::Contiguous);
    image_ = builder_.build();
    image_bytes_ = image_.size();
  }

  void TearDown() override {
    if (devvp != nullptr)
      host_memdev_set_faults(devvp, host_memdev_faults{});
    NamespaceTest::TearDown();
  }

  std::vector<Region> regions() {
    return {
        {"boot sector", 0, true},
        {"first FAT block", builder_.fat_byte_offset(), true},
        {"FAT block of the chained file", builder_.fat_byte_offset() + 4u * chain_.first_cluster,
         false},
        {"bitmap", builder_.cluster_byte_offset(builder_.bitmap_cluster()), true},
        {"up-case table", builder_.cluster_byte_offset(builder_.upcase_cluster()), true},
        {"root directory", builder_.cluster_byte_offset(builder_.root().first_cluster), true},
        {"subdirectory", builder_.cluster_byte_offset(sub_.first_cluster), false},
        {"chained file's second cluster", builder_.cluster_byte_offset(chain_.first_cluster + 1),
         false},
        {"contiguous file", builder_.cluster_byte_offset(contig_.first_cluster), false},
    };
  }

  // Mounts with the faults in place; a failed mount must leave nothing.
  int mount_faulty(const host_memdev_faults& faults, uint64_t flags) {
    EXPECT_EQ(0, load(image_));
    host_memdev_set_faults(devvp, faults);
    int use = host_vnode_usecount(devvp);
    int error = mount(flags);
    if (error) {
      EXPECT_GT(error, 0);
      EXPECT_EQ(use, host_vnode_usecount(devvp)) << "the device is released";
      expect_nothing_left("after a failed mount");
      return error;
    }
    ctx_ = vfs_context_kernel();
    error = VFS_ROOT(mp, &root_vp_, ctx_);
    EXPECT_GE(error, 0);
    return error;
  }

  // Everything a writer does, each step whatever the previous ones gave.
  void write_everything() {
    Vref dir, file, chained;
    if (settled([&] { return lookup(root_vp_, "d", LOOKUP, &dir); }) == 0) {
      if (settled([&] { return create(dir.vp, "new", &file); }) == 0) {
        settled([&] { return vn_write_at(file.vp, 0, pattern_bytes(0, 2000, 5)); });
        settled([&] { return VNOP_FSYNC(file.vp, MNT_WAIT, ctx_); });
        settled([&] { return VNOP_CLOSE(file.vp, FWRITE, ctx_); });
        file.reset();
      }
      settled([&] { return remove(dir.vp, "a"); });
    }
    if (settled([&] { return lookup(root_vp_, "chain", LOOKUP, &chained); }) == 0) {
      settled([&] { return vn_write_at(chained.vp, 600, pattern_bytes(0, 3000, 6)); });
      settled([&] { return VNOP_IOCTL(chained.vp, F_FULLFSYNC, nullptr, 0, ctx_); });
      settled([&] { return vn_set_size(chained.vp, 100); });
    }
    Vref made;
    settled([&] { return mkdir(root_vp_, "nd", &made); });
    made.reset();
    settled([&] { return rename(root_vp_, "contig", root_vp_, "moved"); });
    settled([&] { return host_sync(mp, MNT_WAIT); });
  }

  // Unmounts (forced if need be); nothing may be left and the volume must
  // mount again without the faults.
  void unmount_and_remount() {
    release_nodes();
    int error = unmount();
    EXPECT_GE(error, 0);
    if (error != 0) {
      ASSERT_EQ(0, unmount(MNT_FORCE));
    }
    expect_nothing_left("after the unmount");
    host_memdev_set_faults(devvp, host_memdev_faults{});
    ASSERT_EQ(0, mount(MNT_RDONLY)) << "the volume no longer mounts";
    ASSERT_EQ(0, unmount());
  }

  Dir sub_;
  Placed chain_, contig_;
  std::vector<uint8_t> image_;
};

TEST_F(IoFaults, ErrorsAnywhereAreReturnedNeverFatal) {
  struct Mode {
    const char* what;
    bool write_fault;
    uint64_t flags;
  } modes[] = {{"unreadable, read-only", false, MNT_RDONLY},
               {"unreadable", false, 0},
               {"unwritable", true, 0}};
  for (const Region& r : regions()) {
    for (const Mode& m : modes) {
      SCOPED_TRACE(std::string(r.name) + ", " + m.what);
      host_memdev_faults faults;
      (m.write_fault ? faults.fail_write_bytes : faults.fail_read_bytes) = {r.byte};
      KernLogCapture quiet;
      int error = mount_faulty(faults, m.flags);
      if (m.write_fault) {
        EXPECT_EQ(0, error) << "only reads decide whether a volume mounts";
      } else if (r.mount_reads_it) {
        EXPECT_EQ(EIO, error);
      }
      if (error != 0)
        continue;
      walk_tree(root_vp_);
      if (m.flags == 0) {
        write_everything();
        walk_tree(root_vp_);
      }
      unmount_and_remount();
    }
  }
}

// A metadata block whose write fails, in the delayed flush, a sync or the
// unmount's own flush, leaves the volume dirty on disk for the next mount,
// even when the device has recovered by the unmount. The failure is logged;
// a sync returns the error; an unforced unmount returns it and keeps the
// volume mounted. The same steps without the fault end clean.
TEST_F(IoFaults, FailedMetadataWriteLeavesTheVolumeDirty) {
  struct Target {
    const char* name;
    const char* cache;  // the cache the block goes through, if any
    uint64_t byte;
    std::function<void()> dirty;  // changes nothing, but leaves the block to write
  };
  const Target targets[] = {
      {"FAT block", "FAT", builder_.fat_byte_offset() + 4u * chain_.first_cluster,
       [&] {
         uint32_t next = 0;
         ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET, xm, chain_.first_cluster, &next, 0));
         ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_SET, xm, chain_.first_cluster, nullptr, next));
       }},
      {"bitmap block", "bitmap", builder_.cluster_byte_offset(builder_.bitmap_cluster()),
       [&] {
         lck_mtx_lock(xm->xm_bitmap_lock);
         EXPECT_EQ(0, exfat_bitmap_mark_used(xm, xm->xm_max_cluster, 1));
         EXPECT_EQ(0, exfat_bitmap_mark_free(xm, xm->xm_max_cluster, 1));
         lck_mtx_unlock(xm->xm_bitmap_lock);
       }},
      {"directory block", nullptr, builder_.cluster_byte_offset(sub_.first_cluster),
       [&] {
         buf_t bp = nullptr;
         daddr64_t block = static_cast<daddr64_t>(builder_.cluster_byte_offset(sub_.first_cluster) / 512);
         ASSERT_EQ(0, buf_meta_bread(devvp, block, static_cast<int>(xm->xm_block_size), NOCRED, &bp));
         buf_bdwrite(bp);
       }},
  };
  enum Path { kDelayedFlush, kSync, kUnmount };
  for (const Target& t : targets) {
    for (Path path : {kDelayedFlush, kSync, kUnmount}) {
      for (int fault = 0; fault < 3; fault++) {  // none; lasting; gone before the unmount
        SCOPED_TRACE(std::string(t.name) + ", path " + std::to_string(path) + ", fault " +
                     std::to_string(fault));
        host_memdev_faults faults;
        if (fault != 0)
          faults.fail_write_bytes = {t.byte};
        KernLogCapture quiet;
        ASSERT_EQ(0, mount_faulty(faults, 0));
        release_nodes();
        t.dirty();
        int expected = fault != 0 ? EIO : 0;
        std::string message;
        {
          KernLogCapture log;
          if (path == kDelayedFlush) {
            exfat_meta_flush(xm, 0);
            ASSERT_TRUE(wait_for([&] { return !flush_pending(xm); }));
            message = t.cache ? "exfat_meta_flush_internal: error 5 flushing " + std::string(t.cache) + " cache!"
                              : "exfat_meta_flush_internal: error 5 writing metadata blocks";
          } else if (path == kSync) {
            EXPECT_EQ(expected, host_sync(mp, MNT_WAIT));
            message = t.cache ? "exfat_vfs_sync: error 5 flushing " + std::string(t.cache) + " cache!" : "";
          } else {
            EXPECT_EQ(expected, unmount());
            EXPECT_EQ(expected != 0, mp != nullptr) << "an unmount that failed keeps the volume";
            // The unmount's own sync meets the failure first.
            message = t.cache ? "exfat_vfs_sync: error 5 flushing " + std::string(t.cache) + " cache!" : "";
          }
          if (fault == 0) {
            EXPECT_TRUE(log.lines().empty());
          } else if (!message.empty()) {
            EXPECT_EQ(1u, log.count(message)) << message;
          }
        }
        if (fault == 2)
          host_memdev_set_faults(devvp, host_memdev_faults{});
        if (mp != nullptr && unmount() != 0) {
          ASSERT_EQ(0, unmount(MNT_FORCE));
        }
        expect_nothing_left("after the unmount");
        EXPECT_EQ(fault != 0, (disk_volume_flags() & EXFAT_VOLUME_DIRTY) != 0);
      }
    }
  }
}

// A PercentInUse update that can't be written fails a waiting flush with a
// message, and the volume stays marked dirty although the value is written
// later.
TEST_F(IoFaults, FailedPercentInUseWriteLeavesTheVolumeDirty) {
  KernLogCapture quiet;
  ASSERT_EQ(0, mount_faulty(host_memdev_faults{}, 0));
  release_nodes();
  host_memdev_faults faults;
  faults.fail_write_bytes = {112};  // PercentInUse
  host_memdev_set_faults(devvp, faults);
  const uint32_t first = xm->xm_max_cluster - 99;
  lck_mtx_lock(xm->xm_bitmap_lock);
  ASSERT_EQ(0, exfat_bitmap_mark_used(xm, first, 100));
  lck_mtx_unlock(xm->xm_bitmap_lock);
  {
    KernLogCapture log;
    exfat_meta_flush(xm, IO_SYNC);
    EXPECT_EQ(1u, log.count("exfat_meta_flush_internal: error 5 from exfat_sync_boot_sector"));
  }
  host_memdev_set_faults(devvp, host_memdev_faults{});
  lck_mtx_lock(xm->xm_bitmap_lock);
  ASSERT_EQ(0, exfat_bitmap_mark_free(xm, first, 100));
  lck_mtx_unlock(xm->xm_bitmap_lock);
  ASSERT_EQ(0, unmount());
  expect_nothing_left("after the unmount");
  EXPECT_NE(0, disk_volume_flags() & EXFAT_VOLUME_DIRTY);
}
