#pragma once
// Running the exvol program in tests, on scratch images. Every run gets
// TZ=UTC so that listed times don't depend on the machine.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/fsck.h"

namespace exvol::cli_test {

inline std::string tool(const std::string& name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    if (access((dir + name).c_str(), X_OK) == 0)
      return dir + name;
  }
  return "";
}

#define REQUIRE_MKFS()                                 \
  do {                                                 \
    if (::exvol::cli_test::tool("mkfs.exfat").empty()) \
      GTEST_SKIP() << "mkfs.exfat is not installed";   \
  } while (0)

struct Result {
  int status = -1;  // exit status; -1 when killed by a signal
  std::string out;
  std::string err;
};

inline std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

inline void write_file(const std::string& path, const std::string& data) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(data.data(), static_cast<std::streamsize>(data.size()));
  ASSERT_TRUE(f.good()) << path;
}

inline std::string pattern(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string s(size, '\0');
  for (char& c : s)
    c = static_cast<char>(random());
  return s;
}

// In the child: the environment every run gets, then the program.
[[noreturn]] inline void exec_exvol(const std::vector<std::string>& args) {
  static std::string program = EXVOL_CLI_BIN;
  std::vector<char*> argv{program.data()};
  for (const std::string& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  setenv("TZ", "UTC", 1);
  execv(argv[0], argv.data());
  _exit(127);
}

inline int wait_status(pid_t pid) {
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// Runs exvol with `args` (no shell), stdin from /dev/null.
inline Result exvol(const std::vector<std::string>& args) {
  exvol::test::TempFile out, err;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out.path().c_str(), O_WRONLY), 1);
    dup2(open(err.path().c_str(), O_WRONLY), 2);
    exec_exvol(args);
  }
  int status = wait_status(pid);
  return {status, read_file(out.path()), read_file(err.path())};
}

// Runs exvol on a pseudo-terminal; everything it printed is in `out`.
inline Result exvol_on_terminal(const std::vector<std::string>& args) {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0)
    exec_exvol(args);
  Result run;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(master, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;  // EIO once the child has closed the terminal
    run.out.append(buffer, static_cast<size_t>(n));
  }
  close(master);
  run.status = wait_status(pid);
  return run;
}

// The JSON values printed one after another (stat --json prints one per
// operand). A value that does not parse fails the test.
inline std::vector<nlohmann::json> parse_json_values(const std::string& text) {
  std::vector<nlohmann::json> values;
  std::istringstream in(text);
  while ((in >> std::ws).peek() != std::char_traits<char>::eof()) {
    try {
      nlohmann::json value;
      in >> value;  // one value, leaving the rest in the stream
      values.push_back(std::move(value));
    } catch (const nlohmann::json::exception& e) {
      ADD_FAILURE() << e.what() << "\n" << text;
      break;
    }
  }
  return values;
}

// The one JSON value in `text` (null when there is not exactly one).
inline nlohmann::json parse_json(const std::string& text) {
  std::vector<nlohmann::json> values = parse_json_values(text);
  EXPECT_EQ(1u, values.size()) << text;
  return values.size() == 1 ? values[0] : nlohmann::json();
}

inline std::string failure_line(const std::string& command, const std::string& what,
                                const std::string& why) {
  return "exvol: " + command + ": " + what + ": " + why + "\n";
}

// A scratch directory per test, removed with everything in it.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (std::filesystem::temp_directory_path() / "exvol-cli-XXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(templ.data()));
    dir_ = templ;
  }
  void TearDown() override {
    std::error_code ec;
    // Files made read-only by a test must not stop the clean-up.
    std::filesystem::permissions(dir_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(dir_, ec);
  }

  std::string at(const std::string& name) const { return dir_ + "/" + name; }

  // A fresh image made by mkfs.exfat (see REQUIRE_MKFS).
  std::string make_image(const std::string& name, uint64_t bytes = 64ull << 20,
                         const std::string& label = "") {
    std::string path = at(name);
    std::ofstream(path, std::ios::binary).close();
    std::filesystem::resize_file(path, bytes);
    std::string command = tool("mkfs.exfat") + (label.empty() ? "" : " -L '" + label + "'") +
                          " '" + path + "' >/dev/null 2>&1";
    EXPECT_EQ(0, std::system(command.c_str())) << command;
    return path;
  }

  // Expects the image not marked dirty (VolumeFlags bit 1, which the
  // checker does not look at) and passed by fsck.exfat -n.
  void expect_clean(const std::string& image) {
    char flags = 0;
    std::ifstream(image, std::ios::binary).seekg(106).read(&flags, 1);
    EXPECT_EQ(0, flags & 0x02) << image << " was left marked dirty";
    std::string fsck = exvol::test::fsck_program();
    if (fsck.empty())
      return;
    exvol::test::TempFile log;
    int status = std::system((fsck + " -n '" + image + "' >'" + log.path() + "' 2>&1").c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << read_file(log.path());
  }

  // "IMAGE:PATH" on the test's main image.
  std::string addr(const std::string& path) const { return image_ + ":" + path; }
  std::string cat(const std::string& path) { return exvol({"cat", addr(path)}).out; }

  // Runs a command that must succeed silently and leave the image clean.
  void ok(const std::vector<std::string>& args) {
    Result r = exvol(args);
    EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
    EXPECT_EQ("", r.err);
    expect_clean(image_);
  }
  // Runs a command that must fail with status 1 and exactly the failure
  // line of `what` and `why`, leaving the image clean.
  void fails(const std::vector<std::string>& args, const std::string& what,
             const std::string& why) {
    Result r = exvol(args);
    EXPECT_EQ(1, r.status) << args[0];
    EXPECT_EQ(failure_line(args[0], what, why), r.err);
    expect_clean(image_);
  }

  std::string image_;  // the test's main image, set by the fixture

 private:
  std::string dir_;
};

}  // namespace exvol::cli_test
