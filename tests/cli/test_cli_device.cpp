// The image under a command: held by another program, shorter than its
// volume, failing writes, and loop devices (write-protected, or a second
// route to an image in use). Each case must fail with status 1 and a line
// that says why, or work, and never change an image it can't own.

#include <filesystem>
#include <string>

#include "cli_test.h"
#include "tests/support/device_faults.h"

namespace exvol::cli_test {
namespace {

using exvol::test::FileSizeLimit;
using exvol::test::ForeignLock;

class CliDevice : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    REQUIRE_MKFS();
    image_ = make_image("vol.img");
    write_file(at("f"), "data");
    ok({"cp", at("f"), addr("/f")});
  }
};

// Another program holding the image exclusively keeps every command out;
// sharing it (reading), it lets readers in and keeps writers out.
TEST_F(CliDevice, AnImageInUseIsRefusedNamingItsHolder) {
  std::string before = read_file(image_);
  for (bool exclusive : {true, false}) {
    SCOPED_TRACE(exclusive ? "held exclusively" : "shared");
    ForeignLock other(image_, exclusive);
    ASSERT_GT(other.pid(), 0);
    const std::string in_use = image_ + " is in use by another program (" + other.holder() + ")";
    Result r = exvol({"mkdir", addr("/d")});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("exvol: mkdir: " + in_use + "\n", r.err);
    for (const std::vector<std::string>& reading :
         {std::vector<std::string>{"ls", addr("/")}, {"info", image_}}) {
      r = exvol(reading);
      EXPECT_EQ(exclusive ? 1 : 0, r.status) << reading[0] << ": " << r.err;
      std::string prefix = reading[0] == "info" ? "exvol: " : "exvol: ls: ";
      EXPECT_EQ(exclusive ? prefix + in_use + "\n" : "", r.err);
    }
  }
  EXPECT_TRUE(before == read_file(image_)) << "a refused command wrote to the image";
}

// An image cut short: writing commands are refused with the reason,
// reading ones work with a warning, info says so, and the image stays as
// it was.
TEST_F(CliDevice, AnImageShorterThanItsVolumeIsOnlyRead) {
  std::filesystem::resize_file(image_, 8 << 20);
  std::string before = read_file(image_);
  Result r = exvol({"mkdir", addr("/d")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: mkdir: " + image_ +
                ": cannot mount: Read-only file system (the volume claims 131072 sectors of 512 "
                "bytes (64.0 MiB) but the device holds only 16384 (8.0 MiB); it can only be "
                "mounted read-only)\n",
            r.err);
  r = exvol({"cat", addr("/f")});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("data", r.out);
  EXPECT_EQ("exvol: cat: warning: " + image_ +
                ": the image holds 8.0 MiB of a 64.0 MiB volume; what lies beyond is missing\n",
            r.err);
  r = exvol({"info", image_});
  EXPECT_NE(std::string::npos, r.out.find("Image holds:     8388608 (8.0 MiB) of a 64.0 MiB"));
  EXPECT_NE(std::string::npos, r.out.find("(truncated)")) << r.out;
  EXPECT_TRUE(before == read_file(image_));
}

// Writes that fail on the image, whether file data (beyond 8 MiB) or the
// metadata of a new directory (beyond 64 KiB), fail the command with one
// line at the end, even when nothing failed while the command ran.
TEST_F(CliDevice, WritesThatFailOnTheImageFailTheCommand) {
  write_file(at("big"), pattern(20 << 20, 5));
  struct Case {
    rlim_t limit;
    std::vector<std::string> args;
  } cases[] = {
      {8 << 20, {"cp", at("big"), addr("/big")}},
      {64 << 10, {"mkdir", addr("/d")}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    Result r;
    {
      FileSizeLimit limit(c.limit);
      r = exvol(c.args);
    }
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos,
              r.err.find("exvol: " + c.args[0] + ": " + image_ +
                         ": not everything could be written: File too large\n"))
        << r.err;
  }
}

// A write-protected loop device is only read; a loop device over an image
// that another program holds is refused, naming the image.
TEST_F(CliDevice, LoopDevices) {
  {
    ATTACH_LOOP_OR_SKIP(ro, image_, true);
    Result r = exvol({"mkdir", ro.device() + ":/d"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("exvol: mkdir: " + ro.device() +
                  ": cannot mount: Read-only file system (the device is write-protected; it can "
                  "only be mounted read-only)\n",
              r.err);
    r = exvol({"cat", ro.device() + ":/f"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("data", r.out);
  }
  ATTACH_LOOP_OR_SKIP(loop, image_, false);
  ForeignLock other(image_, true);
  ASSERT_GT(other.pid(), 0);
  Result r = exvol({"ls", loop.device() + ":"});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: ls: " + loop.device() + " (a loop device of " +
                std::filesystem::canonical(image_).string() + ") is in use by another program (" +
                other.holder() + ")\n",
            r.err);
}

}  // namespace
}  // namespace exvol::cli_test
