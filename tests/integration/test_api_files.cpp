// Open files through libexvol: the open flags, reading and writing with
// and without offsets, syncs reaching the device, and handles used after
// close or unmount.

#include <fcntl.h>
#include <unistd.h>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiFiles = ApiTest;

TEST_F(ApiFiles, OpenFlags) {
  File f;
  EXPECT_EQ(ENOENT, err(volume_->open("/nope", O_RDONLY, &f)));
  EXPECT_FALSE(f.is_open());
  ASSERT_FALSE(volume_->open("/a", O_RDWR | O_CREAT | O_EXCL, &f));
  EXPECT_TRUE(f.is_open());
  EXPECT_EQ(O_RDWR | O_CREAT | O_EXCL, f.flags());
  ASSERT_FALSE(f.close());
  EXPECT_EQ(EBADF, err(f.close()));
  EXPECT_EQ(EEXIST, err(volume_->open("/A", O_RDWR | O_CREAT | O_EXCL, &f)))
      << "names compare without regard to case";
  ASSERT_FALSE(write_file("/a", pattern(5000, 3), O_WRONLY));
  // O_CREAT without O_EXCL opens what exists, leaving its data.
  ASSERT_FALSE(volume_->open("/a", O_RDONLY | O_CREAT, &f));
  Stat st;
  ASSERT_FALSE(f.stat(&st));
  EXPECT_EQ(5000u, st.size);
  // O_TRUNC empties it and gives its clusters back.
  uint64_t before = free_clusters();
  ASSERT_FALSE(volume_->open("/a", O_WRONLY | O_TRUNC, &f));
  ASSERT_FALSE(f.stat(&st));
  EXPECT_EQ(0u, st.size);
  EXPECT_EQ(before + 2, free_clusters());

  ASSERT_FALSE(volume_->mkdir("/dir"));
  EXPECT_EQ(EISDIR, err(volume_->open("/dir", O_WRONLY, &f)));
  EXPECT_EQ(EISDIR, err(volume_->open("/dir", O_RDONLY | O_CREAT, &f)));
  EXPECT_EQ(ENOTDIR, err(volume_->open("/a", O_RDONLY | O_DIRECTORY, &f)));
  EXPECT_EQ(ENOTDIR, err(volume_->open("/a/b", O_RDONLY | O_CREAT, &f)));
  EXPECT_EQ(ENOTDIR, err(volume_->open("/a/", O_RDONLY, &f)));
  EXPECT_EQ(EISDIR, err(volume_->open("/new/", O_RDWR | O_CREAT, &f)));
  EXPECT_EQ(ENOENT, err(volume_->open("/missing/x", O_RDWR | O_CREAT, &f)));
  EXPECT_EQ(ENOENT, err(volume_->open("", O_RDONLY, &f)));
  ASSERT_FALSE(volume_->open("/dir", O_RDONLY | O_DIRECTORY, &f));
  char byte;
  size_t done = 0;
  EXPECT_EQ(EISDIR, err(f.read(&byte, 1, &done)));
  ASSERT_FALSE(f.close());
  unmount_and_check();
}

