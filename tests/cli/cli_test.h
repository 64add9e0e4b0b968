#pragma once
// Running the exvol program in tests, on scratch images.
//
// Every run gets TZ=UTC so that listed times don't depend on the machine.
// Images come from mkfs.exfat (tests skip when it is missing) or from the
// test image builder, which writes fixed timestamps; after every writing
// command a test checks the image with fsck.exfat -n.

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace exvol::cli_test {

// Skips the calling test when mkfs.exfat is not installed.
#define REQUIRE_MKFS()                                         \
  do {                                                         \
    if (::exvol::cli_test::tool("mkfs.exfat").empty())         \
      GTEST_SKIP() << "mkfs.exfat is not installed";           \
  } while (0)

struct Result {
  int status = -1;  // exit status; -1 when killed by a signal
  std::string out;
  std::string err;
};

// Runs exvol with `args` (no shell involved), stdin from /dev/null.
Result exvol(const std::vector<std::string>& args);
// Runs exvol with stdout and stderr on a pseudo-terminal; everything it
// printed comes back in `out`.
Result exvol_on_terminal(const std::vector<std::string>& args);

// A program of the exFAT tools, or "" when it isn't installed.
std::string tool(const std::string& name);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& data);
// Deterministic bytes, different for every `seed`.
std::string pattern(size_t size, unsigned seed);

// A scratch directory per test, removed with everything in it.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A path in the scratch directory.
  std::string at(const std::string& name) const { return dir_ + "/" + name; }
  // A fresh image made by mkfs.exfat (see REQUIRE_MKFS).
  std::string make_image(const std::string& name, uint64_t bytes = 64ull << 20,
                         const std::string& label = "");
  // Asserts that the image is not marked dirty and that fsck.exfat -n
  // finds it consistent (that check is skipped, loudly, without the
  // checker).
  void expect_clean(const std::string& image);

  // "IMAGE:PATH" on the test's main image.
  std::string addr(const std::string& path) const { return image_ + ":" + path; }
  // Runs a command that must succeed and leave the image clean.
  void ok(const std::vector<std::string>& args);
  // Runs a command that must fail with status 1 and exactly the failure
  // line of `what` and `why`, leaving the image clean.
  void fails(const std::vector<std::string>& args, const std::string& what,
             const std::string& why);

  std::string image_;  // the test's main image, set by the fixture

 private:
  std::string dir_;
};

// Expands to the expected stderr line of a failure.
inline std::string failure_line(const std::string& command, const std::string& what,
                                const std::string& why) {
  return "exvol: " + command + ": " + what + ": " + why + "\n";
}

}  // namespace exvol::cli_test
