#pragma once
// The library's integration tests: a scratch image made by mkfs.exfat (the
// test is skipped when the tool is missing), mounted through libexvol, and
// helpers for whole files. Writing tests end with unmount_and_check(),
// which unmounts and runs fsck.exfat -n over the image.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "exvol/volume.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"

namespace exvol::test {

inline std::string tool_path(const char* name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = std::string(dir) + name;
    if (access(path.c_str(), X_OK) == 0)
      return path;
  }
  return "";
}

struct Command {
  int status = -1;  // exit status; -1 when killed by a signal
  std::string out, err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Runs a shell command, capturing its standard output and error apart.
inline Command run(const std::string& command) {
  TempFile out, err;
  int raw = std::system((command + " >'" + out.path() + "' 2>'" + err.path() + "'").c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out.path()), slurp(err.path())};
}

// Expects fsck.exfat -n to find the image clean (skipped without it).
inline void expect_fsck_clean(const std::string& image) {
  std::string fsck = fsck_program();
  if (fsck.empty())
    return;
  Command c = run(fsck + " -n '" + image + "'");
  EXPECT_EQ(0, c.status) << "fsck.exfat finds the volume damaged:\n" << c.out << c.err;
}

// Bytes that differ at every offset and between seeds, so misplaced data
// shows.
inline std::vector<uint8_t> pattern(size_t length, uint32_t seed) {
  std::vector<uint8_t> data(length);
  uint32_t x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < length; i++) {
    x = x * 1103515245u + 12345u;
    data[i] = static_cast<uint8_t>(x >> 16);
  }
  return data;
}

// The error an expression returned, as an errno (0 for success).
inline int err(std::error_code ec) { return ec.value(); }

// Every test starts on a fresh 32 MiB volume of 4 KiB clusters, mounted
// read-write.
class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (tool_path("mkfs.exfat").empty())
      GTEST_SKIP() << "mkfs.exfat is not installed";
    format();
    ASSERT_FALSE(mount());
  }

  void TearDown() override {
    if (volume_ && volume_->mounted())
      volume_->unmount(true);
  }

  // Formats the image afresh with mkfs.exfat (unmounting it first).
  void format(uint64_t bytes = 32u << 20, const std::string& options = "-c 4096") {
    if (volume_ && volume_->mounted()) {
      ASSERT_FALSE(volume_->unmount());
    }
    ASSERT_EQ(0, truncate(image_.path().c_str(), 0));
    ASSERT_EQ(0, truncate(image_.path().c_str(), static_cast<off_t>(bytes)));
    std::string command = tool_path("mkfs.exfat") + " " + options + " '" + image_.path() + "'";
    Command mkfs = run(command);
    ASSERT_EQ(0, mkfs.status) << command << "\n" << mkfs.err;
  }

  std::error_code mount(MountOptions options = {}) {
    options.echo_kernel_log = false;
    std::string diagnostic;
    std::error_code ec = Volume::mount(image_.path(), options, &volume_, &diagnostic);
    EXPECT_FALSE(ec) << diagnostic;
    return ec;
  }

  void unmount_and_check() {
    ASSERT_FALSE(volume_->unmount());
    expect_fsck_clean(image_.path());
  }

  void remount(MountOptions options = {}) {
    unmount_and_check();
    ASSERT_FALSE(mount(options));
  }

  std::error_code write_file(const std::string& path, const std::vector<uint8_t>& data,
                             int oflags = O_WRONLY | O_CREAT | O_TRUNC) {
    File f;
    if (std::error_code ec = volume_->open(path, oflags, &f))
      return ec;
    size_t done = 0;
    if (std::error_code ec = f.write(data.data(), data.size(), &done))
      return ec;
    EXPECT_EQ(data.size(), done);
    return f.close();
  }

  std::vector<uint8_t> read_file(const std::string& path, Volume* volume = nullptr) {
    File f;
    std::error_code ec = (volume ? volume : volume_.get())->open(path, O_RDONLY, &f);
    EXPECT_FALSE(ec) << path << ": " << ec.message();
    std::vector<uint8_t> data, chunk(65536);
    for (size_t done = 1; !ec && done != 0;) {
      ec = f.read(chunk.data(), chunk.size(), &done);
      EXPECT_FALSE(ec) << ec.message();
      data.insert(data.end(), chunk.begin(), chunk.begin() + static_cast<long>(ec ? 0 : done));
    }
    return data;
  }

  std::vector<std::string> names(const std::string& dir) {
    std::vector<DirEntry> entries;
    EXPECT_FALSE(volume_->list(dir, &entries));
    std::vector<std::string> out;
    for (const DirEntry& e : entries)
      out.push_back(e.name);
    return out;
  }

  uint64_t free_clusters() {
    StatFs st;
    EXPECT_FALSE(volume_->statfs(&st));
    return st.blocks_free;
  }

  TempFile image_;
  std::unique_ptr<Volume> volume_;
};

}  // namespace exvol::test
