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
  Geometry g;
  g.cluster_count = 1024;
  ImageBuilder b(g);
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

}  // namespace
}  // namespace exvol::test
