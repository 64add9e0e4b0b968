// Conversions between exFAT timestamps (local date-time with 2-second
// resolution, a 10 ms increment and a UTC offset byte) and host time
// (seconds and nanoseconds since 1970-01-01 00:00:00 UTC).
//
// Both directions use the volume's time-zone value S (exfat_secondsWest of
// its mount, xm_secondsWest, which every mount and mount update sets), passed
// in by the caller. Writing stores local = UTC + S and labels it with the
// offset S / 900; reading a valid offset byte undoes that exactly. The
// functions are pure and take no lock.

#include <ctime>

#include "exfat_proto.h"

namespace {

// Days before month 1..12 of a common and a leap year, then the year length.
const uint16_t non_leap_months[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
const uint16_t leap_months[13] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366};
// Days before year 0..3 of a four-year cycle that starts with a leap year.
const uint16_t days_per_year[4] = {0, 366, 731, 1096};

constexpr int64_t kSecondsPerDay = 86400;
constexpr uint32_t kYear2100 = 120;  // years since 1980: not a leap year
// Days from 1980-01-01 to 2100-03-01, the first day after the February 29
// that 2100 lacks.
constexpr uint32_t kDay2100March1 = 120 * 365 + 30 + 59;
// Seconds from 1980-01-01 to 2108-01-01, the first moment the 7-bit year
// can't hold.
constexpr uint32_t kSeconds2108 = (128 * 365 + 32 - 1) * 86400u;
// 2107-12-31 23:59:58, the latest time a timestamp holds without increment.
constexpr uint32_t kLatestTimestamp = (127u << EXFAT_TS_YEAR_SHIFT) |
                                      (12u << EXFAT_TS_MONTH_SHIFT) |
                                      (31u << EXFAT_TS_DAY_SHIFT) |
                                      (23u << EXFAT_TS_HOUR_SHIFT) |
                                      (59u << EXFAT_TS_MINUTE_SHIFT) | 29u;

// The year 2100 (120) is a multiple of 4 but not a leap year.
inline bool is_leap(uint32_t year) {
  return year % 4 == 0 && year != kYear2100;
}

// The offset byte's signed 7-bit count of 15-minute units, in seconds.
inline int64_t utc_offset_seconds(uint8_t utc_offset) {
  int v = utc_offset & 0x7F;
  if (v & 0x40)
    v -= 0x80;
  return static_cast<int64_t>(v) * 900;
}

// Days from 1980-01-01 to the timestamp's date. Out-of-range months read as
// January and day 0 as the first, so that damaged entries still convert.
int64_t timestamp_days(uint32_t timestamp) {
  uint32_t year = timestamp >> EXFAT_TS_YEAR_SHIFT;
  uint32_t month = (timestamp >> EXFAT_TS_MONTH_SHIFT) & 0xF;
  uint32_t day = (timestamp >> EXFAT_TS_DAY_SHIFT) & 0x1F;
  uint32_t m = (month >= 1 && month <= 12) ? month - 1 : 0;
  uint32_t d = day ? day - 1 : 0;
  const uint16_t* months = is_leap(year) ? leap_months : non_leap_months;
  int64_t days = year * 365 + (year + 3) / 4;
  if (year > kYear2100)
    days -= 1;
  return days + months[m] + d;
}

// Encodes t seconds since 1980-01-01 00:00:00 local (below kSeconds2108)
// as a timestamp, through the tables of a four-year cycle.
uint32_t timestamp_from_local(uint32_t t) {
  uint32_t days = t / kSecondsPerDay;
  uint32_t hour = t / 3600 % 24;
  uint32_t minute = t / 60 % 60;
  uint32_t second = t % 60;

  if (days >= kDay2100March1)
    days += 1;  // count the 2100-02-29 that the cycle tables assume
  uint32_t cycle = days / 1461;
  uint32_t r = days % 1461;
  uint32_t y = r == 0 ? 0 : (r - 1) / 365;
  uint32_t e = r - days_per_year[y];
  uint32_t year = 4 * cycle + y;
  const uint16_t* months = year % 4 == 0 ? leap_months : non_leap_months;
  uint32_t month = 1;
  while (e >= months[month])
    month++;
  uint32_t day = e - months[month - 1] + 1;

  return (second / 2) | (minute << EXFAT_TS_MINUTE_SHIFT) | (hour << EXFAT_TS_HOUR_SHIFT) |
         (day << EXFAT_TS_DAY_SHIFT) | (month << EXFAT_TS_MONTH_SHIFT) |
         (year << EXFAT_TS_YEAR_SHIFT);
}

}  // namespace

