// Mapped access through libexvol: the page-in and page-out operations
// reached the way a process's memory mapping reaches them.

#include <fcntl.h>

#include <cstring>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiMapping = ApiTest;

TEST_F(ApiMapping, ReadsAndWritesThroughThePageCache) {
  std::vector<uint8_t> data = pattern(5 * 4096 + 100, 31);
  ASSERT_FALSE(write_file("/m", data));
  File f;
  ASSERT_FALSE(volume_->open("/m", O_RDWR, &f));
  Mapping map;
  ASSERT_FALSE(Mapping::map(f, 4096, 5 * 4096, true, &map));
  EXPECT_EQ(5u * 4096, map.length());
  std::vector<uint8_t> window(4 * 4096 + 100);
  ASSERT_FALSE(map.read(0, window.data(), window.size()));
  EXPECT_TRUE(std::equal(window.begin(), window.end(), data.begin() + 4096));
  // Stores across a page boundary, then into the last, partial page.
  ASSERT_FALSE(map.write(4090, "ACROSS", 6));
  ASSERT_FALSE(map.write(4 * 4096 + 90, "TAIL", 4));
  memcpy(&data[4096 + 4090], "ACROSS", 6);
  memcpy(&data[5 * 4096 + 90], "TAIL", 4);
  ASSERT_FALSE(f.close()) << "the mapping outlives the file";
  ASSERT_FALSE(map.sync());
  // Touching what lies wholly past the end of file faults; the bytes of
  // the last page past the end read as zeros and are not kept.
  char c;
  EXPECT_EQ(EFAULT, err(map.read(5 * 4096, &c, 1)));
  EXPECT_EQ(EFAULT, err(map.read(5 * 4096 - 1, &c, 2)));
  ASSERT_FALSE(map.read(4 * 4096 + 200, &c, 1));
  EXPECT_EQ(0, c);
  ASSERT_FALSE(map.write(4 * 4096 + 200, "X", 1));
  EXPECT_EQ(EBUSY, err(volume_->unmount())) << "a mapping keeps the volume busy";
  ASSERT_FALSE(map.unmap());
  EXPECT_FALSE(map.is_mapped());
  remount();
  EXPECT_EQ(data, read_file("/m"));
  unmount_and_check();
}

// A file grown by truncation has no valid data past its old end: a
// mapping reads zeros there, and a store beyond the valid length makes
// the gap real zeros on disk.
TEST_F(ApiMapping, StoresBeyondTheValidLength) {
  std::vector<uint8_t> data = pattern(1000, 32);
  ASSERT_FALSE(write_file("/v", data));
  ASSERT_FALSE(volume_->truncate("/v", 64 * 1024));
  File f;
  ASSERT_FALSE(volume_->open("/v", O_RDWR, &f));
  Mapping map;
  ASSERT_FALSE(Mapping::map(f, 0, 64 * 1024, true, &map));
  std::vector<uint8_t> all(64 * 1024, 0xEE);
  ASSERT_FALSE(map.read(0, all.data(), all.size()));
  data.resize(64 * 1024, 0);
  EXPECT_EQ(data, all);
  ASSERT_FALSE(map.write(40000, "deep", 4));
  memcpy(&data[40000], "deep", 4);
  ASSERT_FALSE(map.unmap());
  ASSERT_FALSE(f.close());
  remount();
  EXPECT_EQ(data, read_file("/v"));
  unmount_and_check();
}

TEST_F(ApiMapping, RefusedMappings) {
  ASSERT_FALSE(write_file("/r", pattern(100, 33)));
  ASSERT_FALSE(volume_->mkdir("/d"));
  File f, d, closed;
  ASSERT_FALSE(volume_->open("/r", O_RDONLY, &f));
  ASSERT_FALSE(volume_->open("/d", O_RDONLY, &d));
  Mapping map;
  EXPECT_EQ(EACCES, err(Mapping::map(f, 0, 4096, true, &map)));
  EXPECT_EQ(EINVAL, err(Mapping::map(f, 100, 4096, false, &map)));
  EXPECT_EQ(EINVAL, err(Mapping::map(f, 0, 0, false, &map)));
  EXPECT_EQ(EINVAL, err(Mapping::map(d, 0, 4096, false, &map)));
  EXPECT_EQ(EBADF, err(Mapping::map(closed, 0, 4096, false, &map)));
  ASSERT_FALSE(Mapping::map(f, 0, 4096, false, &map));
  EXPECT_EQ(EACCES, err(map.write(0, "x", 1)));
  EXPECT_EQ(EFAULT, err(map.read(4000, nullptr, 200)));
  ASSERT_FALSE(f.close());
  ASSERT_FALSE(d.close());
  ASSERT_FALSE(volume_->unmount(true)) << "a forced unmount revokes the mapping";
  char c;
  EXPECT_EQ(ENXIO, err(map.read(0, &c, 1)));
  EXPECT_EQ(ENXIO, err(map.unmap()));
}

}  // namespace
}  // namespace exvol::test
