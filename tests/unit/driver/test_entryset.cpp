// Directory entry sets: checksum, validation, name hash, building a set
// and renaming it in place.

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "exfat_proto.h"
#include "host/time.h"
#include "tests/support/image_builder.h"

using exvol::test::FileDesc;
using exvol::test::make_file_set;
using exvol::test::raw_entry;

namespace {

std::vector<uint16_t> units(const std::u16string& s) {
  return std::vector<uint16_t>(s.begin(), s.end());
}

// A whole-set buffer holding a File set for `name` (first cluster 7, 100
// bytes), the rest junk that the functions must not depend on.
std::vector<uint8_t> file_set(const std::u16string& name,
                              std::vector<exvol::test::Entry> extra = {}) {
  FileDesc desc{.name = name, .first_cluster = 7, .data_length = 100};
  desc.extra_secondaries = std::move(extra);
  std::vector<uint8_t> set = make_file_set(desc, exvol::test::ascii_upcase_table());
  set.resize(EXFAT_SET_BUFFER_SIZE, 0xEE);
  return set;
}

void restamp(std::vector<uint8_t>& set) {
  le16enc(set.data() + 2, exfat_checksum_file_set(set.data()));
}

class EntrySet : public ::testing::Test {
 protected:
  std::vector<uint16_t> upcase_ = exvol::test::ascii_upcase_table();
};

}  // namespace

TEST(EntrySetChecksum, KnownValueSkippedFieldAndLength) {
  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0);
  set[0] = EXFAT_ENTRY_FILE;
  set[4] = 0x10;
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  set[2] = 0x12;
  set[3] = 0x34;
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  set[32] = 0xC0;  // past the one-entry set
  EXPECT_EQ(exfat_checksum_file_set(set.data()), 0x0628);
  set[1] = 1;
  EXPECT_NE(exfat_checksum_file_set(set.data()), 0x0628);

  for (size_t i = 0; i < set.size(); i++)
    set[i] = static_cast<uint8_t>(i * 37 + (i >> 8));
  for (int count : {0, 1, 2, 18, 255}) {
    set[1] = static_cast<uint8_t>(count);
    EXPECT_EQ(exfat_checksum_file_set(set.data()), exvol::test::set_checksum(set.data())) << count;
  }
}

// The checksum decides first; then a File set needs a stream entry and
// enough name entries for its name length. Later secondaries, the stored
// hash and the secondaries of an unknown benign primary are not examined.
TEST(EntrySetValidity, ChecksumAndShape) {
  std::vector<uint8_t> benign(EXFAT_SET_BUFFER_SIZE, 0);
  benign[0] = 0xA5;
  benign[1] = 2;
  benign[32] = 0x17;
  struct Case {
    const char* what;
    std::vector<uint8_t> set;
    std::function<void(std::vector<uint8_t>&)> change;
    bool valid;
  } cases[] = {
      {"valid", file_set(u"hello.txt"), [](auto&) {}, true},
      {"bad checksum", file_set(u"hello.txt"), [](auto& s) { s[2] ^= 1; }, false},
      {"no secondaries", file_set(u"hello.txt"), [](auto& s) { s[1] = 0; restamp(s); }, false},
      {"no stream", file_set(u"hello.txt"),
       [](auto& s) { s[32] = EXFAT_ENTRY_NAME; restamp(s); }, false},
      {"unnamed, stream only", file_set(u"hello.txt"),
       [](auto& s) { s[1] = 1; s[35] = 0; restamp(s); }, true},
      {"too few name entries", file_set(std::u16string(16, u'x')),
       [](auto& s) { s[1] = 2; restamp(s); }, false},
      {"second name not a name", file_set(std::u16string(16, u'x')),
       [](auto& s) { s[96] = 0xC2; restamp(s); }, false},
      {"extra secondary, wrong hash", file_set(std::u16string(16, u'x'), {raw_entry(0xE0)}),
       [](auto& s) { s[36] ^= 0xFF; restamp(s); }, true},
      {"benign primary", benign, [](auto& s) { restamp(s); }, true},
      {"benign primary, bad checksum", benign, [](auto& s) { restamp(s); s[40] ^= 0xFF; }, false},
  };
  for (Case& c : cases) {
    c.change(c.set);
    EXPECT_EQ(c.valid, exfat_valid_entry_set(c.set.data())) << c.what;
  }
}

