// File attributes through the vnode operations: what getattr reports and
// what setattr changes in the node and in the entry set on disk.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr int64_t k2024 = 1704067200;  // 2024-01-01 00:00:00 UTC, the builder's default stamp

constexpr uint64_t kAllAttributes =
    VNODE_ATTR_va_rdev | VNODE_ATTR_va_nlink | VNODE_ATTR_va_total_size |
    VNODE_ATTR_va_total_alloc | VNODE_ATTR_va_data_size | VNODE_ATTR_va_data_alloc |
    VNODE_ATTR_va_iosize | VNODE_ATTR_va_uid | VNODE_ATTR_va_gid | VNODE_ATTR_va_mode |
    VNODE_ATTR_va_flags | VNODE_ATTR_va_create_time | VNODE_ATTR_va_access_time |
    VNODE_ATTR_va_modify_time | VNODE_ATTR_va_change_time | VNODE_ATTR_va_fileid |
    VNODE_ATTR_va_parentid | VNODE_ATTR_va_fsid | VNODE_ATTR_va_gen;

class AttrTest : public VolumeTest {
 protected:
  explicit AttrTest(Geometry g = {}) : VolumeTest(g) {}

  // A set in the root with `attributes`; directories get one zeroed cluster.
  uint32_t entry(const std::u16string& name, uint16_t attributes) {
    FileDesc desc;
    desc.name = name;
    desc.attributes = attributes;
    if (attributes & EXFAT_ATTR_DIRECTORY) {
      desc.first_cluster = builder_.allocate(1, Alloc::Chain);
      desc.data_length = builder_.bytes_per_cluster();
    }
    return builder_.add_set(builder_.root(), desc).offset;
  }

  struct vnode_attr getattr(vnode_t vp, uint64_t wanted = kAllAttributes) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    va.va_active = wanted;
    EXPECT_EQ(0, VNOP_GETATTR(vp, &va, ctx_));
    return va;
  }

  int set_flags(vnode_t vp, uint32_t flags) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    VATTR_SET(&va, va_flags, flags);
    return VNOP_SETATTR(vp, &va, ctx_);
  }
  uint16_t disk_attributes(uint32_t offset) { return le16dec(&root_set(offset)[4]); }
};

class AttrBigClusters : public AttrTest {
 protected:
  AttrBigClusters() : AttrTest(Geometry{.cluster_shift = 6, .cluster_count = 64}) {}
};

// Sizes are the data length (a link's is its target's), allocations whole
// 32 KiB clusters, the fixed values the mount's, all marked supported.
TEST_F(AttrBigClusters, SizesAllocationsTimesAndFixedValues) {
  Placed one = builder_.add_file(builder_.root(), u"one", bytes("x"));
  Placed empty = builder_.add_file(builder_.root(), u"empty", {});
  Placed link = builder_.add_file(builder_.root(), u"link", link_contents("../some/target"));
  mount_built();

  struct vnode_attr va = getattr(get(one.offset));
  EXPECT_EQ(kAllAttributes, va.va_supported);
  EXPECT_EQ(1, va.va_data_size);
  EXPECT_EQ(1, va.va_total_size);
  EXPECT_EQ(32768, va.va_data_alloc);
  EXPECT_EQ(32768, va.va_total_alloc);
  EXPECT_EQ(0, static_cast<int>(va.va_rdev));
  EXPECT_EQ(1u, va.va_nlink);
  EXPECT_EQ(99u, va.va_uid);
  EXPECT_EQ(99u, va.va_gid);
  EXPECT_EQ(0755u, va.va_mode);
  EXPECT_EQ(xm->xm_max_io, va.va_iosize);
  EXPECT_EQ(static_cast<dev_t>(xm->xm_dev), va.va_fsid);
  EXPECT_EQ(0u, va.va_gen);
  EXPECT_EQ(one.first_cluster, va.va_fileid);
  EXPECT_EQ(xm->xm_root_cluster, va.va_parentid);
  EXPECT_EQ(k2024, va.va_modify_time.tv_sec);
  EXPECT_EQ(0, va.va_modify_time.tv_nsec);
  EXPECT_EQ(k2024, va.va_change_time.tv_sec);
  EXPECT_EQ(k2024, va.va_access_time.tv_sec);
  EXPECT_EQ(k2024, va.va_create_time.tv_sec);

  va = getattr(get(empty.offset));
  EXPECT_EQ(0, va.va_data_size);
  EXPECT_EQ(0, va.va_total_alloc);
  EXPECT_EQ(1u, va.va_fileid) << "files without clusters are file 1";

  vnode_t lvp = get(link.offset);
  ASSERT_EQ(VLNK, vnode_vtype(lvp));
  va = getattr(lvp);
  EXPECT_EQ(14, va.va_data_size);
  EXPECT_EQ(14, va.va_total_size);
  EXPECT_EQ(32768, va.va_data_alloc);
}

