#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/utf8.h"

namespace {

using Units = std::vector<uint16_t>;

Units repeat(uint16_t unit, size_t n) { return Units(n, unit); }

constexpr int kLookup = UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS;  // names in
constexpr int kListing = UTF_DECOMPOSED | UTF_SFM_CONVERSIONS;  // names out

const Units kLabel11 = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K'};
const std::string kSfmPlain = "\x01\x1F\"*:<>?\\|";
const Units kSfmMapped = {0xF001, 0xF01F, 0xF020, 0xF021, 0xF022,
                          0xF023, 0xF024, 0xF025, 0xF026, 0xF027};

struct DecodeCase {
  const char* what;
  std::string in;
  size_t buflen;
  int flags;
  uint16_t altslash;
  int error;
  Units out;
};

struct EncodeCase {
  const char* what;
  Units in;
  size_t buflen;
  int flags;
  uint16_t altslash;
  int error;
  std::string out;
  bool terminated;  // a NUL follows the output
};

}  // namespace

// Limits, normalization, range edges, SFM mapping, alternate slash, ill-formed input.
TEST(Utf8, DecodeCases) {
  const DecodeCase cases[] = {
      {"label of 11 units fits", "ABCDEFGHIJK", 22, kLookup, 0, 0, kLabel11},
      {"label of 12 units is cut", "ABCDEFGHIJKL", 22, kLookup, 0, ENAMETOOLONG, kLabel11},
      {"255-unit name fits", std::string(255, 'x'), 510, kLookup, 0, 0, repeat('x', 255)},
      {"256-unit name is cut", std::string(256, 'x'), 510, kLookup, 0, ENAMETOOLONG,
       repeat('x', 255)},
      {"pair not split", "a\xF0\x9F\x98\x80", 4, 0, 0, ENAMETOOLONG, {'a'}},
      {"pair fits", "a\xF0\x9F\x98\x80", 6, 0, 0, 0, {'a', 0xD83D, 0xDE00}},
      {"composed", "e\xCC\x81", 510, kLookup, 0, 0, {0x00E9}},
      {"no form: as it is", "e\xCC\x81", 510, 0, 0, 0, {'e', 0x0301}},
      // Marks out of canonical order still compose to U+1E69.
      {"reordered, composed", "s\xCC\x87\xCC\xA3", 510, UTF_PRECOMPOSED, 0, 0, {0x1E69}},
      {"reordered, no composite",
       "q\xCC\x87\xCC\xA3",
       510,
       UTF_PRECOMPOSED,
       0,
       0,
       {'q', 0x0323, 0x0307}},
      {"Hangul", "\xE1\x84\x80\xE1\x85\xA1", 510, UTF_PRECOMPOSED, 0, 0, {0xAC00}},
      {"below surrogates", "\xED\x9F\xBF", 8, 0, 0, 0, {0xD7FF}},
      {"above surrogates", "\xEE\x80\x80", 8, 0, 0, 0, {0xE000}},
      {"last code point", "\xF4\x8F\xBF\xBF", 8, 0, 0, 0, {0xDBFF, 0xDFFF}},
      {"SFM mapped", kSfmPlain, 510, kLookup, 0, 0, kSfmMapped},
      {"SFM off", ":", 8, UTF_PRECOMPOSED, 0, 0, {':'}},
      {"SFM leaves / and NUL",
       std::string("a/.\0 ", 5),
       16,
       kLookup,
       0,
       0,
       {'a', '/', '.', 0, ' '}},
      // '<' + U+0338 composes to U+226E, but a mapped '<' must stay itself.
      {"composes without SFM", "<\xCC\xB8", 16, UTF_PRECOMPOSED, 0, 0, {0x226E}},
      {"mapped does not compose", "<\xCC\xB8", 16, kLookup, 0, 0, {0xF023, 0x0338}},
      {"alternate slash", "a/b", 16, kLookup, ':', 0, {'a', ':', 'b'}},
      // Ill-formed input: nothing is returned.
      {"overlong '/'", "\xC0\xAF", 510, kLookup, 0, EINVAL, {}},
      {"overlong four-byte", "\xF0\x80\x80\xAF", 510, kLookup, 0, EINVAL, {}},
      {"U+D800", "\xED\xA0\x80", 510, kLookup, 0, EINVAL, {}},
      {"U+110000", "\xF4\x90\x80\x80", 510, kLookup, 0, EINVAL, {}},
      {"truncated at the end", "ok\xF0\x9F\x98", 510, kLookup, 0, EINVAL, {}},
      {"lone continuation", "\x80", 510, kLookup, 0, EINVAL, {}},
      {"continuation missing", "\xC3\x28", 510, kLookup, 0, EINVAL, {}},
      {"0xFF", "\xFF", 510, kLookup, 0, EINVAL, {}},
  };
  for (const DecodeCase& c : cases) {
    SCOPED_TRACE(c.what);
    // A marker past buflen shows a write beyond the limit.
    std::vector<uint16_t> buf(c.buflen / 2 + 8, 0xBEEF);
    size_t len = 12345;
    EXPECT_EQ(utf8_decodestr(reinterpret_cast<const uint8_t*>(c.in.data()), c.in.size(), buf.data(),
                             &len, c.buflen, c.altslash, c.flags),
              c.error);
    ASSERT_LE(len, c.buflen);
    EXPECT_EQ(len % 2, 0u);
    EXPECT_EQ(buf[len / 2], 0xBEEF) << "written past the reported length";
    EXPECT_EQ(buf[c.buflen / 2], 0xBEEF) << "written past the limit";
    EXPECT_EQ(Units(buf.begin(), buf.begin() + long(len / 2)), c.out);
  }
}

