// Lookup: a directory sharing another's clusters, and a restart when the
// vnode is being reclaimed.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "exfat_dirindex.h"
#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/mount.h"
#include "host/namecache.h"
#include "host/vfs.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

namespace {

using namespace exvol::test;

constexpr uint32_t kLastLookup = ISLASTCN | MAKEENTRY;

class LookupTest : public VolumeTest {
 protected:
  // VNOP_LOOKUP of one UTF-8 component, as path resolution calls it. The
  // directory's node lock must be free again afterwards, whatever the
  // outcome.
  int lookup(vnode_t dvp, const std::string& name, uint32_t nameiop, uint32_t flags, Vref* out) {
    Component c(name, nameiop, flags);
    vnode_t vp = NULLVP;
    int error = VNOP_LOOKUP(dvp, &vp, &c.cn, ctx_);
    if (error == 0) {
      out->vp = vp;
    } else {
      EXPECT_EQ(NULLVP, vp) << "a failed lookup must not return a vnode";
    }
    EXPECT_EQ(0u, node_of(dvp)->x_lock_count) << "lookup of " << name << " left the directory locked";
    return error;
  }

  int lookup(const std::string& name, Vref* out, uint32_t nameiop = LOOKUP,
             uint32_t flags = kLastLookup) {
    return lookup(root_vp_, name, nameiop, flags, out);
  }

  // Drops the device's cached blocks and zeroes its counters, so that the
  // next directory read shows up as a device read.
  void forget_device_blocks() {
    ASSERT_EQ(0, buf_invalidateblks(devvp, 0, 0, 0));
    host_blkdev_reset_stats(devvp);
  }

  uint64_t device_reads() { return stats().reads; }
};

// A directory whose clusters are another's lists what that one lists. One
// that lists itself, or an ancestor, must not hand out itself or the
// ancestor as its own child: such a lookup is refused as corruption.
TEST_F(LookupTest, DirectorySharingAnothersClustersIsCorrupt) {
  FileDesc self;
  self.name = u"self";
  self.attributes = EXFAT_ATTR_DIRECTORY;
  self.first_cluster = builder_.root().first_cluster;
  self.data_length = builder_.bytes_per_cluster();
  builder_.add_set(builder_.root(), self);
  Dir a = builder_.mkdir(builder_.root(), u"a");
  FileDesc up = self;
  up.name = u"up";
  builder_.add_set(a, up);
  mount_built();

  Vref selfv, av, upv, found;
  ASSERT_EQ(0, lookup("self", &selfv));
  ASSERT_EQ(0, lookup("a", &av));
  ASSERT_EQ(0, lookup(av.vp, "up", LOOKUP, kLastLookup, &upv));
  EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT);
  KernLogCapture log;
  EXPECT_EQ(EIO, lookup(selfv.vp, "self", LOOKUP, kLastLookup, &found));
  EXPECT_EQ(EIO, lookup(upv.vp, "a", LOOKUP, kLastLookup, &found));
  EXPECT_EQ(2u, log.count_prefix("exfat_node_get: entry at offset "));
  EXPECT_NE(0u, xm->xm_flags & XM_CORRUPT);
  // What the lookups met is still there, each under its own parent.
  EXPECT_EQ(0, lookup("a", &found));
  EXPECT_EQ(av.vp, found.vp);
}

// A missing last component that a create or rename is about to use is
// EJUSTRETURN and leaves no negative entry.
TEST_F(LookupTest, NameCacheEntriesOfHitsAndMisses) {
  builder_.add_file(builder_.root(), u"present", bytes("p"));
  mount_built();
  Vref none;

  size_t entries = host_namecache_count();
  EXPECT_EQ(EJUSTRETURN, lookup("new", &none, CREATE));
  EXPECT_EQ(EJUSTRETURN, lookup("new", &none, RENAME));
  EXPECT_EQ(ENOENT, lookup("dir", &none, CREATE, MAKEENTRY));  // not the last component
  EXPECT_EQ(ENOENT, lookup("nocache", &none, LOOKUP, ISLASTCN));
  EXPECT_EQ(entries, host_namecache_count()) << "none of these may leave a negative entry";

  EXPECT_EQ(ENOENT, lookup("ghost", &none, LOOKUP));
  EXPECT_EQ(ENOENT, lookup("victim", &none, DELETE));
  EXPECT_EQ(entries + 2, host_namecache_count());
  Vref first, second;
  ASSERT_EQ(0, lookup("present", &first));

  forget_device_blocks();
  ASSERT_EQ(0, lookup("present", &second));
  EXPECT_EQ(first.vp, second.vp);
  EXPECT_EQ(ENOENT, lookup("ghost", &none, LOOKUP));
  EXPECT_EQ(ENOENT, lookup("victim", &none, DELETE));
  EXPECT_EQ(0u, device_reads()) << "cache entries must answer without reading the directory";
  EXPECT_EQ(ENOENT, lookup("other", &none, LOOKUP));
  EXPECT_EQ(0u, device_reads()) << "the directory's index answers a miss without reading";
  exfat_dirindex_drop(root_);
  EXPECT_EQ(ENOENT, lookup("another", &none, LOOKUP));
  EXPECT_LT(0u, device_reads()) << "a miss with neither cache nor index reads the directory";

  // A name cached negatively for LOOKUP is still free to create.
  EXPECT_EQ(EJUSTRETURN, lookup("ghost", &none, CREATE));
}

class LookupConcurrency : public LookupTest {};

// A lookup whose node is found in the hash while its vnode is being
// reclaimed starts again, and then finds the name with a new node, instead
// of reporting the reclaim as a missing name.
//
// The reclaim is held up on the file's node lock (which the test holds)
// after it has claimed the vnode; the lookup then walks the directory,
// finds the node and waits for the reclaim, which the test lets go once the
// lookup has let go of the directory.
TEST_F(LookupConcurrency, LookupRestartsWhenTheVnodeIsBeingReclaimed) {
  Placed f = builder_.add_file(builder_.root(), u"a", bytes("data"));
  mount_built();

  Vref first;
  ASSERT_EQ(0, lookup("a", &first, LOOKUP, ISLASTCN));  // no name-cache entry
  vnode_t vp = first.vp;
  struct exfat_node* node = first.node();
  first.reset();  // unused: recyclable
  forget_device_blocks();

  exfat_node_lock(node);
  std::thread reclaimer([vp] { vnode_recycle(vp); });
  // vnode_recycle takes an I/O reference as it claims the vnode.
  EXPECT_TRUE(wait_for([&] { return host_vnode_iocount(vp) == 1; }));

  int error = -1;
  vnode_t found = NULLVP;
  std::thread looker([&] {
    Component c("a", LOOKUP, ISLASTCN);
    error = VNOP_LOOKUP(root_vp_, &found, &c.cn, ctx_);
  });
  // The lookup reads the directory under the directory's lock and drops
  // that lock only to wait for the vnode.
  struct exfat_node* root = root_;
  EXPECT_TRUE(wait_for([&] { return device_reads() > 0; }));
  EXPECT_TRUE(wait_for([&] {
    if (!exfat_node_try_lock(root))
      return false;
    exfat_node_unlock(root);
    return true;
  }));
  exfat_node_unlock(node);
  reclaimer.join();
  looker.join();

  ASSERT_EQ(0, error);
  ASSERT_NE(NULLVP, found);
  EXPECT_EQ(f.offset, node_of(found)->x_dir_offset);
  EXPECT_EQ(4u, node_of(found)->x_size);
  vnode_put(found);
}

}  // namespace
