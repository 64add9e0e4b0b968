// Mounting and unmounting with mount.exvol: the volume's dirty mark while
// mounted and its clean state after umount or a signal, the daemon mode
// that mount(8) uses, option effects (ro, owner, masks, quiet), and the
// errors for bad arguments, damaged images and an image already mounted.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

#define ERRNO_OF(call) ((call) < 0 ? errno : 0)

class FuseMount : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_FUSE();
    image_ = scratch_.sub("volume.img");
    mnt_ = scratch_.sub("mnt");
    make_builder_image(image_);
    std::filesystem::create_directories(mnt_);
  }

  ScratchDir scratch_;
  std::string image_;
  std::string mnt_;
};

mode_t mode_of(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// Waits until no daemon holds the image's lock, i.e. until a daemon that
// was unmounted has written everything and exited.
bool wait_for_image_released(const std::string& image) {
  int fd = open(image.c_str(), O_RDONLY);
  if (fd < 0)
    return false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool free = false;
  while (!(free = flock(fd, LOCK_EX | LOCK_NB) == 0) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  close(fd);
  return free;
}

TEST_F(FuseMount, VolumeIsDirtyWhileMountedAndCleanAfterUmount) {
  MountedVolume m(image_, mnt_);
  ASSERT_TRUE(m.ok());
  EXPECT_NE(0, volume_flags(image_) & 0x0002) << "a read-write mount marks the volume dirty";
  ASSERT_TRUE(write_file(m.path("kept"), pattern(300000, 1)));
  EXPECT_EQ(0, m.unmount()) << m.log();
  EXPECT_FALSE(is_mountpoint(mnt_));
  EXPECT_EQ(0, volume_flags(image_) & 0x0002);
  EXPECT_EQ("", fsck_problems(image_));

  MountedVolume again(image_, mnt_, "ro");
  ASSERT_TRUE(again.ok());
  EXPECT_TRUE(read_file(again.path("kept")) == pattern(300000, 1));
}

TEST_F(FuseMount, TerminationSignalsUnmountCleanly) {
  for (int sig : {SIGTERM, SIGINT}) {
    MountedVolume m(image_, mnt_);
    ASSERT_TRUE(m.ok());
    std::string name = "file-" + std::to_string(sig);
    ASSERT_TRUE(write_file(m.path(name), pattern(200000, static_cast<uint32_t>(sig))));
    ASSERT_EQ(0, kill(m.pid(), sig));
    EXPECT_EQ(0, m.wait_exit()) << m.log();
    EXPECT_FALSE(is_mountpoint(mnt_)) << "the daemon removes its mount";
    EXPECT_EQ(0, volume_flags(image_) & 0x0002);
    EXPECT_EQ("", fsck_problems(image_));
  }
  MountedVolume m(image_, mnt_, "ro");
  ASSERT_TRUE(m.ok());
  EXPECT_TRUE(read_file(m.path("file-" + std::to_string(SIGTERM))) == pattern(200000, SIGTERM));
  EXPECT_TRUE(read_file(m.path("file-" + std::to_string(SIGINT))) == pattern(200000, SIGINT));
}

// The way mount(8) runs the helper: without -f the command returns once
// the mount is usable, and the daemon goes on in the background.
TEST_F(FuseMount, DaemonModeReturnsWhenTheMountIsReady) {
  RunResult r = run_program({EXVOL_MOUNT_BIN, image_, mnt_, "-o", "rw,noatime"});
  ASSERT_EQ(0, r.status) << r.err;
  ASSERT_TRUE(is_mountpoint(mnt_));
  EXPECT_TRUE(write_file(mnt_ + "/bg", pattern(5000, 2)));
  EXPECT_TRUE(unmount_dir(mnt_));
  ASSERT_TRUE(wait_for_image_released(image_)) << "the daemon did not finish";
  EXPECT_EQ(0, volume_flags(image_) & 0x0002);
  EXPECT_EQ("", fsck_problems(image_));
}

TEST_F(FuseMount, ReadOnlyMountRefusesChangesAndLeavesTheImageAlone) {
  {
    MountedVolume m(image_, mnt_);
    ASSERT_TRUE(m.ok());
    ASSERT_EQ(0, mkdir(m.path("dir").c_str(), 0755));
    ASSERT_TRUE(write_file(m.path("dir/file"), pattern(10000, 3)));
    ASSERT_EQ(0, m.unmount());
  }
  std::vector<uint8_t> before = read_file(image_);
  {
    MountedVolume m(image_, mnt_, "ro");
    ASSERT_TRUE(m.ok());
    EXPECT_TRUE(read_file(m.path("dir/file")) == pattern(10000, 3));
    EXPECT_EQ(EROFS, ERRNO_OF(open(m.path("dir/file").c_str(), O_WRONLY)));
    EXPECT_EQ(EROFS, ERRNO_OF(open(m.path("new").c_str(), O_WRONLY | O_CREAT, 0644)));
    EXPECT_EQ(EROFS, ERRNO_OF(mkdir(m.path("newdir").c_str(), 0755)));
    EXPECT_EQ(EROFS, ERRNO_OF(unlink(m.path("dir/file").c_str())));
    EXPECT_EQ(EROFS, ERRNO_OF(rename(m.path("dir").c_str(), m.path("dir2").c_str())));
    EXPECT_EQ(EROFS, ERRNO_OF(truncate(m.path("dir/file").c_str(), 0)));
    struct statvfs fs {};
    ASSERT_EQ(0, statvfs(m.dir().c_str(), &fs));
    EXPECT_NE(0u, fs.f_flag & ST_RDONLY);
    EXPECT_EQ(0, m.unmount());
  }
  EXPECT_TRUE(read_file(image_) == before) << "a read-only mount wrote to the image";
}

TEST_F(FuseMount, OwnerAndMasksAreWhatFilesReport) {
  {
    MountedVolume m(image_, mnt_, "uid=1234,gid=5678,dmask=027,fmask=137");
    ASSERT_TRUE(m.ok());
    ASSERT_EQ(0, mkdir(m.path("d").c_str(), 0777));
    ASSERT_TRUE(write_file(m.path("d/f"), {'f'}));
    ASSERT_EQ(0, symlink("d/f", m.path("l").c_str()));
    struct stat st {};
    ASSERT_EQ(0, stat(m.path("d/f").c_str(), &st));
    EXPECT_EQ(1234u, st.st_uid);
    EXPECT_EQ(5678u, st.st_gid);
    EXPECT_EQ(S_IFREG | 0640u, st.st_mode);
    EXPECT_EQ(S_IFDIR | 0750u, mode_of(m.path("d")));
    EXPECT_EQ(S_IFDIR | 0750u, mode_of(m.dir())) << "the root too";
    ASSERT_EQ(0, lstat(m.path("l").c_str(), &st));
    EXPECT_EQ(S_IFLNK | 0777u, st.st_mode);
    EXPECT_EQ(0, m.unmount());
  }
  {
    // umask sets both masks; a later dmask overrides it for directories.
    MountedVolume m(image_, mnt_, "umask=077,dmask=022");
    ASSERT_TRUE(m.ok());
    EXPECT_EQ(S_IFREG | 0700u, mode_of(m.path("d/f")));
    EXPECT_EQ(S_IFDIR | 0755u, mode_of(m.path("d")));
    EXPECT_EQ(0, m.unmount());
  }
}

TEST_F(FuseMount, QuietAcceptsModesAndOwnersItCantKeep) {
  MountedVolume m(image_, mnt_, "quiet,fmask=022");
  ASSERT_TRUE(m.ok());
  ASSERT_TRUE(write_file(m.path("f"), {'f'}));
  EXPECT_EQ(0, chmod(m.path("f").c_str(), 0600));
  EXPECT_EQ(S_IFREG | 0755u, mode_of(m.path("f"))) << "only the write bits mean something";
  EXPECT_EQ(0, chown(m.path("f").c_str(), 4242, 4242));
  EXPECT_EQ(0, chmod(m.path("f").c_str(), 0444));
  EXPECT_EQ(S_IFREG | 0555u, mode_of(m.path("f")));
  EXPECT_EQ(0, chmod(m.path("f").c_str(), 0644));
  EXPECT_EQ(0, unlink(m.path("f").c_str()));
  EXPECT_EQ(0, m.unmount());
}

TEST_F(FuseMount, UsageErrorsExitWithStatusOneAndSayWhy) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{image_, mnt_, "-o", "rw,bogus"}, "unknown option 'bogus'"},
      {{image_, mnt_, "-o", "uid=alice"}, "bad value for option 'uid'"},
      {{image_, mnt_, "-o", "umask=999"}, "bad value for option 'umask'"},
      {{image_, mnt_, "-o", "time_offset=100000"}, "bad value for option 'time_offset'"},
      {{image_, mnt_, "--frobnicate"}, "unknown argument '--frobnicate'"},
      {{image_}, "an image and a mount point are needed"},
      {{image_, mnt_, "extra"}, "unexpected argument 'extra'"},
      {{image_, mnt_, "-o"}, "option -o needs an argument"},
      {{scratch_.sub("missing.img"), mnt_}, "No such file or directory"},
      {{image_, image_}, "not a directory"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {EXVOL_MOUNT_BIN};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    RunResult r = run_program(argv);
    EXPECT_EQ(1, r.status) << c.message;
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << r.err;
    EXPECT_FALSE(is_mountpoint(mnt_));
  }
  EXPECT_EQ(0, run_program({EXVOL_MOUNT_BIN, "--help"}).status);
}

