// The volume's dirty state on disk, and an unmount that meets the delayed
// metadata flush.

#include <atomic>
#include <chrono>
#include <thread>

#include "host/buf.h"
#include "tests/unit/driver/host_mount_fixture.h"
#include "tests/support/image_builder.h"

using namespace exvol::test;
using namespace std::chrono_literals;

namespace {

// A block past the volume's end, free for the tests to dirty.
constexpr daddr64_t kScratchBlock = 16384;

// Leaves a delayed-write buffer on the device; the next metadata flush
// writes it.
void dirty_scratch_block(vnode_t devvp, uint8_t fill) {
  buf_t bp = buf_getblk(devvp, kScratchBlock, 512, 0, 0, BLK_META);
  memset(reinterpret_cast<void*>(buf_dataptr(bp)), fill, 512);
  buf_bdwrite(bp);
}

uint8_t scratch_on_disk(const MountedVolume& v) {
  return v.read_device(kScratchBlock * 512, 1)[0];
}

}  // namespace

class DirtyMark : public MountTest {
 protected:
  void mount_with_flags(uint16_t flags, uint64_t mount_flags = 0) {
    ImageBuilder b = mountable();
    b.volume_flags(flags);
    ASSERT_EQ(0, load(b.build(), 512, 512, 16 << 20));
    ASSERT_EQ(0, mount(mount_flags));
  }
};

// The mount clears ClearToZero and sets VolumeDirty, keeping ActiveFat; an
// unchanged mark is not rewritten; a clean unmount clears VolumeDirty.
TEST_F(DirtyMark, MountMarksDirtyAndCleanUnmountClears) {
  mount_with_flags(0x0009);
  EXPECT_EQ(0x0003, disk_volume_flags());
  ASSERT_EQ(0, exfat_mark_vol_dirty(xm, 0, vfs_context_kernel()));
  EXPECT_EQ(0x0001, disk_volume_flags());
  uint64_t writes = stats().writes;
  ASSERT_EQ(0, exfat_mark_vol_dirty(xm, 0, vfs_context_kernel()));
  EXPECT_EQ(writes, stats().writes) << "an unchanged mark is not rewritten";
  ASSERT_EQ(0, exfat_mark_vol_dirty(xm, 1, vfs_context_kernel()));
  EXPECT_EQ(0x0003, disk_volume_flags());
  ASSERT_EQ(0, unmount());
  EXPECT_EQ(0x0001, disk_volume_flags());
}

TEST_F(DirtyMark, CorruptionSetsMediaFailureAndIsNeverMarkedClean) {
  mount_with_flags(0x0000);
  EXPECT_EQ(0x0002, disk_volume_flags());
  xm->xm_flags |= XM_CORRUPT;
  ASSERT_EQ(0, exfat_mark_vol_dirty(xm, 0, vfs_context_kernel()));
  EXPECT_EQ(0x0004, disk_volume_flags());
  ASSERT_EQ(0, exfat_mark_vol_dirty(xm, 1, vfs_context_kernel()));
  EXPECT_EQ(0x0006, disk_volume_flags());
  ASSERT_EQ(0, unmount());
  EXPECT_EQ(0x0006, disk_volume_flags()) << "a corrupt volume stays dirty";
}

// Threads: the timer's callback against unmount.
class DelayedFlushConcurrency : public MountTest {};

TEST_F(DelayedFlushConcurrency, UnmountWaitsForARunningFlush) {
  ASSERT_EQ(0, load(mountable().build(), 512, 512, 16 << 20));
  ASSERT_EQ(0, mount());
  struct exfat_mount* x = xm;
  dirty_scratch_block(devvp, 0xC1);

  // Hold the FAT lock so that the flush, once the timer fires, stops inside
  // its run while holding xm_meta_lock. The lock is taken after arming (the
  // flush takes xm_meta_lock before xm_fat_lock); a longer delay leaves
  // ample time to take it before the timer fires.
  uint32_t saved_delay = exfat_meta_delay;
  exfat_meta_delay = 300;
  exfat_meta_flush(x, 0);
  lck_mtx_lock(x->xm_fat_lock);
  exfat_meta_delay = saved_delay;
  std::this_thread::sleep_for(400ms);

  std::atomic<bool> done{false};
  std::atomic<int> result{-1};
  std::thread unmounter([&] {
    result = unmount();
    done = true;
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(done.load()) << "unmount must wait for the running flush";
  lck_mtx_unlock(x->xm_fat_lock);
  unmounter.join();
  EXPECT_EQ(0, result.load());
  EXPECT_EQ(0xC1, scratch_on_disk(*this)) << "the flush ran to its end";
  EXPECT_EQ(0, disk_volume_flags() & EXFAT_VOLUME_DIRTY);
}

TEST_F(DelayedFlushConcurrency, UnmountCancelsAPendingFlush) {
  ASSERT_EQ(0, load(mountable().build(), 512, 512, 16 << 20));
  ASSERT_EQ(0, mount());
  exfat_meta_flush(xm, 0);
  EXPECT_TRUE(flush_pending(xm));
  ASSERT_EQ(0, unmount());
  // The freed timer must not fire: give it the time it would have taken.
  std::this_thread::sleep_for(80ms);
}
