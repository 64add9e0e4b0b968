// Writes and size changes far past the end of files through a mounted
// volume: the daemon's memory must not grow with the gap, and a request
// the volume has no room for must leave the file as it was (TearDown checks
// the volume clean).

#include <sys/stat.h>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseGaps = FuseVolumeTest;

// The daemon's peak resident memory in KiB (VmHWM), or 0 if unknown.
uint64_t peak_kib(pid_t pid) {
  std::istringstream status(slurp("/proc/" + std::to_string(pid) + "/status"));
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0)
      return std::stoull(line.substr(6));
  }
  return 0;
}

off_t size_of(int fd) {
  struct stat st {};
  return fstat(fd, &st) == 0 ? st.st_size : -1;
}

// Catches a gap zero-filled in memory all at once, and an extension that
// fails for want of space but leaves a larger size (or a valid length past
// it, which the checker reports) behind.
TEST_F(FuseGaps, FarPastTheEndNeedsNoMemoryForTheGapAndNoRoomChangesNothing) {
  const off_t volume = off_t(kTestClusterCount) * kTestClusterBytes;
  const off_t gap = volume * 3 / 4;
  int fd = open(path("e").c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  uint64_t before = peak_kib(mount_->pid());
  ASSERT_NE(0u, before);
  ASSERT_EQ(1, pwrite(fd, "z", 1, gap));
  EXPECT_LT(peak_kib(mount_->pid()) - before, uint64_t(gap / 4 / 1024))
      << "the daemon's peak memory grew with the gap";
  char got[3] = {1, 1, 1};
  ASSERT_EQ(3, pread(fd, got, 3, gap - 2));
  EXPECT_EQ(0, got[0]);
  EXPECT_EQ('z', got[2]);

  EXPECT_EQ(ENOSPC, ERRNO_OF(pwrite(fd, "y", 1, volume + gap)));
  EXPECT_EQ(gap + 1, size_of(fd));
  EXPECT_EQ(ENOSPC, ERRNO_OF(ftruncate(fd, volume * 2)));
  EXPECT_EQ(gap + 1, size_of(fd));
  EXPECT_EQ(0, close(fd));
}

}  // namespace
}  // namespace exvol::test
