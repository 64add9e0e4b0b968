#pragma once
// The fixture of the library's integration tests: a scratch image made by
// mkfs.exfat (the test is skipped when the tool is missing) or by the test
// image builder, mounted through libexvol, and helpers to write and read
// whole files. Writing tests end with unmount_and_check(), which unmounts
// and runs fsck.exfat -n over the image.

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
  Command c;
  c.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  c.out = slurp(out.path());
  c.err = slurp(err.path());
  return c;
}

// Expects fsck.exfat -n to find the image clean (skipped without it).
inline void expect_fsck_clean(const std::string& image) {
  std::string fsck = fsck_program();
  if (fsck.empty())
    return;
  Command c = run(fsck + " -n '" + image + "'");
  EXPECT_EQ(0, c.status) << "fsck.exfat finds the volume damaged:\n" << c.out << c.err;
}

// Deterministic bytes that differ at every offset of a file and between
// files (seeded by `seed`), so that misplaced data shows.
inline std::vector<uint8_t> pattern(size_t length, uint32_t seed) {
  std::vector<uint8_t> data(length);
  uint32_t x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < length; i++) {
    x = x * 1103515245u + 12345u;
    data[i] = static_cast<uint8_t>(x >> 16);
  }
  return data;
}

class ApiTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (volume_ && volume_->mounted())
      volume_->unmount(true);
  }

  // Formats the scratch image with mkfs.exfat; false (and the test is
  // skipped) when the tool is missing.
  bool format(uint64_t bytes = 32u << 20, const std::string& options = "-c 4096") {
    std::string mkfs = tool_path("mkfs.exfat");
    if (mkfs.empty())
      return false;
    EXPECT_EQ(0, truncate(image_.path().c_str(), static_cast<off_t>(bytes)));
    std::string command = mkfs + " " + options + " '" + image_.path() + "' >/dev/null 2>&1";
    EXPECT_EQ(0, std::system(command.c_str())) << command;
    return true;
  }

  void build(ImageBuilder& builder) { builder.write_to(image_.path()); }

  std::error_code mount(MountOptions options = {}) {
    options.echo_kernel_log = false;
    std::string diagnostic;
    std::error_code ec = Volume::mount(image_.path(), options, &volume_, &diagnostic);
    EXPECT_FALSE(ec) << diagnostic;
    return ec;
  }

  // Unmounts and checks the volume with fsck.exfat -n.
  void unmount_and_check() {
    ASSERT_FALSE(volume_->unmount());
    expect_fsck_clean(image_.path());
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

  std::vector<uint8_t> read_file(const std::string& path) {
    File f;
    std::error_code ec = volume_->open(path, O_RDONLY, &f);
    EXPECT_FALSE(ec) << path << ": " << ec.message();
    std::vector<uint8_t> data;
    std::vector<uint8_t> chunk(65536);
    for (;;) {
      size_t done = 0;
      ec = f.read(chunk.data(), chunk.size(), &done);
      EXPECT_FALSE(ec) << ec.message();
      if (ec || done == 0)
        break;
      data.insert(data.end(), chunk.begin(), chunk.begin() + static_cast<long>(done));
    }
    return data;
  }

  std::vector<std::string> names(const std::string& dir) {
    std::vector<DirEntry> entries;
    std::error_code ec = volume_->list(dir, &entries);
    EXPECT_FALSE(ec) << ec.message();
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

// The error an expression returned, as an errno (0 for success).
inline int err(std::error_code ec) { return ec.value(); }

}  // namespace exvol::test

// Formats the scratch image or skips the test.
#define EXVOL_FORMAT_OR_SKIP(...)                    \
  do {                                               \
    if (!format(__VA_ARGS__))                        \
      GTEST_SKIP() << "mkfs.exfat is not installed"; \
  } while (0)
