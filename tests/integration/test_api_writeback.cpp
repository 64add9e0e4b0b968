// Periodic write-back: what a writer that keeps its file open has written
// reaches the device within the sync interval, without fsync or close. A
// copy of the image taken while the volume is mounted (a device pulled out
// without unmounting) shows it.

#include <fcntl.h>

#include <chrono>
#include <thread>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using namespace std::chrono_literals;

class Writeback : public ApiTest {
 protected:
  // Whether a copy of the image, as it is on the device now, holds `data`
  // as the file at `path`.
  bool copy_holds(const std::string& path, const std::vector<uint8_t>& data) {
    TempFile copy;
    std::string bytes = slurp(image_.path());
    copy.write(std::vector<uint8_t>(bytes.begin(), bytes.end()));
    MountOptions ro;
    ro.read_only = true;
    ro.echo_kernel_log = false;
    std::unique_ptr<Volume> v;
    if (Volume::mount(copy.path(), ro, &v))
      return false;
    File f;
    if (v->open(path, O_RDONLY, &f))
      return false;
    std::vector<uint8_t> got(data.size() + 1);
    size_t done = 0;
    return !f.read(got.data(), got.size(), &done) && done == data.size() &&
           std::equal(data.begin(), data.end(), got.begin());
  }

  // Polls copy_holds for up to 10 s.
  bool copy_comes_to_hold(const std::string& path, const std::vector<uint8_t>& data) {
    for (int i = 0; i < 200; i++) {
      if (copy_holds(path, data))
        return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
};

// Without an interval an open writer's data stays in memory; an update
// that sets one writes it back, and later writes follow.
TEST_F(Writeback, OpenWritersDataReachesTheDeviceAtTheInterval) {
  File f;
  ASSERT_FALSE(volume_->open("/rec.bin", O_WRONLY | O_CREAT, &f));
  std::vector<uint8_t> data = pattern(200000, 7);
  size_t done = 0;
  ASSERT_FALSE(f.write(data.data(), data.size(), &done));
  std::this_thread::sleep_for(500ms);
  EXPECT_FALSE(copy_holds("/rec.bin", data));

  MountOptions options;
  options.sync_interval_ms = 50;
  ASSERT_FALSE(volume_->update(options));
  EXPECT_TRUE(copy_comes_to_hold("/rec.bin", data));

  std::vector<uint8_t> more = pattern(70000, 8);
  ASSERT_FALSE(f.write(more.data(), more.size(), &done));
  data.insert(data.end(), more.begin(), more.end());
  EXPECT_TRUE(copy_comes_to_hold("/rec.bin", data));
  ASSERT_FALSE(f.close());
  unmount_and_check();
}

}  // namespace
}  // namespace exvol::test
