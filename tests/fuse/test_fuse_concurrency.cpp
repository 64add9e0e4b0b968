// Many threads working through one mount at once: the daemon serves them
// on several threads of its own, so their requests meet in the library.
// Every byte is checked, and the unmount must leave a clean volume.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <barrier>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseConcurrency = FuseVolumeTest;

constexpr int kWriters = 4;
constexpr size_t kFileBytes = 3 << 20;
const struct timespec kTimes[2] = {{1400000000, 0}, {1500000000, 0}};

// Writers of different files in unaligned pieces of different sizes (so
// their requests interleave at different places in the clusters), names
// coming and going in a shared directory that is listed meanwhile, then
// every writer reading one file through one shared descriptor at once:
// requests on one handle run in parallel in the daemon. Times are set on
// the files being written meanwhile, which writes back what their writes
// left pending while they go on.
TEST_F(FuseConcurrency, WritersReadersAndListingsShareTheMount) {
  ASSERT_EQ(0, mkdir(path("churn").c_str(), 0755));
  std::barrier sync(kWriters + 1);
  std::atomic<int> bad{0};
  int shared_fd = -1;
  std::vector<std::thread> threads;
  for (int t = 0; t < kWriters; t++) {
    threads.emplace_back([&, t] {
      std::vector<uint8_t> data = pattern(kFileBytes, 100 + t);
      int fd = open(path("w" + std::to_string(t)).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
      size_t chunk = 4096 * (t + 1) + 13 * t;
      for (size_t pos = 0; fd >= 0 && pos < data.size(); pos += chunk) {
        size_t n = std::min(chunk, data.size() - pos);
        bad += pwrite(fd, data.data() + pos, n, static_cast<off_t>(pos)) != static_cast<ssize_t>(n);
      }
      std::vector<uint8_t> back(data.size());
      bad += fd < 0 || pread(fd, back.data(), back.size(), 0) != static_cast<ssize_t>(kFileBytes) ||
             back != data;
      close(fd);
      sync.arrive_and_wait();
      alignas(4096) static thread_local uint8_t buf[256 << 10];
      std::vector<uint8_t> first = pattern(kFileBytes, 100);
      for (size_t off = t * sizeof(buf); off < kFileBytes; off += kWriters * sizeof(buf)) {
        ssize_t n = pread(shared_fd, buf, sizeof(buf), static_cast<off_t>(off));
        bad += n != static_cast<ssize_t>(sizeof(buf)) || memcmp(buf, &first[off], sizeof(buf));
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 200; i++) {
      std::string name = path("churn/n" + std::to_string(i % 20));
      if (i % 40 < 20)
        bad += !write_file(name, pattern(100 + i, i));
      else
        bad += unlink(name.c_str()) != 0;
      DIR* d = opendir(path("churn").c_str());
      bad += d == nullptr;
      while (d != nullptr && readdir(d) != nullptr) {
      }
      if (d != nullptr)
        closedir(d);
      // Times set on files other threads are writing: the stamps their
      // writes left pending are taken meanwhile.
      int err = ERRNO_OF(utimensat(AT_FDCWD, path("w" + std::to_string(i % kWriters)).c_str(),
                                   kTimes, 0));
      bad += err != 0 && err != ENOENT;
    }
    shared_fd = open(path("w0").c_str(), O_RDONLY | O_DIRECT);
    if (shared_fd < 0)
      shared_fd = open(path("w0").c_str(), O_RDONLY);
    sync.arrive_and_wait();
  });
  for (std::thread& t : threads)
    t.join();
  close(shared_fd);
  EXPECT_EQ(0, bad.load());

  ASSERT_NO_FATAL_FAILURE(remount());
  for (int t = 0; t < kWriters; t++)
    EXPECT_TRUE(read_file(path("w" + std::to_string(t))) == pattern(kFileBytes, 100 + t)) << t;
}

}  // namespace
}  // namespace exvol::test
