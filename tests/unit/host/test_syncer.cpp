// The syncer: periodic VFS_SYNC of the mounts that ask for it, never of a
// read-only one, and never of a mount that is going or gone.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "host/mount.h"
#include "tests/unit/host/host_test_util.h"
#include "tests/unit/host/tinyfs.h"

namespace {

using namespace std::chrono_literals;

// Waits up to 10 s for the volume's sync count to reach `want`.
bool syncs_reach(TinyFs& fs, int want) {
  for (int i = 0; i < 1000 && fs.stats().sync.load() < want; i++)
    std::this_thread::sleep_for(10ms);
  return fs.stats().sync.load() >= want;
}

// Syncs come at the interval and stop when it is set to 0; the syncer's
// thread, gone once no mount has an interval, comes back for the next one.
// A read-only mount with an interval is never synced.
TEST(Syncer, SyncsAtTheIntervalUntilStopped) {
  TinyFs a;
  TinyFs ro(MNT_RDONLY);
  ASSERT_EQ(0, host_set_sync_interval(ro.mp(), 5));
  ASSERT_EQ(0, host_set_sync_interval(a.mp(), 10));
  EXPECT_TRUE(syncs_reach(a, 3));

  ASSERT_EQ(0, host_set_sync_interval(a.mp(), 0));
  ASSERT_EQ(0, host_set_sync_interval(ro.mp(), 0));
  // host_sync waits for a sync the syncer may still be running.
  ASSERT_EQ(0, host_sync(a.mp(), MNT_NOWAIT));
  int after = a.stats().sync.load();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(after, a.stats().sync.load());
  EXPECT_EQ(0, ro.stats().sync.load());

  TinyFs b;
  ASSERT_EQ(0, host_set_sync_interval(b.mp(), 10));
  EXPECT_TRUE(syncs_reach(b, 2));
  EXPECT_EQ(after, a.stats().sync.load());
}

TEST(Syncer, GoneMountIsRefused) {
  TinyFs fs;
  mount_t mp = fs.mp();
  ASSERT_EQ(0, fs.unmount(0));
  EXPECT_EQ(EINVAL, host_set_sync_interval(mp, 10));
}

// Unmounts race the syncer's own syncs and explicit ones: the unmount
// waits for a sync under way, and no sync reaches a freed mount.
TEST(SyncerConcurrency, UnmountRacesPeriodicSyncs) {
  for (int round = 0; round < 30; round++) {
    std::vector<std::unique_ptr<TinyFs>> volumes;
    for (int i = 0; i < 3; i++) {
      volumes.push_back(std::make_unique<TinyFs>());
      ASSERT_EQ(0, host_set_sync_interval(volumes.back()->mp(), 1));
    }
    std::atomic<bool> stop{false};
    mount_t first = volumes[0]->mp();
    std::thread explicit_syncs([&] {
      while (!stop.load()) {
        int e = host_sync(first, MNT_NOWAIT);
        EXPECT_TRUE(e == 0 || e == EINVAL) << e;
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 4));
    for (auto& v : volumes)
      EXPECT_EQ(0, v->unmount(0));
    stop = true;
    explicit_syncs.join();
  }
}

// A daemon forks after mounting: the fork waits for a periodic sync under
// way (the child must not inherit the mount marked busy by a thread it
// doesn't have), and the child has a syncer of its own.
TEST(SyncerFork, ChildKeepsSyncingItsMounts) {
  TinyFs fs;
  fs.set_sync_ms(100);
  ASSERT_EQ(0, host_set_sync_interval(fs.mp(), 10));
  ASSERT_TRUE(syncs_reach(fs, 1));  // most likely under way now
  EXPECT_TRUE(host_test::in_child([&] {
    int before = fs.stats().sync.load();
    return host_sync(fs.mp(), MNT_NOWAIT) == 0 && syncs_reach(fs, before + 3);
  }));
  fs.set_sync_ms(0);
  ASSERT_EQ(0, host_set_sync_interval(fs.mp(), 0));
}

}  // namespace
