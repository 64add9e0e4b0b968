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

// A file removed while open reports no link through its descriptor, and
// its data stays readable there.
TEST_F(FuseFiles, RemovedOpenFileHasNoLinks) {
  ASSERT_TRUE(write_file(path("doomed"), pattern(100, 1)));
  int fd = open(path("doomed").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, unlink(path("doomed").c_str()));
  struct stat st {};
  EXPECT_EQ(0, fstat(fd, &st));
  EXPECT_EQ(0u, st.st_nlink);
  std::vector<uint8_t> got(100);
  EXPECT_EQ(100, pread(fd, got.data(), got.size(), 0));
  EXPECT_EQ(pattern(100, 1), got);
  close(fd);
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
