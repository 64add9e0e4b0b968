// Rename as the kernel drives it: sets that can't grow, a stale cached
// target, and opposite moves on threads.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

class RenameTest : public NamespaceTest {
 protected:
  std::string vnode_name(vnode_t vp) {
    char name[256];
    int n = vnode_getname_copy(vp, name, sizeof(name));
    return std::string(name, static_cast<size_t>(n));
  }
};

// A set of 255 secondaries behind a one-entry name (extra vendor entries
// fill it) can take any name that needs one name entry, and no longer one:
// that rename is refused with nothing changed, Hidden bit included.
TEST_F(RenameTest, FullSetKeepsNamesOfItsSize) {
  Dir dir = builder_.mkdir(builder_.root(), u"d", 34);
  FileDesc full;
  full.name = u"full";
  for (int i = 0; i < 253; i++)
    full.extra_secondaries.push_back(raw_entry(EXFAT_ENTRY_VENDOR_EXT, 0, 0, i));
  Placed placed = builder_.add_set(dir, full);
  mount_built();
  Vref d, file;
  ASSERT_EQ(0, lookup("d", &d));
  ASSERT_EQ(0, lookup(d.vp, "full", LOOKUP, &file));
  const std::vector<uint8_t> before = dir_bytes(d.vp, 0, 34 * 512);

  for (const std::string& name : {std::string("sixteen chars ab"), std::string(".sixteen chars a"),
                                  std::string(255, 'x')}) {
    SCOPED_TRACE(name.substr(0, 16));
    EXPECT_EQ(ENAMETOOLONG, rename(d.vp, "full", d.vp, name));
    EXPECT_EQ(placed.offset, file.node()->x_dir_offset);
    EXPECT_EQ(EXFAT_ATTR_ARCHIVE, file.node()->x_attributes);
    EXPECT_TRUE(dir_bytes(d.vp, 0, 34 * 512) == before);
  }

  ASSERT_EQ(0, rename(d.vp, "full", d.vp, ".fifteen chars."));
  std::vector<uint8_t> set = set_of(d.vp, file.node());
  EXPECT_EQ(255, set[1]);
  EXPECT_EQ(u".fifteen chars.", NamespaceTest::set_name(set));
  EXPECT_EQ(EXFAT_ATTR_ARCHIVE | EXFAT_ATTR_HIDDEN, le16dec(&set[4]));
  EXPECT_EQ(252u, le64dec(&set[255 * 32 + 24])) << "the last vendor entry moved";
  EXPECT_EQ(le16dec(&set[2]), exfat_checksum_file_set(set.data()));
}

// A target the kernel found in its name cache, in a directory that can no
// longer be searched past a corrupt entry before it: the restart is not
// answered from the cache again, so the rename ends with the walk's error
// instead of restarting forever.
TEST_F(RenameTest, RestartDoesNotReuseAStaleCachedTarget) {
  builder_.add_file(builder_.root(), u"src", bytes("s"));
  uint32_t bad = builder_.root().next_offset;
  builder_.skip_to(builder_.root(), bad + 32);
  builder_.add_file(builder_.root(), u"t", bytes("t"));
  mount_built();
  Vref target;
  ASSERT_EQ(0, lookup(root_vp_, "t", LOOKUP, &target));
  target.reset();
  uint8_t critical = 0x84;
  exfat_node_lock(root_);
  ASSERT_EQ(0, exfat_dir_write(root_, nullptr, &critical, bad, 1, false, ctx_));
  exfat_node_unlock(root_);

  KernLogCapture log;
  EXPECT_EQ(EIO, settled([&] { return rename(root_vp_, "src", root_vp_, "t"); }));
  EXPECT_NE(0u, xm->xm_flags & XM_CORRUPT);
}

class RenameConcurrency : public NamespaceTest {};

// Two threads moving files back and forth between two directories in opposite
// directions while a third creates in both.
TEST_F(RenameConcurrency, OppositeMovesBetweenTwoDirectories) {
  mount_built();
  Vref left, right;
  ASSERT_EQ(0, mkdir(root_vp_, "left", &left));
  ASSERT_EQ(0, mkdir(root_vp_, "right", &right));
  constexpr int kFiles = 4;
  for (int i = 0; i < kFiles; i++) {
    Vref l, r;
    ASSERT_EQ(0, create(left.vp, "l" + std::to_string(i), &l));
    ASSERT_EQ(0, create(right.vp, "r" + std::to_string(i), &r));
  }
  std::vector<int> failures(3, 0);
  auto mover = [&](int t, vnode_t from, vnode_t to, const std::string& prefix) {
    for (int round = 0; round < 6; round++) {
      for (int i = 0; i < kFiles; i++) {
        std::string name = prefix + std::to_string(i);
        bool there = round % 2 == 0;
        if (rename(there ? from : to, name, there ? to : from, name) != 0)
          failures[t]++;
      }
    }
  };
  std::thread a(mover, 0, left.vp, right.vp, "l");
  std::thread b(mover, 1, right.vp, left.vp, "r");
  std::thread c([&] {
    for (int i = 0; i < 8; i++) {
      Vref made;
      if (create(i % 2 ? left.vp : right.vp, "new" + std::to_string(i), &made) != 0)
        failures[2]++;
    }
  });
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(std::vector<int>(3, 0), failures);
  for (int i = 0; i < kFiles; i++) {
    Vref l, r;
    EXPECT_EQ(0, lookup(left.vp, "l" + std::to_string(i), LOOKUP, &l));
    EXPECT_EQ(0, lookup(right.vp, "r" + std::to_string(i), LOOKUP, &r));
  }
  left.reset();
  right.reset();
  unmount_and_check();
}

}  // namespace
