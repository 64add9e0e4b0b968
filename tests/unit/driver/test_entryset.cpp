// Directory entry sets: checksum, validation, name hash, building a set,
// copying a name into it and renaming it in place.

#include <gtest/gtest.h>

#include <vector>

#include "exfat_proto.h"
#include "host/time.h"
#include "tests/support/image_builder.h"

using exvol::test::FileDesc;
using exvol::test::make_file_set;

namespace {

std::vector<uint16_t> units(const std::u16string& s) {
  return std::vector<uint16_t>(s.begin(), s.end());
}

// A whole-set buffer holding `set`, the rest filled with junk that the
// functions must not depend on.
std::vector<uint8_t> buffer(const std::vector<uint8_t>& set, uint8_t fill = 0xEE) {
  std::vector<uint8_t> buf(EXFAT_SET_BUFFER_SIZE, fill);
  memcpy(buf.data(), set.data(), set.size());
  return buf;
}

std::vector<uint8_t> file_set(const std::u16string& name, std::vector<exvol::test::Entry> extra = {}) {
  FileDesc desc{.name = name, .first_cluster = 7, .data_length = 100};
  desc.extra_secondaries = std::move(extra);
  return make_file_set(desc, exvol::test::ascii_upcase_table());
}

void restamp(std::vector<uint8_t>& set) {
  le16enc(set.data() + 2, exfat_checksum_file_set(set.data()));
}

class EntrySet : public ::testing::Test {
 protected:
  std::vector<uint16_t> upcase_ = exvol::test::ascii_upcase_table();
};

}  // namespace

TEST(EntrySetChecksum, KnownValueAndSkippedField) {
  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0);
  set[0] = EXFAT_ENTRY_FILE;
  set[4] = 0x10;
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  set[2] = 0x12;
  set[3] = 0x34;
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  // Bytes past the set's length (SecondaryCount 0: one entry) don't count.
  set[32] = 0xC0;
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  set[1] = 1;  // now they do
  EXPECT_NE(exfat_checksum_file_set(set.data()), 0x0628);
}

TEST(EntrySetChecksum, AgreesWithAnIndependentImplementationUpTo256Entries) {
  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE);
  for (size_t i = 0; i < set.size(); i++)
    set[i] = static_cast<uint8_t>(i * 37 + (i >> 8));
  for (int count : {0, 1, 2, 18, 255}) {
    set[1] = static_cast<uint8_t>(count);
    EXPECT_EQ(exfat_checksum_file_set(set.data()), exvol::test::set_checksum(set.data())) << count;
  }
}

TEST(EntrySetValidity, ChecksumDecidesFirst) {
  std::vector<uint8_t> set = buffer(file_set(u"hello.txt"));
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
  set[2] ^= 1;
  EXPECT_FALSE(exfat_valid_entry_set(set.data()));

  // An unknown benign primary passes on its checksum alone.
  std::vector<uint8_t> benign(EXFAT_SET_BUFFER_SIZE, 0);
  benign[0] = 0xA5;
  benign[1] = 2;
  benign[32] = 0x17;  // not a stream: not examined
  restamp(benign);
  EXPECT_TRUE(exfat_valid_entry_set(benign.data()));
  benign[40] ^= 0xFF;
  EXPECT_FALSE(exfat_valid_entry_set(benign.data()));
}

TEST(EntrySetValidity, FileSetShape) {
  std::vector<uint8_t> set = buffer(file_set(u"hello.txt"));

  std::vector<uint8_t> no_secondaries = set;
  no_secondaries[1] = 0;
  restamp(no_secondaries);
  EXPECT_FALSE(exfat_valid_entry_set(no_secondaries.data()));

  std::vector<uint8_t> no_stream = set;
  no_stream[32] = EXFAT_ENTRY_NAME;
  restamp(no_stream);
  EXPECT_FALSE(exfat_valid_entry_set(no_stream.data()));

  // NameLength 0 with only the stream entry.
  std::vector<uint8_t> unnamed = set;
  unnamed[1] = 1;
  unnamed[35] = 0;
  restamp(unnamed);
  EXPECT_TRUE(exfat_valid_entry_set(unnamed.data()));
}

TEST(EntrySetValidity, EnoughNameEntriesForTheNameLength) {
  std::vector<uint8_t> set = buffer(file_set(std::u16string(16, u'x')));  // 2 name entries
  ASSERT_EQ(set[1], 3);
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));

  std::vector<uint8_t> short_count = set;
  short_count[1] = 2;
  restamp(short_count);
  EXPECT_FALSE(exfat_valid_entry_set(short_count.data()));

  std::vector<uint8_t> second_not_name = set;
  second_not_name[96] = 0xC2;
  restamp(second_not_name);
  EXPECT_FALSE(exfat_valid_entry_set(second_not_name.data()));

  // Secondaries after the name entries are allowed and not examined, and
  // neither is the stored name hash.
  std::vector<uint8_t> extra = buffer(file_set(std::u16string(16, u'x'), {exvol::test::raw_entry(0xE0)}));
  extra[36] ^= 0xFF;
  restamp(extra);
  EXPECT_TRUE(exfat_valid_entry_set(extra.data()));
}

