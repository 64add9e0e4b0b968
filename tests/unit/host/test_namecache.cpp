#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/namecache.h"
#include "host/vnode_slots_private.h"
#include "host_test_util.h"
#include "tinyfs.h"

namespace {

// A volume with a root and two files, "a" and "b", entered in nothing yet.
struct NameCacheTest : ::testing::Test {
  TinyFs fs;
  vnode_t root = nullptr, a = nullptr, b = nullptr;

  void SetUp() override {
    root = fs.root();
    ASSERT_EQ(fs.create(root, "a", &a), 0);
    ASSERT_EQ(fs.create(root, "b", &b), 0);
    cache_purge(root);
  }
  void TearDown() override {
    vnode_put(a);
    vnode_put(b);
    vnode_put(root);
    host_namecache_set_limit(8192);
  }
  int lookup(const char* name, vnode_t* vpp, uint32_t nameiop = LOOKUP,
             uint32_t flags = MAKEENTRY | ISLASTCN) {
    struct componentname cn = tinyfs_cn(name, nameiop, flags);
    return cache_lookup(root, vpp, &cn);
  }
  void enter(const char* name, vnode_t vp) {
    struct componentname cn = tinyfs_cn(name);
    cache_enter(root, vp, &cn);
  }
  // The vnode a hit hands out (its I/O reference dropped), or null.
  vnode_t hit(const char* name) {
    vnode_t vp = nullptr;
    if (lookup(name, &vp) != -1) return nullptr;
    vnode_put(vp);
    return vp;
  }
};

// Hits carry an I/O reference; names match exactly; enters replace; no MAKEENTRY drops.
TEST_F(NameCacheTest, PositiveEntries) {
  enter("a", a);
  vnode_t vp = nullptr;
  EXPECT_EQ(lookup("a", &vp), -1);
  EXPECT_EQ(vp, a);
  EXPECT_EQ(host_vnode_iocount(a), 2);
  vnode_put(vp);
  vp = nullptr;
  EXPECT_EQ(lookup("b", &vp), 0);
  EXPECT_EQ(vp, nullptr);
  EXPECT_EQ(lookup("A", &vp), 0);
  EXPECT_EQ(lookup("a ", &vp), 0);
  struct componentname cn = tinyfs_cn("ab");
  cn.cn_namelen = 1;  // "a" inside a longer buffer
  EXPECT_EQ(cache_lookup(root, &vp, &cn), -1);
  vnode_put(vp);

  enter("x", nullptr);
  enter("x", a);
  EXPECT_EQ(hit("x"), a);
  enter("x", b);
  EXPECT_EQ(hit("x"), b);
  EXPECT_EQ(lookup("a", &vp, LOOKUP, ISLASTCN), 0);
  EXPECT_EQ(lookup("a", &vp), 0);

  // A create through the file system enters its name; a VNFS_CANTCACHE
  // vnode is never entered.
  vnode_t c;
  ASSERT_EQ(fs.create(root, "c", &c), 0);
  EXPECT_EQ(hit("c"), c);
  vnode_put(c);
  cn = tinyfs_cn("nc");
  struct vnode_fsparam p = host_test::fsparam(VREG, host_vnode_ops(root), VNFS_CANTCACHE, fs.mp());
  p.vnfs_dvp = root;
  p.vnfs_cnp = &cn;
  vnode_t never;
  ASSERT_EQ(host_test::create_vnode(p, &never), 0);
  cache_enter(root, never, &cn);
  EXPECT_EQ(lookup("nc", &vp), 0);
  host_test::discard(never);
}

// Negative entries answer lookups and deletes, not a create or rename of the last name;
// the cache is bounded.
TEST_F(NameCacheTest, NegativeEntries) {
  enter("missing", nullptr);
  vnode_t vp = nullptr;
  EXPECT_EQ(lookup("missing", &vp), ENOENT);
  EXPECT_EQ(lookup("missing", &vp, DELETE), ENOENT);
  EXPECT_EQ(lookup("missing", &vp, CREATE), 0);
  EXPECT_EQ(lookup("missing", &vp), 0);
  enter("missing", nullptr);
  EXPECT_EQ(lookup("missing", &vp, RENAME), 0);
  enter("missing", nullptr);
  EXPECT_EQ(lookup("missing", &vp, CREATE, MAKEENTRY), ENOENT);

  enter("a", a);
  enter("n2", nullptr);
  cache_purge_negatives(root);
  EXPECT_EQ(lookup("missing", &vp), 0);
  EXPECT_EQ(lookup("n2", &vp), 0);
  EXPECT_EQ(hit("a"), a);

  // The cache is bounded, least recently used first out.
  host_namecache_set_limit(0);  // empty, so that only these entries count
  EXPECT_EQ(host_namecache_count(), 0u);
  host_namecache_set_limit(3);
  enter("n1", nullptr);
  enter("n2", nullptr);
  enter("n3", nullptr);
  EXPECT_EQ(lookup("n1", &vp), ENOENT);  // n1 is now the most recent
  enter("n4", nullptr);
  EXPECT_EQ(host_namecache_count(), 3u);
  EXPECT_EQ(lookup("n2", &vp), 0) << "the least recently used entry survived";
  EXPECT_EQ(lookup("n1", &vp), ENOENT);
  EXPECT_EQ(lookup("n4", &vp), ENOENT);
}

// Purges drop the entries naming a vnode and those inside it; so does a reclaim.
TEST_F(NameCacheTest, PurgeAndReclaimDropEntries) {
  enter("a", a);
  enter("a2", a);
  enter("b", b);
  struct componentname cn = tinyfs_cn("inside");
  cache_enter(a, b, &cn);  // as if a were a directory holding b
  struct componentname ghost = tinyfs_cn("ghost");
  cache_enter(a, nullptr, &ghost);  // and lacking "ghost"
  size_t before = host_namecache_count();
  cache_purge(a);
  EXPECT_EQ(host_namecache_count(), before - 4);
  EXPECT_EQ(hit("a"), nullptr);
  EXPECT_EQ(hit("b"), b);

  vnode_t c;
  ASSERT_EQ(fs.create(root, "c", &c), 0);
  vnode_put(c);
  ASSERT_EQ(vnode_recycle(c), 1);
  vnode_t vp = nullptr;
  EXPECT_EQ(lookup("c", &vp), 0);
  EXPECT_EQ(vp, nullptr);
}

// A hit racing reclaims always carries a live vnode of the right file.
TEST(NameCacheConcurrency, LookupsWhileVnodesAreReclaimed) {
  TinyFs fs;
  vnode_t root = fs.root();
  const char* names[] = {"a", "b", "c", "d"};
  for (const char* n : names) {
    vnode_t vp;
    ASSERT_EQ(fs.create(root, n, &vp), 0);
    vnode_put(vp);
  }
  std::atomic<bool> stop{false};
  std::atomic<int> hits{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop; i++) {
        const char* n = names[(i + t) % 4];
        struct componentname cn = tinyfs_cn(n);
        vnode_t vp = nullptr;
        int r = cache_lookup(root, &vp, &cn);
        if (r == -1) {
          tinyfs_node* node = tinyfs_node_of(vp);
          EXPECT_TRUE(node != nullptr && node->name == n);
          hits++;
        } else if (r == 0) {
          ASSERT_EQ(fs.lookup(root, n, &vp), 0);  // a miss: enter it again
        }
        if (r != ENOENT) vnode_put(vp);
      }
    });
  }
  for (int i = 0; i < 100000 && (i < 400 || hits.load() < 50); i++) {
    if (i % 16 == 0) std::this_thread::yield();
    vnode_t vp;
    if (fs.lookup(root, names[i % 4], &vp) != 0) continue;
    vnode_recycle(vp);
    vnode_put(vp);
  }
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_GT(hits.load(), 0);
  vnode_put(root);
}

}  // namespace
