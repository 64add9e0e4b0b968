// What reaches the image while mount.exvol serves it: with the commit=
// option, a file kept open for writing within the commit interval; without
// periodic syncs, a change left alone through the delayed metadata flush of
// the daemon in the background. A copy of the image taken while it is
// mounted shows it (read with the exvol tool).

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/fuse/mount_fixture.h"
#include "tests/support/fsck.h"

namespace exvol::test {
namespace {

// `exvol cat` of a file on a copy of the image as it is now.
std::string cat_from_copy(const std::string& image, const std::string& path) {
  TempFile copy, out;
  std::ifstream in(image, std::ios::binary);
  std::ofstream(copy.path(), std::ios::binary) << in.rdbuf();
  std::string command = std::string(EXVOL_CLI_BIN) + " cat '" + copy.path() + ":" + path + "'" +
                        " >'" + out.path() + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0)
    return "";
  std::ifstream result(out.path(), std::ios::binary);
  std::stringstream s;
  s << result.rdbuf();
  return s.str();
}

TEST(FuseCommit, OpenWritersDataReachesTheImage) {
  SKIP_WITHOUT_FUSE();
  ScratchDir scratch;
  std::string image = scratch.sub("v.img"), mnt = scratch.sub("mnt");
  make_builder_image(image);
  MountedVolume m(image, mnt, "commit=1");
  ASSERT_TRUE(m.ok()) << m.log();

  std::vector<uint8_t> data = pattern(150000, 3);
  std::string want(data.begin(), data.end()), file = m.path("rec.bin");
  // The writer is a child that keeps its descriptor open: every fork of a
  // process holding it (the checks below run programs) would close a copy
  // and make the kernel flush, which syncs the file.
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    close(ready[0]);
    int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0644);
    bool ok = fd >= 0 && write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
    char status = ok ? 1 : 0;
    if (write(ready[1], &status, 1) == 1)
      pause();
    _exit(0);
  }
  close(ready[1]);
  char status = 0;
  ASSERT_EQ(1, read(ready[0], &status, 1));
  close(ready[0]);
  ASSERT_EQ(1, status) << "the writer could not write";
  bool seen = false;
  for (int i = 0; i < 100 && !seen; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    seen = cat_from_copy(image, "/rec.bin") == want;
  }
  EXPECT_TRUE(seen) << "not on the image 10 s after the write, with commit=1";
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_EQ(0, m.unmount()) << m.log();
  EXPECT_EQ("", fsck_problems(image));
}

// `exvol ls` of the root of a copy of the image as it is now.
std::string root_listing_of_copy(const std::string& image) {
  TempFile copy, out;
  std::ifstream in(image, std::ios::binary);
  std::ofstream(copy.path(), std::ios::binary) << in.rdbuf();
  std::string command = std::string(EXVOL_CLI_BIN) + " ls '" + copy.path() + ":/' >'" +
                        out.path() + "' 2>/dev/null";
  return std::system(command.c_str()) == 0 ? slurp(out.path()) : "";
}

// Whether the daemon still holds the image: it lets go last, when it exits.
bool image_locked(const std::string& image) {
  int fd = open(image.c_str(), O_RDONLY | O_CLOEXEC);
  bool locked = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0;
  if (fd >= 0)
    close(fd);
  return locked;
}

// Without -f the daemon goes to the background once the volume is mounted.
// There, with no periodic sync (commit=0), a directory made and left alone
// reaches the image only through the delayed metadata flush: the flush's
// timer must work in the process that serves the mount.
TEST(FuseCommit, DelayedFlushWorksInTheBackground) {
  SKIP_WITHOUT_FUSE();
  ScratchDir scratch;
  std::string image = scratch.sub("v.img"), mnt = scratch.sub("mnt");
  make_builder_image(image);
  std::filesystem::create_directories(mnt);
  TempFile log;
  int status = wait_exit_of(spawn({EXVOL_MOUNT_BIN, image, mnt, "-o", "commit=0"}, log.path()));
  ASSERT_EQ(0, status) << slurp(log.path());
  ASSERT_TRUE(is_mountpoint(mnt));

  ASSERT_EQ(0, mkdir((mnt + "/late").c_str(), 0755));
  bool seen = false;
  for (int i = 0; i < 100 && !seen; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    seen = root_listing_of_copy(image).find("late") != std::string::npos;
  }
  EXPECT_TRUE(seen) << "not on the image 10 s after the mkdir";

  ASSERT_TRUE(unmount_dir(mnt));
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (image_locked(image) && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_FALSE(image_locked(image)) << "the daemon did not exit after the unmount";
  EXPECT_FALSE(volume_dirty(image));
  EXPECT_EQ("", fsck_problems(image));
}

TEST(FuseCommit, BadIntervalIsAUsageError) {
  ScratchDir scratch;
  std::string image = scratch.sub("v.img");
  make_builder_image(image);
  std::string mnt = scratch.sub("mnt");
  std::filesystem::create_directories(mnt);
  RunResult r = run_program({EXVOL_MOUNT_BIN, image, mnt, "-o", "commit=-1"});
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.err.find("bad value for option 'commit'")) << r.err;
}

}  // namespace
}  // namespace exvol::test
