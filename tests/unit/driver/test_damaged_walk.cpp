// A small populated volume damaged at random, a few bytes at a time in one
// of its structures, then walked read-only (every directory listed, every
// name looked up, stat'ed and read) and, for some variants, changed. Every
// call must return a value or an errno: no crash, no sanitizer report, no
// driver memory left.
//
// EXVOL_WALK_SEED picks the damage, EXVOL_WALK_VARIANTS the number of
// variants (default 2000); a crash prints the variant to rerun.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/damage.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

class DamagedWalk : public NamespaceTest {
 protected:
  DamagedWalk() {
    builder_ = mountable(Geometry{.cluster_shift = 0, .cluster_count = 200, .root_clusters = 2});
    builder_.add_label(u"WALK");
    dir_ = builder_.mkdir(builder_.root(), u"dir", 2);
    Dir sub = builder_.mkdir(dir_, u"a subdirectory with a long name");
    builder_.add_file(sub, u"deep.txt", bytes("deep"));
    builder_.add_file(dir_, u"b.txt", std::vector<uint8_t>(1500, 'b'));
    builder_.add_file(dir_, u"a file whose name needs three name entries in its set.txt",
                      bytes("long"));
    chain_ = builder_.add_file(builder_.root(), u"chain.bin", std::vector<uint8_t>(1400, 'c'));
    contig_ = builder_.add_file(builder_.root(), u"contig.bin", std::vector<uint8_t>(1000, 'd'),
                                Alloc::Contiguous);
    builder_.add_file(builder_.root(), u"empty", {});
  }

  void TearDown() override {
    if (devvp != nullptr)
      host_memdev_set_faults(devvp, host_memdev_faults{});
    NamespaceTest::TearDown();
  }

  // The builder's volume plus a symbolic link the driver itself made.
  void make_base() {
    mount_built();
    Vref link;
    ASSERT_EQ(0, symlink(root_vp_, "link", "dir/b.txt", &link));
    link_cluster_ = link.node()->x_start_cluster;
    link.reset();
    release_nodes();
    ASSERT_EQ(0, unmount());
    base_ = read_device(0, image_bytes_);
    ASSERT_NE(0u, link_cluster_);
  }

  // A few changes, each attempted whatever the previous ones gave.
  void change() {
    Vref file, dir, made;
    if (settled([&] { return create(root_vp_, "new", &file); }) == 0) {
      settled([&] { return vn_write_at(file.vp, 0, std::vector<uint8_t>(3000, 'n')); });
      settled([&] { return VNOP_FSYNC(file.vp, MNT_WAIT, ctx_); });
      file.reset();
    }
    if (settled([&] { return lookup(root_vp_, "dir", LOOKUP, &dir); }) == 0 &&
        vnode_isdir(dir.vp)) {
      Vref inner;
      if (settled([&] { return create(dir.vp, "inner", &inner); }) == 0)
        settled([&] { return vn_write_at(inner.vp, 0, std::vector<uint8_t>(700, 'i')); });
      inner.reset();
      settled([&] { return remove(dir.vp, "b.txt"); });
    }
    settled([&] { return remove(root_vp_, "chain.bin"); });
    Vref growing;
    if (settled([&] { return lookup(root_vp_, "contig.bin", LOOKUP, &growing); }) == 0 &&
        vnode_isreg(growing.vp))
      settled([&] { return vn_write_at(growing.vp, 900, std::vector<uint8_t>(2000, 'g')); });
    growing.reset();
    settled([&] { return mkdir(root_vp_, "made", &made); });
    made.reset();
    settled([&] { return rename(root_vp_, "empty", root_vp_, "renamed"); });
    settled([&] { return host_sync(mp, MNT_WAIT); });
  }

  void unmount_all() {
    release_nodes();
    int error = unmount();
    EXPECT_GE(error, 0);
    if (error != 0) {
      EXPECT_EQ(0, unmount(MNT_FORCE));
    }
  }

  Dir dir_;
  Placed chain_, contig_;
  uint32_t link_cluster_ = 0;
  std::vector<uint8_t> base_;
};

TEST_F(DamagedWalk, EveryCallReturnsAValueOrAnErrno) {
  const uint32_t seed = env_or("EXVOL_WALK_SEED", 20241107);
  const int variants = static_cast<int>(env_or("EXVOL_WALK_VARIANTS", 2000));

  make_base();
  ASSERT_FALSE(HasFatalFailure());
  const uint32_t cluster = builder_.bytes_per_cluster();
  const Region regions[] = {
      {"boot sector", 0, 512},
      {"FAT", builder_.fat_byte_offset(), 202 * 4},
      {"bitmap", builder_.cluster_byte_offset(builder_.bitmap_cluster()), cluster},
      {"up-case table", builder_.cluster_byte_offset(builder_.upcase_cluster()), 128},
      {"root directory", builder_.cluster_byte_offset(builder_.root().first_cluster), 2 * cluster},
      {"directory", builder_.cluster_byte_offset(dir_.first_cluster), 2 * cluster},
      {"chained file", builder_.cluster_byte_offset(chain_.first_cluster), cluster},
      {"contiguous file", builder_.cluster_byte_offset(contig_.first_cluster), cluster},
      {"symbolic link", builder_.cluster_byte_offset(link_cluster_), 2 * cluster},
  };

  std::mt19937 rng(seed);
  arm_crash_report(true);

  // Undamaged, the walk reaches every name of the volume.
  ASSERT_EQ(0, load(base_));
  ASSERT_EQ(0, mount(MNT_RDONLY));
  ctx_ = vfs_context_kernel();
  ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
  EXPECT_EQ(9, walk_tree(root_vp_)) << "the walk misses names";
  unmount_all();
  release();

  int mounted = 0;
  for (int i = 0; i < variants && !HasFailure(); i++) {
    std::vector<uint8_t> image = base_;
    const Region& r = damage(image, regions, rng);
    bool writable = rng() % 4 == 0;
    snprintf(crash_case, sizeof(crash_case), "EXVOL_WALK_SEED=%u, variant %d (%s%s)", seed, i,
             r.name, writable ? ", read-write" : "");
    SCOPED_TRACE(crash_case);

    ASSERT_EQ(0, load(image));
    KernLogCapture quiet;
    int error = mount(writable ? 0 : MNT_RDONLY);
    if (error != 0) {
      EXPECT_GT(error, 0);
    } else {
      mounted++;
      ctx_ = vfs_context_kernel();
      if (settled([&] { return VFS_ROOT(mp, &root_vp_, ctx_); }) == 0) {
        walk_tree(root_vp_);
        if (writable)
          change();
      }
      unmount_all();
    }
    release();
    if (driver_memory() != baseline_memory_) {
      ADD_FAILURE() << "driver memory left behind: " << driver_memory();
      break;
    }
  }
  arm_crash_report(false);
  // Most variants must mount, or the walk tests little.
  EXPECT_GT(mounted, variants / 2);
}
