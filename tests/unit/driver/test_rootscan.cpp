// The root directory scan at mount: which bitmap is opened, duplicate
// system entries, the volume label, the Volume GUID, and volumes that lack
// a bitmap or an up-case table.

#include <functional>

#include "tests/unit/driver/host_mount_fixture.h"
#include "tests/support/image_builder.h"

using namespace exvol::test;

namespace {

uint32_t used_clusters(const ImageBuilder& b) {
  uint32_t used = 0;
  for (uint32_t c = 2; c < b.geometry().cluster_count + 2; c++)
    used += b.allocated(c) ? 1 : 0;
  return used;
}

// A cluster whose bytes are all 0xFF: a bitmap that says every cluster is
// in use, to tell a wrongly opened bitmap by the free count.
uint32_t full_bitmap_cluster(ImageBuilder& b) {
  uint32_t c = b.allocate(1, Alloc::Chain);
  b.write_data(c, Alloc::Chain, std::vector<uint8_t>(b.bytes_per_cluster(), 0xFF));
  return c;
}

const std::array<uint8_t, 16> kGuid = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                       0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

}  // namespace

class RootScan : public MountTest {};

TEST_F(RootScan, SecondActiveBitmapIsReportedAndIgnored) {
  ImageBuilder b;
  uint32_t decoy = full_bitmap_cluster(b);
  b.add_bitmap_entry();
  b.add_entry(b.root(), bitmap_entry(0x00, decoy, b.bitmap_length()));
  b.add_upcase_entry();
  uint32_t used = used_clusters(b);
  ASSERT_EQ(0, load(b.build()));
  KernLogCapture log;
  ASSERT_EQ(0, mount(MNT_RDONLY));
  EXPECT_EQ(1u, log.count("exfat: Found two active bitmap files!"));
  EXPECT_EQ(b.geometry().cluster_count - used, xm->xm_free_clusters);
}