TEST(Utf8, EncodeCases) {
  // 'a' then 254 three-byte characters: with 255 bytes of room before the
  // NUL, 1 + 84 x 3 = 253 bytes fit; the 85th character is left out whole.
  Units wide = repeat(0x4E2D, 255);
  wide[0] = 'a';
  std::string wide_utf8 = "a";
  for (int i = 0; i < 254; i++) wide_utf8 += "\xE4\xB8\xAD";
  Units long_bad = repeat('x', 300);
  long_bad[299] = 0xDC00;
  const EncodeCase cases[] = {
      {"long name", wide, 1024, kListing, 0, 0, wide_utf8, true},
      {"cut at a character", wide, 256, kListing, 0, ENAMETOOLONG, wide_utf8.substr(0, 253), true},
      {"terminator counts", {'a', 'b', 'c'}, 3, 0, 0, ENAMETOOLONG, "ab", true},
      {"terminator suppressed", {'a', 'b', 'c'}, 3, UTF_NO_NULL_TERM, 0, 0, "abc", false},
      {"empty", {}, 1, 0, 0, 0, "", true},
      {"no room", {'a'}, 0, 0, 0, ENAMETOOLONG, "", false},
      {"decomposed", {0x00E9}, 256, kListing, 0, 0, "e\xCC\x81", true},
      {"no form: as it is", {0x00E9}, 256, 0, 0, 0, "\xC3\xA9", true},
      {"canonical order", {0x1E69}, 64, UTF_DECOMPOSED, 0, 0, "s\xCC\xA3\xCC\x87", true},
      {"Hangul", {0xAC00}, 64, UTF_DECOMPOSED, 0, 0, "\xE1\x84\x80\xE1\x85\xA1", true},
      {"supplementary", {0xD83D, 0xDE00, 'x'}, 64, kListing, 0, 0, "\xF0\x9F\x98\x80x", true},
      {"SFM mapped back", kSfmMapped, 256, kListing, 0, 0, kSfmPlain, true},
      {"SFM off", {0xF022}, 8, UTF_DECOMPOSED, 0, 0, "\xEF\x80\xA2", true},
      {"mapped before a mark", {0xF023, 0x0338}, 16, kListing, 0, 0, "<\xCC\xB8", true},
      {"alternate to slash", {'a', ':', 'b'}, 16, 0, ':', 0, "a/b", true},
      {"slash to alternate", {'a', '/', 'b'}, 16, 0, ':', 0, "a:b", true},
      {"lone high", {0xD800}, 64, kListing, 0, EINVAL, "", false},
      {"lone low", {0xDC00, 'a'}, 64, kListing, 0, EINVAL, "", false},
      {"pair reversed", {0xDE00, 0xD83D}, 64, kListing, 0, EINVAL, "", false},
      {"ill-formed past the limit", long_bad, 256, kListing, 0, EINVAL, "", false},
  };
  for (const EncodeCase& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> buf(c.buflen + 8, 0xA5);
    size_t len = 12345;
    EXPECT_EQ(utf8_encodestr(c.in.data(), c.in.size() * 2, buf.data(), &len, c.buflen, c.altslash,
                             c.flags),
              c.error);
    ASSERT_LE(len, c.buflen);
    EXPECT_EQ(buf[c.buflen], 0xA5) << "written past the limit";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf.data()), len), c.out);
    if (c.terminated) {
      EXPECT_EQ(buf[len], 0);
    }
  }
}
