// Files and names through a mounted volume, where the kernel stands between
// the program and the daemon: writes of every shape, open handles of
// removed files, rename flags, listings with inode numbers, statfs, times
// around close, and memory mappings. TearDown checks the volume clean.

#include <dirent.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <map>
#include <set>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseFiles = FuseVolumeTest;

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

// Opens `path` with `flags`, writes `data` at `offset`, syncs and closes.
bool write_at(const std::string& path, int flags, const std::vector<uint8_t>& data, off_t offset) {
  int fd = open(path.c_str(), flags, 0644);
  bool ok = fd >= 0 && pwrite(fd, data.data(), data.size(), offset) == ssize_t(data.size()) &&
            fsync(fd) == 0;
  return close(fd) == 0 && ok;
}

// Large requests, odd pieces that straddle pages and clusters, a sparse
// file whose gap reads as zeros, a rewrite in the middle, truncation both
// ways, O_TRUNC and O_APPEND: all read back, and again after a remount.
TEST_F(FuseFiles, DataWrittenInAnyPatternReadsBackAndSurvivesRemount) {
  std::vector<uint8_t> big = pattern(20 << 20, 1), odd = pattern(3 << 20, 2);
  ASSERT_TRUE(write_file(path("big.bin"), big));
  ASSERT_TRUE(write_file(path("odd.bin"), odd, 4097));
  std::vector<uint8_t> patch = pattern(70000, 4);
  ASSERT_TRUE(write_at(path("big.bin"), O_RDWR, patch, 12345678));
  std::copy(patch.begin(), patch.end(), big.begin() + 12345678);

  std::vector<uint8_t> sparse(10 << 20, 0), tail = pattern(5000, 3);
  std::copy(tail.begin(), tail.end(), sparse.end() - 5000);
  ASSERT_TRUE(write_at(path("sparse.bin"), O_WRONLY | O_CREAT, tail, (10 << 20) - 5000));

  std::vector<uint8_t> cut = pattern(100000, 5);
  ASSERT_TRUE(write_file(path("cut.bin"), cut));
  ASSERT_EQ(0, truncate(path("cut.bin").c_str(), 30000));
  int fd = open(path("cut.bin").c_str(), O_RDWR);
  ASSERT_EQ(0, ftruncate(fd, 200000));
  ASSERT_EQ(0, close(fd));
  cut.resize(30000);
  cut.resize(200000, 0);

  // O_APPEND writes land at the end whatever the offset says.
  ASSERT_TRUE(write_file(path("log"), pattern(50000, 6)));
  ASSERT_TRUE(write_at(path("log"), O_WRONLY | O_TRUNC, {'a', 'b', 'c'}, 0));
  ASSERT_TRUE(write_at(path("log"), O_WRONLY | O_APPEND, {'d', 'e', 'f'}, 0));

  auto check = [&] {
    EXPECT_TRUE(read_file(path("big.bin")) == big);
    EXPECT_TRUE(read_file(path("odd.bin")) == odd);
    EXPECT_TRUE(read_file(path("sparse.bin")) == sparse);
    EXPECT_TRUE(read_file(path("cut.bin")) == cut);
    EXPECT_TRUE(read_file(path("log")) == (std::vector<uint8_t>{'a', 'b', 'c', 'd', 'e', 'f'}));
  };
  check();
  ASSERT_NO_FATAL_FAILURE(remount());
  check();
}

// The kernel's rename flags, and its name cache: names match without
// regard to case, so "FRESH" is taken for "fresh" itself and a change of
// case needs two renames.
TEST_F(FuseFiles, RenameFlagsAndChangesOfCase) {
  ASSERT_EQ(0, mkdir(path("d").c_str(), 0755));
  ASSERT_TRUE(write_file(path("d/dst"), pattern(50000, 7)));
  ASSERT_TRUE(write_file(path("other"), {'o'}));
  EXPECT_EQ(EEXIST, ERRNO_OF(renameat2_call(path("other"), path("d/dst"), RENAME_NOREPLACE)));
  EXPECT_EQ(EINVAL, ERRNO_OF(renameat2_call(path("other"), path("d/dst"), RENAME_EXCHANGE)));
  ASSERT_EQ(0, renameat2_call(path("other"), path("d/fresh"), RENAME_NOREPLACE));
  ASSERT_EQ(0, rename(path("d/fresh").c_str(), path("d/dst").c_str()));
  EXPECT_EQ(1, size_of(path("d/DsT")));
  ASSERT_EQ(0, rename(path("d/dst").c_str(), path("d/tmp").c_str()));
  ASSERT_EQ(0, rename(path("d/tmp").c_str(), path("d/DST").c_str()));
  auto check = [&] {
    auto names = list_dir(path("d"));
    EXPECT_EQ(1u, names.count("DST"));
    EXPECT_EQ(3u, names.size());
    EXPECT_TRUE(read_file(path("d/dst")) == std::vector<uint8_t>{'o'});
  };
  check();
  ASSERT_NO_FATAL_FAILURE(remount());
  check();
  EXPECT_EQ(ENOTEMPTY, ERRNO_OF(rmdir(path("d").c_str())));
  ASSERT_EQ(0, unlink(path("d/DST").c_str()));
  ASSERT_EQ(0, rmdir(path("d").c_str()));
}

