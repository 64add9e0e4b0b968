// The one-block FAT cache and the walk to a file's last cluster, on a
// mounted volume.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/ubc.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/mount_fixture.h"

using namespace exvol::test;

namespace {

// 1,200 clusters of 512 bytes: a FAT of one 4 KiB block and a short one of
// 1 KiB, followed by six spare sectors that can hold a sentinel.
Geometry two_block_fat() {
  return Geometry{.cluster_shift = 0, .cluster_count = 1200, .heap_offset = 24 + 10 + 6};
}

constexpr uint8_t kSentinel = 0xA5;

class FatTest : public MountTest {
 protected:
  uint32_t get(uint32_t cluster) {
    uint32_t value = 0;
    EXPECT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET, xm, cluster, &value, 0));
    return value;
  }
  void set(uint32_t cluster, uint32_t value) {
    EXPECT_EQ(0, exfat_fat_get_set(EXFAT_FAT_SET, xm, cluster, nullptr, value));
  }

  // The FAT entry of `cluster` as stored on the device.
  uint32_t disk_entry(uint32_t cluster) {
    return le32dec(read_device(built_.fat_byte_offset() + 4ull * cluster, 4).data());
  }

  // Writes the FAT cache and the FAT vnode's pages to the device.
  void fsync_fat() { ASSERT_EQ(0, VNOP_FSYNC(xm->xm_fat_vp, MNT_WAIT, vfs_context_kernel())); }
};

// Corruption found on several threads at once while an update sets and
// clears XM_RDONLY: every change of xm_flags is atomic, so no thread's bit is
// lost (and ThreadSanitizer sees any plain read-modify-write).
class FatConcurrency : public FatTest {};

TEST_F(FatConcurrency, FlagsSurviveCorruptionFoundOnManyThreads) {
  mount_volume(two_block_fat());
  std::atomic<bool> stop{false};
  std::atomic<int> finds{0};
  std::vector<std::thread> finders;
  for (int t = 0; t < 3; t++)
    finders.emplace_back([&] {
      while (!stop.load()) {
        uint32_t value = 0;
        EXPECT_EQ(EIO, exfat_fat_get_set(EXFAT_FAT_GET, xm, 1, &value, 0));
        finds++;
      }
    });
  int lost = 0;
  for (int i = 0; i < 20000 || finds.load() < 3000; i++) {
    xm->xm_flags |= XM_RDONLY;
    lost += (xm->xm_flags & XM_RDONLY) ? 0 : 1;
    xm->xm_flags &= ~XM_RDONLY;
    lost += (xm->xm_flags & XM_RDONLY) ? 1 : 0;
  }
  stop = true;
  for (std::thread& t : finders)
    t.join();
  EXPECT_EQ(0, lost);
  EXPECT_TRUE(xm->xm_flags & XM_CORRUPT);
}

}  // namespace