TEST_F(EntrySet, NameHashFoldsCase) {
  std::vector<uint16_t> a = units(u"a"), A = units(u"A");
  EXPECT_EQ(exfat_name_hash(upcase_.data(), 1, a.data()), exfat_name_hash(upcase_.data(), 1, A.data()));
  EXPECT_EQ(exfat_name_hash(upcase_.data(), 0, a.data()), 0);

  std::u16string mixed = u"Hello World \u00e9\u4e2d.Txt";
  std::vector<uint16_t> m = units(mixed);
  EXPECT_EQ(exfat_name_hash(upcase_.data(), static_cast<uint8_t>(m.size()), m.data()),
            exvol::test::name_hash(mixed, upcase_));
}

TEST_F(EntrySet, NameHashCoversAll255Units) {
  std::vector<uint16_t> name(255, u'k');
  uint16_t h = exfat_name_hash(upcase_.data(), 255, name.data());
  EXPECT_EQ(h, exvol::test::name_hash(std::u16string(255, u'k'), upcase_));
  name[254] = u'j';
  EXPECT_NE(exfat_name_hash(upcase_.data(), 255, name.data()), h);
}

TEST_F(EntrySet, InitBuildsAValidSetStampedNow) {
  struct timespec now = {1718446273, 123456789};  // 2024-06-15 10:11:13.12 UTC
  host_set_nanotime(&now);
  int32_t saved = exfat_secondsWest;
  exfat_secondsWest = 0;

  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0xEE);
  std::vector<uint16_t> name = units(u"abcdefghijklmno");  // 15 units: one name entry
  uint16_t sum = exfat_file_set_init(set.data(), name.data(), 15, 0xBEEF, EXFAT_ATTR_DIRECTORY);
  host_set_nanotime(nullptr);
  exfat_secondsWest = saved;

  EXPECT_EQ(le16dec(set.data() + 2), sum);
  EXPECT_EQ(sum, exfat_checksum_file_set(set.data()));
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
  const auto* fe = reinterpret_cast<const struct exfat_file_entry*>(set.data());
  EXPECT_EQ(fe->EntryType, EXFAT_ENTRY_FILE);
  EXPECT_EQ(fe->SecondaryCount, 2);
  EXPECT_EQ(le16dec(fe->FileAttributes), EXFAT_ATTR_DIRECTORY);
  for (const uint8_t* ts : {fe->CreateTimestamp, fe->LastModifiedTimestamp, fe->LastAccessedTimestamp})
    EXPECT_EQ(le32dec(ts), 0x58CF5166u);
  EXPECT_EQ(fe->Create10msIncrement, 112);  // odd second + 12 hundredths
  EXPECT_EQ(fe->LastModified10msIncrement, 112);
  EXPECT_EQ(fe->CreateUtcOffset, 0x80);
  EXPECT_EQ(fe->LastModifiedUtcOffset, 0x80);
  EXPECT_EQ(fe->LastAccessedUtcOffset, 0x80);

  const auto* st = reinterpret_cast<const struct exfat_stream_entry*>(set.data() + 32);
  EXPECT_EQ(st->EntryType, EXFAT_ENTRY_STREAM);
  EXPECT_EQ(st->GeneralSecondaryFlags, EXFAT_SECONDARY_ALLOCATION_POSSIBLE);
  EXPECT_EQ(st->NameLength, 15);
  EXPECT_EQ(le16dec(st->NameHash), 0xBEEF);
  EXPECT_EQ(le32dec(st->FirstCluster), 0u);
  EXPECT_EQ(le64dec(st->DataLength), 0u);
  EXPECT_EQ(le64dec(st->ValidDataLength), 0u);

  const auto* ne = reinterpret_cast<const struct exfat_name_entry*>(set.data() + 64);
  EXPECT_EQ(ne->EntryType, EXFAT_ENTRY_NAME);
  EXPECT_EQ(le16dec(ne->FileName + 28), u'o');  // the 15th unit, no padding
  // Everything past the set is zero: the junk was cleared.
  for (size_t i = 96; i < set.size(); i++)
    ASSERT_EQ(set[i], 0) << i;
}

TEST_F(EntrySet, InitPadsTheLastNameEntry) {
  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0xEE);
  std::vector<uint16_t> name(16, u'x');
  exfat_file_set_init(set.data(), name.data(), 16, 0, 0);
  EXPECT_EQ(set[1], 3);
  EXPECT_EQ(set[96], EXFAT_ENTRY_NAME);
  EXPECT_EQ(le16dec(set.data() + 96 + 2), u'x');
  for (int unit = 1; unit < 15; unit++)
    EXPECT_EQ(le16dec(set.data() + 96 + 2 + 2 * unit), 0) << unit;
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
}

