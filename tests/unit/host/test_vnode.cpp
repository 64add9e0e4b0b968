#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "host/malloc.h"
#include "host/namecache.h"
#include "host/vnode_slots_private.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

// Restores the vnode limit a test lowered.
struct VnodeLimit {
  explicit VnodeLimit(int n) { host_set_desiredvnodes(n); }
  ~VnodeLimit() { host_set_desiredvnodes(4096); }
};

vnode_t create_file(TinyFs& fs, vnode_t dvp, const char* name) {
  vnode_t vp = nullptr;
  EXPECT_EQ(fs.create(dvp, name, &vp), 0) << name;
  return vp;
}

using Events = std::vector<std::string>;

// A tinyfs volume whose root the test holds (an I/O reference, dropped at
// the end).
class VnodeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (root != nullptr) vnode_put(root);
  }
  vnode_t file(const char* name, vnode_t dvp = nullptr) {
    return create_file(fs, dvp != nullptr ? dvp : root, name);
  }
  TinyFs fs;
  vnode_t root = fs.root();
};

// Inactive runs when no reference of either kind is left; the vnode stays cached
// unless its file was removed.
TEST_F(VnodeTest, InactiveWaitsForTheLastReferenceOfEitherKind) {
  vnode_t vp = file("a");
  EXPECT_EQ(host_vnode_iocount(vp), 1);
  uint32_t vid = vnode_vid(vp);
  ASSERT_EQ(vnode_ref(vp), 0);
  fs.clear_events();
  vnode_put(vp);
  EXPECT_TRUE(fs.events().empty()) << "inactive with a use reference held";
  EXPECT_EQ(host_vnode_usecount(vp), 1);
  EXPECT_TRUE(vnode_isinuse(vp, 0));
  EXPECT_FALSE(vnode_isinuse(vp, 1));
  vnode_rele(vp);
  EXPECT_EQ(fs.events(), Events{"inactive a"});
  EXPECT_FALSE(host_vnode_isdead(vp));
  ASSERT_EQ(vnode_getwithvid(vp, vid), 0);
  EXPECT_EQ(tinyfs_node_of(vp)->name, "a");

  // Released without reentry: inactive is left to the reclaim.
  ASSERT_EQ(vnode_ref(vp), 0);
  vnode_put(vp);
  fs.clear_events();
  vnode_rele_ext(vp, 0, 1);
  EXPECT_TRUE(fs.events().empty());
  EXPECT_EQ(vnode_recycle(vp), 1);
  EXPECT_EQ(fs.events(), (Events{"inactive a", "reclaim a"}));

  // A removed file still open is reclaimed when its last use ends.
  vp = file("gone");
  ASSERT_EQ(vnode_ref_ext(vp, FREAD | FWRITE, 0), 0);
  ASSERT_EQ(fs.remove(root, vp, "gone"), 0);
  vnode_put(vp);
  EXPECT_FALSE(host_vnode_isdead(vp)) << "reclaimed while open";
  fs.clear_events();
  vnode_rele_ext(vp, FREAD | FWRITE, 0);
  EXPECT_EQ(fs.events(), (Events{"inactive gone", "reclaim gone"}));
  EXPECT_TRUE(host_vnode_isdead(vp));
}

// Recycle reclaims now (new vid, record reused) or after the last reference.
TEST_F(VnodeTest, RecycleReclaimsNowOrAfterTheLastReference) {
  vnode_t vp = file("a");
  uint32_t vid = vnode_vid(vp);
  vnode_put(vp);
  fs.clear_events();
  EXPECT_EQ(vnode_recycle(vp), 1);
  EXPECT_EQ(fs.events(), Events{"reclaim a"});
  EXPECT_TRUE(host_vnode_isdead(vp));
  EXPECT_GT(vnode_vid(vp), vid);
  EXPECT_EQ(vnode_getwithvid(vp, vid), ENOENT);
  EXPECT_EQ(vnode_get(vp), ENOENT);
  EXPECT_EQ(vnode_fsnode(vp), nullptr);
  EXPECT_EQ(vnode_mount(vp), nullptr);
  // The freed record is the first candidate for the next vnode.
  vnode_t next = file("b");
  ASSERT_EQ(next, vp);
  EXPECT_GT(vnode_vid(next), vid);
  EXPECT_EQ(vnode_getwithvid(vp, vid), ENOENT);
  EXPECT_EQ(tinyfs_node_of(next)->name, "b");

  ASSERT_EQ(vnode_ref(next), 0);
  fs.clear_events();
  EXPECT_EQ(vnode_recycle(next), 0);
  EXPECT_FALSE(host_vnode_isdead(next));
  vnode_put(next);
  EXPECT_TRUE(fs.events().empty());
  vnode_rele(next);
  EXPECT_EQ(fs.events(), (Events{"inactive b", "reclaim b"}));
  EXPECT_TRUE(host_vnode_isdead(next));
}