TEST_F(ApiFiles, ReadWriteSeekAndOffsets) {
  File f;
  ASSERT_FALSE(volume_->open("/f", O_RDWR | O_CREAT, &f));
  size_t done = 0;
  ASSERT_FALSE(f.write("hello", 5, &done));
  ASSERT_FALSE(f.write(" world", 6, &done));
  int64_t pos = -1;
  char buf[32] = {};
  ASSERT_FALSE(f.read(buf, sizeof(buf), &done));
  EXPECT_EQ(0u, done) << "at the end of file";
  ASSERT_FALSE(f.seek(-5, SEEK_END, &pos));
  EXPECT_EQ(6, pos);
  ASSERT_FALSE(f.read(buf, sizeof(buf), &done));
  EXPECT_EQ("world", std::string(buf, done));
  EXPECT_EQ(EINVAL, err(f.seek(-1, SEEK_SET)));
  EXPECT_EQ(EINVAL, err(f.seek(0, 42)));

  // pread/pwrite leave the file offset alone; a write past the end leaves
  // zeros in between.
  ASSERT_FALSE(f.seek(2, SEEK_SET));
  ASSERT_FALSE(f.pwrite("XY", 2, 20000, &done));
  ASSERT_FALSE(f.read(buf, 3, &done));
  EXPECT_EQ("llo", std::string(buf, done));
  std::vector<uint8_t> gap(20000 - 11, 0xFF);
  ASSERT_FALSE(f.pread(gap.data(), gap.size(), 11, &done));
  EXPECT_EQ(std::vector<uint8_t>(gap.size(), 0), gap);
  ASSERT_FALSE(f.pread(buf, sizeof(buf), 19999, &done));
  EXPECT_EQ(std::string("\0XY", 3), std::string(buf, done));
  EXPECT_EQ(EINVAL, err(f.pread(buf, 1, -1, &done)));
  EXPECT_EQ(EINVAL, err(f.pwrite(buf, 1, -1, &done)));

  // A read-only file refuses writes, a write-only one reads.
  ASSERT_FALSE(volume_->open("/f", O_RDONLY, &f));
  EXPECT_EQ(EBADF, err(f.write("z", 1, &done)));
  EXPECT_EQ(EINVAL, err(f.truncate(0)));
  ASSERT_FALSE(volume_->open("/f", O_WRONLY, &f));
  EXPECT_EQ(EBADF, err(f.read(buf, 1, &done)));

  // O_APPEND writes go to the end, pwrite too.
  ASSERT_FALSE(write_file("/log", {'a', 'b'}));
  ASSERT_FALSE(volume_->open("/log", O_WRONLY | O_APPEND, &f));
  ASSERT_FALSE(f.pwrite("c", 1, 0, &done));
  ASSERT_FALSE(f.write("d", 1, &done));
  ASSERT_FALSE(f.seek(0, SEEK_CUR, &pos));
  EXPECT_EQ(4, pos);
  ASSERT_FALSE(f.close());
  EXPECT_EQ(EBADF, err(f.read(buf, 1, &done)));
  EXPECT_EQ((std::vector<uint8_t>{'a', 'b', 'c', 'd'}), read_file("/log"));
  unmount_and_check();
}

TEST_F(ApiFiles, SyncsReachTheDevice) {
  MountOptions options;
  options.async = true;
  ASSERT_NO_FATAL_FAILURE(remount(options));
  File f;
  ASSERT_FALSE(volume_->open("/synced", O_RDWR | O_CREAT, &f));
  std::vector<uint8_t> data = pattern(8192, 6);
  size_t done = 0;
  ASSERT_FALSE(f.write(data.data(), data.size(), &done));
  ASSERT_FALSE(f.fsync());
  ASSERT_FALSE(f.full_fsync());
  ASSERT_FALSE(volume_->sync(true));
  ASSERT_FALSE(volume_->sync(false));
  // A copy of the image taken now, with the volume still mounted, already
  // holds the file.
  TempFile copy;
  ASSERT_EQ(0, run("cp '" + image_.path() + "' '" + copy.path() + "'").status);
  std::unique_ptr<Volume> other;
  MountOptions ro;
  ro.read_only = true;
  ro.echo_kernel_log = false;
  ASSERT_FALSE(Volume::mount(copy.path(), ro, &other));
  EXPECT_EQ(data, read_file("/synced", other.get()));
  ASSERT_FALSE(other->unmount());
  ASSERT_FALSE(f.close());
  unmount_and_check();
}

TEST_F(ApiFiles, ClosedAndUnmountedHandlesFailCleanly) {
  File f;
  ASSERT_FALSE(volume_->open("/h", O_RDWR | O_CREAT, &f));
  EXPECT_EQ(EBUSY, err(volume_->unmount())) << "an open file keeps the volume busy";
  ASSERT_FALSE(volume_->unmount(true));
  size_t done = 0;
  char c = 0;
  EXPECT_EQ(ENXIO, err(f.write(&c, 1, &done)));
  EXPECT_EQ(ENXIO, err(f.read(&c, 1, &done)));
  EXPECT_EQ(ENXIO, err(f.fsync()));
  EXPECT_EQ(ENXIO, err(f.close()));
  EXPECT_FALSE(f.is_open());
  EXPECT_EQ(ENXIO, err(volume_->open("/h", O_RDONLY, &f)));
  Stat st;
  EXPECT_EQ(ENXIO, err(volume_->stat("/", &st)));
  expect_fsck_clean(image_.path());
}

}  // namespace
}  // namespace exvol::test