TEST_F(EntrySet, CopyNameLeavesCountChecksumAndFlagsAlone) {
  std::vector<uint8_t> set = buffer(file_set(std::u16string(20, u'y')));
  set[64 + 1] = 0x5A;  // GeneralSecondaryFlags of the name entries
  set[96 + 1] = 0x5B;
  uint16_t stored = le16dec(set.data() + 2);
  std::vector<uint16_t> name = units(u"short");
  exfat_file_set_copy_name(set.data(), name.data(), 5, 0x1234);
  EXPECT_EQ(set[1], 3);
  EXPECT_EQ(le16dec(set.data() + 2), stored);
  EXPECT_EQ(set[35], 5);
  EXPECT_EQ(le16dec(set.data() + 36), 0x1234);
  EXPECT_EQ(set[65], 0x5A);
  EXPECT_EQ(le16dec(set.data() + 64 + 2 + 8), u't');
  for (int unit = 5; unit < 15; unit++)
    EXPECT_EQ(le16dec(set.data() + 64 + 2 + 2 * unit), 0) << unit;
  // The second name entry is no longer needed and is left as it was.
  EXPECT_EQ(set[97], 0x5B);
  EXPECT_EQ(le16dec(set.data() + 98), u'y');
}

TEST_F(EntrySet, RenameMovesTrailingSecondaries) {
  exvol::test::Entry vendor = exvol::test::raw_entry(0xE0, 0, 0, 0);
  vendor[5] = 0x77;
  std::u16string long_name(20, u'L');
  std::vector<uint8_t> set = buffer(file_set(long_name, {vendor}));
  ASSERT_EQ(set[1], 4);  // stream, 2 names, vendor
  ASSERT_EQ(set[128], 0xE0);
  std::vector<uint8_t> stream_before(set.begin() + 32, set.begin() + 35);

  std::vector<uint16_t> shortname = units(u"tiny");
  uint16_t sum = exfat_file_set_rename(set.data(), shortname.data(), 4, 0x10001);
  EXPECT_EQ(set[1], 3);
  EXPECT_EQ(set[96], 0xE0);
  EXPECT_EQ(set[96 + 5], 0x77);
  EXPECT_EQ(set[35], 4);
  EXPECT_EQ(le16dec(set.data() + 36), 0x0001);  // the hash taken as 16 bits
  EXPECT_EQ(le16dec(set.data() + 2), sum);
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
  EXPECT_TRUE(std::equal(stream_before.begin(), stream_before.end(), set.begin() + 32));

  std::vector<uint16_t> back = units(long_name);
  exfat_file_set_rename(set.data(), back.data(), 20, 0);
  EXPECT_EQ(set[1], 4);
  EXPECT_EQ(set[96], EXFAT_ENTRY_NAME);
  EXPECT_EQ(set[128], 0xE0);
  EXPECT_EQ(set[128 + 5], 0x77);
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
}

TEST_F(EntrySet, RenameWithoutTrailingSecondaries) {
  std::vector<uint8_t> set = buffer(file_set(u"ab"));
  std::vector<uint16_t> name(40, u'n');  // 3 name entries
  exfat_file_set_rename(set.data(), name.data(), 40, 5);
  EXPECT_EQ(set[1], 4);
  EXPECT_EQ(set[128], EXFAT_ENTRY_NAME);
  EXPECT_EQ(le16dec(set.data() + 128 + 2 + 2 * 9), u'n');  // unit 39
  EXPECT_EQ(le16dec(set.data() + 128 + 2 + 2 * 10), 0);
  EXPECT_EQ(le32dec(set.data() + 32 + 20), 7u);  // stream fields kept
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
}

using EntrySetDeathTest = EntrySet;

TEST_F(EntrySetDeathTest, CopyNameRejectsLengthsOutside1To255) {
  std::vector<uint8_t> set = buffer(file_set(u"x"));
  std::vector<uint16_t> name(256, u'a');
  EXPECT_DEATH(exfat_file_set_copy_name(set.data(), name.data(), 0, 0),
               "exfat_file_set_copy_name: invalid name length \\(0\\)");
  EXPECT_DEATH(exfat_file_set_copy_name(set.data(), name.data(), 256, 0),
               "exfat_file_set_copy_name: invalid name length \\(256\\)");
  EXPECT_DEATH(exfat_file_set_init(set.data(), name.data(), 0, 0, 0),
               "invalid name length \\(0\\)");
}

TEST_F(EntrySetDeathTest, RenameRefusesToGrowPast255Secondaries) {
  // A set read from disk with 254 vendor secondaries after one name entry
  // has no room for a second name entry.
  std::vector<exvol::test::Entry> vendors(253, exvol::test::raw_entry(0xE0));
  std::vector<uint8_t> set = buffer(file_set(u"a", vendors));
  ASSERT_EQ(set[1], 255);
  std::vector<uint16_t> name(16, u'b');
  EXPECT_DEATH(exfat_file_set_rename(set.data(), name.data(), 16, 0),
               "exfat_file_set_rename: set too large \\(256 secondaries\\)");
}
