// Many threads in one mounted volume through libexvol: creating, writing,
// reading, renaming and removing at once with listings beside them, and
// calls racing an unmount. Survivors are checked byte for byte after a
// remount and the volume must pass fsck.exfat.

#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiConcurrency = ApiTest;

constexpr int kWorkers = 4;
constexpr int kRounds = 24;

size_t file_size(int worker, int round) {
  return static_cast<size_t>(1000 + (worker * 7919 + round * 104729) % 30000);
}

// One worker's share: files made in the shared directory, written back to
// front (the first piece leaves a gap), checked, then moved into the
// worker's own directory, removed, or renamed in place. `kept` gets the
// files left behind with their contents' seeds.
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
    std::string name = "w" + std::to_string(worker) + "-" + std::to_string(round);
    std::string path = "/shared/" + name;
    uint32_t seed = static_cast<uint32_t>(worker * 1000 + round);
    std::vector<uint8_t> data = pattern(file_size(worker, round), seed);
    File f;
    if (auto ec = volume->open(path, O_RDWR | O_CREAT | O_EXCL, &f))
      return fail("create " + path, ec);
    size_t half = data.size() / 2, done = 0;
    std::vector<uint8_t> back(data.size());
    std::error_code ec = f.pwrite(data.data() + half, data.size() - half, half, &done);
    if (!ec)
      ec = f.pwrite(data.data(), half, 0, &done);
    if (!ec)
      ec = f.pread(back.data(), back.size(), 0, &done);
    if (!ec)
      ec = f.close();
    if (ec || back != data)
      return fail("write and read back " + path, ec);
    std::string to = round % 3 == 0 ? own + "/" + name : "/shared/R-" + name;
    if (round % 3 == 1) {
      if (auto ec = volume->unlink(path))
        return fail("unlink " + path, ec);
    } else if (auto ec = volume->rename(path, to)) {
      return fail("rename " + path, ec);
    } else {
      (*kept)[to] = seed;
    }
  }
}

TEST_F(ApiConcurrency, ThreadsShareOneVolume) {
  // The delayed metadata flush and periodic syncs run beside the workers.
  ASSERT_NO_FATAL_FAILURE(format(64u << 20));
  MountOptions options;
  options.sync_interval_ms = 1;
  ASSERT_FALSE(mount(options));
  ASSERT_FALSE(volume_->mkdir("/shared"));
  // Every worker also writes a disjoint stripe of one shared File.
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
  // Listings and lookups beside the workers must never fail.
  threads.emplace_back([&] {
    while (!done.load()) {
      std::vector<DirEntry> entries;
      if (volume_->list("/shared", &entries))
        failures++;
      Stat st;
      for (const DirEntry& e : entries) {
        std::error_code ec = volume_->lstat("/shared/" + e.name, &st);
        if (ec && ec.value() != ENOENT)
          failures++;
      }
    }
  });
  for (int w = 0; w < kWorkers; w++)
    threads[w].join();
  done = true;
  threads.back().join();
  ASSERT_EQ(0, failures.load());
  ASSERT_FALSE(common.close());
  remount();

  std::vector<uint8_t> expected_common;
  for (int w = 0; w < kWorkers; w++) {
    std::vector<uint8_t> stripe = pattern(10000, static_cast<uint32_t>(900 + w));
    expected_common.insert(expected_common.end(), stripe.begin(), stripe.end());
  }
  EXPECT_EQ(expected_common, read_file("/common"));
  size_t files = 0;
  for (int w = 0; w < kWorkers; w++) {
    for (const auto& [path, seed] : kept[w]) {
      EXPECT_EQ(pattern(file_size(w, static_cast<int>(seed % 1000)), seed), read_file(path));
      files++;
    }
  }
  EXPECT_EQ(static_cast<size_t>(kWorkers * (kRounds / 3)), names("/shared").size())
      << "only the renamed files stay in the shared directory";
  EXPECT_EQ(static_cast<size_t>(kWorkers * 2 * (kRounds / 3)), files);
  unmount_and_check();
}

// Threads working while another unmounts: every call either works or
// reports the volume gone, and nothing is left half done. A plain unmount
// waits for queries in flight; a forced one revokes open files.
TEST_F(ApiConcurrency, CallsRaceWithUnmount) {
  for (bool force : {false, true}) {
    SCOPED_TRACE(force ? "forced" : "plain");
    if (!volume_->mounted()) {
      ASSERT_FALSE(mount());
    }
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; i++) {
          std::error_code ec;
          if (force) {
            File f;
            ec = volume_->open("/race-" + std::to_string(t) + "-" + std::to_string(i % 5),
                               O_RDWR | O_CREAT, &f);
            size_t n = 0;
            if (!ec)
              ec = f.pwrite("data", 4, 0, &n);
            std::error_code closed = f.close();
            if (closed && closed.value() != ENXIO && closed.value() != EBADF)
              wrong++;
          } else {
            VolumeInfo info;
            ec = volume_->info(&info);
            if (!ec && info.bytes_per_cluster != 4096)
              wrong++;
          }
          if (ec && ec.value() != ENXIO)
            wrong++;
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(force ? 20 : 5));
    EXPECT_FALSE(volume_->unmount(force));
    for (std::thread& t : threads)
      t.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_FALSE(volume_->mounted());
    expect_fsck_clean(image_.path());
  }
}

}  // namespace
}  // namespace exvol::test