TEST_F(VnodeTest, CreateFailsCleanlyWithoutMemory) {
  int before = host_mount_vnode_count(fs.mp());
  struct vnode_fsparam p = host_test::fsparam(VREG, host_vnode_ops(root), 0, fs.mp());
  p.vnfs_dvp = root;
  vnode_t vp = nullptr;
  host_malloc_fail_nth(1);
  EXPECT_EQ(host_test::create_vnode(p, &vp), ENOMEM);
  host_malloc_fail_nth(0);
  EXPECT_EQ(vp, nullptr);
  EXPECT_EQ(host_mount_vnode_count(fs.mp()), before);
  EXPECT_EQ(host_vnode_usecount(root), 0) << "child reference left on the parent";
}

TEST(VnodeLifeCycleDeathTest, PutWithoutReferencePanics) {
  TinyFs fs;
  vnode_t root = fs.root();
  vnode_put(root);
  EXPECT_DEATH(vnode_put(root), "panic: vnode_put: .* has no I/O reference");
}

// A child holds a use reference on its parent, moved by a reparenting.
TEST_F(VnodeTest, ChildHoldsItsParentUntilReclaimedOrMoved) {
  vnode_t d1, d2;
  ASSERT_EQ(fs.mkdir(root, "d1", &d1), 0);
  ASSERT_EQ(fs.mkdir(root, "d2", &d2), 0);
  vnode_t f = file("f", d1);
  EXPECT_EQ(host_vnode_usecount(d1), 1);
  EXPECT_FALSE(vnode_isinuse(d1, 0));
  vnode_update_identity(f, d2, "g", 0, 0, VNODE_UPDATE_PARENT | VNODE_UPDATE_NAME);
  EXPECT_EQ(host_vnode_usecount(d1), 0);
  EXPECT_EQ(host_vnode_usecount(d2), 1);
  char name[8];
  EXPECT_EQ(vnode_getname_copy(f, name, sizeof name), 1);
  EXPECT_STREQ(name, "g");
  vnode_t p = vnode_getparent(f);
  EXPECT_EQ(p, d2);
  vnode_put(p);
  vnode_update_identity(f, nullptr, "long-name", 4, 0, VNODE_UPDATE_NAME);
  EXPECT_EQ(vnode_getname_copy(f, name, sizeof name), 4);
  EXPECT_STREQ(name, "long");
  vnode_put(f);
  vnode_put(d1);
  vnode_put(d2);

  fs.clear_events();
  EXPECT_EQ(vnode_recycle(d2), 0);
  EXPECT_FALSE(host_vnode_isdead(d2));
  EXPECT_EQ(vnode_recycle(f), 1);
  EXPECT_EQ(fs.events(), (Events{"reclaim f", "inactive d2", "reclaim d2"}));
  EXPECT_TRUE(host_vnode_isdead(d2));
}

// Pushing out takes unused vnodes least recently used first, never one in use; the
// push-out thread does it on its own.
TEST_F(VnodeTest, UnusedVnodesArePushedOutLeastRecentlyUsedFirst) {
  const int kFiles = 6;
  std::vector<vnode_t> files;
  std::vector<uint32_t> vids;
  char name[8];
  for (int i = 0; i < kFiles; i++) {
    snprintf(name, sizeof name, "f%d", i);
    files.push_back(file(name));
    vids.push_back(vnode_vid(files.back()));
  }
  vnode_t held = file("held");
  for (vnode_t vp : files) vnode_put(vp);
  // Use f0 again, so that f1 is now the least recently used.
  ASSERT_EQ(vnode_getwithvid(files[0], vids[0]), 0);
  vnode_put(files[0]);

  int total = host_vnode_count();
  {
    VnodeLimit limit(total - 2);
    host_vnode_push_out();
    EXPECT_LE(host_vnode_count(), total - 2);
  }
  EXPECT_EQ(vnode_getwithvid(files[1], vids[1]), ENOENT);
  EXPECT_EQ(vnode_getwithvid(files[2], vids[2]), ENOENT);
  ASSERT_EQ(vnode_getwithvid(files[0], vids[0]), 0) << "recently used vnode was pushed out";
  vnode_put(files[0]);
  ASSERT_EQ(vnode_getwithvid(files[3], vids[3]), 0);
  vnode_put(files[3]);
  {
    VnodeLimit limit(1);
    host_vnode_push_out();
    EXPECT_FALSE(host_vnode_isdead(held));
    EXPECT_FALSE(host_vnode_isdead(root));
  }
  vnode_put(held);

  // The push-out thread keeps the limit without help.
  int base = host_vnode_count();
  VnodeLimit limit(base + 4);
  for (int i = 0; i < 20; i++) {
    snprintf(name, sizeof name, "g%d", i);
    vnode_put(file(name));
  }
  EXPECT_TRUE(host_test::eventually([&] { return host_vnode_count() <= base + 4; }));
}