// Attribute bits as flags: read-only only for files, archive pending only
// when Archive is clear, hidden for both, System never.
TEST_F(AttrTest, AttributeBitsAsFlags) {
  struct Case {
    std::u16string name;
    uint16_t attributes;
    uint32_t flags;
  } cases[] = {
      {u"plain", 0x20, 0},
      {u"unarchived", 0x00, SF_ARCHIVED},
      {u"readonly", 0x21, UF_IMMUTABLE},
      {u"hidden", 0x22, UF_HIDDEN},
      {u"system", 0x24, 0},
      {u"all", 0x07, SF_ARCHIVED | UF_IMMUTABLE | UF_HIDDEN},
      {u"dir", 0x10, 0},
      {u"archdir", 0x30, 0},
      {u"rodir", 0x11, 0},
      {u"hiddendir", 0x12, UF_HIDDEN},
  };
  std::vector<uint32_t> offsets;
  for (const Case& c : cases)
    offsets.push_back(entry(c.name, c.attributes));
  mount_built();
  for (size_t i = 0; i < std::size(cases); i++) {
    SCOPED_TRACE(std::string(cases[i].name.begin(), cases[i].name.end()));
    struct vnode_attr va = getattr(get(offsets[i]), VNODE_ATTR_va_flags);
    EXPECT_TRUE(VATTR_IS_SUPPORTED(&va, va_flags));
    EXPECT_EQ(cases[i].flags, va.va_flags);
  }
  EXPECT_EQ(0u, getattr(root_vp_, VNODE_ATTR_va_flags).va_flags);
}

// Setting flags on a file: 0 clears archive pending (sets Archive), read-only
// and hidden but keeps System; each settable flag lands in the entry on disk.
TEST_F(AttrTest, FlagsOfAFile) {
  uint32_t f = entry(u"f", 0x07);  // ReadOnly | Hidden | System, Archive clear
  mount_built();
  vnode_t vp = get(f);
  ASSERT_EQ(0, set_flags(vp, 0));
  EXPECT_EQ(0x24, node_of(vp)->x_attributes);
  EXPECT_EQ(0u, node_of(vp)->x_flags & X_DIRTY) << "the entry set was written back";
  std::vector<uint8_t> set = root_set(f);
  EXPECT_EQ(0x24, le16dec(&set[4]));
  EXPECT_EQ(exfat_checksum_file_set(set.data()), le16dec(&set[2]));

  ASSERT_EQ(0, set_flags(vp, SF_IMMUTABLE));
  EXPECT_EQ(0x25, node_of(vp)->x_attributes);
  EXPECT_EQ(UF_IMMUTABLE, getattr(vp, VNODE_ATTR_va_flags).va_flags);
  ASSERT_EQ(0, set_flags(vp, SF_ARCHIVED | UF_HIDDEN | UF_IMMUTABLE));
  EXPECT_EQ(0x07, node_of(vp)->x_attributes);
  EXPECT_EQ(SF_ARCHIVED | UF_HIDDEN | UF_IMMUTABLE, getattr(vp, VNODE_ATTR_va_flags).va_flags);
  EXPECT_EQ(0x07, disk_attributes(f));
  unmount_and_check();
}

// A flag exFAT can't hold fails the request: its flags and times are not
// changed, but a size change in the same request stays done.
TEST_F(AttrTest, UnknownFlagIsRefused) {
  Placed f = builder_.add_file(builder_.root(), u"f", bytes("abc"));
  mount_built();
  vnode_t vp = get(f.offset);
  const uint32_t refused[] = {UF_NODUMP, UF_APPEND, SF_APPEND, 0x80000000u};
  for (uint32_t bad : refused) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    VATTR_SET(&va, va_flags, bad | UF_HIDDEN);
    EXPECT_EQ(EINVAL, VNOP_SETATTR(vp, &va, ctx_)) << std::hex << bad;
    EXPECT_FALSE(VATTR_IS_SUPPORTED(&va, va_flags));
  }
  EXPECT_EQ(0x20, node_of(vp)->x_attributes);

  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_SET(&va, va_data_size, 2);
  VATTR_SET(&va, va_flags, UF_NODUMP);
  VATTR_SET(&va, va_modify_time, (timespec{k2024 + 86400, 0}));
  EXPECT_EQ(EINVAL, VNOP_SETATTR(vp, &va, ctx_));
  EXPECT_EQ(2u, node_of(vp)->x_size);
  EXPECT_EQ(k2024, getattr(vp).va_modify_time.tv_sec);
  EXPECT_FALSE(VATTR_IS_SUPPORTED(&va, va_modify_time));
  unmount_and_check();
}