// Converts an on-disk time to host time. A valid offset byte gives the
// stored local time's distance from UTC; without one the stored time is
// taken as local time with UTC = local + seconds_west. Callers with no
// increment (the access time) pass 0.
void exfat_timestamp_to_unix(uint32_t timestamp, uint8_t increment, uint8_t utc_offset,
                             struct timespec* ts, int32_t seconds_west) {
  uint32_t hour = (timestamp >> EXFAT_TS_HOUR_SHIFT) & 0x1F;
  uint32_t minute = (timestamp >> EXFAT_TS_MINUTE_SHIFT) & 0x3F;
  uint32_t double_seconds = timestamp & 0x1F;
  int64_t seconds_of_day = hour * 3600 + minute * 60 + double_seconds * 2 + increment / 100;
  int64_t off = (utc_offset & EXFAT_UTC_OFFSET_VALID) ? utc_offset_seconds(utc_offset)
                                                      : -static_cast<int64_t>(seconds_west);

  ts->tv_sec = static_cast<time_t>(EXFAT_EPOCH_UNIX + seconds_of_day +
                                   timestamp_days(timestamp) * kSecondsPerDay - off);
  ts->tv_nsec = static_cast<long>(increment % 100) * 10000000L;
}

// Converts host time to an on-disk time. Any of the three outputs may be
// NULL and is then not produced. Times before 1980-01-01 00:00:00 local
// become that moment. Times at or after 2108-01-01 00:00:00 local don't fit
// the 7-bit year; they saturate to 2107-12-31 23:59:58 with increment 0, the
// latest whole value a timestamp holds, so that a far-future time reads back
// as "as late as possible" rather than wrapping into the past.
void exfat_timestamp_from_unix(uint32_t* timestamp, uint8_t* increment, uint8_t* utc_offset,
                               const struct timespec* ts, int32_t seconds_west) {
  int64_t local = static_cast<int64_t>(ts->tv_sec) + seconds_west;
  uint32_t t = 0;
  if (local >= EXFAT_EPOCH_UNIX) {
    int64_t since = local - EXFAT_EPOCH_UNIX;
    t = since > 0xFFFFFFFFLL ? 0xFFFFFFFFu : static_cast<uint32_t>(since);
  }
  bool saturated = t >= kSeconds2108;

  if (timestamp)
    *timestamp = saturated ? kLatestTimestamp : timestamp_from_local(t);
  if (increment) {
    uint32_t odd = (!saturated && (t % 60) % 2 == 1) ? 100 : 0;
    uint32_t hundredths = saturated ? 0 : static_cast<uint32_t>(ts->tv_nsec / 10000000L);
    *increment = static_cast<uint8_t>(odd + hundredths);
  }
  if (utc_offset)
    *utc_offset = static_cast<uint8_t>(EXFAT_UTC_OFFSET_VALID | ((seconds_west / 900) & 0xFF));
}

// The on-disk time as signed nanoseconds since 1970.
int64_t exfat_timestamp_to_nanoseconds(uint32_t timestamp, uint8_t increment,
                                       uint8_t utc_offset, int32_t seconds_west) {
  struct timespec ts;
  exfat_timestamp_to_unix(timestamp, increment, utc_offset, &ts, seconds_west);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}