// --- vflush ------------------------------------------------------------------

int count_cb(vnode_t vp, void* arg) {
  ++*static_cast<int*>(arg);
  return VNODE_RETURNED;
}

using VnodeFlush = VnodeTest;

// Idle vnodes go children first; busy ones and their parents stay: EBUSY.
TEST_F(VnodeFlush, ReclaimsChildrenFirstAndBusyVnodesGiveEbusy) {
  vnode_t busy = file("busy"), d, e;
  ASSERT_EQ(fs.mkdir(root, "d", &d), 0);
  ASSERT_EQ(fs.mkdir(d, "e", &e), 0);
  vnode_put(file("f", e));
  vnode_put(e);
  vnode_put(d);
  vnode_put(root);
  root = nullptr;
  fs.clear_events();
  EXPECT_EQ(vflush(fs.mp(), nullptr, 0), EBUSY);
  Events reclaims;
  for (auto& ev : fs.events())
    if (ev.rfind("reclaim", 0) == 0) reclaims.push_back(ev);
  EXPECT_EQ(reclaims, (Events{"reclaim f", "reclaim e", "reclaim d"}));
  EXPECT_EQ(host_mount_vnode_count(fs.mp()), 2);  // busy and its parent
  vnode_put(busy);
  EXPECT_EQ(vflush(fs.mp(), nullptr, 0), 0);
  EXPECT_EQ(host_mount_vnode_count(fs.mp()), 0);
}

// SKIPSYSTEM and skipvp leave their vnodes; WRITECLOSE looks at writers only;
// FORCECLOSE reclaims vnodes in use (inactive first), leaving them dead.
TEST_F(VnodeFlush, SkipSystemSkipvpWriteCloseAndForceClose) {
  struct vnode_fsparam p = host_test::fsparam(VREG, host_vnode_ops(root), VNFS_NOCACHE, fs.mp());
  p.vnfs_marksystem = 1;
  vnode_t sys;
  ASSERT_EQ(host_test::create_vnode(p, &sys), 0);
  EXPECT_TRUE(vnode_issystem(sys));
  ASSERT_EQ(vnode_ref(sys), 0);
  vnode_put(sys);
  EXPECT_EQ(vflush(fs.mp(), root, SKIPSYSTEM), 0);
  EXPECT_FALSE(host_vnode_isdead(sys));
  EXPECT_FALSE(host_vnode_isdead(root));
  EXPECT_EQ(vflush(fs.mp(), root, 0), EBUSY);
  vnode_rele(sys);

  vnode_t reader = file("r");
  vnode_t writer = file("w");
  ASSERT_EQ(vnode_ref_ext(reader, FREAD, 0), 0);
  ASSERT_EQ(vnode_ref_ext(writer, FREAD | FWRITE, 0), 0);
  vnode_put(reader);
  vnode_put(writer);
  EXPECT_EQ(vflush(fs.mp(), nullptr, WRITECLOSE), EBUSY);
  EXPECT_FALSE(host_vnode_isdead(writer));
  fs.clear_events();
  EXPECT_EQ(vflush(fs.mp(), nullptr, WRITECLOSE | FORCECLOSE), 0);
  EXPECT_EQ(fs.events(), (Events{"inactive w", "reclaim w"}));
  EXPECT_FALSE(host_vnode_isdead(reader));
  EXPECT_FALSE(host_vnode_isdead(root));
  vfs_context_t ctx = vfs_context_kernel();
  EXPECT_EQ(VNOP_FSYNC(writer, MNT_WAIT, ctx), EBADF);
  EXPECT_EQ(VNOP_OPEN(writer, FREAD, ctx), ENXIO);
  EXPECT_EQ(VNOP_CLOSE(writer, FREAD, ctx), 0);
  EXPECT_EQ(vnode_get(writer), ENOENT);
  EXPECT_EQ(vnode_ref(writer), ENOENT);
  vnode_rele_ext(writer, FREAD | FWRITE, 0);
  EXPECT_EQ(host_vnode_usecount(writer), 0);
  vnode_rele_ext(reader, FREAD, 0);
}

