// Failed mounts unwind completely (no driver memory, no vnode, the device's
// use count as it was), and damaged volumes never crash the mount. The boot
// region rejections are in test_mount.cpp; EXVOL_FUZZ_SEED and
// EXVOL_FUZZ_VARIANTS steer the random damage.

#include "damage.h"
#include "mount_fixture.h"
#include "tests/support/image_builder.h"

using namespace exvol::test;

class FailedMount : public MountTest {};

// Every allocation a mount makes, failed in turn: the mount fails with an
// errno and leaves nothing, or (an optional allocation) succeeds.
TEST_F(FailedMount, EveryAllocationFailureUnwinds) {
  ImageBuilder b = mountable();
  b.add_label(u"NOMEM");
  std::vector<uint8_t> image = b.build();
  for (uint64_t flags : {uint64_t{MNT_RDONLY}, uint64_t{0}}) {
    ASSERT_EQ(0, load(image));
    uint64_t before = host_malloc_count();
    ASSERT_EQ(0, mount(flags));
    uint64_t allocations = host_malloc_count() - before;
    ASSERT_EQ(0, unmount());
    ASSERT_GT(allocations, 5u);

    int failures = 0;
    for (uint64_t n = 1; n <= allocations + 1; n++) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (flags ? " read-only" : " read-write"));
      ASSERT_EQ(0, load(image));
      KernLogCapture quiet;
      host_malloc_fail_nth(n);
      int error = mount(flags);
      host_malloc_fail_nth(0);
      if (error == 0) {
        EXPECT_EQ(0, unmount());
      } else {
        failures++;
        EXPECT_GT(error, 0);
      }
      release();
      expect_nothing_left("after an allocation failure");
    }
    EXPECT_GT(failures, 0);
  }
}

class DamagedVolume : public MountTest {};

TEST_F(DamagedVolume, MountsOrFailsWithAnErrnoNeverCrashes) {
  const uint32_t seed = env_or("EXVOL_FUZZ_SEED", 20240601);
  const int variants = static_cast<int>(env_or("EXVOL_FUZZ_VARIANTS", 4000));

  ImageBuilder b(Geometry{.cluster_shift = 0, .cluster_count = 200, .root_clusters = 2});
  b.add_bitmap_entry().add_upcase_entry().add_label(u"DAMAGED");
  b.add_guid({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  Dir dir = b.mkdir(b.root(), u"dir");
  b.add_file(b.root(), u"a.txt", bytes("hello"));
  b.add_file(dir, u"b.txt", std::vector<uint8_t>(1500, 'b'));
  std::vector<uint8_t> base = b.build();
  const uint32_t cluster = b.bytes_per_cluster();
  const Region regions[] = {
      {"boot region", 0, 12 * 512},
      {"FAT", b.fat_byte_offset(), 204 * 4},
      {"bitmap", b.cluster_byte_offset(b.bitmap_cluster()), cluster},
      {"up-case table", b.cluster_byte_offset(b.upcase_cluster()), b.upcase_data().size()},
      {"root directory", b.cluster_byte_offset(b.root().first_cluster), cluster},
  };

  std::mt19937 rng(seed);
  arm_crash_report(true);
  int mounted = 0;
  for (int i = 0; i < variants; i++) {
    std::vector<uint8_t> image = base;
    const Region& r = damage(image, regions, rng);
    uint64_t flags = (rng() & 1) ? MNT_RDONLY : 0;
    snprintf(crash_case, sizeof(crash_case), "EXVOL_FUZZ_SEED=%u, variant %d (%s)", seed, i,
             r.name);
    SCOPED_TRACE(crash_case);

    ASSERT_EQ(0, load(image));
    KernLogCapture quiet;
    int error = mount(flags);
    if (error == 0) {
      mounted++;
      ASSERT_EQ(0, unmount());
    } else {
      ASSERT_GT(error, 0);
    }
    release();
    if (driver_memory() != baseline_memory_) {
      ADD_FAILURE() << "driver memory left behind: " << driver_memory();
      break;
    }
  }
  arm_crash_report(false);
  // Neither so heavy that nothing mounts nor so light that nothing fails.
  EXPECT_GT(mounted, variants / 10);
  EXPECT_LT(mounted, variants);
}
