// Text helpers shared by the commands.

#include "text.h"

#include <nlohmann/json.hpp>
#include <utf8proc.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace exvol::cli {

std::string composed(const std::string& name) {
  utf8proc_uint8_t* out = nullptr;
  utf8proc_ssize_t n =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                   static_cast<utf8proc_ssize_t>(name.size()), &out,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (n < 0)
    return name;
  std::string result(reinterpret_cast<char*>(out), static_cast<size_t>(n));
  free(out);
  return result;
}

std::string human_size(uint64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double v = static_cast<double>(bytes);
  int u = 0;
  while (v >= 1024 && u < 4) {
    v /= 1024;
    u++;
  }
  char s[32];
  snprintf(s, sizeof(s), u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
  return s;
}

std::string format_time(const timespec& t, bool precise) {
  struct tm tm;
  time_t seconds = t.tv_sec;
  if (!localtime_r(&seconds, &tm))
    return "?";
  char text[64];
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &tm);
  std::string out = text;
  if (precise) {
    char nanos[16], zone[16];
    snprintf(nanos, sizeof(nanos), ".%09ld ", static_cast<long>(t.tv_nsec));
    strftime(zone, sizeof(zone), "%z", &tm);
    out += nanos;
    out += zone;
  }
  return out;
}

namespace {

// Reads exactly `digits` decimal digits at text[*pos].
bool take_number(const std::string& text, size_t* pos, int digits, int* out) {
  int value = 0;
  for (int i = 0; i < digits; i++, (*pos)++) {
    if (*pos >= text.size() || text[*pos] < '0' || text[*pos] > '9')
      return false;
    value = value * 10 + (text[*pos] - '0');
  }
  *out = value;
  return true;
}

bool take_char(const std::string& text, size_t* pos, char c) {
  if (*pos < text.size() && text[*pos] == c) {
    (*pos)++;
    return true;
  }
  return false;
}

std::optional<timespec> parse_epoch(const std::string& digits) {
  if (digits.empty())
    return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long seconds = strtoll(digits.c_str(), &end, 10);
  if (errno || *end)
    return std::nullopt;
  return timespec{static_cast<time_t>(seconds), 0};
}

}  // namespace

std::optional<timespec> parse_time(const std::string& text) {
  if (!text.empty() && text[0] == '@')
    return parse_epoch(text.substr(1));
  struct tm tm {};
  size_t pos = 0;
  int year, month, day;
  if (!take_number(text, &pos, 4, &year) || !take_char(text, &pos, '-') ||
      !take_number(text, &pos, 2, &month) || !take_char(text, &pos, '-') ||
      !take_number(text, &pos, 2, &day))
    return std::nullopt;
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  if (take_char(text, &pos, ' ') || take_char(text, &pos, 'T')) {
    if (!take_number(text, &pos, 2, &tm.tm_hour) || !take_char(text, &pos, ':') ||
        !take_number(text, &pos, 2, &tm.tm_min))
      return std::nullopt;
    if (take_char(text, &pos, ':') && !take_number(text, &pos, 2, &tm.tm_sec))
      return std::nullopt;
  }
  bool utc = take_char(text, &pos, 'Z');
  if (pos != text.size() || month < 1 || month > 12 || day < 1 || day > 31 || tm.tm_hour > 23 ||
      tm.tm_min > 59 || tm.tm_sec > 60)
    return std::nullopt;
  tm.tm_isdst = -1;
  time_t seconds = utc ? timegm(&tm) : mktime(&tm);
  if (seconds == static_cast<time_t>(-1))
    return std::nullopt;
  return timespec{seconds, 0};
}

void print_json(const nlohmann::ordered_json& doc) {
  std::string text = doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  printf("%s\n", text.c_str());
}

// "R", "H" and "A" for read-only, hidden and archive, in mattrib's order.
// A directory shows only H: the volume reports neither of the others for
// directories.
std::string attribute_letters(const Stat& st) {
  std::string s = "---";
  if (st.flags & kFlagImmutable)
    s[0] = 'R';
  if (st.flags & kFlagHidden)
    s[1] = 'H';
  if (st.type != FileType::Directory && !(st.flags & kFlagArchived))
    s[2] = 'A';
  return s;
}

}  // namespace exvol::cli