// The last label wins and is reported decomposed; one that can't be
// converted fails the mount.
TEST_F(RootScan, LabelEntries) {
  Entry unpaired = label_entry(u"AB");
  unpaired[2] = 0x00;  // an unpaired high surrogate
  unpaired[3] = 0xD8;
  Entry deleted = label_entry(u"GONE");
  deleted[0] = 0x03;
  Entry overlong = label_entry(u"ELEVENCHARS", 200);
  overlong[24] = 'X';
  struct Case {
    const char* what;
    std::vector<Entry> entries;
    const char* label;  // none: the mount fails
    bool recorded;  // at the last entry's offset
  } cases[] = {
      {"last wins", {label_entry(u"FIRST"), label_entry(u"Été")}, "E\xCC\x81te\xCC\x81", true},
      {"deleted", {deleted}, "", false},
      {"no characters", {label_entry(u"IGNORED", 0)}, "", true},
      {"overlong count", {overlong}, "ELEVENCHARS", true},
      {"unpaired surrogate", {unpaired}, nullptr, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ImageBuilder b = mountable();
    Placed last;
    for (const Entry& e : c.entries)
      last = b.add_entry(b.root(), e);
    ASSERT_EQ(0, load(b.build()));
    if (c.label == nullptr) {
      EXPECT_EQ(EINVAL, mount(MNT_RDONLY));
      expect_nothing_left("after a bad label");
      continue;
    }
    ASSERT_EQ(0, mount(MNT_RDONLY));
    EXPECT_STREQ(c.label, xm->xm_label);
    EXPECT_EQ(c.recorded ? last.offset : EXFAT_NO_LABEL_OFFSET, xm->xm_label_offset);
    ASSERT_EQ(0, unmount());
  }
}

// A valid Volume GUID entry gives the UUID; one with a wrong checksum (or
// a checksum right only for a two-entry set) leaves the serial's UUID.
TEST_F(RootScan, VolumeGuidGivesTheUuidOnlyWithItsChecksum) {
  for (int variant = 0; variant < 3; variant++) {
    SCOPED_TRACE(variant);
    ImageBuilder b = mountable(Geometry{.serial = 0x12345678});
    if (variant == 0) {
      b.add_guid(kGuid);
    } else if (variant == 1) {
      b.add_guid(kGuid, false);
    } else {
      Entry e = guid_entry(kGuid);
      e[1] = 1;
      std::vector<uint8_t> set(e.begin(), e.end());
      set.resize(64);
      fix_set_checksum(set);
      b.add_entries(b.root(), set);
    }
    ASSERT_EQ(0, load(b.build()));
    ASSERT_EQ(0, mount(MNT_RDONLY));
    EXPECT_EQ(variant == 0 ? "33221100-5544-7766-8899-AABBCCDDEEFF"
                           : "9246EF5C-39A0-3E38-8960-B3D469327E21",
              uuid_string(xm->xm_uuid));
    ASSERT_EQ(0, unmount());
  }
}

// Root scans the mount refuses, read-write and read-only: without an
// up-case table or an active bitmap EINVAL and its messages, with a broken
// up-case table EIO, with a bitmap outside the heap an errno. Nothing is
// left behind, and nothing is written read-only or when a system file is
// missing.
TEST_F(RootScan, RefusedRootDirectoriesUnwind) {
  const std::string kNoUpcase = "exfat_scan_root_dir: No upcase table!";
  const std::string kNoBitmap = "exfat_scan_root_dir: No volume bitmap!";
  struct Case {
    const char* what;
    std::function<void(ImageBuilder&)> entries;
    int error;  // 0: any errno
    bool no_upcase, no_bitmap;
  } cases[] = {
      {"no up-case", [](ImageBuilder& b) { b.add_bitmap_entry(); }, EINVAL, true, false},
      {"second-FAT bitmap only",
       [](ImageBuilder& b) { b.add_bitmap_entry(0x01).add_upcase_entry(); }, EINVAL, false, true},
      {"neither", [](ImageBuilder& b) { b.add_label(u"EMPTY"); }, EINVAL, true, true},
      {"up-case checksum", [](ImageBuilder& b) { b.add_bitmap_entry().add_upcase_entry(1); }, EIO},
      {"up-case too long",
       [](ImageBuilder& b) {
         b.add_bitmap_entry().add_entry(b.root(), upcase_entry(0, b.upcase_cluster(), 0x20001));
       },
       EIO},
      {"up-case too short",
       [](ImageBuilder& b) {
         b.set_upcase_data(upcase_items({0xFFFF, 0x1000})).add_bitmap_entry().add_upcase_entry();
       },
       EIO},
      {"bitmap outside the heap",
       [](ImageBuilder& b) {
         b.add_entry(b.root(), bitmap_entry(0, 0x7FFFFFF0, b.bitmap_length()));
         b.add_upcase_entry();
       },
       0},
  };
  for (const Case& c : cases) {
    for (uint64_t flags : {uint64_t{0}, uint64_t{MNT_RDONLY}}) {
      SCOPED_TRACE(std::string(c.what) + (flags ? ", read-only" : ""));
      ImageBuilder b;
      c.entries(b);
      std::vector<uint8_t> image = b.build();
      ASSERT_EQ(0, load(image));
      int use = host_vnode_usecount(devvp);
      KernLogCapture log;
      int error = mount(flags);
      if (c.error != 0) {
        EXPECT_EQ(c.error, error);
      } else {
        EXPECT_GT(error, 0);
      }
      EXPECT_EQ(c.no_upcase ? 1u : 0u, log.count(kNoUpcase));
      EXPECT_EQ(c.no_bitmap ? 1u : 0u, log.count(kNoBitmap));
      EXPECT_EQ(use, host_vnode_usecount(devvp)) << "the device is released";
      if (flags == MNT_RDONLY || c.error == EINVAL) {
        EXPECT_EQ(image, read_device(0, image.size())) << "nothing may be written";
      }
      expect_nothing_left(c.what);
    }
  }
}