TEST_F(FuseMount, DamagedImageFailsWithTheDriversReason) {
  std::string junk = scratch_.sub("junk.img");
  std::ofstream(junk).close();
  std::filesystem::resize_file(junk, 8 << 20);
  RunResult r = run_program({EXVOL_MOUNT_BIN, junk, mnt_, "-f"});
  EXPECT_EQ(32, r.status);
  EXPECT_NE(std::string::npos, r.err.find("can't mount " + junk)) << r.err;
  EXPECT_FALSE(is_mountpoint(mnt_));
  // The same without -f: the parent reports the child's failure.
  r = run_program({EXVOL_MOUNT_BIN, junk, mnt_});
  EXPECT_EQ(32, r.status);
  EXPECT_NE(std::string::npos, r.err.find("can't mount")) << r.err;
  EXPECT_FALSE(is_mountpoint(mnt_));
}

TEST_F(FuseMount, AnImageIsMountedOnceAtATime) {
  MountedVolume m(image_, mnt_);
  ASSERT_TRUE(m.ok());
  std::string second = scratch_.sub("mnt2");
  std::filesystem::create_directories(second);
  RunResult r = run_program({EXVOL_MOUNT_BIN, image_, second, "-f"});
  EXPECT_EQ(32, r.status);
  EXPECT_NE(std::string::npos, r.err.find("already mounted")) << r.err;
  EXPECT_FALSE(is_mountpoint(second));
  EXPECT_EQ(0, m.unmount());
}

