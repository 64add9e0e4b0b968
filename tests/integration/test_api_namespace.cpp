// Names through libexvol: directories, removal, rename, symbolic links and
// path resolution, attributes and the read-only volume.

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

TEST_F(ApiNamespace, RenameFilesAndDirectories) {
  ASSERT_FALSE(volume_->mkdir("/src"));
  ASSERT_FALSE(volume_->mkdir("/dst"));
  std::vector<uint8_t> one = pattern(6000, 11), two = pattern(7000, 12);
  ASSERT_FALSE(write_file("/src/one", one));
  ASSERT_FALSE(write_file("/dst/two", two));

  // Within a directory, across directories, and onto an existing file.
  ASSERT_FALSE(volume_->rename("/src/one", "/src/uno"));
  ASSERT_FALSE(volume_->rename("/src/uno", "/dst/one"));
  uint64_t before = free_clusters();
  ASSERT_FALSE(volume_->rename("/dst/one", "/dst/two"));
  EXPECT_EQ(before + 2, free_clusters()) << "the replaced file's clusters are freed";
  EXPECT_EQ(one, read_file("/dst/two"));
  EXPECT_EQ(std::vector<std::string>{"two"}, names("/dst"));
  EXPECT_TRUE(names("/src").empty());

  // A change of case only, and a rename onto itself.
  ASSERT_FALSE(volume_->rename("/dst/two", "/dst/TWO"));
  EXPECT_EQ(std::vector<std::string>{"TWO"}, names("/dst"));
  ASSERT_FALSE(volume_->rename("/dst/TWO", "/dst/TWO"));
  EXPECT_EQ(std::vector<std::string>{"TWO"}, names("/dst"));

  // Directories: moved with their contents, onto an empty directory, not
  // onto a full one, a file or below themselves.
  ASSERT_FALSE(volume_->mkdir("/src/sub"));
  ASSERT_FALSE(write_file("/src/sub/inner", two));
  ASSERT_FALSE(volume_->rename("/src", "/dst/moved"));
  EXPECT_EQ(two, read_file("/dst/moved/sub/inner"));
  ASSERT_FALSE(volume_->mkdir("/empty"));
  ASSERT_FALSE(volume_->rename("/dst/moved/sub", "/empty"));
  EXPECT_EQ(two, read_file("/empty/inner"));
  EXPECT_EQ(ENOTEMPTY, err(volume_->rename("/dst/moved", "/dst")));
  EXPECT_EQ(ENOTEMPTY, err(volume_->rename("/empty", "/dst")));
  EXPECT_EQ(ENOTDIR, err(volume_->rename("/empty", "/dst/TWO")));
  EXPECT_EQ(EISDIR, err(volume_->rename("/dst/TWO", "/empty")));
  EXPECT_EQ(EINVAL, err(volume_->rename("/dst", "/dst/moved/deeper")));
  EXPECT_EQ(EINVAL, err(volume_->rename("/dst", "/dst/inside")));
  EXPECT_EQ(EBUSY, err(volume_->rename("/", "/x")));
  EXPECT_EQ(EINVAL, err(volume_->rename("/dst/.", "/x")));
  EXPECT_EQ(ENOENT, err(volume_->rename("/nothing", "/x")));
  EXPECT_EQ(ENOENT, err(volume_->rename("/empty/inner", "/nowhere/x")));
  EXPECT_EQ(EEXIST, err(volume_->rename("/empty/inner", "/dst/TWO", kRenameNoReplace)));
  ASSERT_FALSE(volume_->rename("/empty/inner", "/dst/fresh", kRenameNoReplace));
  unmount_and_check();
}

