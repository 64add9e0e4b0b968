#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/utf8.h"

namespace {

using Units = std::vector<uint16_t>;

struct Decoded {
  int error;
  Units units;
};

struct Encoded {
  int error;
  std::string text;
  bool terminated;
};

// Decodes into a buffer larger than buflen, filled with a marker, so that a
// write beyond the limit is seen.
Decoded decode(const std::string& s, size_t buflen, int flags, uint16_t altslash = 0) {
  std::vector<uint16_t> buf(buflen / 2 + 8, 0xBEEF);
  size_t len = 12345;
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(s.data()), s.size(), buf.data(), &len,
                             buflen, altslash, flags);
  EXPECT_EQ(len % 2, 0u);
  EXPECT_LE(len, buflen);
  EXPECT_EQ(buf[len / 2], 0xBEEF) << "written past the reported length";
  if (buflen % 2 == 0) {
    EXPECT_EQ(buf[buflen / 2], 0xBEEF) << "written past the limit";
  }
  return {error, Units(buf.begin(), buf.begin() + static_cast<long>(len / 2))};
}

Encoded encode(const Units& u, size_t buflen, int flags, uint16_t altslash = 0) {
  std::vector<uint8_t> buf(buflen + 8, 0xA5);
  size_t len = 12345;
  int error = utf8_encodestr(u.data(), u.size() * 2, buf.data(), &len, buflen, altslash, flags);
  EXPECT_LE(len, buflen);
  EXPECT_EQ(buf[buflen], 0xA5) << "written past the limit";
  bool terminated = len < buf.size() && buf[len] == 0;
  return {error, std::string(reinterpret_cast<char*>(buf.data()), len), terminated};
}

Units repeat(uint16_t unit, size_t n) { return Units(n, unit); }

// True when s is well-formed UTF-8 (every character whole).
bool whole_utf8(const std::string& s) {
  std::vector<uint16_t> out(s.size() * 2 + 2);
  size_t len;
  return utf8_decodestr(reinterpret_cast<const uint8_t*>(s.data()), s.size(), out.data(), &len,
                        out.size() * 2, 0, 0) == 0;
}

constexpr int kLookup = UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS;  // names in
constexpr int kListing = UTF_DECOMPOSED | UTF_SFM_CONVERSIONS;  // names out

}  // namespace

TEST(Utf8Limits, VolumeLabelOfElevenUnitsFitsAndTwelveDoesNot) {
  Decoded d = decode("ABCDEFGHIJK", 22, kLookup);
  EXPECT_EQ(d.error, 0);
  EXPECT_EQ(d.units.size(), 11u);

  d = decode("ABCDEFGHIJKL", 22, kLookup);
  EXPECT_EQ(d.error, ENAMETOOLONG);
  EXPECT_EQ(d.units, Units({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K'}));
}

TEST(Utf8Limits, NameOfMoreThan255UnitsIsTooLongForTheLookupBuffer) {
  Decoded d = decode(std::string(255, 'x'), 510, kLookup);
  EXPECT_EQ(d.error, 0);
  EXPECT_EQ(d.units.size(), 255u);

  d = decode(std::string(256, 'x'), 510, kLookup);
  EXPECT_EQ(d.error, ENAMETOOLONG);
  EXPECT_EQ(d.units.size(), 255u);
}

TEST(Utf8Limits, LongNameFitsTheExtendedRecordButIsCutAtACharacterForTheShortOne) {
  // 'a' then 254 three-byte characters: 763 bytes in all.
  Units name = repeat(0x4E2D, 255);
  name[0] = 'a';
  Encoded e = encode(name, 1024, kListing);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text.size(), 763u);
  EXPECT_TRUE(e.terminated);

  // 255 bytes of room before the NUL: 1 + 84 × 3 = 253 bytes; the 85th
  // character would need bytes 253-255 and is left out whole.
  e = encode(name, 256, kListing);
  EXPECT_EQ(e.error, ENAMETOOLONG);
  EXPECT_EQ(e.text.size(), 253u);
  EXPECT_TRUE(e.terminated);
  EXPECT_TRUE(whole_utf8(e.text));
}

TEST(Utf8Limits, TerminatorCountsAgainstTheLimitUnlessSuppressed) {
  Encoded e = encode({'a', 'b', 'c'}, 3, 0);
  EXPECT_EQ(e.error, ENAMETOOLONG);
  EXPECT_EQ(e.text, "ab");
  EXPECT_TRUE(e.terminated);

  e = encode({'a', 'b', 'c'}, 3, UTF_NO_NULL_TERM);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text, "abc");

  e = encode({}, 1, 0);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text, "");
  EXPECT_TRUE(e.terminated);

  e = encode({'a'}, 0, 0);
  EXPECT_EQ(e.error, ENAMETOOLONG);
  EXPECT_EQ(e.text, "");
}