// --- Concurrency ---------------------------------------------------------------------

// A vnode_getwithvid racing reclaims never hands out a reclaimed or reused vnode.
TEST(VnodeConcurrency, GetwithvidRacesReclaim) {
  TinyFs fs;
  vnode_t root = fs.root();
  std::atomic<bool> stop{false};
  std::atomic<int> hits{0};
  std::mutex id_lock;
  vnode_t cur_vp = create_file(fs, root, "x");
  uint32_t cur_vid = vnode_vid(cur_vp);
  vnode_put(cur_vp);

  std::vector<std::thread> readers;
  for (int t = 0; t < 3; t++) {
    readers.emplace_back([&] {
      while (!stop) {
        vnode_t vp;
        uint32_t vid;
        {
          std::lock_guard<std::mutex> g(id_lock);
          vp = cur_vp;
          vid = cur_vid;
        }
        if (vnode_getwithvid(vp, vid) == 0) {
          tinyfs_node* n = tinyfs_node_of(vp);
          EXPECT_TRUE(n != nullptr && n->name == "x");
          EXPECT_FALSE(host_vnode_isdead(vp));
          vnode_put(vp);
          hits++;
        }
      }
    });
  }
  // Go on until the readers have seen the vnode alive a few times too.
  for (int i = 0; i < 100000 && (i < 300 || hits.load() < 50); i++) {
    if (i % 16 == 0) std::this_thread::yield();
    vnode_recycle(cur_vp);
    vnode_t vp;
    ASSERT_EQ(fs.lookup(root, "x", &vp), 0);
    {
      std::lock_guard<std::mutex> g(id_lock);
      cur_vp = vp;
      cur_vid = vnode_vid(vp);
    }
    vnode_put(vp);
  }
  // The loop may have starved the readers: leave the vnode alive for them.
  host_test::eventually([&] { return hits.load() > 0; });
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_GT(hits.load(), 0);
  vnode_put(root);
}

// References and recycles from many threads: counts come back, one vnode per node.
TEST(VnodeConcurrency, GetPutRecycleStorm) {
  TinyFs fs;
  vnode_t root = fs.root();
  const char* names[] = {"a", "b", "c"};
  for (const char* n : names) vnode_put(create_file(fs, root, n));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 400; i++) {
        vnode_t vp;
        ASSERT_EQ(fs.lookup(root, names[(i + t) % 3], &vp), 0);
        if (i % 3 == 0) {
          ASSERT_EQ(vnode_ref(vp), 0);
          vnode_rele(vp);
        }
        if ((i + t) % 5 == 0) vnode_recycle(vp);
        vnode_put(vp);
      }
    });
  }
  for (auto& t : threads) t.join();
  int live = 0, active = 0;
  vnode_iterate(fs.mp(), 0, count_cb, &live);
  EXPECT_LE(live, 4);  // root and at most one vnode per name
  vnode_iterate(fs.mp(), VNODE_ITERATE_ACTIVE, count_cb, &active);
  EXPECT_EQ(active, 1);  // only the root is in use
  EXPECT_EQ(host_vnode_iocount(root), 1);
  vnode_put(root);
  EXPECT_EQ(vflush(fs.mp(), nullptr, 0), 0);
}

// A forced flush waits for operations in progress and never hangs.
TEST(VnodeConcurrency, ForcedFlushDrainsOperationsInProgress) {
  TinyFs fs;
  vnode_t root = fs.root();
  vnode_t f = create_file(fs, root, "f");
  uint32_t vid = vnode_vid(f);
  vnode_put(f);
  vnode_put(root);
  std::atomic<bool> stop{false};
  std::thread user([&] {
    while (!stop) {
      if (vnode_getwithvid(f, vid) != 0) break;
      std::this_thread::yield();
      vnode_put(f);
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(vflush(fs.mp(), nullptr, FORCECLOSE), 0);
  stop = true;
  user.join();
  EXPECT_TRUE(host_vnode_isdead(f));
  EXPECT_EQ(host_vnode_iocount(f), 0);
}

}  // namespace
