// Files and names through a mounted volume: data written and read back
// (across a remount too), truncation, directories, rename, removal of open
// files, symbolic links, large listings, statfs, times and chmod. Every
// test ends with an unmount that must leave the volume clean.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseFiles = FuseVolumeTest;

// The errno of a call that is expected to fail, or 0 if it succeeded.
#define ERRNO_OF(call) ((call) < 0 ? errno : 0)

int renameat2_call(const std::string& from, const std::string& to, unsigned flags) {
  return static_cast<int>(
      syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags));
}

std::map<std::string, ino_t> list_dir(const std::string& dir) {
  std::map<std::string, ino_t> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr)
    return names;
  while (dirent* e = readdir(d)) {
    EXPECT_EQ(0u, names.count(e->d_name)) << "listed twice: " << e->d_name;
    names[e->d_name] = e->d_ino;
  }
  closedir(d);
  return names;
}

off_t size_of(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST_F(FuseFiles, DataWrittenInAnyPatternReadsBackAndSurvivesRemount) {
  // 20 MiB in the largest requests, 3 MiB in odd pieces that straddle
  // pages and clusters, a sparse file whose gap must read as zeros, and a
  // file rewritten in its middle.
  std::vector<uint8_t> big = pattern(20 << 20, 1);
  std::vector<uint8_t> odd = pattern(3 << 20, 2);
  ASSERT_TRUE(write_file(path("big.bin"), big));
  ASSERT_TRUE(write_file(path("odd.bin"), odd, 4097));
  ASSERT_TRUE(write_file(path("small.txt"), {'h', 'e', 'l', 'l', 'o'}));

  std::vector<uint8_t> sparse(10 << 20, 0);
  std::vector<uint8_t> tail = pattern(5000, 3);
  std::copy(tail.begin(), tail.end(), sparse.end() - 5000);
  int fd = open(path("sparse.bin").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(5000, pwrite(fd, tail.data(), tail.size(), (10 << 20) - 5000));
  ASSERT_EQ(0, close(fd));

  std::vector<uint8_t> patch = pattern(70000, 4);
  fd = open(path("big.bin").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(70000, pwrite(fd, patch.data(), patch.size(), 12345678));
  ASSERT_EQ(0, fsync(fd));
  ASSERT_EQ(0, close(fd));
  std::copy(patch.begin(), patch.end(), big.begin() + 12345678);

  auto check_all = [&] {
    EXPECT_TRUE(read_file(path("big.bin")) == big);
    EXPECT_TRUE(read_file(path("odd.bin")) == odd);
    EXPECT_TRUE(read_file(path("sparse.bin")) == sparse);
    EXPECT_EQ(5, size_of(path("small.txt")));
  };
  check_all();

  // The same bytes through cmp against a reference copy outside the mount.
  std::string reference = scratch_.sub("reference.bin");
  int rfd = open(reference.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(rfd, 0);
  ASSERT_EQ(static_cast<ssize_t>(big.size()), write(rfd, big.data(), big.size()));
  close(rfd);
  if (access("/usr/bin/cmp", X_OK) == 0) {
    EXPECT_EQ(0, run_program({"/usr/bin/cmp", reference, path("big.bin")}).status);
  }

  ASSERT_NO_FATAL_FAILURE(remount());
  check_all();
}

TEST_F(FuseFiles, TruncationGrowsWithZerosAndShrinks) {
  std::vector<uint8_t> data = pattern(100000, 5);
  ASSERT_TRUE(write_file(path("t.bin"), data));

  ASSERT_EQ(0, truncate(path("t.bin").c_str(), 30000));
  EXPECT_TRUE(read_file(path("t.bin")) == std::vector<uint8_t>(data.begin(), data.begin() + 30000));

  int fd = open(path("t.bin").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ftruncate(fd, 200000));
  ASSERT_EQ(0, close(fd));
  std::vector<uint8_t> grown(data.begin(), data.begin() + 30000);
  grown.resize(200000, 0);
  EXPECT_TRUE(read_file(path("t.bin")) == grown);

  fd = open(path("t.bin").c_str(), O_WRONLY | O_TRUNC);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(0, fstat(fd, &st));
  EXPECT_EQ(0, st.st_size);
  ASSERT_EQ(3, write(fd, "abc", 3));
  ASSERT_EQ(0, close(fd));
  EXPECT_EQ(3, size_of(path("t.bin")));

  // O_APPEND writes land at the end whatever the file offset says.
  fd = open(path("t.bin").c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
  ASSERT_EQ(3, write(fd, "def", 3));
  ASSERT_EQ(0, close(fd));
  std::vector<uint8_t> expect = {'a', 'b', 'c', 'd', 'e', 'f'};
  EXPECT_TRUE(read_file(path("t.bin")) == expect);
}

TEST_F(FuseFiles, DirectoriesAreMadeAndRemovedWithTheRightErrors) {
  ASSERT_EQ(0, mkdir(path("a").c_str(), 0755));
  ASSERT_EQ(0, mkdir(path("a/b").c_str(), 0755));
  ASSERT_TRUE(write_file(path("a/b/f"), {'x'}));
  EXPECT_EQ(EEXIST, ERRNO_OF(mkdir(path("a").c_str(), 0755)));
  EXPECT_EQ(EEXIST, ERRNO_OF(mkdir(path("A").c_str(), 0755))) << "names match without case";
  EXPECT_EQ(ENOTEMPTY, ERRNO_OF(rmdir(path("a/b").c_str())));
  EXPECT_EQ(ENOTDIR, ERRNO_OF(rmdir(path("a/b/f").c_str())));
  EXPECT_EQ(ENOENT, ERRNO_OF(mkdir(path("nope/x").c_str(), 0755)));
  int unlinked_dir = ERRNO_OF(unlink(path("a/b").c_str()));
  EXPECT_TRUE(unlinked_dir == EISDIR || unlinked_dir == EPERM) << unlinked_dir;

  ASSERT_EQ(0, unlink(path("a/b/f").c_str()));
  ASSERT_EQ(0, rmdir(path("a/b").c_str()));
  EXPECT_EQ(ENOENT, ERRNO_OF(access(path("a/b").c_str(), F_OK)));
  EXPECT_EQ(2u, list_dir(path("a")).size()) << "only . and .. are left";
  ASSERT_EQ(0, rmdir(path("a").c_str()));
  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_EQ(ENOENT, ERRNO_OF(access(path("a").c_str(), F_OK)));
}

TEST_F(FuseFiles, RenameReplacesMovesAndRefusesWhatItMust) {
  ASSERT_EQ(0, mkdir(path("d1").c_str(), 0755));
  ASSERT_EQ(0, mkdir(path("d2").c_str(), 0755));
  ASSERT_EQ(0, mkdir(path("d1/sub").c_str(), 0755));
  ASSERT_TRUE(write_file(path("d1/src"), pattern(9000, 6)));
  ASSERT_TRUE(write_file(path("d2/dst"), pattern(50000, 7)));
  ASSERT_TRUE(write_file(path("d1/sub/inner"), pattern(10, 8)));

  // Over an existing file, across directories: the target's data goes.
  ASSERT_EQ(0, rename(path("d1/src").c_str(), path("d2/dst").c_str()));
  EXPECT_TRUE(read_file(path("d2/dst")) == pattern(9000, 6));
  EXPECT_EQ(ENOENT, ERRNO_OF(access(path("d1/src").c_str(), F_OK)));

  // A directory with contents moves to another parent.
  ASSERT_EQ(0, rename(path("d1/sub").c_str(), path("d2/moved").c_str()));
  EXPECT_TRUE(read_file(path("d2/moved/inner")) == pattern(10, 8));

  ASSERT_TRUE(write_file(path("d1/other"), {'o'}));
  struct stat st_any {};
  EXPECT_EQ(EEXIST, ERRNO_OF(renameat2_call(path("d1/other"), path("d2/dst"), RENAME_NOREPLACE)));
  EXPECT_EQ(EINVAL, ERRNO_OF(renameat2_call(path("d1/other"), path("d2/dst"), RENAME_EXCHANGE)));
  ASSERT_EQ(0, renameat2_call(path("d1/other"), path("d1/fresh"), RENAME_NOREPLACE));
  EXPECT_EQ(EINVAL, ERRNO_OF(rename(path("d2").c_str(), path("d2/moved/inside").c_str())));
  EXPECT_EQ(ENOTEMPTY, ERRNO_OF(rename(path("d1").c_str(), path("d2/moved").c_str())));
  EXPECT_EQ(EISDIR, ERRNO_OF(rename(path("d1/fresh").c_str(), path("d2/moved").c_str())));

  // Names match without regard to case, so the kernel takes "FRESH" for
  // the file "fresh" itself and makes a rename between them a no-op; a
  // change of case takes two renames.
  EXPECT_EQ(0, stat(path("d1/FrEsH").c_str(), &st_any));
  ASSERT_EQ(0, rename(path("d1/fresh").c_str(), path("d1/tmp").c_str()));
  ASSERT_EQ(0, rename(path("d1/tmp").c_str(), path("d1/FRESH").c_str()));
  auto names = list_dir(path("d1"));
  EXPECT_EQ(1u, names.count("FRESH"));
  EXPECT_EQ(0u, names.count("fresh"));

  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_TRUE(read_file(path("d2/dst")) == pattern(9000, 6));
  EXPECT_TRUE(read_file(path("d2/moved/inner")) == pattern(10, 8));
  EXPECT_EQ(1u, list_dir(path("d1")).count("FRESH"));
}

TEST_F(FuseFiles, RemovedFileStaysReadableAndWritableThroughOpenDescriptor) {
  struct statvfs before {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &before));
  std::vector<uint8_t> data = pattern(1 << 20, 9);
  ASSERT_TRUE(write_file(path("doomed"), data));
  int fd = open(path("doomed").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, unlink(path("doomed").c_str()));
  EXPECT_EQ(ENOENT, ERRNO_OF(access(path("doomed").c_str(), F_OK)));
  EXPECT_EQ(0u, list_dir(mount_->dir()).count("doomed"));

  std::vector<uint8_t> back(data.size());
  ASSERT_EQ(static_cast<ssize_t>(data.size()), pread(fd, back.data(), back.size(), 0));
  EXPECT_TRUE(back == data);
  ASSERT_EQ(4, pwrite(fd, "more", 4, static_cast<off_t>(data.size())));
  struct stat st {};
  ASSERT_EQ(0, fstat(fd, &st));
  EXPECT_EQ(static_cast<off_t>(data.size()) + 4, st.st_size);
  char tail[4];
  ASSERT_EQ(4, pread(fd, tail, 4, static_cast<off_t>(data.size())));
  EXPECT_EQ(0, memcmp(tail, "more", 4));

  // A new file of the same name is another file.
  ASSERT_TRUE(write_file(path("doomed"), {'n'}));
  EXPECT_EQ(1, size_of(path("doomed")));
  ASSERT_EQ(0, close(fd));
  ASSERT_EQ(0, unlink(path("doomed").c_str()));

  // The space comes back once the last descriptor is gone.
  ASSERT_NO_FATAL_FAILURE(remount());
  struct statvfs after {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &after));
  EXPECT_EQ(before.f_bfree, after.f_bfree);
}

TEST_F(FuseFiles, SymbolicLinksStoreTheirTargetAndAreFollowed) {
  ASSERT_EQ(0, mkdir(path("dir").c_str(), 0755));
  ASSERT_TRUE(write_file(path("dir/real"), {'r', 'e', 'a', 'l'}));
  ASSERT_EQ(0, symlink("dir/real", path("link").c_str()));
  ASSERT_EQ(0, symlink("nowhere/at/all", path("dangling").c_str()));
  ASSERT_EQ(0, symlink("dir", path("dirlink").c_str()));
  EXPECT_EQ(EEXIST, ERRNO_OF(symlink("x", path("link").c_str())));

  char target[256] = {};
  ASSERT_EQ(8, readlink(path("link").c_str(), target, sizeof(target)));
  EXPECT_STREQ("dir/real", target);
  struct stat st {};
  ASSERT_EQ(0, lstat(path("link").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(8, st.st_size) << "a link's size is its target's length";
  EXPECT_EQ(4, size_of(path("link")));
  EXPECT_TRUE(read_file(path("dirlink/real")) == (std::vector<uint8_t>{'r', 'e', 'a', 'l'}));
  EXPECT_EQ(ENOENT, ERRNO_OF(stat(path("dangling").c_str(), &st)));

  ASSERT_NO_FATAL_FAILURE(remount());
  memset(target, 0, sizeof(target));
  ASSERT_EQ(14, readlink(path("dangling").c_str(), target, sizeof(target)));
  EXPECT_STREQ("nowhere/at/all", target);
  ASSERT_EQ(0, unlink(path("link").c_str()));
  EXPECT_EQ(4, size_of(path("dir/real"))) << "removing a link leaves its target";
}

TEST_F(FuseFiles, ThousandFilesAreListedOnceEachWithTheirInodeNumbers) {
  ASSERT_EQ(0, mkdir(path("many").c_str(), 0755));
  std::set<std::string> made;
  for (int i = 0; i < 1000; i++) {
    char name[32];
    snprintf(name, sizeof(name), "file-%04d.dat", i);
    int fd = open(path(std::string("many/") + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0) << name << ": " << strerror(errno);
    close(fd);
    made.insert(name);
  }
  auto listed = list_dir(path("many"));
  std::set<std::string> names;
  for (const auto& [name, ino] : listed) {
    if (name == "." || name == "..")
      continue;
    names.insert(name);
  }
  EXPECT_EQ(made, names);
  // Listings hand out the inode numbers that stat reports.
  int checked = 0;
  for (const auto& [name, ino] : listed) {
    if (name == "." || name == ".." || checked++ % 50 != 0)
      continue;
    struct stat st {};
    ASSERT_EQ(0, stat(path("many/" + name).c_str(), &st));
    EXPECT_EQ(st.st_ino, ino) << name;
  }

  // Removing every other file while the directory stays in use.
  int n = 0;
  for (const std::string& name : made) {
    if (n++ % 2 == 0) {
      ASSERT_EQ(0, unlink(path("many/" + name).c_str())) << name;
    }
  }
  EXPECT_EQ(500u + 2u, list_dir(path("many")).size());
  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_EQ(500u + 2u, list_dir(path("many")).size());
}

TEST_F(FuseFiles, StatfsCountsClustersOfTheVolume) {
  struct statvfs fs {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &fs));
  EXPECT_EQ(kTestClusterBytes, fs.f_bsize);
  EXPECT_EQ(kTestClusterBytes, fs.f_frsize);
  EXPECT_EQ(kTestClusterCount, fs.f_blocks);
  EXPECT_EQ(fs.f_bfree, fs.f_bavail);
  EXPECT_LT(fs.f_bfree, fs.f_blocks) << "the bitmap, up-case table and root take clusters";
  EXPECT_GT(fs.f_bfree, fs.f_blocks - 16);
  EXPECT_EQ(255u, fs.f_namemax);

  ASSERT_TRUE(write_file(path("mib"), pattern(1 << 20, 10)));
  struct statvfs after {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &after));
  EXPECT_EQ(fs.f_bfree - (1 << 20) / kTestClusterBytes, after.f_bfree);
  struct stat st {};
  ASSERT_EQ(0, stat(path("mib").c_str(), &st));
  EXPECT_EQ((1 << 20) / 512, st.st_blocks);
}

// Times set right after a close, and times set through a descriptor that
// wrote (as cp -p does), must win over the modification time that the
// written file gets stamped with when it is closed.
TEST_F(FuseFiles, TimesSetAroundCloseAreKeptToTheVolumesResolution) {
  struct timespec times[2];
  times[0] = {1400000000, 0};          // access: kept to 2 s
  times[1] = {1500000000, 123456789};  // modification: kept to 10 ms
  ASSERT_TRUE(write_file(path("after-close"), pattern(100000, 11)));
  ASSERT_EQ(0, utimensat(AT_FDCWD, path("after-close").c_str(), times, 0));

  int fd = open(path("while-open").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  std::vector<uint8_t> data = pattern(100000, 12);
  ASSERT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
  ASSERT_EQ(0, futimens(fd, times));
  ASSERT_EQ(0, close(fd));

  auto check = [&](const char* name) {
    struct stat st {};
    ASSERT_EQ(0, stat(path(name).c_str(), &st));
    EXPECT_EQ(1500000000, st.st_mtim.tv_sec) << name;
    EXPECT_EQ(120000000, st.st_mtim.tv_nsec) << name;
    EXPECT_EQ(1400000000, st.st_atim.tv_sec) << name;
  };
  check("after-close");
  check("while-open");
  ASSERT_NO_FATAL_FAILURE(remount());
  check("after-close");
  check("while-open");

  // Writing after the times were set makes the file modified again.
  fd = open(path("while-open").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, futimens(fd, times));
  ASSERT_EQ(1, write(fd, "x", 1));
  ASSERT_EQ(0, close(fd));
  struct stat st {};
  ASSERT_EQ(0, stat(path("while-open").c_str(), &st));
  EXPECT_GT(st.st_mtim.tv_sec, 1500000000);
}

// exFAT keeps only a ReadOnly attribute: chmod without write bits sets it
// (and then the file can't be changed or removed), with them clears it;
// other modes and owners can't be kept.
TEST_F(FuseFiles, ChmodMapsWriteBitsToTheReadOnlyAttribute) {
  ASSERT_NO_FATAL_FAILURE(remount("fmask=002"));
  ASSERT_TRUE(write_file(path("ro"), {'r'}));
  struct stat st {};
  ASSERT_EQ(0, stat(path("ro").c_str(), &st));
  const mode_t full = 0775;
  ASSERT_EQ(full, st.st_mode & 0777);

  ASSERT_EQ(0, chmod(path("ro").c_str(), full & ~0222));
  ASSERT_EQ(0, stat(path("ro").c_str(), &st));
  EXPECT_EQ(full & ~0222, st.st_mode & 0777);
  EXPECT_EQ(EPERM, ERRNO_OF(open(path("ro").c_str(), O_WRONLY)));
  EXPECT_EQ(EPERM, ERRNO_OF(unlink(path("ro").c_str())));

  ASSERT_NO_FATAL_FAILURE(remount("fmask=002"));
  ASSERT_EQ(0, stat(path("ro").c_str(), &st));
  EXPECT_EQ(0u, st.st_mode & 0222) << "ReadOnly is kept on the volume";
  ASSERT_EQ(0, chmod(path("ro").c_str(), full));
  int fd = open(path("ro").c_str(), O_WRONLY);
  EXPECT_GE(fd, 0);
  close(fd);

  // Bits beyond the mount's mask are dropped first, so asking for more is
  // fine; asking for fewer read or execute bits can't be kept.
  EXPECT_EQ(0, chmod(path("ro").c_str(), 0777));
  ASSERT_EQ(0, stat(path("ro").c_str(), &st));
  EXPECT_EQ(full, st.st_mode & 0777);
  EXPECT_EQ(EPERM, ERRNO_OF(chmod(path("ro").c_str(), full & ~0111)));
  EXPECT_EQ(EPERM, ERRNO_OF(chmod(path("ro").c_str(), 0755))) << "some of the write bits";
  EXPECT_EQ(EPERM, ERRNO_OF(chown(path("ro").c_str(), st.st_uid + 1, static_cast<gid_t>(-1))));
  EXPECT_EQ(0, chown(path("ro").c_str(), st.st_uid, st.st_gid));
  EXPECT_EQ(0, unlink(path("ro").c_str()));
}

TEST_F(FuseFiles, NameLimitsAndFileTypesTheVolumeCantHold) {
  std::string long_name(256, 'n');
  EXPECT_EQ(ENAMETOOLONG, ERRNO_OF(open(path(long_name).c_str(), O_WRONLY | O_CREAT, 0644)));
  std::string longest(255, 'm');
  ASSERT_TRUE(write_file(path(longest), {'m'})) << "255 characters are allowed";
  // Characters exFAT forbids in names are stored in another form and
  // listed as they were given.
  std::set<std::string> odd = {"a:b", "a*b", "a?b", "a<b", "a|b", "a\"b", "a\\b"};
  for (const std::string& name : odd)
    ASSERT_TRUE(write_file(path(name), std::vector<uint8_t>(name.begin(), name.end()))) << name;
  EXPECT_EQ(EPERM, ERRNO_OF(mkfifo(path("fifo").c_str(), 0644)));
  EXPECT_EQ(EPERM, ERRNO_OF(mknod(path("dev").c_str(), S_IFCHR | 0644, makedev(1, 3))));
  EXPECT_EQ(EPERM, ERRNO_OF(link(path(longest).c_str(), path("hard").c_str())));
  ASSERT_EQ(0, mknod(path("plain").c_str(), S_IFREG | 0644, 0));
  EXPECT_EQ(0, size_of(path("plain")));

  ASSERT_NO_FATAL_FAILURE(remount());
  std::set<std::string> expect = odd;
  expect.insert({".", "..", longest, "plain"});
  std::set<std::string> listed;
  for (const auto& [name, ino] : list_dir(mount_->dir()))
    listed.insert(name);
  EXPECT_EQ(expect, listed);
  for (const std::string& name : odd)
    EXPECT_TRUE(read_file(path(name)) == std::vector<uint8_t>(name.begin(), name.end())) << name;
}

}  // namespace
}  // namespace exvol::test
