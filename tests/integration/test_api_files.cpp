// Open files through libexvol: calls the model checker doesn't make, syncs
// reaching the device, and handles used after close or unmount. Open
// flags, reads, writes and seeks are the model checker's.

#include <fcntl.h>
#include <unistd.h>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiFiles = ApiTest;

// Calls the model checker never makes: an empty path, offsets below zero,
// an unknown whence, and a handle after its close.
TEST_F(ApiFiles, RefusedCalls) {
  File f;
  EXPECT_EQ(ENOENT, err(volume_->open("", O_RDONLY, &f)));
  ASSERT_FALSE(volume_->open("/f", O_RDWR | O_CREAT, &f));
  EXPECT_TRUE(f.is_open());
  char buf[4] = {};
  size_t done = 0;
  EXPECT_EQ(EINVAL, err(f.pread(buf, 1, -1, &done)));
  EXPECT_EQ(EINVAL, err(f.pwrite(buf, 1, -1, &done)));
  EXPECT_EQ(EINVAL, err(f.seek(0, 42)));
  ASSERT_FALSE(f.close());
  EXPECT_FALSE(f.is_open());
  EXPECT_EQ(EBADF, err(f.close()));
  EXPECT_EQ(EBADF, err(f.read(buf, 1, &done)));
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