// Volumes that mkfs.exfat made, with a cluster size unlike the builder's.
TEST_F(FuseMount, MkfsVolumeWithLargeClusters) {
  std::string img = scratch_.sub("mkfs.img");
  std::ofstream(img).close();
  if (!make_mkfs_image(img, 96 << 20, "-c 128K -L MKFSVOL"))
    GTEST_SKIP() << "mkfs.exfat is not installed";
  MountedVolume m(img, mnt_);
  ASSERT_TRUE(m.ok());
  struct statvfs fs {};
  ASSERT_EQ(0, statvfs(m.dir().c_str(), &fs));
  EXPECT_EQ(131072u, fs.f_bsize);
  ASSERT_EQ(0, mkdir(m.path("sub").c_str(), 0755));
  ASSERT_TRUE(write_file(m.path("sub/one"), pattern(1, 4)));
  ASSERT_TRUE(write_file(m.path("sub/big"), pattern(5 << 20, 5)));
  struct stat st {};
  ASSERT_EQ(0, stat(m.path("sub/one").c_str(), &st));
  EXPECT_EQ(131072 / 512, st.st_blocks) << "a 1-byte file holds one whole cluster";
  EXPECT_EQ(0, m.unmount()) << m.log();
  EXPECT_EQ("", fsck_problems(img));
}

}  // namespace
}  // namespace exvol::test
