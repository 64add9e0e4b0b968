// Running the exvol program in tests.

#include "cli_test.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "tests/support/fsck.h"

namespace exvol::cli_test {

namespace {

std::vector<char*> argv_of(const std::vector<std::string>& args) {
  static std::string program = EXVOL_CLI_BIN;
  std::vector<char*> argv{program.data()};
  for (const std::string& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

// In the child: the environment every run gets, then the program.
[[noreturn]] void exec_exvol(std::vector<char*>& argv) {
  setenv("TZ", "UTC", 1);
  execv(argv[0], argv.data());
  _exit(127);
}

int wait_status(pid_t pid) {
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

}  // namespace

Result exvol(const std::vector<std::string>& args) {
  std::vector<char*> argv = argv_of(args);
  char out_path[] = "/tmp/exvol-cli-out-XXXXXX";
  char err_path[] = "/tmp/exvol-cli-err-XXXXXX";
  int out = mkstemp(out_path);
  int err = mkstemp(err_path);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    exec_exvol(argv);
  }
  close(out);
  close(err);
  Result run;
  run.status = wait_status(pid);
  run.out = read_file(out_path);
  run.err = read_file(err_path);
  unlink(out_path);
  unlink(err_path);
  return run;
}

Result exvol_on_terminal(const std::vector<std::string>& args) {
  std::vector<char*> argv = argv_of(args);
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0)
    exec_exvol(argv);
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

std::string tool(const std::string& name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = dir + name;
    if (access(path.c_str(), X_OK) == 0)
      return path;
  }
  return "";
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

void write_file(const std::string& path, const std::string& data) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(data.data(), static_cast<std::streamsize>(data.size()));
  ASSERT_TRUE(f.good()) << path;
}

std::string pattern(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string s(size, '\0');
  for (size_t i = 0; i < size; i += 4) {
    uint32_t word = random();
    memcpy(&s[i], &word, std::min<size_t>(4, size - i));
  }
  return s;
}

void CliTest::SetUp() {
  std::string templ = (std::filesystem::temp_directory_path() / "exvol-cli-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(templ.data()));
  dir_ = templ;
}

void CliTest::TearDown() {
  std::error_code ec;
  // Files made read-only by a test must not stop the clean-up.
  std::filesystem::permissions(dir_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(dir_, ec);
}

std::string CliTest::make_image(const std::string& name, uint64_t bytes, const std::string& label) {
  std::string mkfs = tool("mkfs.exfat");
  if (mkfs.empty()) {
    ADD_FAILURE() << "mkfs.exfat is not installed";
    return "";
  }
  std::string path = at(name);
  {
    std::ofstream f(path, std::ios::binary);
  }
  std::filesystem::resize_file(path, bytes);
  std::string command = mkfs + (label.empty() ? "" : " -L '" + label + "'") + " '" + path +
                        "' >/dev/null 2>&1";
  EXPECT_EQ(0, std::system(command.c_str())) << command;
  return path;
}

void CliTest::expect_clean(const std::string& image) {
  // The checker passes a volume whose VolumeDirty flag is set, so the flag
  // (bit 1 of VolumeFlags, byte 106 of the boot sector) is checked here.
  std::string boot(512, '\0');
  std::ifstream(image, std::ios::binary).read(boot.data(), 512);
  EXPECT_EQ(0, boot[106] & 0x02) << image << " was left marked dirty";
  std::string fsck = exvol::test::fsck_program();
  if (fsck.empty()) {
    fprintf(stderr, "fsck.exfat is not installed: %s not checked\n", image.c_str());
    return;
  }
  std::string command = fsck + " -n '" + image + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(nullptr, pipe);
  std::string output;
  char chunk[512];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
    output.append(chunk, n);
  int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
}

void CliTest::ok(const std::vector<std::string>& args) {
  Result r = exvol(args);
  EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
  EXPECT_EQ("", r.err);
  expect_clean(image_);
}

void CliTest::fails(const std::vector<std::string>& args, const std::string& what,
                    const std::string& why) {
  Result r = exvol(args);
  EXPECT_EQ(1, r.status) << args[0];
  EXPECT_EQ(failure_line(args[0], what, why), r.err);
  expect_clean(image_);
}

}  // namespace exvol::cli_test
