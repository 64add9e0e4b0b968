// The driver's messages reach the handler set with set_log_handler, also
// those printed after a mount (whose own capture of the log must put the
// handler back), and only the handler set last.

#include <mutex>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

class LogHandlerTest : public ApiTest {
 protected:
  void TearDown() override {
    set_log_handler(nullptr);
    ApiTest::TearDown();
  }
  std::vector<std::string> messages() {
    std::lock_guard<std::mutex> guard(lock_);
    return messages_;
  }
  void install() {
    set_log_handler([this](const std::string& m) {
      std::lock_guard<std::mutex> guard(lock_);
      messages_.push_back(m);
    });
  }
  std::mutex lock_;
  std::vector<std::string> messages_;
};

TEST_F(LogHandlerTest, DriverMessagesAfterMountReachTheHandler) {
  ImageBuilder b(Geometry{.cluster_count = 1024});
  b.add_bitmap_entry().add_upcase_entry();
  Dir d = b.mkdir(b.root(), u"d");
  b.add_entry(d, raw_entry(0x84));  // a critical primary nobody knows
  ASSERT_FALSE(volume_->unmount());
  b.write_to(image_.path());
  install();
  ASSERT_FALSE(mount());

  std::vector<DirEntry> entries;
  EXPECT_EQ(EIO, err(volume_->list("/d", &entries)));
  EXPECT_EQ(std::vector<std::string>{"exfat_dir_iterate: Unrecognized primary entry of type 0x84"},
            messages());

  std::vector<std::string> later;
  set_log_handler([&later](const std::string& m) { later.push_back(m); });
  EXPECT_EQ(EIO, err(volume_->list("/d", &entries)));
  EXPECT_EQ(1u, later.size());
  EXPECT_EQ(1u, messages().size());
}

// What the mount itself printed is captured for the diagnostic and, with
// echo_kernel_log, passed on to the handler too.
TEST_F(LogHandlerTest, MountMessagesAreEchoedOnRequest) {
  ImageBuilder b(Geometry{.sector_shift = 12, .cluster_shift = 0, .cluster_count = 256});
  b.add_bitmap_entry().add_upcase_entry();
  ASSERT_FALSE(volume_->unmount());
  b.write_to(image_.path());
  install();
  const std::string line = "exfat_mount_internal: Changed logical block size to 4096";
  for (bool echo : {false, true}) {
    MountOptions o;
    o.echo_kernel_log = echo;
    std::string diagnostic;
    ASSERT_FALSE(Volume::mount(image_.path(), o, &volume_, &diagnostic));
    EXPECT_NE(std::string::npos, diagnostic.find(line)) << diagnostic;
    EXPECT_EQ(echo ? std::vector<std::string>{line} : std::vector<std::string>{}, messages());
    ASSERT_FALSE(volume_->unmount());
  }
}

}  // namespace
}  // namespace exvol::test
