// Mounting and unmounting with mount.exvol: the dirty mark while mounted
// and the clean volume after umount or a signal, the daemon mode mount(8)
// uses, the options (ro, owner, masks, quiet), and the errors for bad
// arguments, damaged images, an image mounted twice (also through a loop
// device), devices that can't be written and writes that fail.

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "tests/fuse/mount_fixture.h"
#include "tests/support/device_faults.h"

namespace exvol::test {
namespace {

class FuseMount : public FuseImageTest {
 protected:
  void SetUp() override {
    FuseImageTest::SetUp();
    if (!IsSkipped())
      std::filesystem::create_directories(mountpoint_);
  }

  void expect_clean() {
    EXPECT_FALSE(is_mountpoint(mountpoint_));
    EXPECT_FALSE(volume_dirty(image_));
    EXPECT_EQ("", fsck_problems(image_));
  }
};

mode_t mode_of(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// Each way of ending a mount must write everything back and mark the
// volume clean; the files written are there on the next mount.
TEST_F(FuseMount, UmountAndSignalsLeaveACleanVolume) {
  for (int sig : {0, SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    MountedVolume m(image_, mountpoint_);
    ASSERT_TRUE(m.ok());
    EXPECT_TRUE(volume_dirty(image_)) << "a read-write mount marks the volume dirty";
    ASSERT_TRUE(write_file(m.path("f" + std::to_string(sig)), pattern(300000, sig)));
    if (sig == 0) {
      EXPECT_EQ(0, m.unmount()) << m.log();
    } else {
      ASSERT_EQ(0, kill(m.pid(), sig));
      EXPECT_EQ(0, m.wait_exit()) << m.log();
    }
    expect_clean();
  }
  MountedVolume m(image_, mountpoint_, "ro");
  ASSERT_TRUE(m.ok());
  for (int sig : {0, SIGTERM, SIGINT})
    EXPECT_TRUE(read_file(m.path("f" + std::to_string(sig))) == pattern(300000, sig)) << sig;
}

// The way mount(8) runs the helper: without -f the command returns once
// the mount is usable, and the daemon goes on in the background.
TEST_F(FuseMount, DaemonModeReturnsWhenTheMountIsReady) {
  RunResult r = run_program({EXVOL_MOUNT_BIN, image_, mountpoint_, "-o", "rw,noatime"});
  ASSERT_EQ(0, r.status) << r.err;
  ASSERT_TRUE(is_mountpoint(mountpoint_));
  EXPECT_TRUE(write_file(mountpoint_ + "/bg", pattern(5000, 2)));
  // The daemon in the background holds the image, not the parent that
  // returned.
  RunResult other = run_program({EXVOL_CLI_BIN, "mkdir", image_ + ":/x"});
  EXPECT_EQ(1, other.status);
  EXPECT_NE(std::string::npos,
            other.err.find(image_ + " is in use by another program (mount.exvol, pid "))
      << other.err;
  EXPECT_TRUE(unmount_dir(mountpoint_));
  // The daemon holds a lock on the image until it has finished.
  int fd = open(image_.c_str(), O_RDONLY);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (flock(fd, LOCK_EX | LOCK_NB) != 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  close(fd);
  expect_clean();
}

TEST_F(FuseMount, ReadOnlyMountRefusesChangesAndLeavesTheImageAlone) {
  {
    MountedVolume m(image_, mountpoint_);
    ASSERT_TRUE(m.ok());
    ASSERT_TRUE(write_file(m.path("file"), pattern(10000, 3)));
  }
  std::vector<uint8_t> before = read_file(image_);
  MountedVolume m(image_, mountpoint_, "ro");
  ASSERT_TRUE(m.ok());
  EXPECT_TRUE(read_file(m.path("file")) == pattern(10000, 3));
  EXPECT_EQ(EROFS, ERRNO_OF(open(m.path("file").c_str(), O_WRONLY)));
  EXPECT_EQ(EROFS, ERRNO_OF(mkdir(m.path("dir").c_str(), 0755)));
  struct statvfs fs {};
  ASSERT_EQ(0, statvfs(m.dir().c_str(), &fs));
  EXPECT_NE(0u, fs.f_flag & ST_RDONLY);
  EXPECT_EQ(0, m.unmount());
  EXPECT_TRUE(read_file(image_) == before) << "a read-only mount wrote to the image";
}

TEST_F(FuseMount, OwnerAndMasksAreWhatFilesReport) {
  {
    MountedVolume m(image_, mountpoint_, "uid=1234,gid=5678,dmask=027,fmask=137");
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
  }
  // umask sets both masks; a later dmask overrides it for directories.
  MountedVolume m(image_, mountpoint_, "umask=077,dmask=022");
  ASSERT_TRUE(m.ok());
  EXPECT_EQ(S_IFREG | 0700u, mode_of(m.path("d/f")));
  EXPECT_EQ(S_IFDIR | 0755u, mode_of(m.path("d")));
}

// exFAT keeps only a ReadOnly attribute: chmod without write bits sets it
// (and then the file can't be changed or removed), with them clears it.
// Other modes and owners can't be kept: refused, or ignored with "quiet".
TEST_F(FuseMount, ChmodKeepsOnlyTheReadOnlyAttribute) {
  std::string f;
  {
    MountedVolume m(image_, mountpoint_, "fmask=002");
    ASSERT_TRUE(m.ok());
    f = m.path("f");
    ASSERT_TRUE(write_file(f, {'f'}));
    ASSERT_EQ(S_IFREG | 0775u, mode_of(f));
    ASSERT_EQ(0, chmod(f.c_str(), 0555));
    EXPECT_EQ(S_IFREG | 0555u, mode_of(f));
    EXPECT_EQ(EPERM, ERRNO_OF(open(f.c_str(), O_WRONLY)));
    EXPECT_EQ(EPERM, ERRNO_OF(unlink(f.c_str())));
  }
  {
    MountedVolume m(image_, mountpoint_, "fmask=002");
    ASSERT_TRUE(m.ok());
    EXPECT_EQ(S_IFREG | 0555u, mode_of(f)) << "ReadOnly is kept on the volume";
    // Bits beyond the mask are dropped, so asking for more is fine.
    EXPECT_EQ(0, chmod(f.c_str(), 0777));
    EXPECT_EQ(S_IFREG | 0775u, mode_of(f));
    EXPECT_EQ(EPERM, ERRNO_OF(chmod(f.c_str(), 0664))) << "execute bits can't be dropped";
    EXPECT_EQ(EPERM, ERRNO_OF(chmod(f.c_str(), 0755))) << "some of the write bits";
    EXPECT_EQ(EPERM, ERRNO_OF(chown(f.c_str(), 4242, static_cast<gid_t>(-1))));
    EXPECT_EQ(0, chown(f.c_str(), getuid(), getgid()));
  }
  MountedVolume m(image_, mountpoint_, "quiet,fmask=022");
  ASSERT_TRUE(m.ok());
  EXPECT_EQ(0, chmod(f.c_str(), 0600));
  EXPECT_EQ(S_IFREG | 0755u, mode_of(f)) << "only the write bits mean something";
  EXPECT_EQ(0, chown(f.c_str(), 4242, 4242));
  EXPECT_EQ(0, chmod(f.c_str(), 0444));
  EXPECT_EQ(S_IFREG | 0555u, mode_of(f));
  EXPECT_EQ(0, chmod(f.c_str(), 0644));
  EXPECT_EQ(0, unlink(f.c_str()));
}

TEST_F(FuseMount, BadCommandLinesAndImagesFailWithTheReason) {
  std::string junk = scratch_.sub("junk.img");
  std::ofstream(junk).close();
  std::filesystem::resize_file(junk, 8 << 20);
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  } cases[] = {
      {{image_, mountpoint_, "-o", "rw,bogus"}, 1, "unknown option 'bogus'"},
      {{image_, mountpoint_, "-o", "uid=alice"}, 1, "bad value for option 'uid'"},
      {{image_, mountpoint_, "-o", "umask=999"}, 1, "bad value for option 'umask'"},
      {{image_, mountpoint_, "-o", "time_offset=100000"}, 1, "bad value for option 'time_offset'"},
      {{image_, mountpoint_, "--frobnicate"}, 1, "unknown argument '--frobnicate'"},
      {{image_}, 1, "an image and a mount point are needed"},
      {{image_, mountpoint_, "extra"}, 1, "unexpected argument 'extra'"},
      {{image_, mountpoint_, "-o"}, 1, "option -o needs an argument"},
      {{scratch_.sub("missing.img"), mountpoint_}, 1, "No such file or directory"},
      {{image_, image_}, 1, "not a directory"},
      {{junk, mountpoint_, "-f"}, 32, "can't mount " + junk},
      // Without -f the parent reports the child's failure.
      {{junk, mountpoint_}, 32, "can't mount " + junk},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    std::vector<std::string> argv = {EXVOL_MOUNT_BIN};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    RunResult r = run_program(argv);
    EXPECT_EQ(c.status, r.status);
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << r.err;
    EXPECT_FALSE(is_mountpoint(mountpoint_));
  }
  EXPECT_EQ(0, run_program({EXVOL_MOUNT_BIN, "--help"}).status);
}

// Two daemons on one volume would each lose the other's changes, whatever
// path leads them there: the image, or a loop device over it.
TEST_F(FuseMount, AVolumeIsMountedOnceAtATimeByAnyRoute) {
  std::string second = scratch_.sub("mnt2");
  std::filesystem::create_directories(second);
  auto refused = [&](const std::string& source, const std::string& in_use, pid_t holder) {
    RunResult r = run_program({EXVOL_MOUNT_BIN, source, second, "-f"});
    EXPECT_EQ(32, r.status);
    EXPECT_EQ("mount.exvol: " + in_use + " is in use by another program (mount.exvol, pid " +
                  std::to_string(holder) + ")\n",
              r.err);
    EXPECT_FALSE(is_mountpoint(second));
  };
  {
    MountedVolume m(image_, mountpoint_);
    ASSERT_TRUE(m.ok());
    refused(image_, image_, m.pid());
  }
  ATTACH_LOOP_OR_SKIP(loop, image_, false);
  std::string route = loop.device() + " (a loop device of " +
                      std::filesystem::canonical(image_).string() + ")";
  {
    MountedVolume m(image_, mountpoint_);
    ASSERT_TRUE(m.ok());
    refused(loop.device(), route, m.pid());
  }
  MountedVolume m(loop.device(), mountpoint_);
  ASSERT_TRUE(m.ok());
  refused(image_, image_, m.pid());
  EXPECT_EQ(0, m.unmount()) << m.log();
}

// A device that can't be written, or that is shorter than its volume, is
// refused read-write with the reason and mounted read-only, unchanged.
TEST_F(FuseMount, ReadOnlyDevicesMountOnlyReadOnly) {
  std::filesystem::resize_file(image_, 8 << 20);
  std::vector<uint8_t> before = read_file(image_);
  RunResult r = run_program({EXVOL_MOUNT_BIN, image_, mountpoint_, "-f"});
  EXPECT_EQ(32, r.status);
  EXPECT_NE(std::string::npos, r.err.find("but the device holds only 16384 (8.0 MiB); it can "
                                          "only be mounted read-only\n"))
      << r.err;
  {
    MountedVolume m(image_, mountpoint_, "ro");
    ASSERT_TRUE(m.ok());
    EXPECT_EQ(0, m.unmount());
    EXPECT_NE(std::string::npos, m.log().find("; what lies beyond is missing\n")) << m.log();
  }
  EXPECT_TRUE(read_file(image_) == before);

  make_builder_image(image_);
  ATTACH_LOOP_OR_SKIP(loop, image_, true);
  r = run_program({EXVOL_MOUNT_BIN, loop.device(), mountpoint_, "-f"});
  EXPECT_EQ(32, r.status);
  EXPECT_EQ("mount.exvol: can't mount " + loop.device() +
                ": Read-only file system: the device is write-protected; it can only be mounted "
                "read-only\n",
            r.err);
  MountedVolume m(loop.device(), mountpoint_, "ro");
  ASSERT_TRUE(m.ok());
  EXPECT_EQ(0, m.unmount());
}

// Device writes that fail (here: all beyond 8 MiB of the image) make the
// unmount fail with exit status 32 and the reason, though the writes
// happened long before, on the daemon's timers.
TEST_F(FuseMount, FailedDeviceWritesFailTheUnmount) {
  std::unique_ptr<MountedVolume> m;
  {
    FileSizeLimit limit(8 << 20);  // the daemon keeps it
    m = std::make_unique<MountedVolume>(image_, mountpoint_);
  }
  ASSERT_TRUE(m->ok());
  write_file(m->path("big"), pattern(20 << 20, 4));  // its close may fail too
  EXPECT_EQ(32, m->unmount());
  EXPECT_NE(std::string::npos, m->log().find("mount.exvol: unmounting " + image_ +
                                             ": not everything could be written: File too "
                                             "large\n"))
      << m->log();
}

}  // namespace
}  // namespace exvol::test
