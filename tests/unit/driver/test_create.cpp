// Create and mkdir as the kernel drives them: the sets written, the
// attributes chosen, the name limit, and a restart when the parent went.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

class CreateTest : public NamespaceTest {};

uint16_t attributes_of(const std::vector<uint8_t>& set) {
  return le16dec(&set[4]);
}

// A new file is an empty Archive file; names of up to 255 units fit.
TEST_F(CreateTest, CreateWritesAnEmptyFileSet) {
  mount_built();
  Vref file;
  ASSERT_EQ(0, create(root_vp_, "Hello.txt", &file));
  ASSERT_EQ(VREG, vnode_vtype(file.vp));
  EXPECT_EQ(root_, file.node()->x_parent);

  std::vector<uint8_t> set = set_of(root_vp_, file.node());
  EXPECT_EQ(EXFAT_ENTRY_FILE, set[0]);
  EXPECT_EQ(2, set[1]);
  EXPECT_EQ(0x20, attributes_of(set));
  EXPECT_EQ(EXFAT_ENTRY_STREAM, set[32]);
  EXPECT_EQ(0u, le32dec(&set[32 + 20]));  // FirstCluster
  EXPECT_EQ(0u, le64dec(&set[32 + 24]));  // DataLength
  EXPECT_EQ(u"Hello.txt", NamespaceTest::set_name(set));
  EXPECT_EQ(le16dec(&set[2]), exfat_checksum_file_set(set.data()));

  Vref again;
  ASSERT_EQ(0, lookup("HELLO.TXT", &again));
  EXPECT_EQ(file.vp, again.vp);
  file.reset();
  again.reset();

  // A name of 255 UTF-16 units fits (17 name entries, SecondaryCount 18),
  // also when it takes 510 bytes of UTF-8; 256 units do not.
  Vref longest, accented;
  ASSERT_EQ(0, create(root_vp_, std::string(255, 'n'), &longest));
  set = set_of(root_vp_, longest.node());
  EXPECT_EQ(18, set[1]);
  EXPECT_EQ(255, set[32 + 3]);

  std::string e_acute;
  for (int i = 0; i < 255; i++)
    e_acute += "\xc3\xa9";
  ASSERT_EQ(0, create(root_vp_, e_acute, &accented));

  Component too_long(std::string(256, 'm'), CREATE);
  struct vnode_attr va;
  VATTR_INIT(&va);
  vnode_t vp = NULLVP;
  EXPECT_EQ(ENAMETOOLONG, VNOP_CREATE(root_vp_, &vp, &too_long.cn, &va, ctx_));
  EXPECT_EQ(ENAMETOOLONG, VNOP_MKDIR(root_vp_, &vp, &too_long.cn, &va, ctx_));
  longest.reset();
  accented.reset();
  unmount_and_check();
}

// A leading dot (and nowhere else) makes the entry Hidden; an immutable flag
// asked for makes it ReadOnly and is reported supported, others are not.
TEST_F(CreateTest, AttributesFromTheNameAndTheFlags) {
  mount_built();
  struct vnode_attr user, system, neither;
  VATTR_INIT(&user);
  VATTR_SET(&user, va_flags, UF_IMMUTABLE);
  VATTR_INIT(&system);
  VATTR_SET(&system, va_flags, SF_IMMUTABLE);
  VATTR_INIT(&neither);
  VATTR_SET(&neither, va_flags, UF_NODUMP);
  Vref hidden, plain, dir, locked, frozen, free;
  ASSERT_EQ(0, create(root_vp_, ".profile", &hidden));
  ASSERT_EQ(0, create(root_vp_, "a.b", &plain));
  ASSERT_EQ(0, mkdir(root_vp_, ".cache", &dir));
  ASSERT_EQ(0, create(root_vp_, "locked", &locked, &user));
  ASSERT_EQ(0, mkdir(root_vp_, "frozen", &frozen, &system));
  ASSERT_EQ(0, create(root_vp_, "free", &free, &neither));
  EXPECT_EQ(0x22, attributes_of(set_of(root_vp_, hidden.node())));
  EXPECT_EQ(0x20, attributes_of(set_of(root_vp_, plain.node())));
  EXPECT_EQ(0x12, attributes_of(set_of(root_vp_, dir.node())));
  EXPECT_EQ(0x12, dir.node()->x_attributes);
  EXPECT_EQ(0x21, attributes_of(set_of(root_vp_, locked.node())));
  EXPECT_EQ(0x11, attributes_of(set_of(root_vp_, frozen.node())));
  EXPECT_EQ(0x20, attributes_of(set_of(root_vp_, free.node())));
  EXPECT_TRUE(VATTR_IS_SUPPORTED(&user, va_flags));
  EXPECT_TRUE(VATTR_IS_SUPPORTED(&system, va_flags));
  EXPECT_FALSE(VATTR_IS_SUPPORTED(&neither, va_flags));
}

// A create whose parent is removed between the lookup and the operation asks
// the kernel to restart (and so do mkdir and symlink).
TEST_F(CreateTest, ParentRemovedBeforeCreateRestarts) {
  builder_.mkdir(builder_.root(), u"tmp");
  mount_built();
  Vref dir;
  ASSERT_EQ(0, lookup("tmp", &dir));
  ASSERT_EQ(0, lookup_free(dir.vp, "late"));
  ASSERT_EQ(0, rmdir(root_vp_, "tmp"));

  Component c("late", CREATE);
  struct vnode_attr va;
  VATTR_INIT(&va);
  vnode_t vp = NULLVP;
  EXPECT_EQ(ERESTART, VNOP_CREATE(dir.vp, &vp, &c.cn, &va, ctx_));
  EXPECT_EQ(ERESTART, VNOP_MKDIR(dir.vp, &vp, &c.cn, &va, ctx_));
  char target[] = "x";
  EXPECT_EQ(ERESTART, VNOP_SYMLINK(dir.vp, &vp, &c.cn, &va, target, ctx_));
  EXPECT_EQ(NULLVP, vp);
  EXPECT_EQ(0u, dir.node()->x_lock_count);
  dir.reset();
  unmount_and_check();
}

}  // namespace
