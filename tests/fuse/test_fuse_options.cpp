// The kernel exFAT driver's option names through mount.exvol (errors=,
// discard, sys_tz, allow_utime, iocharset), root mounts that serve the
// uid= user, the warning for a volume left dirty, and the copy tools'
// flags that keep times on a mount.

#include <grp.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseOptions = FuseImageTest;

// How often the daemon looks for a recorded fault (fuse/watch.h).
constexpr int ErrorWatchPollMs = 200;

bool log_has(const MountedVolume& m, const std::string& text) {
  return m.log().find(text) != std::string::npos;
}

// Polls `done` for up to 10 s (the daemon runs under sanitizers).
template <typename Done>
bool eventually(Done done) {
  for (auto deadline = Clock::now() + std::chrono::seconds(10); Clock::now() < deadline;) {
    if (done())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

TEST_F(FuseOptions, KernelDriverOptionNamesMountOrSayWhy) {
  struct Case {
    std::string options;
    int status;  // 0: mounts
    std::string message;
  } cases[] = {
      {"errors=continue", 0, ""},
      {"errors=remount-ro", 0, ""},
      {"errors=panic,discard", 0, ""},
      {"allow_utime=022,sys_tz,iocharset=utf8,nodiscard", 0, ""},
      {"errors=stop", 1, "bad value for option 'errors': 'stop' (continue, remount-ro or panic)"},
      {"allow_utime=9", 1, "bad value for option 'allow_utime'"},
      {"iocharset=iso8859-1", 1, "names are always UTF-8"},
      {"ro=1", 1, "mount.exvol: option 'ro' takes no value\n"},
      {"uid", 1, "mount.exvol: option 'uid' needs a value (uid=...)\n"},
      {"rw,bogus=1", 1, "mount.exvol: unknown option 'bogus'\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    if (c.status != 0) {
      std::filesystem::create_directories(mountpoint_);
      RunResult r = run_program({EXVOL_MOUNT_BIN, image_, mountpoint_, "-f", "-o", c.options});
      EXPECT_EQ(c.status, r.status);
      EXPECT_NE(std::string::npos, r.err.find(c.message)) << r.err;
      continue;
    }
    MountedVolume m(image_, mountpoint_, c.options);
    ASSERT_TRUE(m.ok());
    EXPECT_TRUE(write_file(m.path("f"), pattern(1000, 1)));
    EXPECT_EQ(0, unlink(m.path("f").c_str()));
    EXPECT_EQ(0, m.unmount()) << m.log();
  }
}

// The mount's own options in the mount table ("rw,nosuid,nodev,relatime"),
// or "" when `dir` is no mount point.
std::string mount_table_options(const std::string& dir) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, point, options;
    fields >> id >> parent >> dev >> root >> point >> options;
    if (point == dir)
      return options;
  }
  return "";
}

