// Names through libexvol: the refusals the model checker doesn't provoke
// (a trailing "." or "..", names and paths over the limits), and updates of
// a mounted volume between read-only and writable with a file open.

#include <fcntl.h>
#include <limits.h>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiNamespace = ApiTest;

TEST_F(ApiNamespace, RefusedNames) {
  ASSERT_FALSE(volume_->mkdir("/a"));
  ASSERT_FALSE(volume_->mkdir("/a/b"));
  const std::string longest(255, 'n');
  ASSERT_FALSE(write_file("/" + longest, {9}));
  const struct {
    int error;
    std::error_code got;
  } rows[] = {
      {EINVAL, volume_->rmdir("/a/b/.")},
      {ENOTEMPTY, volume_->rmdir("/a/b/..")},
      {ENAMETOOLONG, write_file("/" + longest + "n", {9})},
      {ENAMETOOLONG, volume_->mkdir("/" + std::string(2000, 'd'))},
      {ENAMETOOLONG, volume_->mkdir(std::string(PATH_MAX, '/') + "d")},
  };
  for (size_t i = 0; i < std::size(rows); i++)
    EXPECT_EQ(rows[i].error, err(rows[i].got)) << "row " << i;
  unmount_and_check();
}

// An update to read-only is refused while a file is open for writing,
// unless forced, and a forced one revokes that file.
TEST_F(ApiNamespace, ReadOnlyUpdates) {
  MountOptions ro, rw;
  ro.read_only = true;
  ASSERT_FALSE(write_file("/g", {3}));
  File f;
  ASSERT_FALSE(volume_->open("/g", O_RDWR, &f));
  EXPECT_EQ(EBUSY, err(volume_->update(ro)));
  ASSERT_FALSE(volume_->update(ro, true));
  size_t done = 0;
  EXPECT_EQ(EBADF, err(f.write("z", 1, &done)));
  EXPECT_EQ(EROFS, err(volume_->mkdir("/e")));
  EXPECT_EQ(std::vector<uint8_t>{3}, read_file("/g"));
  ASSERT_FALSE(volume_->update(rw));
  ASSERT_FALSE(volume_->unlink("/g"));
  unmount_and_check();
}

}  // namespace
}  // namespace exvol::test