TEST_F(ApiNamespace, SymbolicLinks) {
  ASSERT_FALSE(volume_->mkdir("/dir"));
  ASSERT_FALSE(write_file("/dir/file", {7, 7}));
  ASSERT_FALSE(volume_->symlink("dir/file", "/rel"));
  ASSERT_FALSE(volume_->symlink("/dir", "/abs"));
  ASSERT_FALSE(volume_->symlink("../dir/file", "/dir/up"));
  ASSERT_FALSE(volume_->symlink("/nowhere", "/dangling"));
  std::string target;
  ASSERT_FALSE(volume_->readlink("/rel", &target));
  EXPECT_EQ("dir/file", target);
  EXPECT_EQ(EINVAL, err(volume_->readlink("/dir/file", &target)));
  EXPECT_EQ(EEXIST, err(volume_->symlink("x", "/rel")));
  EXPECT_EQ(ENOENT, err(volume_->symlink("", "/empty-target")));
  EXPECT_EQ(ENAMETOOLONG, err(volume_->symlink(std::string(1025, 't'), "/long")));
  ASSERT_FALSE(volume_->symlink(std::string(1024, 't'), "/longest"));

  // Followed in the middle and at the end, not by lstat. An absolute
  // target starts at the root wherever its link lives.
  ASSERT_FALSE(volume_->symlink("/dir/file", "/dir/abs-file"));
  ASSERT_FALSE(volume_->symlink("/dir", "/dir/abs-dir"));
  EXPECT_EQ((std::vector<uint8_t>{7, 7}), read_file("/rel"));
  EXPECT_EQ((std::vector<uint8_t>{7, 7}), read_file("/abs/file"));
  EXPECT_EQ((std::vector<uint8_t>{7, 7}), read_file("/abs/up"));
  EXPECT_EQ((std::vector<uint8_t>{7, 7}), read_file("/dir/abs-file"));
  EXPECT_EQ((std::vector<uint8_t>{7, 7}), read_file("/dir/abs-dir/abs-dir/file"));
  Stat st;
  ASSERT_FALSE(volume_->lstat("/rel", &st));
  EXPECT_EQ(FileType::Symlink, st.type);
  EXPECT_EQ(8u, st.size) << "a link's size is its target's length";
  EXPECT_EQ(S_IFLNK | 0755u, st.mode);
  ASSERT_FALSE(volume_->stat("/abs", &st));
  EXPECT_EQ(FileType::Directory, st.type);
  EXPECT_EQ(ENOENT, err(volume_->stat("/dangling", &st)));
  File f;
  EXPECT_EQ(ELOOP, err(volume_->open("/rel", O_RDONLY | O_NOFOLLOW, &f)));
  EXPECT_EQ(EEXIST, err(volume_->open("/dangling", O_WRONLY | O_CREAT | O_EXCL, &f)));
  // O_CREAT through a dangling link makes its target.
  ASSERT_FALSE(write_file("/dangling", {5}, O_WRONLY | O_CREAT));
  EXPECT_EQ(std::vector<uint8_t>{5}, read_file("/nowhere"));

  // Loops, and chains longer than 32 links.
  ASSERT_FALSE(volume_->symlink("loop2", "/loop1"));
  ASSERT_FALSE(volume_->symlink("loop1", "/loop2"));
  EXPECT_EQ(ELOOP, err(volume_->stat("/loop1", &st)));
  ASSERT_FALSE(volume_->lstat("/loop1", &st));
  for (int i = 0; i < 33; i++)
    ASSERT_FALSE(volume_->symlink(i == 0 ? "/dir/file" : "c" + std::to_string(i - 1),
                                  "/c" + std::to_string(i)));
  ASSERT_FALSE(volume_->stat("/c31", &st)) << "32 links are followed";
  EXPECT_EQ(ELOOP, err(volume_->stat("/c32", &st)));

  // unlink and rename act on the link itself.
  ASSERT_FALSE(volume_->rename("/abs", "/abs2"));
  ASSERT_FALSE(volume_->lstat("/abs2", &st));
  EXPECT_EQ(FileType::Symlink, st.type);
  ASSERT_FALSE(volume_->unlink("/abs2"));
  ASSERT_FALSE(volume_->stat("/dir", &st));
  unmount_and_check();
}

