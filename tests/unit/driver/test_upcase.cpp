// The up-case table: checksum, length limit and every expansion case, with
// the messages and the corruption mark they must leave.

#include <gtest/gtest.h>

#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "tests/support/image_builder.h"

using exvol::test::upcase_items;

namespace {

const char kTooShort[] = "exfat: malformed upcase table (too short)";
const char kRunTooLarge[] = "exfat: malformed upcase table (run too large)";
const char kSourceTooLarge[] = "exfat: malformed upcase table (source too large)";

class UpcaseExpand : public ::testing::Test {
 protected:
  int expand(const std::vector<uint8_t>& data) {
    return exfat_upcase_expand(&mount_, data.data(), static_cast<uint32_t>(data.size()),
                               table_.data());
  }
  // The expansion failed with EIO, exactly one line `message`, XM_CORRUPT.
  void expect_corrupt(const std::vector<uint8_t>& data, const char* message) {
    KernLogCapture log;
    EXPECT_EQ(expand(data), EIO);
    EXPECT_EQ(log.lines(), std::vector<std::string>{message});
    EXPECT_TRUE(mount_.xm_flags & XM_CORRUPT);
  }
  void expect_accepted(const std::vector<uint8_t>& data) {
    KernLogCapture log;
    EXPECT_EQ(expand(data), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(mount_.xm_flags, 0u);
  }
  bool identity_from(uint32_t first) const {
    for (uint32_t c = first; c < EXFAT_UPCASE_ENTRIES; c++)
      if (table_[c] != c)
        return false;
    return true;
  }

  struct exfat_mount mount_ = {};
  std::vector<uint16_t> table_ = std::vector<uint16_t>(EXFAT_UPCASE_ENTRIES, 0xDEAD);
};

}  // namespace

TEST(UpcaseChecksum, RotateRightAndAddEveryByte) {
  const uint8_t data[] = {0x01, 0x02, 0x03};
  // 0 -> 1 -> ror(1) + 2 = 0x80000002 -> ror(0x80000002) + 3 = 0x40000004.
  EXPECT_EQ(exfat_upcase_checksum(data, 3), 0x40000004u);
  EXPECT_EQ(exfat_upcase_checksum(data, 0), 0u);
  std::vector<uint8_t> ascii = exvol::test::compress_upcase(exvol::test::ascii_upcase_table());
  EXPECT_EQ(exfat_upcase_checksum(ascii.data(), static_cast<uint32_t>(ascii.size())),
            exvol::test::upcase_checksum(ascii));
}

TEST(UpcaseLength, LimitIsTheExpandedTableSize) {
  struct exfat_mount mount = {};
  {
    KernLogCapture log;
    EXPECT_EQ(exfat_upcase_check_length(&mount, 131072), 0);
    EXPECT_EQ(exfat_upcase_check_length(&mount, 0), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(mount.xm_flags, 0u);
  }
  for (uint64_t length : {131073ull, 131074ull, 1ull << 32}) {
    struct exfat_mount m = {};
    KernLogCapture log;
    EXPECT_EQ(exfat_upcase_check_length(&m, length), EIO);
    EXPECT_EQ(log.count("exfat: upcase table length is absurdly large"), 1u);
    EXPECT_TRUE(m.xm_flags & XM_CORRUPT);
  }
}

// Compressed tables through runs, with their exact messages when malformed.
TEST_F(UpcaseExpand, RunsAndMalformations) {
  using Items = std::vector<uint16_t>;
  struct Case {
    const char* what;
    std::vector<uint8_t> data;
    const char* message;  // nullptr: accepted
  } cases[] = {
      {"all code units through runs", upcase_items(Items{0xFFFF, 0xFFFF, 0xFFFF, 1}), nullptr},
      {"run reaching 0xFFFF", upcase_items(Items{0xFFFF, 0xFFFA, 0xFFFF, 6}), nullptr},
      {"0xFFFF then a count is a run", upcase_items(Items{0xFFFF, 0xFFFE, 0x41, 0xFFFF, 1}),
       nullptr},
      {"65,535 units", upcase_items(Items{0xFFFF, 0xFFFF}), kTooShort},
      {"no items", {}, kTooShort},
      {"one odd byte", {0x41}, kTooShort},
      {"two items", upcase_items(Items{0x41, 0x42}), kTooShort},
      {"run past 0xFFFF", upcase_items(Items{0xFFFF, 0xFFFA, 0xFFFF, 10}), kRunTooLarge},
      {"items after a full table", upcase_items(Items{0xFFFF, 0xFFFF, 0x41, 0xFFFF, 0}),
       kSourceTooLarge},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mount_.xm_flags = 0;
    if (c.message != nullptr)
      expect_corrupt(c.data, c.message);
    else
      expect_accepted(c.data);
  }
  mount_.xm_flags = 0;  // a final 0xFFFF is a plain item
  expect_accepted(upcase_items(Items{0xFFFF, 0xFFFE, 0x41, 0xFFFF}));
  EXPECT_EQ(table_[0xFFFE], 0x41);
  EXPECT_EQ(table_[0xFFFF], 0xFFFF);
  mount_.xm_flags = 0;  // runs of zero are skipped
  expect_accepted(upcase_items(Items{0xFFFF, 0, 0x41, 0xFFFF, 0, 0xFFFF, 0xFFFF}));
  EXPECT_EQ(table_[0], 0x41);
  EXPECT_TRUE(identity_from(1));
}

TEST(UpcaseLoad, ChecksumIsVerifiedBeforeExpanding) {
  std::vector<uint8_t> data = exvol::test::compress_upcase(exvol::test::ascii_upcase_table());
  uint32_t length = static_cast<uint32_t>(data.size());
  uint32_t sum = exvol::test::upcase_checksum(data);
  std::vector<uint16_t> table(EXFAT_UPCASE_ENTRIES);
  {
    struct exfat_mount mount = {};
    KernLogCapture log;
    EXPECT_EQ(exfat_upcase_load(&mount, data.data(), length, sum + 1, table.data()), EIO);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"exfat: upcase checksum mismatch"});
    EXPECT_TRUE(mount.xm_flags & XM_CORRUPT);
  }
  {
    struct exfat_mount mount = {};
    mount.xm_flags = XM_RDONLY;
    EXPECT_EQ(exfat_upcase_load(&mount, data.data(), length, sum, table.data()), 0);
    EXPECT_EQ(mount.xm_flags, XM_RDONLY);  // other bits untouched
    EXPECT_EQ(table['a'], 'A');
    EXPECT_EQ(table['z'], 'Z');
    EXPECT_EQ(table['A'], 'A');
    EXPECT_EQ(table[0x00E9], 0x00E9);
  }
  {
    // A malformed table with a matching checksum still fails in expansion.
    std::vector<uint8_t> bad = upcase_items({0xFFFF, 0xFFFF});
    struct exfat_mount mount = {};
    KernLogCapture log;
    EXPECT_EQ(exfat_upcase_load(&mount, bad.data(), 4, exvol::test::upcase_checksum(bad),
                                table.data()),
              EIO);
    EXPECT_EQ(log.count(kTooShort), 1u);
  }
}