// A file whose clusters lie outside the volume: looking it up makes the
// driver record damage, which errors= then acts on. With remount-ro, a
// root daemon also remounts the kernel's mount read-only, once the last
// file open for writing is closed (the kernel refuses before), keeping
// the mount's other flags.
TEST_F(FuseOptions, ErrorsDecideWhatDamageDoesToTheMount) {
  ImageBuilder b = test_builder();
  FileDesc bad;
  bad.name = u"bad";
  bad.first_cluster = kTestClusterCount + 100;
  bad.data_length = 4096;
  bad.no_fat_chain = true;
  b.add_set(b.root(), bad);

  struct Case {
    std::string option;
    int status;             // the daemon's, once unmounted or stopped
    int write_errno;        // of a new file made after the damage was found
    std::string message;
  } cases[] = {
      {"errors=continue", 0, 0, "unmount it and run 'exvol check "},
      {"errors=remount-ro", 0, EROFS, "remounted read-only (errors=remount-ro)"},
      {"errors=panic", 32, 0, "unmounting and stopping (errors=panic)"},  // no write: gone
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.option);
    b.write_to(image_);
    MountedVolume m(image_, mountpoint_, c.option);
    ASSERT_TRUE(m.ok());
    ASSERT_TRUE(write_file(m.path("before"), pattern(100, 2)));
    std::string flags_before = mount_table_options(mountpoint_);
    ASSERT_EQ(0u, flags_before.rfind("rw,", 0)) << flags_before;
    int writer = open(m.path("before").c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    struct stat st;
    EXPECT_EQ(EIO, ERRNO_OF(stat(m.path("bad").c_str(), &st)));
    EXPECT_TRUE(eventually([&] { return log_has(m, c.message); })) << m.log();
    std::this_thread::sleep_for(std::chrono::milliseconds(3 * ErrorWatchPollMs));
    if (c.status != 32) {
      EXPECT_EQ(flags_before, mount_table_options(mountpoint_)) << "remounted under an open writer";
    }
    close(writer);
    if (c.option == "errors=remount-ro" && geteuid() == 0) {
      std::string ro = "ro" + flags_before.substr(2);
      EXPECT_TRUE(eventually([&] { return mount_table_options(mountpoint_) == ro; }))
          << mount_table_options(mountpoint_) << "\n"
          << m.log();
      EXPECT_TRUE(log_has(m, "the kernel's mount is read-only now")) << m.log();
    }
    if (c.status == 32) {
      EXPECT_EQ(32, m.wait_exit()) << m.log();
      EXPECT_FALSE(is_mountpoint(mountpoint_));
    } else {
      int fd = open(m.path("after").c_str(), O_WRONLY | O_CREAT, 0644);
      EXPECT_EQ(c.write_errno, fd < 0 ? errno : 0);
      if (fd >= 0)
        close(fd);
      EXPECT_EQ(c.status, m.unmount()) << m.log();
    }
    EXPECT_TRUE(volume_dirty(image_)) << "a damaged volume stays marked dirty";
  }
}

blkcnt_t image_blocks(const std::string& image) {
  struct stat st {};
  stat(image.c_str(), &st);
  return st.st_blocks;
}

// With discard the image gives back the space of a removed or truncated
// file; without it the space stays allocated.
TEST_F(FuseOptions, DiscardPunchesFreedClustersOutOfTheImage) {
  constexpr size_t kBytes = 8u << 20;
  const blkcnt_t kFileBlocks = kBytes / 512;
  struct Case {
    std::string options;
    bool truncate;  // else remove
    bool shrinks;
  } cases[] = {
      {"discard", false, true},
      {"discard", true, true},
      {"", false, false},
      {"nodiscard", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options + (c.truncate ? " truncate" : " remove"));
    MountedVolume m(image_, mountpoint_, c.options);
    ASSERT_TRUE(m.ok());
    // The file's own fsync puts all of its data on the image before it is
    // measured; the kernel may release the file later than the close.
    // fsync of a directory writes the whole volume, metadata included;
    // sync(2) may not reach the daemon, whose late metadata writes would
    // then grow the image after it was measured.
    std::vector<uint8_t> data = pattern(kBytes, 3);
    int fd = open(m.path("big").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(kBytes), write(fd, data.data(), kBytes));
    ASSERT_EQ(0, fsync(fd));
    ASSERT_EQ(0, close(fd));
    int root = open(mountpoint_.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(root, 0);
    EXPECT_EQ(0, fsync(root));
    close(root);
    blkcnt_t full = image_blocks(image_);
    ASSERT_EQ(0, c.truncate ? truncate(m.path("big").c_str(), 4096)
                            : unlink(m.path("big").c_str()));
    // The daemon has freed everything by the time it exits.
    EXPECT_EQ(0, m.unmount()) << m.log();
    blkcnt_t after = image_blocks(image_);
    EXPECT_EQ(c.shrinks, after <= full - kFileBlocks + 4096 / 512) << full << " -> " << after;
    EXPECT_EQ("", fsck_problems(image_));
  }
}

// What user 1000 can do on a root mount for uid=1000: a child process takes
// that identity and tries. Returns 0 or the errno.
int as_user_1000(const std::string& path) {
  pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(1000, 1000, 1000) != 0 ||
        setresuid(1000, 1000, 1000) != 0)
      _exit(100);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    _exit(fd < 0 ? errno : (close(fd) == 0 ? 0 : errno));
  }
  int raw = 0;
  waitpid(pid, &raw, 0);
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

