#pragma once
// The shared mounted-volume fixture of the driver tests.
//
// A test gets an exFAT volume mounted through the host's mount machinery on
// an in-memory device, exactly as the kernel would mount it, and reaches the
// kernel mount (mp), the device vnode (devvp) and the driver's exfat_mount
// record (xm). The image comes from the test image builder or from
// mkfs.exfat; the fixture only needs its bytes.
//
//   class MyTest : public exvol::test::MountTest {};
//   TEST_F(MyTest, Something) {
//     ImageBuilder b;
//     b.add_bitmap_entry().add_upcase_entry();
//     ASSERT_EQ(0, load(b.build()));
//     ASSERT_EQ(0, mount());
//     ... xm->xm_free_clusters ...
//   }
//
// TearDown unmounts (forced if an unforced unmount fails), closes the
// device, and checks that nothing of the driver is left behind: no bytes
// outstanding under the "exfat" and "exfat node" tags beyond what the
// started module itself holds, and no vnode of the test's making.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"

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

// Formats a scratch file of `bytes` bytes with mkfs.exfat and the given
// options and returns the image. False, with the reason in *why, when the
// tool is missing or refuses; callers skip then.
inline bool mkfs_exfat_image(uint64_t bytes, const std::vector<std::string>& options,
                             std::vector<uint8_t>* image, std::string* why) {
  const char* candidates[] = {"/usr/sbin/mkfs.exfat", "/sbin/mkfs.exfat", "/usr/bin/mkfs.exfat"};
  std::string tool;
  for (const char* c : candidates) {
    if (access(c, X_OK) == 0) {
      tool = c;
      break;
    }
  }
  if (tool.empty()) {
    *why = "mkfs.exfat is not installed";
    return false;
  }
  char path[] = "/tmp/exvol-mkfs-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) {
    *why = "cannot make a scratch file";
    return false;
  }
  bool ok = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  std::string cmd = tool;
  for (const std::string& o : options)
    cmd += " '" + o + "'";
  cmd += std::string(" '") + path + "' >/dev/null 2>&1";
  if (ok && std::system(cmd.c_str()) != 0) {
    *why = "mkfs.exfat failed: " + cmd;
    ok = false;
  }
  if (ok) {
    image->assign(bytes, 0);
    size_t done = 0;
    while (done < bytes) {
      ssize_t n = pread(fd, image->data() + done, bytes - done, static_cast<off_t>(done));
      if (n <= 0)
        break;
      done += static_cast<size_t>(n);
    }
    ok = done == bytes;
    if (!ok)
      *why = "cannot read the formatted image";
  }
  close(fd);
  unlink(path);
  return ok;
}

// Skips the test when mkfs.exfat can't make the image.
#define EXVOL_MKFS_OR_SKIP(bytes, options, image)                         \
  do {                                                                    \
    std::string why_;                                                     \
    if (!::exvol::test::mkfs_exfat_image((bytes), (options), (image), &why_)) \
      GTEST_SKIP() << why_;                                               \
  } while (0)

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
  uint8_t disk_percent_in_use() const { return read_device(112, 1)[0]; }

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

  DriverMemory baseline_memory_;
  int baseline_vnodes_ = 0;
};

}  // namespace exvol::test