TEST_F(ApiNamespace, TimesAndFlags) {
  ASSERT_FALSE(write_file("/f", {1}));
  ASSERT_FALSE(write_file("/.hidden", {1}));
  Stat st;
  ASSERT_FALSE(volume_->stat("/.hidden", &st));
  EXPECT_EQ(kFlagHidden, st.flags & kFlagHidden) << "dot names are hidden";
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_EQ(0u, st.flags) << "a new file has its Archive bit set";

  TimeChange times;
  times.modified = timespec{1000000000, 230000000};
  times.birth = timespec{900000000, 123456789};
  times.accessed = timespec{1100000000, 0};
  ASSERT_FALSE(volume_->utimes("/f", times));
  ASSERT_FALSE(volume_->chflags("/f", kFlagHidden | kFlagArchived));
  EXPECT_EQ(EINVAL, err(volume_->chflags("/f", 0x1)));
  times.modified = timespec{0, 2000000000};
  EXPECT_EQ(EINVAL, err(volume_->utimes("/f", times)));
  remount();
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_EQ(1000000000, st.modified.tv_sec);
  EXPECT_EQ(230000000, st.modified.tv_nsec);
  EXPECT_EQ(st.modified.tv_sec, st.changed.tv_sec);
  EXPECT_EQ(900000000, st.birth.tv_sec);
  EXPECT_EQ(120000000, st.birth.tv_nsec) << "kept on disk to 10 ms";
  EXPECT_EQ(1100000000, st.accessed.tv_sec);
  EXPECT_EQ(kFlagHidden | kFlagArchived, st.flags);

  // An immutable file can't be written, truncated, removed or renamed.
  ASSERT_FALSE(volume_->chflags("/f", kFlagImmutable));
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_EQ(kFlagImmutable, st.flags & kFlagImmutable);
  File f;
  EXPECT_EQ(EPERM, err(volume_->open("/f", O_WRONLY, &f)));
  EXPECT_EQ(EPERM, err(volume_->open("/f", O_RDONLY | O_TRUNC, &f)));
  EXPECT_EQ(EPERM, err(volume_->truncate("/f", 0)));
  EXPECT_EQ(EPERM, err(volume_->unlink("/f")));
  EXPECT_EQ(EPERM, err(volume_->rename("/f", "/g")));
  ASSERT_FALSE(volume_->open("/f", O_RDONLY, &f));
  ASSERT_FALSE(f.close());
  ASSERT_FALSE(volume_->chflags("/f", 0));
  ASSERT_FALSE(volume_->unlink("/f"));
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

TEST_F(ApiNamespace, VolumeLabel) {
  ASSERT_NO_FATAL_FAILURE(format(32u << 20, "-L FIRST"));
  ASSERT_FALSE(mount());
  std::string label;
  ASSERT_FALSE(volume_->label(&label));
  EXPECT_EQ("FIRST", label);
  // Labels come back decomposed, as the driver reports them.
  const std::string decomposed = "Zweite U\xcc\x88";
  ASSERT_FALSE(volume_->set_label("Zweite \xc3\x9c"));
  ASSERT_FALSE(volume_->label(&label));
  EXPECT_EQ(decomposed, label);
  EXPECT_NE(0, err(volume_->set_label("this label is far too long")));
  remount();
  ASSERT_FALSE(volume_->label(&label));
  EXPECT_EQ(decomposed, label);
  unmount_and_check();
}

// The mask gives every file its permission bits; without access times a
// read leaves the access time alone, with them the close stamps it.
TEST_F(ApiNamespace, MountOptionsMaskAndAccessTimes) {
  ASSERT_FALSE(write_file("/f", pattern(5000, 41)));
  ASSERT_FALSE(volume_->mkdir("/d"));
  TimeChange old;
  old.accessed = timespec{1000000000, 0};
  ASSERT_FALSE(volume_->utimes("/f", old));
  MountOptions options;
  options.mask = 0640;
  options.noatime = true;
  ASSERT_NO_FATAL_FAILURE(remount(options));
  Stat st;
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_EQ(S_IFREG | 0640u, st.mode);
  ASSERT_FALSE(volume_->stat("/d", &st));
  EXPECT_EQ(S_IFDIR | 0640u, st.mode);
  EXPECT_EQ(pattern(5000, 41), read_file("/f"));
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_EQ(1000000000, st.accessed.tv_sec) << "noatime: the read stamps nothing";

  options.noatime = false;
  ASSERT_FALSE(volume_->update(options));
  EXPECT_EQ(pattern(5000, 41), read_file("/f"));
  ASSERT_FALSE(volume_->stat("/f", &st));
  EXPECT_GT(st.accessed.tv_sec, 1500000000) << "a read stamps the access time";
  unmount_and_check();
}

}  // namespace
}  // namespace exvol::test