TEST(Utf8Limits, SurrogatePairIsNeverSplit) {
  Decoded d = decode("a\xF0\x9F\x98\x80", 4, 0);  // 'a' U+1F600
  EXPECT_EQ(d.error, ENAMETOOLONG);
  EXPECT_EQ(d.units, Units({'a'}));

  d = decode("a\xF0\x9F\x98\x80", 6, 0);
  EXPECT_EQ(d.error, 0);
  EXPECT_EQ(d.units, Units({'a', 0xD83D, 0xDE00}));
}

TEST(Utf8Normalization, PrecomposedInDecomposedOut) {
  Decoded d = decode("e\xCC\x81", 510, kLookup);
  EXPECT_EQ(d.error, 0);
  EXPECT_EQ(d.units, Units({0x00E9}));

  Encoded e = encode({0x00E9}, 256, kListing);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text, "e\xCC\x81");

  // Without a form flag the text passes through as it is.
  d = decode("e\xCC\x81", 510, 0);
  EXPECT_EQ(d.units, Units({'e', 0x0301}));
  e = encode({0x00E9}, 256, 0);
  EXPECT_EQ(e.text, "\xC3\xA9");
}

TEST(Utf8Normalization, CombiningMarksAreReorderedBeforeComposition) {
  // s + dot above + dot below: the marks are out of canonical order, yet the
  // whole composes to U+1E69, which decomposes with dot below first.
  Decoded d = decode("s\xCC\x87\xCC\xA3", 510, UTF_PRECOMPOSED);
  EXPECT_EQ(d.units, Units({0x1E69}));
  Encoded e = encode({0x1E69}, 64, UTF_DECOMPOSED);
  EXPECT_EQ(e.text, "s\xCC\xA3\xCC\x87");
  // With no precomposed form the marks are still put in order.
  d = decode("q\xCC\x87\xCC\xA3", 510, UTF_PRECOMPOSED);
  EXPECT_EQ(d.units, Units({'q', 0x0323, 0x0307}));
}

TEST(Utf8Normalization, HangulSyllablesComposeAndDecompose) {
  Decoded d = decode("\xE1\x84\x80\xE1\x85\xA1", 510, UTF_PRECOMPOSED);  // U+1100 U+1161
  EXPECT_EQ(d.units, Units({0xAC00}));
  Encoded e = encode({0xAC00}, 64, UTF_DECOMPOSED);
  EXPECT_EQ(e.text, "\xE1\x84\x80\xE1\x85\xA1");
}

TEST(Utf8Normalization, SupplementaryCharactersRoundTrip) {
  Encoded e = encode({0xD83D, 0xDE00, 'x'}, 64, kListing);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text, "\xF0\x9F\x98\x80x");
  Decoded d = decode(e.text, 64, kLookup);
  EXPECT_EQ(d.units, Units({0xD83D, 0xDE00, 'x'}));
}

TEST(Utf8IllFormed, BadUtf8IsInvalid) {
  const char* bad[] = {
      "\xC0\xAF",          // overlong '/'
      "\xC1\xBF",          // overlong two-byte
      "\xE0\x80\xAF",      // overlong three-byte
      "\xF0\x80\x80\xAF",  // overlong four-byte
      "\xED\xA0\x80",      // U+D800
      "\xED\xBF\xBF",      // U+DFFF
      "\xF4\x90\x80\x80",  // U+110000
      "\xF5\x80\x80\x80",  // lead byte past U+10FFFF
      "\xE4\xB8",          // truncated
      "ok\xF0\x9F\x98",    // truncated at the end
      "\x80",              // lone continuation
      "\xC3\x28",          // continuation missing
      "\xFF",
  };
  for (const char* s : bad) {
    Decoded d = decode(s, 510, kLookup);
    EXPECT_EQ(d.error, EINVAL) << "input " << testing::PrintToString(std::string(s));
    EXPECT_TRUE(d.units.empty());
  }
  // The edges of the ranges are valid.
  EXPECT_EQ(decode("\xED\x9F\xBF", 8, 0).units, Units({0xD7FF}));
  EXPECT_EQ(decode("\xEE\x80\x80", 8, 0).units, Units({0xE000}));
  EXPECT_EQ(decode("\xF4\x8F\xBF\xBF", 8, 0).units, Units({0xDBFF, 0xDFFF}));
  EXPECT_EQ(decode("\xC2\x80", 8, 0).units, Units({0x0080}));
}

