// Failed mounts unwind completely (no driver memory, no vnode, the device's
// use count as it was). The boot region rejections are in test_mount.cpp,
// damaged volumes in test_damaged_walk.cpp.

#include "tests/unit/driver/host_mount_fixture.h"
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