// The kernel holds the handle of a removed file: its data stays readable
// and writable, and its space comes back once the last descriptor is gone.
TEST_F(FuseFiles, RemovedFileStaysUsableThroughAnOpenDescriptor) {
  struct statvfs before {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &before));
  std::vector<uint8_t> data = pattern(1 << 20, 9);
  ASSERT_TRUE(write_file(path("doomed"), data));
  int fd = open(path("doomed").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, unlink(path("doomed").c_str()));
  EXPECT_EQ(0u, list_dir(mount_->dir()).count("doomed"));

  ASSERT_EQ(4, pwrite(fd, "more", 4, static_cast<off_t>(data.size())));
  data.insert(data.end(), {'m', 'o', 'r', 'e'});
  std::vector<uint8_t> back(data.size() + 10);
  ASSERT_EQ(static_cast<ssize_t>(data.size()), pread(fd, back.data(), back.size(), 0));
  back.resize(data.size());
  EXPECT_TRUE(back == data);

  // A new file of the same name is another file.
  ASSERT_TRUE(write_file(path("doomed"), {'n'}));
  EXPECT_EQ(1, size_of(path("doomed")));
  ASSERT_EQ(0, close(fd));
  ASSERT_EQ(0, unlink(path("doomed").c_str()));

  ASSERT_NO_FATAL_FAILURE(remount());
  struct statvfs after {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &after));
  EXPECT_EQ(before.f_bfree, after.f_bfree);
}

