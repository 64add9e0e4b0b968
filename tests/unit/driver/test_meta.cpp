// The volume's dirty state on disk and the delayed metadata flush:
// coalescing, what it writes, and an unmount that meets it.

#include <atomic>
#include <chrono>
#include <thread>

#include "host/buf.h"
#include "mount_fixture.h"
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

// Waits for the armed flush to have run.
bool wait_for_flush(struct exfat_mount* xm) {
  return wait_for([&] { return !flush_pending(xm); });
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

class DelayedFlush : public MountTest {
 protected:
  void mount_scratch(uint64_t flags = 0) {
    ASSERT_EQ(0, load(mountable().build(), 512, 512, 16 << 20));
    ASSERT_EQ(0, mount(flags));
  }
};

TEST_F(DelayedFlush, RequestsWithinTheDelayShareOneFlush) {
  mount_scratch();
  dirty_scratch_block(devvp, 0xA1);
  exfat_meta_flush(xm, 0);
  EXPECT_TRUE(flush_pending(xm));
  std::this_thread::sleep_for(10ms);
  // A second arming of a pending timer would panic.
  exfat_meta_flush(xm, 0);
  ASSERT_TRUE(wait_for_flush(xm));
  EXPECT_EQ(0xA1, scratch_on_disk(*this));

  // Nothing else is armed: a change made now stays in memory…
  dirty_scratch_block(devvp, 0xA2);
  std::this_thread::sleep_for(80ms);
  EXPECT_EQ(0xA1, scratch_on_disk(*this));
  // …until a later request arms a second flush.
  exfat_meta_flush(xm, 0);
  EXPECT_TRUE(flush_pending(xm));
  ASSERT_TRUE(wait_for_flush(xm));
  EXPECT_EQ(0xA2, scratch_on_disk(*this));
}

TEST_F(DelayedFlush, FlushWritesTheCachesAndPercentInUse) {
  mount_scratch();
  // Dirty the FAT cache with an unchanged entry, and change the free count.
  uint32_t value = 0;
  ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET, xm, 2, &value, 0));
  ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_SET, xm, 2, nullptr, 0x0ABCDEF0));
  lck_mtx_lock(xm->xm_bitmap_lock);
  uint32_t saved_free = xm->xm_free_clusters;
  xm->xm_free_clusters = (xm->xm_max_cluster - 1) / 4;
  lck_mtx_unlock(xm->xm_bitmap_lock);

  exfat_meta_flush(xm, 0);
  ASSERT_TRUE(wait_for_flush(xm));
  EXPECT_EQ(75, disk_percent_in_use());
  uint64_t fat = static_cast<uint64_t>(xm->xm_fat_offset) * 512;
  EXPECT_EQ(0x0ABCDEF0u, le32dec(read_device(fat + 8, 4).data()));

  ASSERT_EQ(0, exfat_fat_get_set(EXFAT_FAT_SET, xm, 2, nullptr, value));
  lck_mtx_lock(xm->xm_bitmap_lock);
  xm->xm_free_clusters = saved_free;
  lck_mtx_unlock(xm->xm_bitmap_lock);
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
