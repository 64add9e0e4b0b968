#pragma once
// The shared mounted-volume fixture of the driver tests.
//
// A volume image on an in-memory device, mounted through the host's mount
// machinery as the kernel would mount it; mp, devvp and xm reach the kernel
// mount, the device vnode and the driver's mount record. TearDown unmounts,
// closes the device and checks that no driver memory (under the "exfat" and
// "exfat node" tags) and no vnode of the test's making is left.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <chrono>
#include <thread>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "tests/support/image_builder.h"

namespace exvol::test {

// Starts the driver module once per test process, as a kernel's module
// loader would when the first volume of the type is mounted. The module
// stays loaded: the tests that stop it start it again.
inline void start_exfat_module() {
  static std::once_flag once;
  static int status = -1;
  std::call_once(once, [] { status = exfat_module_start(); });
  ASSERT_EQ(0, status) << "exfat_module_start failed";
}

// Bytes outstanding under the driver's two memory tags.
struct DriverMemory {
  uint64_t general = 0;  // "exfat"
  uint64_t node = 0;     // "exfat node"
  bool operator==(const DriverMemory&) const = default;
};

inline DriverMemory driver_memory() {
  return DriverMemory{host_malloc_outstanding("exfat"), host_malloc_outstanding("exfat node")};
}

inline std::ostream& operator<<(std::ostream& os, const DriverMemory& m) {
  return os << "{exfat " << m.general << ", exfat node " << m.node << "}";
}

// The 24-byte mount argument record a mount tool passes (little-endian).
inline std::array<uint8_t, 24> exfat_mount_args(uint16_t mask = 0755, int32_t seconds_west = 0,
                                                uint32_t magic = EXFAT_ARGS_MAGIC) {
  std::array<uint8_t, 24> a{};
  le32enc(&a[0], magic);
  le16enc(&a[12], mask);
  le32enc(&a[16], static_cast<uint32_t>(seconds_west));
  return a;
}

// Waits (briefly sleeping) until pred holds; false after about 10 seconds.
template <typename Pred>
bool wait_for(Pred pred) {
  for (int i = 0; i < 10000; i++) {
    if (pred())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// Whether a delayed metadata flush is armed and has not run yet.
inline bool flush_pending(struct exfat_mount* xm) {
  lck_mtx_lock(xm->xm_meta_lock);
  bool pending = (xm->xm_meta_state & META_SCHEDULED) != 0;
  lck_mtx_unlock(xm->xm_meta_lock);
  return pending;
}

// A stand-in node with only the allocation fields, for the walks that look
// at nothing else.
inline struct exfat_node stand_in_node(struct exfat_mount* xm, uint32_t start,
                                       uint64_t size = 0) {
  struct exfat_node n {};
  n.x_mount = xm;
  n.x_start_cluster = start;
  n.x_size = size;
  n.x_valid_size = size;
  return n;
}

// The volume UUID as the usual upper-case string.
inline std::string uuid_string(const uint8_t* u) {
  char s[37];
  snprintf(s, sizeof(s), "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13],
           u[14], u[15]);
  return s;
}

// A device with an image and, while mounted, the mount of it.
class MountedVolume {
 public:
  MountedVolume() = default;
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;
  ~MountedVolume() { release(); }

  // Makes an in-memory device holding `image` (at least device_bytes long)
  // with the given logical and physical block sizes. Replaces any previous
  // device (which must not be mounted).
  int load(const std::vector<uint8_t>& image, uint32_t logical_block = 512,
           uint32_t physical_block = 512, uint64_t device_bytes = 0) {
    close_device();
    uint64_t size = image.size() > device_bytes ? image.size() : device_bytes;
    int error = host_memdev_create(size, logical_block, physical_block, &devvp);
    if (error)
      return error;
    return host_memdev_load(devvp, image.data(), image.size(), 0);
  }

  // Mounts the device: flags MNT_RDONLY, MNT_ASYNC …; args defaults to the
  // mask 0755 and no time-zone offset. On success mp and xm are set.
  int mount(uint64_t flags = 0, const std::array<uint8_t, 24>& args = exfat_mount_args()) {
    mount_t m = nullptr;
    int error = host_mount("exfat", devvp, flags, args.data(), args.size(), &m);
    if (error)
      return error;
    mp = m;
    xm = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
    return 0;
  }

  // Unmounts; mp and xm are cleared when it succeeds.
  int unmount(int mntflags = 0) {
    int error = host_unmount(mp, mntflags);
    if (error == 0) {
      mp = nullptr;
      xm = nullptr;
    }
    return error;
  }

  // Reads bytes of the device (what a later mount would see).
  std::vector<uint8_t> read_device(uint64_t offset, size_t length) const {
    std::vector<uint8_t> data(length);
    EXPECT_EQ(0, host_memdev_read(devvp, data.data(), length, offset));
    return data;
  }
  // The whole boot sector's VolumeFlags and PercentInUse as on the device.
  uint16_t disk_volume_flags() const { return le16dec(read_device(106, 2).data()); }
  host_devstats stats() const {
    host_devstats s{};
    host_blkdev_stats(devvp, &s);
    return s;
  }

  // Unmounts (forced when needed) and closes the device.
  void release() {
    if (mp != nullptr && unmount() != 0) {
      EXPECT_EQ(0, unmount(MNT_FORCE));
    }
    close_device();
  }

  void close_device() {
    if (devvp != nullptr) {
      host_blkdev_close(devvp);
      devvp = nullptr;
    }
  }

  vnode_t devvp = nullptr;
  mount_t mp = nullptr;
  struct exfat_mount* xm = nullptr;
};

// A builder with the system entries every mountable volume needs.
inline ImageBuilder mountable(Geometry g = {}) {
  ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry();
  return b;
}

// The gtest fixture: a MountedVolume plus the module and leak checks.

class MountTest : public ::testing::Test, public MountedVolume {
 protected:
  void SetUp() override {
    start_exfat_module();
    baseline_memory_ = driver_memory();
    baseline_vnodes_ = host_vnode_count();
  }

  void TearDown() override {
    release();
    EXPECT_EQ(baseline_memory_, driver_memory()) << "driver memory left behind";
    EXPECT_EQ(baseline_vnodes_, host_vnode_count()) << "vnodes left behind";
  }

  // For tests that check the leak state in the middle (after a failed mount).
  void expect_nothing_left(const char* what) {
    EXPECT_EQ(baseline_memory_, driver_memory()) << what;
    // The device vnode is the only vnode the test itself made.
    EXPECT_EQ(baseline_vnodes_ + (devvp != nullptr ? 1 : 0), host_vnode_count()) << what;
  }

  // Mounts a mountable() volume of geometry g once `edit` changed the
  // builder and `patch` the image; built_ keeps the builder's layout.
  void mount_volume(const Geometry& g, const std::function<void(ImageBuilder&)>& edit = {},
                    const std::function<void(std::vector<uint8_t>&)>& patch = {}) {
    built_ = mountable(g);
    if (edit)
      edit(built_);
    std::vector<uint8_t> image = built_.build();
    if (patch)
      patch(image);
    ASSERT_EQ(0, load(image));
    ASSERT_EQ(0, mount());
  }

  DriverMemory baseline_memory_;
  int baseline_vnodes_ = 0;
  ImageBuilder built_;
};

}  // namespace exvol::test