// Links store their target and are followed by the kernel; the node types
// exFAT can't hold are refused, a regular mknod makes a file.
TEST_F(FuseFiles, SymbolicLinksAndNodeTypes) {
  ASSERT_EQ(0, mkdir(path("dir").c_str(), 0755));
  ASSERT_TRUE(write_file(path("dir/real"), {'r', 'e', 'a', 'l'}));
  ASSERT_EQ(0, symlink("dir/real", path("link").c_str()));
  ASSERT_EQ(0, symlink("dir", path("dirlink").c_str()));
  ASSERT_EQ(0, symlink("nowhere/at/all", path("dangling").c_str()));
  struct stat st {};
  ASSERT_EQ(0, lstat(path("link").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(8, st.st_size) << "a link's size is its target's length";
  EXPECT_EQ(4, size_of(path("link")));
  EXPECT_TRUE(read_file(path("dirlink/real")) == (std::vector<uint8_t>{'r', 'e', 'a', 'l'}));
  EXPECT_EQ(ENOENT, ERRNO_OF(stat(path("dangling").c_str(), &st)));

  EXPECT_EQ(EPERM, ERRNO_OF(mkfifo(path("fifo").c_str(), 0644)));
  EXPECT_EQ(EPERM, ERRNO_OF(mknod(path("dev").c_str(), S_IFCHR | 0644, makedev(1, 3))));
  EXPECT_EQ(EPERM, ERRNO_OF(link(path("dir/real").c_str(), path("hard").c_str())));
  ASSERT_EQ(0, mknod(path("plain").c_str(), S_IFREG | 0644, 0));
  EXPECT_EQ(0, size_of(path("plain")));

  ASSERT_NO_FATAL_FAILURE(remount());
  char target[64] = {};
  ASSERT_EQ(14, readlink(path("dangling").c_str(), target, sizeof(target)));
  EXPECT_STREQ("nowhere/at/all", target);
  ASSERT_EQ(0, unlink(path("link").c_str()));
  EXPECT_EQ(4, size_of(path("dir/real"))) << "removing a link leaves its target";
}

// A listing takes many replies; each name comes once, with the inode
// number that stat reports.
TEST_F(FuseFiles, ThousandFilesAreListedOnceEachWithTheirInodeNumbers) {
  ASSERT_EQ(0, mkdir(path("many").c_str(), 0755));
  std::set<std::string> made = {".", ".."};
  for (int i = 0; i < 1000; i++) {
    std::string name = "file-" + std::to_string(i) + ".dat";
    int fd = open(path("many/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0) << name << ": " << strerror(errno);
    close(fd);
    made.insert(name);
  }
  std::set<std::string> names;
  int n = 0;
  for (const auto& [name, ino] : list_dir(path("many"))) {
    names.insert(name);
    struct stat st {};
    if (n++ % 50 == 0 && name != "..") {
      ASSERT_EQ(0, stat(path("many/" + name).c_str(), &st));
      EXPECT_EQ(st.st_ino, ino) << name;
    }
    if (n % 2 == 0 && name[0] != '.') {
      ASSERT_EQ(0, unlink(path("many/" + name).c_str())) << name;
    }
  }
  EXPECT_EQ(made, names);
  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_EQ(502u, list_dir(path("many")).size());
}

TEST_F(FuseFiles, StatfsCountsClustersOfTheVolume) {
  struct statvfs fs {}, after {};
  ASSERT_EQ(0, statvfs(mount_->dir().c_str(), &fs));
  EXPECT_EQ(kTestClusterBytes, fs.f_bsize);
  EXPECT_EQ(kTestClusterBytes, fs.f_frsize);
  EXPECT_EQ(kTestClusterCount, fs.f_blocks);
  EXPECT_EQ(fs.f_bfree, fs.f_bavail);
  EXPECT_EQ(255u, fs.f_namemax);
  ASSERT_TRUE(write_file(path("mib"), pattern(1 << 20, 10)));
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

  for (int pass = 0; pass < 2; pass++) {
    for (const char* name : {"after-close", "while-open"}) {
      struct stat st {};
      ASSERT_EQ(0, stat(path(name).c_str(), &st));
      EXPECT_EQ(1500000000, st.st_mtim.tv_sec) << name;
      EXPECT_EQ(120000000, st.st_mtim.tv_nsec) << name;
      EXPECT_EQ(1400000000, st.st_atim.tv_sec) << name;
    }
    if (pass == 0) {
      ASSERT_NO_FATAL_FAILURE(remount());
    }
  }

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

// A directory or link just made, and a directory just given a child, have
// a modification stamp pending while the kernel holds them; times set then
// (as cp -a, tar and rsync set them) must be the ones kept.
TEST_F(FuseFiles, TimesSetOnNewDirectoriesAndLinksAreKept) {
  struct timespec times[2];
  times[0] = {1400000000, 0};
  times[1] = {1500000000, 500000000};
  ASSERT_EQ(0, mkdir(path("fresh").c_str(), 0755));
  ASSERT_EQ(0, utimensat(AT_FDCWD, path("fresh").c_str(), times, 0));
  ASSERT_EQ(0, mkdir(path("parent").c_str(), 0755));
  ASSERT_TRUE(write_file(path("parent/child"), pattern(10, 3)));
  ASSERT_EQ(0, utimensat(AT_FDCWD, path("parent").c_str(), times, 0));
  ASSERT_EQ(0, symlink("fresh", path("link").c_str()));
  ASSERT_EQ(0, utimensat(AT_FDCWD, path("link").c_str(), times, AT_SYMLINK_NOFOLLOW));
  for (int pass = 0; pass < 2; pass++) {
    for (const char* name : {"fresh", "parent", "link"}) {
      struct stat st {};
      ASSERT_EQ(0, lstat(path(name).c_str(), &st));
      EXPECT_EQ(1500000000, st.st_mtim.tv_sec) << name << (pass ? " after a remount" : "");
      EXPECT_EQ(500000000, st.st_mtim.tv_nsec) << name;
      EXPECT_EQ(1400000000, st.st_atim.tv_sec) << name;
    }
    if (pass == 0) {
      ASSERT_NO_FATAL_FAILURE(remount());
    }
  }
}

// Names are listed in the composed form the volume holds, however they
// were typed, so that a listing matches the names a copy was made from;
// either form still names the file.
TEST_F(FuseFiles, NamesAreListedComposed) {
  const std::string composed = "caf\u00e9", decomposed = "cafe\u0301";
  ASSERT_TRUE(write_file(path(decomposed), pattern(10, 4)));
  ASSERT_TRUE(write_file(path("d\u00e9j\u00e0"), pattern(10, 5)));
  ASSERT_NO_FATAL_FAILURE(remount());
  std::map<std::string, ino_t> names = list_dir(path(""));
  EXPECT_EQ(1u, names.count(composed));
  EXPECT_EQ(1u, names.count("d\u00e9j\u00e0"));
  EXPECT_EQ(0u, names.count(decomposed));
  struct stat a {}, b {};
  ASSERT_EQ(0, stat(path(composed).c_str(), &a));
  ASSERT_EQ(0, stat(path(decomposed).c_str(), &b));
  EXPECT_EQ(a.st_ino, b.st_ino);
}

// A shared mapping reads the file and its stores reach the volume through
// the kernel's write-back, also after the descriptor is closed.
TEST_F(FuseFiles, SharedMappingReadsAndWritesTheFile) {
  std::vector<uint8_t> data = pattern(3 * 4096 + 100, 13);
  ASSERT_TRUE(write_file(path("m"), data));
  int fd = open(path("m").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  void* p = mmap(nullptr, data.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ASSERT_NE(MAP_FAILED, p);
  ASSERT_EQ(0, close(fd));
  auto* bytes = static_cast<uint8_t*>(p);
  EXPECT_EQ(0, memcmp(bytes, data.data(), data.size()));
  memcpy(bytes + 4090, "ACROSS", 6);
  memcpy(bytes + data.size() - 4, "TAIL", 4);
  memcpy(&data[4090], "ACROSS", 6);
  memcpy(&data[data.size() - 4], "TAIL", 4);
  ASSERT_EQ(0, msync(p, data.size(), MS_SYNC));
  EXPECT_TRUE(read_file(path("m")) == data);
  ASSERT_EQ(0, munmap(p, data.size()));
  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_TRUE(read_file(path("m")) == data);
}

}  // namespace
}  // namespace exvol::test
