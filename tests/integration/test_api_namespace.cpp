// Names through libexvol: directory errors, long names, and the read-only
// volume and its updates.

#include <fcntl.h>

#include <algorithm>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiNamespace = ApiTest;

TEST_F(ApiNamespace, DirectoriesAndTheirErrors) {
  ASSERT_FALSE(volume_->mkdir("/a"));
  ASSERT_FALSE(volume_->mkdir("/a/b/"));
  ASSERT_FALSE(write_file("/a/b/f", {1, 2, 3}));
  EXPECT_EQ(EEXIST, err(volume_->mkdir("/a")));
  EXPECT_EQ(EEXIST, err(volume_->mkdir("/A/B")));
  EXPECT_EQ(EEXIST, err(volume_->mkdir("/")));
  EXPECT_EQ(ENOENT, err(volume_->mkdir("/x/y")));
  EXPECT_EQ(ENOTDIR, err(volume_->mkdir("/a/b/f/g")));
  EXPECT_EQ(ENOTEMPTY, err(volume_->rmdir("/a/b")));
  EXPECT_EQ(ENOTDIR, err(volume_->rmdir("/a/b/f")));
  EXPECT_EQ(EISDIR, err(volume_->unlink("/a/b")));
  EXPECT_EQ(EBUSY, err(volume_->rmdir("/")));
  EXPECT_EQ(EINVAL, err(volume_->rmdir("/a/b/.")));
  EXPECT_EQ(ENOTEMPTY, err(volume_->rmdir("/a/b/..")));
  EXPECT_EQ(ENOENT, err(volume_->unlink("/a/b/nothing")));
  EXPECT_EQ(ENOENT, err(volume_->rmdir("/a/zz")));
  Stat st;
  ASSERT_FALSE(volume_->stat("/a/b/../b/./f", &st));
  EXPECT_EQ(3u, st.size);
  ASSERT_FALSE(volume_->stat("/..", &st)) << "the root's parent is the root";
  EXPECT_EQ(FileType::Directory, st.type);
  ASSERT_FALSE(volume_->stat("//a///b//", &st));
  EXPECT_EQ(FileType::Directory, st.type);
  ASSERT_FALSE(volume_->unlink("/A/b/F"));
  ASSERT_FALSE(volume_->rmdir("/a/b/"));
  EXPECT_EQ(std::vector<std::string>{}, names("/a"));
  EXPECT_EQ(std::vector<std::string>{"a"}, names("/"));
  unmount_and_check();
}

TEST_F(ApiNamespace, LongNames) {
  std::string longest(255, 'n');
  ASSERT_FALSE(write_file("/" + longest, {9}));
  EXPECT_EQ(ENAMETOOLONG, err(write_file("/" + longest + "n", {9})));
  EXPECT_EQ(ENAMETOOLONG, err(volume_->mkdir("/" + std::string(2000, 'd'))));
  // 255 UTF-16 units that take three bytes each in UTF-8.
  std::string wide;
  for (int i = 0; i < 255; i++)
    wide += "\xe6\xbc\xa2";
  ASSERT_FALSE(volume_->mkdir("/" + wide));
  Stat st;
  ASSERT_FALSE(volume_->stat("/" + wide, &st));
  EXPECT_EQ(FileType::Directory, st.type);
  std::string path;
  for (int i = 0; i < 20; i++)
    path += "/" + std::string(250, 'p');
  EXPECT_EQ(ENAMETOOLONG, err(volume_->stat(path, &st)));
  unmount_and_check();
}

// A read-only volume refuses every change before the driver sees it, and
// an update makes it writable and read-only again.
TEST_F(ApiNamespace, ReadOnlyVolumeAndUpdates) {
  ASSERT_FALSE(volume_->mkdir("/d"));
  ASSERT_FALSE(write_file("/d/f", {4, 2}));
  ASSERT_FALSE(volume_->symlink("d/f", "/l"));
  MountOptions ro;
  ro.read_only = true;
  ASSERT_NO_FATAL_FAILURE(remount(ro));
  File f;
  EXPECT_EQ(EROFS, err(volume_->open("/d/f", O_WRONLY, &f)));
  EXPECT_EQ(EROFS, err(volume_->open("/d/f", O_RDONLY | O_TRUNC, &f)));
  EXPECT_EQ(EROFS, err(volume_->open("/d/new", O_RDWR | O_CREAT, &f)));
  EXPECT_EQ(EROFS, err(volume_->mkdir("/e")));
  EXPECT_EQ(EEXIST, err(volume_->mkdir("/d")));
  EXPECT_EQ(EROFS, err(volume_->rmdir("/d")));
  EXPECT_EQ(EROFS, err(volume_->unlink("/d/f")));
  EXPECT_EQ(EROFS, err(volume_->rename("/d/f", "/d/g")));
  EXPECT_EQ(EROFS, err(volume_->symlink("x", "/m")));
  EXPECT_EQ(EROFS, err(volume_->truncate("/d/f", 0)));
  EXPECT_EQ(EROFS, err(volume_->chflags("/d/f", 0)));
  TimeChange t;
  t.modified = timespec{1, 0};
  EXPECT_EQ(EROFS, err(volume_->utimes("/d/f", t)));
  EXPECT_EQ(EROFS, err(volume_->set_label("RO")));
  EXPECT_EQ((std::vector<uint8_t>{4, 2}), read_file("/l"));
  ASSERT_FALSE(volume_->open("/d/f", O_RDONLY | O_CREAT, &f)) << "opening what exists is fine";
  ASSERT_FALSE(f.close());

  // Upgrade, write, downgrade: a file open for writing blocks it unless
  // forced, and a forced downgrade revokes it.
  MountOptions rw;
  ASSERT_FALSE(volume_->update(rw));
  ASSERT_FALSE(write_file("/d/g", {3}));
  ASSERT_FALSE(volume_->open("/d/g", O_RDWR, &f));
  EXPECT_EQ(EBUSY, err(volume_->update(ro)));
  ASSERT_FALSE(volume_->update(ro, true));
  size_t done = 0;
  EXPECT_EQ(EBADF, err(f.write("z", 1, &done)));
  EXPECT_EQ(EROFS, err(volume_->mkdir("/e")));
  EXPECT_EQ(std::vector<uint8_t>{3}, read_file("/d/g"));
  ASSERT_FALSE(volume_->update(rw));
  ASSERT_FALSE(volume_->unlink("/d/g"));
  unmount_and_check();
}

}  // namespace
}  // namespace exvol::test
