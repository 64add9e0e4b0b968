#include "tests/model/names.h"

#include <utf8proc.h>

#include <cstdlib>

namespace exvol::model {

namespace {

std::string normalize(const std::string& s, bool compose) {
  auto opts = static_cast<utf8proc_option_t>(UTF8PROC_STABLE |
                                             (compose ? UTF8PROC_COMPOSE : UTF8PROC_DECOMPOSE));
  utf8proc_uint8_t* out = nullptr;
  utf8proc_ssize_t n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(s.data()),
                                    static_cast<utf8proc_ssize_t>(s.size()), &out, opts);
  if (n < 0)
    return s;  // generated names are valid UTF-8; keep anything else as it is
  std::string r(reinterpret_cast<char*>(out), static_cast<size_t>(n));
  free(out);
  return r;
}

std::vector<int32_t> code_points(const std::string& s) {
  std::vector<int32_t> cps;
  const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(s.data());
  utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(s.size());
  while (left > 0) {
    utf8proc_int32_t c = 0;
    utf8proc_ssize_t n = utf8proc_iterate(p, left, &c);
    if (n <= 0) {
      c = 0xFFFD;
      n = 1;
    }
    cps.push_back(c);
    p += n;
    left -= n;
  }
  return cps;
}

int32_t upcase(int32_t c) {
  if (c >= 'a' && c <= 'z')
    return c - 0x20;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7)
    return c - 0x20;
  return c;
}

}  // namespace

std::string nfc(const std::string& utf8) {
  return normalize(utf8, true);
}
std::string nfd(const std::string& utf8) {
  return normalize(utf8, false);
}

size_t utf16_units(const std::string& utf8) {
  size_t units = 0;
  for (int32_t c : code_points(nfc(utf8)))
    units += c >= 0x10000 ? 2 : 1;
  return units;
}

std::string fold_key(const std::string& utf8) {
  std::string key;
  for (int32_t c : code_points(nfc(utf8))) {
    utf8proc_uint8_t buf[4];
    utf8proc_ssize_t n = utf8proc_encode_char(upcase(c), buf);
    key.append(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
  }
  return key;
}

std::string case_variant(const std::string& utf8, uint64_t bits) {
  std::string out;
  size_t i = 0;
  for (int32_t c : code_points(utf8)) {
    if ((bits >> (i++ % 64)) & 1) {
      int32_t up = upcase(c);
      if (up != c)
        c = up;
      else if ((c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7))
        c += 0x20;
    }
    utf8proc_uint8_t buf[4];
    utf8proc_ssize_t n = utf8proc_encode_char(c, buf);
    out.append(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
  }
  return out;
}

std::vector<uint16_t> latin_upcase_table() {
  std::vector<uint16_t> table(65536);
  for (uint32_t c = 0; c < table.size(); c++)
    table[c] = static_cast<uint16_t>(upcase(static_cast<int32_t>(c)));
  return table;
}

}  // namespace exvol::model
