// Timestamp conversions in both directions, with the volume's time-zone
// value.

#include <gtest/gtest.h>

#include <vector>

#include "exfat_proto.h"

namespace {

constexpr int64_t kEpoch1980 = 315532800;

uint32_t ts(uint32_t year, uint32_t month, uint32_t day, uint32_t hour = 0, uint32_t minute = 0,
            uint32_t second = 0) {
  return ((year - 1980) << 25) | (month << 21) | (day << 16) | (hour << 11) | (minute << 5) |
         (second / 2);
}

// Conversions with the time-zone value s_ (seconds west) of the test.
class Timestamp : public ::testing::Test {
 protected:
  struct timespec to_unix(uint32_t t, uint8_t inc, uint8_t off) const {
    struct timespec r;
    exfat_timestamp_to_unix(t, inc, off, &r, s_);
    return r;
  }
  struct Encoded {
    uint32_t timestamp;
    uint8_t increment, offset;
  };
  Encoded from_unix(int64_t sec, long nsec = 0) const {
    struct timespec in = {static_cast<time_t>(sec), nsec};
    Encoded e{};
    exfat_timestamp_from_unix(&e.timestamp, &e.increment, &e.offset, &in, s_);
    return e;
  }

  int32_t s_ = 0;
};

}  // namespace

TEST_F(Timestamp, ToUnixDocumentedValues) {
  struct timespec r = to_unix(0x00210000, 0, 0x80);
  EXPECT_EQ(r.tv_sec, kEpoch1980);
  EXPECT_EQ(r.tv_nsec, 0);

  r = to_unix(0x00210000, 199, 0x80);
  EXPECT_EQ(r.tv_sec, kEpoch1980 + 1);
  EXPECT_EQ(r.tv_nsec, 990000000);

  EXPECT_EQ(to_unix(0x00210000, 0, 0x84).tv_sec, 315529200);
  EXPECT_EQ(to_unix(0x00210000, 0, 0xFC).tv_sec, 315536400);
  // Without a valid offset the stored time is local: UTC = local + S.
  s_ = 3600;
  EXPECT_EQ(to_unix(0x00210000, 0, 0x04).tv_sec, 315536400);
  // With a valid offset S plays no part.
  EXPECT_EQ(to_unix(0x00210000, 0, 0x80).tv_sec, kEpoch1980);

  EXPECT_EQ(exfat_timestamp_to_nanoseconds(0x00210000, 199, 0x80, s_),
            (kEpoch1980 + 1) * 1000000000LL + 990000000);

  // Damaged dates: month 0 or 13 and day 0 read as the first.
  int64_t jan1 = to_unix(ts(2000, 1, 1), 0, 0x80).tv_sec;
  EXPECT_EQ(jan1, 946684800);
  EXPECT_EQ(to_unix(ts(2000, 0, 1), 0, 0x80).tv_sec, jan1);
  EXPECT_EQ(to_unix(ts(2000, 13, 1), 0, 0x80).tv_sec, jan1);
  EXPECT_EQ(to_unix(ts(2000, 1, 0), 0, 0x80).tv_sec, jan1);

  // 2100 is not a leap year; 2096 and 2104 are.
  s_ = 0;
  int64_t feb28 = to_unix(ts(2100, 2, 28), 0, 0x80).tv_sec;
  int64_t mar1 = to_unix(ts(2100, 3, 1), 0, 0x80).tv_sec;
  EXPECT_EQ(mar1 - feb28, 86400);
  EXPECT_EQ(mar1, 4107542400);
  EXPECT_EQ(from_unix(feb28 + 86400).timestamp, ts(2100, 3, 1));
  EXPECT_EQ(from_unix(feb28).timestamp, ts(2100, 2, 28));

  int64_t feb29_2104 = to_unix(ts(2104, 2, 29), 0, 0x80).tv_sec;
  EXPECT_EQ(feb29_2104, 4233686400);
  EXPECT_EQ(from_unix(feb29_2104).timestamp, ts(2104, 2, 29));
  EXPECT_EQ(from_unix(to_unix(ts(2096, 2, 29), 0, 0x80).tv_sec).timestamp, ts(2096, 2, 29));
}