TEST_F(FuseOptions, RootMountsServeTheUidUserUnlessTold) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root: a root mount and a second user";
  // The scratch directory is the owner's alone; user 1000 must reach the
  // mount point.
  std::filesystem::permissions(std::filesystem::path(mountpoint_).parent_path(),
                               std::filesystem::perms::owner_all |
                                   std::filesystem::perms::others_exec |
                                   std::filesystem::perms::group_exec);
  struct Case {
    std::string options;
    int expected;
  } cases[] = {
      {"uid=1000,gid=1000,umask=022", 0},
      {"uid=1000,gid=1000,umask=022,noallow_other", EACCES},
      {"uid=2000,gid=2000,umask=022", EACCES},  // the modes still hold
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    MountedVolume m(image_, mountpoint_, c.options);
    ASSERT_TRUE(m.ok());
    EXPECT_EQ(c.expected, as_user_1000(m.path("mine")));
    EXPECT_EQ(0, m.unmount()) << m.log();
  }
}

TEST_F(FuseOptions, ADirtyVolumeIsReportedAtMount) {
  for (bool dirty : {true, false}) {
    SCOPED_TRACE(dirty);
    ImageBuilder b = test_builder();
    b.volume_flags(dirty ? 0x0002 : 0);
    b.write_to(image_);
    MountedVolume m(image_, mountpoint_);
    ASSERT_TRUE(m.ok());
    EXPECT_EQ(dirty, log_has(m, image_ + ": warning: the volume was not cleanly unmounted and "
                                          "may be damaged; unmount it and run 'exvol check " +
                                          image_ + "'"))
        << m.log();
    EXPECT_EQ(0, m.unmount()) << m.log();
  }
}

// rsync -a, cp -a and tar x fail on modes exFAT can't keep; these flags
// are the ones that work, and they keep the times of files and directories.
TEST_F(FuseOptions, CopyToolsKeepTimesWithTheDocumentedFlags) {
  std::string src = scratch_.sub("src");
  std::filesystem::create_directories(src + "/dir");
  ASSERT_TRUE(write_file(src + "/dir/file", pattern(5000, 4)));
  const time_t file_time = 1588336496, dir_time = 1262304000;  // 2020-05-01, 2010-01-01
  struct timeval ft[2] = {{file_time, 0}, {file_time, 0}};
  struct timeval dt[2] = {{dir_time, 0}, {dir_time, 0}};
  ASSERT_EQ(0, utimes((src + "/dir/file").c_str(), ft));
  ASSERT_EQ(0, utimes((src + "/dir").c_str(), dt));
  std::string tarball = scratch_.sub("t.tar");
  ASSERT_EQ(0, run_program({"/usr/bin/tar", "cf", tarball, "-C", src, "dir"}).status);

  // Files that show the modes the tools set (0644 under umask 022), or
  // any modes with quiet.
  for (const std::string options : {"fmask=0133", "quiet"}) {
    SCOPED_TRACE(options);
    MountedVolume m(image_, mountpoint_, options);
    ASSERT_TRUE(m.ok());
    struct Case {
      std::string name;
      std::vector<std::string> argv;  // copies src/dir to <name>/dir
    } cases[] = {
        {"rsync", {"/usr/bin/rsync", "-rlt", src + "/dir", m.path("rsync")}},
        {"cp", {"/usr/bin/cp", "-r", "--preserve=timestamps", src + "/dir", m.path("cp/")}},
        {"tar", {"/usr/bin/tar", "x", "--no-same-permissions", "-f", tarball, "-C",
                 m.path("tar")}},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      if (access(c.argv[0].c_str(), X_OK) != 0) {
        ADD_FAILURE() << c.argv[0] << " is not installed";
        continue;
      }
      std::filesystem::remove_all(m.path(c.name));
      ASSERT_EQ(0, mkdir(m.path(c.name).c_str(), 0755));
      RunResult r = run_program(c.argv);
      EXPECT_EQ(0, r.status) << r.err;
      struct stat fs {}, ds {};
      ASSERT_EQ(0, stat(m.path(c.name + "/dir/file").c_str(), &fs));
      ASSERT_EQ(0, stat(m.path(c.name + "/dir").c_str(), &ds));
      EXPECT_EQ(file_time, fs.st_mtime);
      EXPECT_EQ(dir_time, ds.st_mtime);
      EXPECT_TRUE(read_file(m.path(c.name + "/dir/file")) == pattern(5000, 4));
    }
    EXPECT_EQ(0, m.unmount()) << m.log();
    EXPECT_EQ("", fsck_problems(image_));
  }
}

}  // namespace
}  // namespace exvol::test
