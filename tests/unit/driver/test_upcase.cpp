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

std::vector<uint16_t> plain_items() {
  std::vector<uint16_t> items(EXFAT_UPCASE_ENTRIES);
  for (uint32_t c = 0; c < items.size(); c++)
    items[c] = static_cast<uint16_t>(c ^ 0x5A5A) == 0xFFFF ? 0 : static_cast<uint16_t>(c ^ 0x5A5A);
  return items;
}

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

TEST_F(UpcaseExpand, RunsOfZeroAreSkipped) {
  expect_accepted(upcase_items({0xFFFF, 0x0000, 0x0041, 0xFFFF, 0x0000, 0xFFFF, 0xFFFF}));
  EXPECT_EQ(table_[0], 0x41);
  EXPECT_TRUE(identity_from(1));
}

TEST_F(UpcaseExpand, ExactlyAllCodeUnitsThroughRuns) {
  expect_accepted(upcase_items({0xFFFF, 0xFFFF, 0xFFFF, 0x0001}));
  EXPECT_TRUE(identity_from(0));
}

TEST_F(UpcaseExpand, TooShort) {
  expect_corrupt(upcase_items({0xFFFF, 0xFFFF}), kTooShort);  // 65,535 code units
  mount_ = {};
  expect_corrupt({}, kTooShort);                               // no items at all
  mount_ = {};
  expect_corrupt({0x41}, kTooShort);                           // one odd byte, no item
  mount_ = {};
  expect_corrupt(upcase_items({0x41, 0x42}), kTooShort);
}

TEST_F(UpcaseExpand, PlainItemsOnly) {
  std::vector<uint16_t> items = plain_items();
  expect_accepted(upcase_items(items));
  for (uint32_t c = 0; c < EXFAT_UPCASE_ENTRIES; c += 4099)
    EXPECT_EQ(table_[c], items[c]) << c;
  EXPECT_EQ(table_[0xFFFF], items[0xFFFF]);

  // A trailing odd byte is not an item.
  std::vector<uint8_t> odd = upcase_items(items);
  odd.push_back(0x7F);
  expect_accepted(odd);

  // One item more is left over once every code unit is mapped.
  items.push_back(0x0041);
  expect_corrupt(upcase_items(items), kSourceTooLarge);
}

TEST_F(UpcaseExpand, RunPastTheLastCodeUnit) {
  // Identity up to 0xFFF9, then a run of 10 from 0xFFFA: 4 units too many.
  expect_corrupt(upcase_items({0xFFFF, 0xFFFA, 0xFFFF, 10}), kRunTooLarge);
  // Exactly reaching 0xFFFF is fine.
  mount_ = {};
  expect_accepted(upcase_items({0xFFFF, 0xFFFA, 0xFFFF, 6}));
}

TEST_F(UpcaseExpand, ItemsAfterAFullTable) {
  expect_corrupt(upcase_items({0xFFFF, 0xFFFF, 0x0041, 0xFFFF, 0x0000}), kSourceTooLarge);
}

TEST_F(UpcaseExpand, FinalFfffItemIsAPlainValue) {
  // 0..0xFFFD identity, 0xFFFE -> 'A', and a last 0xFFFF maps 0xFFFF.
  expect_accepted(upcase_items({0xFFFF, 0xFFFE, 0x0041, 0xFFFF}));
  EXPECT_EQ(table_[0xFFFE], 0x41);
  EXPECT_EQ(table_[0xFFFF], 0xFFFF);
  // The same 0xFFFF followed by a count starts a run instead.
  mount_ = {};
  expect_accepted(upcase_items({0xFFFF, 0xFFFE, 0x0041, 0xFFFF, 0x0001}));
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