TEST_F(Timestamp, FromUnixDocumentedValues) {
  Encoded e = from_unix(kEpoch1980, 5000000);
  EXPECT_EQ(e.timestamp, 0x00210000u);
  EXPECT_EQ(e.increment, 0);
  EXPECT_EQ(e.offset, 0x80);

  EXPECT_EQ(from_unix(kEpoch1980 + 1).increment, 100);
  EXPECT_EQ(from_unix(kEpoch1980 + 1, 990000000).increment, 199);

  // Before 1980: that moment, the increment from the nanoseconds alone.
  e = from_unix(kEpoch1980 - 1, 370000000);
  EXPECT_EQ(e.timestamp, 0x00210000u);
  EXPECT_EQ(e.increment, 37);
  EXPECT_EQ(from_unix(0).timestamp, 0x00210000u);
  EXPECT_EQ(from_unix(-5000000000LL).timestamp, 0x00210000u);

  e = from_unix(1718446273);  // 2024-06-15 10:11:13 UTC
  EXPECT_EQ(e.timestamp, 0x58CF5166u);
  EXPECT_EQ(e.increment, 100);
  EXPECT_EQ(to_unix(e.timestamp, e.increment, e.offset).tv_sec, 1718446273);

  int64_t last = to_unix(ts(2107, 12, 31, 23, 59, 58), 0, 0x80).tv_sec;
  EXPECT_EQ(from_unix(last).timestamp, 0xFF9FBF7Du);
  EXPECT_EQ(to_unix(0xFF9FBF7D, 0, 0x80).tv_sec, last);

  // Absent outputs are not produced.
  struct timespec in = {1718446273, 0};
  uint8_t increment = 0xAA;
  exfat_timestamp_from_unix(nullptr, &increment, nullptr, &in, s_);
  EXPECT_EQ(increment, 100);
  uint32_t timestamp = 0;
  exfat_timestamp_from_unix(&timestamp, nullptr, nullptr, &in, s_);
  EXPECT_EQ(timestamp, 0x58CF5166u);

  // The offset byte from the seconds west.
  s_ = 3600;
  EXPECT_EQ(from_unix(1718446273).offset, 0x84);
  s_ = -3600;
  EXPECT_EQ(from_unix(1718446273).offset, 0xFC);
  s_ = -1800;  // -2 units
  EXPECT_EQ(from_unix(1718446273).offset, 0xFE);
  s_ = 1000;   // truncates toward zero: 1 unit
  EXPECT_EQ(from_unix(1718446273).offset, 0x81);
  // The stored time is local = UTC + S.
  s_ = 3600;
  EXPECT_EQ(from_unix(1718446273).timestamp, ts(2024, 6, 15, 11, 11, 13));
  s_ = 0;
}

// Times at or after 2108-01-01 00:00:00 local, which the 7-bit year can't
// hold, saturate to 2107-12-31 23:59:58 with increment 0.
TEST_F(Timestamp, SaturatesAfter2107) {
  int64_t y2108 = kEpoch1980 + 4039286400LL;
  for (int64_t sec : {y2108, y2108 + 1, y2108 + 86400 * 400, int64_t{1} << 40}) {
    Encoded e = from_unix(sec, 990000000);
    EXPECT_EQ(e.timestamp, 0xFF9FBF7Du) << sec;
    EXPECT_EQ(e.increment, 0) << sec;
  }
  Encoded last = from_unix(y2108 - 1, 990000000);  // 23:59:59.99, still representable
  EXPECT_EQ(last.timestamp, 0xFF9FBF7Du);
  EXPECT_EQ(last.increment, 199);

  s_ = 3600;  // local is an hour ahead: saturates an hour earlier in UTC
  EXPECT_EQ(from_unix(y2108 - 3600).increment, 0);
  EXPECT_EQ(from_unix(y2108 - 3601).increment, 100);
}
