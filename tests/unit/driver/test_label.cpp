// Renaming the volume through VFS_SETATTR: which names fit and how the
// label entry holds them. Read-only volumes are the model checker's.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/mount.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;  // default geometry
constexpr uint32_t kSystemEntriesEnd = 64;  // after the bitmap and up-case entries

class LabelTest : public VolumeTest {
 protected:
  // Renames the volume; *supported tells whether the name was marked set.
  int set_label(const char* name, bool* supported = nullptr) {
    struct vfs_attr va;
    VFSATTR_INIT(&va);
    std::string copy = name;
    va.f_vol_name = copy.data();
    VFSATTR_WANTED(&va, f_vol_name);
    int error = VFS_SETATTR(mp, &va, vfs_context_kernel());
    if (supported != nullptr)
      *supported = VFSATTR_IS_SUPPORTED(&va, f_vol_name);
    return error;
  }

  // The name getattr reports.
  std::string reported_label() {
    struct vfs_attr va;
    VFSATTR_INIT(&va);
    char name[MAXPATHLEN];
    va.f_vol_name = name;
    VFSATTR_WANTED(&va, f_vol_name);
    EXPECT_EQ(0, VFS_GETATTR(mp, &va, vfs_context_kernel()));
    EXPECT_TRUE(VFSATTR_IS_SUPPORTED(&va, f_vol_name));
    return name;
  }

  // Root directory bytes on the device, once delayed writes went out.
  std::vector<uint8_t> root_bytes(uint32_t offset, uint32_t length) {
    buf_flushdirtyblks(xm->xm_devvp, 1, 0, "test");
    return read_device(builder_.dir_byte_offset(builder_.root(), offset), length);
  }

  // Label entries in the root's first cluster on the device.
  int label_entries() {
    std::vector<uint8_t> root = root_bytes(0, kCluster);
    int n = 0;
    for (uint32_t i = 0; i < kCluster; i += 32)
      n += root[i] == EXFAT_ENTRY_LABEL;
    return n;
  }
};

// Eleven UTF-16 units fit, whatever their UTF-8 length.
TEST_F(LabelTest, ElevenUnitsFitTwelveDoNot) {
  mount_built();
  std::vector<uint8_t> root = root_bytes(0, kCluster);
  EXPECT_EQ(ENAMETOOLONG, set_label("TWELVE CHARS"));
  EXPECT_EQ(EINVAL, set_label("BAD\xFF"));
  EXPECT_EQ(EINVAL, set_label("\xC3"));  // cut in the middle of a character
  EXPECT_EQ(EXFAT_NO_LABEL_OFFSET, xm->xm_label_offset);
  EXPECT_EQ(root, root_bytes(0, kCluster));
  EXPECT_EQ("", reported_label());

  const char* eleven = "\xC3\x80\xC3\x81\xC3\x82\xC3\x83\xC3\x84\xC3\x85"  // ÀÁÂÃÄÅ
                       "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE2\x82\xAC"    // 日本語€
                       "Z";
  ASSERT_EQ(0, set_label(eleven));
  std::vector<uint8_t> entry = root_bytes(xm->xm_label_offset, 32);
  EXPECT_EQ(11, entry[1]);
  EXPECT_EQ(0x00C0, le16dec(&entry[2]));
  EXPECT_EQ(0x65E5, le16dec(&entry[2 + 2 * 6]));
  EXPECT_EQ('Z', le16dec(&entry[2 + 2 * 10]));
  EXPECT_EQ(std::vector<uint8_t>(8, 0), std::vector<uint8_t>(entry.begin() + 24, entry.end()));
  // Reported decomposed: the accented capitals take three bytes each.
  const std::string eleven_reported =
      "A\xCC\x80" "A\xCC\x81" "A\xCC\x82" "A\xCC\x83" "A\xCC\x88" "A\xCC\x8A"
      "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE2\x82\xAC" "Z";
  EXPECT_EQ(eleven_reported, reported_label());

  bool supported = true;
  EXPECT_EQ(ENAMETOOLONG, set_label("ABCDEFGHIJKL", &supported));
  EXPECT_FALSE(supported);
  EXPECT_EQ(eleven_reported, reported_label());
  EXPECT_EQ(entry, root_bytes(xm->xm_label_offset, 32));

  // Eleven characters given decomposed are eleven units once composed.
  std::string decomposed;
  for (int i = 0; i < 11; i++)
    decomposed += "e\xCC\x81";
  EXPECT_EQ(0, set_label(decomposed.c_str()));
  EXPECT_EQ(decomposed, reported_label());
  unmount_and_check();
}

}  // namespace