TEST_F(EntrySet, NameHashFoldsCaseAndCoversAll255Units) {
  std::vector<uint16_t> a = units(u"a"), A = units(u"A");
  EXPECT_EQ(exfat_name_hash(upcase_.data(), 1, a.data()), exfat_name_hash(upcase_.data(), 1, A.data()));
  EXPECT_EQ(exfat_name_hash(upcase_.data(), 0, a.data()), 0);
  std::u16string mixed = u"Hello World \u00e9\u4e2d.Txt";
  std::vector<uint16_t> m = units(mixed);
  EXPECT_EQ(exfat_name_hash(upcase_.data(), static_cast<uint8_t>(m.size()), m.data()),
            exvol::test::name_hash(mixed, upcase_));

  std::vector<uint16_t> name(255, u'k');
  uint16_t h = exfat_name_hash(upcase_.data(), 255, name.data());
  EXPECT_EQ(h, exvol::test::name_hash(std::u16string(255, u'k'), upcase_));
  name[254] = u'j';
  EXPECT_NE(exfat_name_hash(upcase_.data(), 255, name.data()), h);
}

TEST_F(EntrySet, InitBuildsAValidSetStampedNow) {
  struct timespec now = {1718446273, 123456789};  // 2024-06-15 10:11:13.12 UTC
  host_set_nanotime(&now);
  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0xEE);
  std::vector<uint16_t> name = units(u"abcdefghijklmno");  // 15 units: one name entry
  uint16_t sum =
      exfat_file_set_init(set.data(), name.data(), 15, 0xBEEF, EXFAT_ATTR_DIRECTORY, 0);
  host_set_nanotime(nullptr);

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
  EXPECT_EQ(set[64], EXFAT_ENTRY_NAME);
  EXPECT_EQ(le16dec(set.data() + 64 + 2 + 28), u'o');  // the 15th unit, no padding
  for (size_t i = 96; i < set.size(); i++)
    ASSERT_EQ(set[i], 0) << i;

  // 16 units: the second name entry is padded with zeros.
  std::vector<uint16_t> sixteen(16, u'x');
  exfat_file_set_init(set.data(), sixteen.data(), 16, 0, 0, 0);
  EXPECT_EQ(set[1], 3);
  EXPECT_EQ(le16dec(set.data() + 96 + 2), u'x');
  for (int unit = 1; unit < 15; unit++)
    EXPECT_EQ(le16dec(set.data() + 96 + 2 + 2 * unit), 0) << unit;
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
}

// Renaming moves trailing secondaries behind the new name entries, keeps the
// stream fields and restamps the checksum.
TEST_F(EntrySet, RenameMovesTrailingSecondaries) {
  exvol::test::Entry vendor = raw_entry(0xE0, 0, 0, 0);
  vendor[5] = 0x77;
  std::u16string long_name(20, u'L');
  std::vector<uint8_t> set = file_set(long_name, {vendor});
  ASSERT_EQ(set[1], 4);  // stream, 2 names, vendor
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

  set = file_set(u"ab");
  std::vector<uint16_t> forty(40, u'n');  // 3 name entries
  exfat_file_set_rename(set.data(), forty.data(), 40, 5);
  EXPECT_EQ(set[1], 4);
  EXPECT_EQ(set[128], EXFAT_ENTRY_NAME);
  EXPECT_EQ(le16dec(set.data() + 128 + 2 + 2 * 9), u'n');  // unit 39
  EXPECT_EQ(le16dec(set.data() + 128 + 2 + 2 * 10), 0);
  EXPECT_EQ(le32dec(set.data() + 32 + 20), 7u);
  EXPECT_TRUE(exfat_valid_entry_set(set.data()));
}

