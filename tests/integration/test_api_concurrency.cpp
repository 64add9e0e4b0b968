// Many threads in one mounted volume through libexvol: creating, writing,
// reading, renaming and removing at once, with listings running beside
// them. Every surviving file is checked byte for byte after a remount and
// the volume must pass fsck.exfat.

#include <fcntl.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

class ApiConcurrency : public ApiTest {};

constexpr int kWorkers = 4;
constexpr int kRounds = 24;

std::string file_name(int worker, int round) {
  return "w" + std::to_string(worker) + "-" + std::to_string(round);
}

size_t file_size(int worker, int round) {
  return static_cast<size_t>(1000 + (worker * 7919 + round * 104729) % 30000);
}

// One worker's share: files made in the shared directory, checked, then
// kept, moved into the worker's own directory, or removed. Returns the
// files it left behind and their contents' seeds.
void work(Volume* volume, int worker, std::map<std::string, uint32_t>* kept,
          std::atomic<int>* failures) {
  auto fail = [&](const std::string& what, std::error_code ec) {
    ADD_FAILURE() << "worker " << worker << ": " << what << ": " << ec.message();
    (*failures)++;
  };
  std::string own = "/own" + std::to_string(worker);
  if (auto ec = volume->mkdir(own))
    return fail("mkdir", ec);
  for (int round = 0; round < kRounds; round++) {
    std::string path = "/shared/" + file_name(worker, round);
    uint32_t seed = static_cast<uint32_t>(worker * 1000 + round);
    std::vector<uint8_t> data = pattern(file_size(worker, round), seed);
    File f;
    if (auto ec = volume->open(path, O_RDWR | O_CREAT | O_EXCL, &f))
      return fail("create " + path, ec);
    // Written in two pieces, back to front, so that the first leaves a gap.
    size_t half = data.size() / 2, done = 0;
    if (auto ec = f.pwrite(data.data() + half, data.size() - half, static_cast<int64_t>(half), &done))
      return fail("pwrite", ec);
    if (auto ec = f.pwrite(data.data(), half, 0, &done))
      return fail("pwrite", ec);
    std::vector<uint8_t> back(data.size());
    if (auto ec = f.pread(back.data(), back.size(), 0, &done); ec || back != data)
      return fail("read back " + path, ec);
    if (auto ec = f.close())
      return fail("close", ec);
    switch (round % 3) {
      case 0: {
        std::string to = own + "/" + file_name(worker, round);
        if (auto ec = volume->rename(path, to))
          return fail("rename " + path, ec);
        (*kept)[to] = seed;
        break;
      }
      case 1:
        if (auto ec = volume->unlink(path))
          return fail("unlink " + path, ec);
        break;
      default: {
        std::string to = "/shared/R-" + file_name(worker, round);
        if (auto ec = volume->rename(path, to))
          return fail("rename " + path, ec);
        (*kept)[to] = seed;
      }
    }
  }
}

TEST_F(ApiConcurrency, ThreadsShareOneVolume) {
  EXVOL_FORMAT_OR_SKIP(64u << 20, "-c 4096");
  // The delayed metadata flush runs beside the workers.
  ASSERT_FALSE(mount(MountOptions{}));
  ASSERT_FALSE(volume_->mkdir("/shared"));
  // One file that every worker writes a disjoint stripe of, through one
  // shared File.
  File common;
  ASSERT_FALSE(volume_->open("/common", O_RDWR | O_CREAT, &common));

  std::atomic<int> failures{0};
  std::atomic<bool> done{false};
  std::vector<std::map<std::string, uint32_t>> kept(kWorkers);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; w++) {
    threads.emplace_back([&, w] {
      work(volume_.get(), w, &kept[w], &failures);
      std::vector<uint8_t> stripe = pattern(10000, static_cast<uint32_t>(900 + w));
      size_t n = 0;
      if (common.pwrite(stripe.data(), stripe.size(), w * 10000, &n) || n != stripe.size())
        failures++;
    });
  }
  // Listings and lookups beside the workers: they must never fail.
  threads.emplace_back([&] {
    while (!done.load()) {
      std::vector<DirEntry> entries;
      if (auto ec = volume_->list("/shared", &entries)) {
        ADD_FAILURE() << "list: " << ec.message();
        failures++;
      }
      Stat st;
      for (const DirEntry& e : entries) {
        std::error_code ec = volume_->lstat("/shared/" + e.name, &st);
        if (ec && ec.value() != ENOENT) {
          ADD_FAILURE() << "lstat: " << ec.message();
          failures++;
        }
      }
    }
  });
  for (int w = 0; w < kWorkers; w++)
    threads[w].join();
  done = true;
  threads.back().join();
  ASSERT_EQ(0, failures.load());
  ASSERT_FALSE(common.close());
  unmount_and_check();

  ASSERT_FALSE(mount(MountOptions{}));
  std::vector<uint8_t> expected_common;
  for (int w = 0; w < kWorkers; w++) {
    std::vector<uint8_t> stripe = pattern(10000, static_cast<uint32_t>(900 + w));
    expected_common.insert(expected_common.end(), stripe.begin(), stripe.end());
  }
  EXPECT_EQ(expected_common, read_file("/common"));
  size_t files = 0;
  for (int w = 0; w < kWorkers; w++) {
    for (const auto& [path, seed] : kept[w]) {
      int round = static_cast<int>(seed % 1000);
      EXPECT_EQ(pattern(file_size(w, round), seed), read_file(path)) << path;
      files++;
    }
  }
  std::vector<DirEntry> shared;
  ASSERT_FALSE(volume_->list("/shared", &shared));
  EXPECT_EQ(static_cast<size_t>(kWorkers * (kRounds / 3)), shared.size())
      << "only the renamed files stay in the shared directory";
  EXPECT_EQ(static_cast<size_t>(kWorkers * 2 * (kRounds / 3)), files);
  unmount_and_check();
}

// Threads working while another unmounts: every call either works or
// reports the volume gone, and nothing is left half done.
TEST_F(ApiConcurrency, CallsRaceWithForcedUnmount) {
  EXVOL_FORMAT_OR_SKIP();
  ASSERT_FALSE(mount(MountOptions{}));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; i++) {
        File f;
        std::string path = "/race-" + std::to_string(t) + "-" + std::to_string(i % 5);
        std::error_code ec = volume_->open(path, O_RDWR | O_CREAT, &f);
        if (!ec) {
          size_t n = 0;
          ec = f.pwrite("data", 4, 0, &n);
        }
        if (ec && ec.value() != ENXIO)
          wrong++;
        ec = f.close();
        if (ec && ec.value() != ENXIO && ec.value() != EBADF)
          wrong++;
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_FALSE(volume_->unmount(true));
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(0, wrong.load());
  expect_fsck_clean(image_.path());
}

}  // namespace
}  // namespace exvol::test