TEST(Utf8IllFormed, UnpairedSurrogatesAreInvalid) {
  const Units bad[] = {{0xD800}, {'a', 0xD800}, {0xDC00, 'a'}, {'a', 0xD800, 'b'}, {0xDE00, 0xD83D}};
  for (const Units& u : bad) {
    Encoded e = encode(u, 64, kListing);
    EXPECT_EQ(e.error, EINVAL);
    EXPECT_EQ(e.text, "");
  }
  // Ill-formed input is reported even when it would not fit anyway.
  Units long_bad = repeat('x', 300);
  long_bad[299] = 0xDC00;
  EXPECT_EQ(encode(long_bad, 256, kListing).error, EINVAL);
}

TEST(Utf8Sfm, ReservedCharactersMapToPrivateUseAndBack) {
  const std::string plain = "\x01\x1F\"*:<>?\\|";
  const Units mapped = {0xF001, 0xF01F, 0xF020, 0xF021, 0xF022, 0xF023, 0xF024, 0xF025, 0xF026, 0xF027};
  Decoded d = decode(plain, 510, kLookup);
  EXPECT_EQ(d.error, 0);
  EXPECT_EQ(d.units, mapped);

  Encoded e = encode(mapped, 256, kListing);
  EXPECT_EQ(e.error, 0);
  EXPECT_EQ(e.text, plain);

  // Without the flag nothing is mapped, in either direction.
  EXPECT_EQ(decode(":", 8, UTF_PRECOMPOSED).units, Units({':'}));
  EXPECT_EQ(encode({0xF022}, 8, UTF_DECOMPOSED).text, "\xEF\x80\xA2");
  // Other characters, '/' and NUL among them, are left alone.
  EXPECT_EQ(decode(std::string("a/.\0 ", 5), 16, kLookup).units, Units({'a', '/', '.', 0, ' '}));
}

TEST(Utf8Sfm, MappedCharacterDoesNotComposeWithAFollowingMark) {
  // '<' + U+0338 composes to U+226E; a name typed that way keeps its '<'.
  EXPECT_EQ(decode("<\xCC\xB8", 16, UTF_PRECOMPOSED).units, Units({0x226E}));
  Decoded d = decode("<\xCC\xB8", 16, kLookup);
  EXPECT_EQ(d.units, Units({0xF023, 0x0338}));
  EXPECT_EQ(encode(d.units, 16, kListing).text, "<\xCC\xB8");
}

TEST(Utf8AltSlash, SlashTravelsAsTheAlternateCharacter) {
  EXPECT_EQ(decode("a/b", 16, kLookup, ':').units, Units({'a', ':', 'b'}));
  EXPECT_EQ(encode({'a', ':', 'b'}, 16, 0, ':').text, "a/b");
  EXPECT_EQ(encode({'a', '/', 'b'}, 16, 0, ':').text, "a:b");
}

TEST(Utf8DeathTest, UnsupportedFlagsPanic) {
  uint16_t out[4];
  uint8_t out8[4];
  size_t len;
  EXPECT_DEATH(utf8_decodestr(reinterpret_cast<const uint8_t*>("a"), 1, out, &len, 8, 0, UTF_REVERSE_ENDIAN),
               "panic: utf8_decodestr: unsupported flags 0x1");
  EXPECT_DEATH(utf8_encodestr(out, 2, out8, &len, 4, 0, UTF_ESCAPE_ILLEGAL),
               "panic: utf8_encodestr: unsupported flags 0x10");
}