// Creation times keep milliseconds, modification times 10 ms, access times
// two-second steps.
TEST_F(AttrTest, SettingTimes) {
  uint32_t f = entry(u"f", 0x00);
  uint32_t d = entry(u"d", 0x10);
  mount_built();
  vnode_t vp = get(f);
  const struct timespec create = {1000000000, 123456789}, modify = {1700000001, 256000000};
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_SET(&va, va_create_time, create);
  VATTR_SET(&va, va_modify_time, modify);
  VATTR_SET(&va, va_access_time, modify);
  VATTR_SET(&va, va_change_time, (timespec{1, 0}));
  ASSERT_EQ(0, VNOP_SETATTR(vp, &va, ctx_));
  EXPECT_TRUE(VATTR_IS_SUPPORTED(&va, va_create_time));
  EXPECT_TRUE(VATTR_IS_SUPPORTED(&va, va_modify_time));
  EXPECT_TRUE(VATTR_IS_SUPPORTED(&va, va_access_time));
  EXPECT_FALSE(VATTR_IS_SUPPORTED(&va, va_change_time));
  EXPECT_EQ(0x20, node_of(vp)->x_attributes);

  va = getattr(vp);
  EXPECT_EQ(1000000000, va.va_create_time.tv_sec);
  EXPECT_EQ(123000000, va.va_create_time.tv_nsec);
  EXPECT_EQ(1700000001, va.va_modify_time.tv_sec);
  EXPECT_EQ(250000000, va.va_modify_time.tv_nsec);
  EXPECT_EQ(1700000001, va.va_change_time.tv_sec);
  EXPECT_EQ(1700000000, va.va_access_time.tv_sec);
  EXPECT_EQ(0, va.va_access_time.tv_nsec);

  std::vector<uint8_t> set = root_set(f);
  uint32_t ts = 0;
  uint8_t increment = 0, utc = 0;
  exfat_timestamp_from_unix(&ts, &increment, &utc, &create, xm->xm_secondsWest);
  EXPECT_EQ(ts, le32dec(&set[8]));
  EXPECT_EQ(increment, set[20]);
  EXPECT_EQ(utc, set[22]);
  exfat_timestamp_from_unix(&ts, &increment, &utc, &modify, xm->xm_secondsWest);
  EXPECT_EQ(ts, le32dec(&set[12]));
  EXPECT_EQ(ts, le32dec(&set[16]));
  EXPECT_EQ(125, set[21]);
  EXPECT_EQ(0x20, le16dec(&set[4]));
  EXPECT_EQ(exfat_checksum_file_set(set.data()), le16dec(&set[2]));

  vnode_t dvp = get(d);
  VATTR_INIT(&va);
  VATTR_SET(&va, va_access_time, (timespec{k2024 + 7200, 0}));
  ASSERT_EQ(0, VNOP_SETATTR(dvp, &va, ctx_));
  EXPECT_EQ(0x30, node_of(dvp)->x_attributes);
  set = root_set(d);
  EXPECT_EQ(0x30, le16dec(&set[4]));
  EXPECT_EQ(le32dec(&set[8]) + (2u << EXFAT_TS_HOUR_SHIFT), le32dec(&set[16]));
  unmount_and_check();
}

// Only regular files have a size to set.
TEST_F(AttrTest, SizeChangesReachTheEntrySet) {
  uint32_t d = entry(u"d", 0x10);
  Placed link = builder_.add_file(builder_.root(), u"link", link_contents("t"));
  Placed f = builder_.add_file(builder_.root(), u"f", bytes("abc"));
  mount_built();
  for (vnode_t other : {get(d), get(link.offset), root_vp_})
    EXPECT_EQ(EPERM, vn_set_size(other, 0));
  EXPECT_EQ(1067u, node_of(get(link.offset))->x_size);

  vnode_t vp = get(f.offset);
  uint32_t free_before = xm->xm_free_clusters;
  EXPECT_EQ(ENOSPC, vn_set_size(vp, uint64_t(free_before + 2) * 4096));
  EXPECT_EQ(3u, node_of(vp)->x_size);
  EXPECT_EQ(free_before, xm->xm_free_clusters);
  EXPECT_EQ(3u, le64dec(&root_set(f.offset)[32 + 24]));

  ASSERT_EQ(0, vn_set_size(vp, 10000));
  EXPECT_EQ(10000, getattr(vp).va_data_size);
  EXPECT_EQ(12288, getattr(vp).va_data_alloc);
  EXPECT_EQ(free_before - 2, xm->xm_free_clusters);
  EXPECT_EQ(10000, ubc_getsize(vp));
  std::vector<uint8_t> set = root_set(f.offset);
  EXPECT_EQ(10000u, le64dec(&set[32 + 24]));
  EXPECT_EQ(3u, le64dec(&set[32 + 8])) << "growth leaves the valid length";
  EXPECT_EQ(exfat_checksum_file_set(set.data()), le16dec(&set[2]));

  ASSERT_EQ(0, vn_set_size(vp, 0));
  EXPECT_EQ(free_before + 1, xm->xm_free_clusters);
  EXPECT_EQ(0, ubc_getsize(vp));
  set = root_set(f.offset);
  EXPECT_EQ(0u, le64dec(&set[32 + 24]));
  EXPECT_EQ(0u, le32dec(&set[32 + 20]));
  unmount_and_check();
}

}  // namespace
