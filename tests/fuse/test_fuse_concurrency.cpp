// Many threads working through one mount at once: the daemon serves them
// on several threads of its own, so their requests meet in the library.
// Every byte is checked, and the unmount must leave a clean volume.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseConcurrency = FuseVolumeTest;

constexpr int kWriters = 4;
constexpr size_t kFileBytes = 3 << 20;

// Writes a file in pieces of `chunk` bytes, then reads it back whole.
std::string write_then_verify(const std::string& path, uint32_t seed, size_t chunk) {
  std::vector<uint8_t> data = pattern(kFileBytes, seed);
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0)
    return path + ": open failed";
  for (size_t pos = 0; pos < data.size(); pos += chunk) {
    size_t n = std::min(chunk, data.size() - pos);
    if (pwrite(fd, data.data() + pos, n, static_cast<off_t>(pos)) != static_cast<ssize_t>(n)) {
      close(fd);
      return path + ": short write";
    }
  }
  std::vector<uint8_t> back(data.size());
  ssize_t got = pread(fd, back.data(), back.size(), 0);
  close(fd);
  if (got != static_cast<ssize_t>(data.size()) || back != data)
    return path + ": read back differs from what was written";
  return "";
}

TEST_F(FuseConcurrency, WritersAndReadersOfDifferentFilesSeeTheirOwnBytes) {
  std::barrier sync(kWriters + 1);
  std::vector<std::string> errors(kWriters + 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kWriters; t++) {
    threads.emplace_back([&, t] {
      // Unaligned pieces of different sizes, so that requests of the
      // threads interleave at different places in the clusters.
      size_t chunk = 4096 * (t + 1) + 13 * t;
      errors[t] = write_then_verify(path("w" + std::to_string(t)), 100 + t, chunk);
      sync.arrive_and_wait();
      // Then everybody reads everybody's files at once.
      for (int other = 0; other < kWriters && errors[t].empty(); other++) {
        if (read_file(path("w" + std::to_string(other))) != pattern(kFileBytes, 100 + other))
          errors[t] = "file " + std::to_string(other) + " differs when read by " + std::to_string(t);
      }
    });
  }
  // Meanwhile names come and go in one shared directory, and it is listed.
  threads.emplace_back([&] {
    std::string& error = errors[kWriters];
    if (mkdir(path("churn").c_str(), 0755) != 0)
      error = "mkdir failed";
    for (int i = 0; i < 200 && error.empty(); i++) {
      std::string name = path("churn/n" + std::to_string(i % 20));
      if (i % 40 < 20) {
        if (!write_file(name, pattern(100 + i, i)))
          error = "create " + name + " failed";
      } else if (unlink(name.c_str()) != 0) {
        error = "unlink " + name + " failed";
      }
      if (DIR* d = opendir(path("churn").c_str())) {
        while (readdir(d) != nullptr) {
        }
        closedir(d);
      } else {
        error = "opendir failed";
      }
    }
    sync.arrive_and_wait();
  });
  for (std::thread& t : threads)
    t.join();
  for (const std::string& e : errors)
    EXPECT_EQ("", e);

  ASSERT_NO_FATAL_FAILURE(remount());
  for (int t = 0; t < kWriters; t++)
    EXPECT_TRUE(read_file(path("w" + std::to_string(t))) == pattern(kFileBytes, 100 + t)) << t;
}

// Several threads reading one file through one descriptor at different
// offsets: requests on one handle run in parallel in the daemon.
TEST_F(FuseConcurrency, ParallelReadsOfOneOpenFile) {
  std::vector<uint8_t> data = pattern(8 << 20, 7);
  ASSERT_TRUE(write_file(path("shared"), data));
  int fd = open(path("shared").c_str(), O_RDONLY | O_DIRECT);
  if (fd < 0)
    fd = open(path("shared").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&, t] {
      alignas(4096) static thread_local uint8_t buf[256 << 10];
      for (size_t off = static_cast<size_t>(t) * sizeof(buf); off < data.size();
           off += 4 * sizeof(buf)) {
        ssize_t n = pread(fd, buf, sizeof(buf), static_cast<off_t>(off));
        if (n != static_cast<ssize_t>(sizeof(buf)) || memcmp(buf, data.data() + off, sizeof(buf)) != 0)
          bad++;
      }
    });
  }
  for (std::thread& t : threads)
    t.join();
  close(fd);
  EXPECT_EQ(0, bad.load());
}

}  // namespace
}  // namespace exvol::test
