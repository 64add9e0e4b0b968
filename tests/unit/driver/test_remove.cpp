// Remove and rmdir as the kernel drives them: a node of another directory
// looked up again, emptiness and what rmdir frees.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/kern.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

class RemoveTest : public NamespaceTest {
 protected:
  uint64_t link_count(vnode_t vp) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    VATTR_WANTED(&va, va_nlink);
    EXPECT_EQ(0, VNOP_GETATTR(vp, &va, ctx_));
    EXPECT_TRUE(VATTR_IS_SUPPORTED(&va, va_nlink));
    return va.va_nlink;
  }

  // A directory of the builder's root holding one set whose benign primary
  // (0xA5) owns a contiguous run and whose vendor secondary (0xE1) owns a
  // FAT chain. Returns the clusters the two allocations hold.
  std::vector<uint32_t> add_dir_with_benign_set(const std::u16string& name) {
    Dir dir = builder_.mkdir(builder_.root(), name);
    uint32_t run = builder_.allocate(2, Alloc::Contiguous);
    uint32_t chain = builder_.allocate(3, Alloc::Chain);
    std::vector<uint8_t> set(64, 0);
    set[0] = 0xA5;
    set[1] = 1;                                         // SecondaryCount
    le16enc(&set[4], EXFAT_SECONDARY_ALLOCATION_POSSIBLE | EXFAT_SECONDARY_NO_FAT_CHAIN);
    le32enc(&set[20], run);
    le64enc(&set[24], 2 * 512 - 100);                   // rounds up to 2 clusters
    set[32] = EXFAT_ENTRY_VENDOR_ALLOC;
    set[33] = EXFAT_SECONDARY_ALLOCATION_POSSIBLE;      // chained
    le32enc(&set[32 + 20], chain);
    le64enc(&set[32 + 24], 3 * 512);
    fix_set_checksum(set);
    builder_.add_entries(dir, set);
    std::vector<uint32_t> clusters = {run, run + 1};
    for (uint32_t c = chain; c != 0xFFFFFFFF; c = builder_.fat(c))
      clusters.push_back(c);
    return clusters;
  }
};

// A vnode that no longer lives in the directory it is named in (the kernel
// looked it up before it moved) is sent back for a new lookup, even when
// the directory holds a set of that name at the node's offset: remove and
// rename must not act on that other set.
TEST_F(RemoveTest, NodeOfAnotherDirectoryIsLookedUpAgain) {
  Dir a = builder_.mkdir(builder_.root(), u"a");
  Dir b = builder_.mkdir(builder_.root(), u"b");
  Placed in_a = builder_.add_file(a, u"x", bytes("in a"));
  Placed in_b = builder_.add_file(b, u"x", bytes("in b"));
  ASSERT_EQ(in_a.offset, in_b.offset);
  mount_built();
  Vref av, bv, stale;
  ASSERT_EQ(0, lookup("a", &av));
  ASSERT_EQ(0, lookup("b", &bv));
  ASSERT_EQ(0, lookup(bv.vp, "x", LOOKUP, &stale));
  const std::vector<uint8_t> set_in_a = dir_bytes(av.vp, in_a.offset, 96);

  Component c("x", DELETE);
  EXPECT_EQ(ERESTART, VNOP_REMOVE(av.vp, stale.vp, &c.cn, 0, ctx_));
  Component to("y", RENAME);
  EXPECT_EQ(ERESTART, VNOP_RENAME(av.vp, stale.vp, &c.cn, av.vp, NULLVP, &to.cn, ctx_));
  EXPECT_EQ(0u, stale.node()->x_flags & X_DELETED);
  EXPECT_EQ(set_in_a, dir_bytes(av.vp, in_a.offset, 96));
  stale.reset();
  av.reset();
  bv.reset();
  unmount_and_check();
}

// A directory holding a file is not empty, and is left as it was; one
// holding only a Volume GUID entry is empty and goes, clusters and all; one
// holding a benign set releases what it holds, a contiguous run and a FAT
// chain, with its own cluster.
TEST_F(RemoveTest, RmdirEmptinessAndWhatItFrees) {
  Dir full = builder_.mkdir(builder_.root(), u"full");
  builder_.add_file(full, u"f", bytes("x"));
  Dir guid = builder_.mkdir(builder_.root(), u"guid");
  builder_.add_entry(guid, guid_entry({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
  std::vector<uint32_t> held = add_dir_with_benign_set(u"vendor");
  mount_built();
  uint32_t free_before = free_clusters();

  EXPECT_EQ(ENOTEMPTY, rmdir(root_vp_, "full"));
  Vref still, inside;
  ASSERT_EQ(0, lookup("full", &still));
  EXPECT_EQ(0, lookup(still.vp, "f", LOOKUP, &inside));

  ASSERT_EQ(0, rmdir(root_vp_, "guid"));
  settle_frees();
  Vref gone;
  EXPECT_EQ(ENOENT, lookup("guid", &gone));
  EXPECT_FALSE(used(guid.first_cluster));
  EXPECT_EQ(free_before + 1, free_clusters());

  Vref dir;
  ASSERT_EQ(0, lookup("vendor", &dir));
  uint32_t own = dir.node()->x_start_cluster;
  dir.reset();
  for (uint32_t c : held)
    ASSERT_TRUE(used(c)) << c;
  ASSERT_EQ(0, rmdir(root_vp_, "vendor"));
  settle_frees();
  for (uint32_t c : held)
    EXPECT_FALSE(used(c)) << c;
  EXPECT_FALSE(used(own));
  EXPECT_EQ(free_before + 1 + held.size() + 1, free_clusters());
  still.reset();
  inside.reset();
  unmount_and_check();
}

}  // namespace
