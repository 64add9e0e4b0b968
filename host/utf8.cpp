#include "host/utf8.h"

#include <utf8proc.h>

#include <new>
#include <vector>

#include "host/kern.h"

// Both conversions run in three steps over a buffer of code points:
//
//   decode (UTF-8 -> UTF-16):  parse UTF-8 -> map '/' and SFM characters
//                              -> normalise -> write UTF-16
//   encode (UTF-16 -> UTF-8):  parse UTF-16 -> normalise
//                              -> map back '/' and SFM characters -> write UTF-8
//
// The mapping sits on the outer side of normalisation in both directions so
// that encode undoes decode: '<' followed by U+0338 would compose to U+226E,
// but its private-use stand-in U+F023 composes with nothing, so a stored
// name keeps the character a user typed.

namespace {

constexpr int kSupportedFlags =
    UTF_NO_NULL_TERM | UTF_DECOMPOSED | UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS;

using CodePoints = std::vector<utf8proc_int32_t>;

constexpr auto kDecompose = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE);
constexpr auto kCompose = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE);

void check_flags(int flags, const char* who) {
  if (flags & ~kSupportedFlags) panic("%s: unsupported flags 0x%x", who, flags & ~kSupportedFlags);
  if ((flags & UTF_DECOMPOSED) && (flags & UTF_PRECOMPOSED))
    panic("%s: both decomposed and precomposed output requested", who);
}

// Scratch buffers, one set per thread, reused so that converting a name
// does not allocate once a thread has warmed up. Large conversions give
// their memory back.
struct Scratch {
  CodePoints cps;
  CodePoints work;
  void trim() {
    constexpr size_t kKeep = 4096;
    if (cps.capacity() > kKeep) CodePoints().swap(cps);
    if (work.capacity() > kKeep) CodePoints().swap(work);
  }
};

Scratch& scratch() {
  static thread_local Scratch s;
  return s;
}

// --- The SFM mapping ------------------------------------------------------------

// Characters that some file systems cannot store, and their private-use
// stand-ins: controls 0x01-0x1F at U+F001-U+F01F, then these eight.
constexpr char kSfmSpecials[] = {'"', '*', ':', '<', '>', '?', '\\', '|'};
constexpr utf8proc_int32_t kSfmSpecialBase = 0xF020;

utf8proc_int32_t sfm_to_private(utf8proc_int32_t c) {
  if (c >= 0x01 && c <= 0x1F) return 0xF000 + c;
  for (size_t i = 0; i < sizeof kSfmSpecials; i++) {
    if (c == kSfmSpecials[i]) return kSfmSpecialBase + static_cast<utf8proc_int32_t>(i);
  }
  return c;
}

utf8proc_int32_t sfm_from_private(utf8proc_int32_t c) {
  if (c >= 0xF001 && c <= 0xF01F) return c - 0xF000;
  if (c >= kSfmSpecialBase && c < kSfmSpecialBase + static_cast<utf8proc_int32_t>(sizeof kSfmSpecials))
    return kSfmSpecials[c - kSfmSpecialBase];
  return c;
}

// --- Parsing ---------------------------------------------------------------------

bool is_cont(uint8_t b) { return (b & 0xC0) == 0x80; }

// Parses well-formed UTF-8 only: no overlong forms, no encoded surrogates,
// nothing above U+10FFFF, no truncated sequence. Returns 0 or EINVAL.
int parse_utf8(const uint8_t* s, size_t len, CodePoints& out) {
  size_t i = 0;
  while (i < len) {
    uint8_t b0 = s[i];
    if (b0 < 0x80) {
      out.push_back(b0);
      i++;
      continue;
    }
    size_t n;
    uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    utf8proc_int32_t c;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
      n = 2;
      c = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
      n = 3;
      c = b0 & 0x0F;
      if (b0 == 0xE0) lo = 0xA0;  // overlong below U+0800
      if (b0 == 0xED) hi = 0x9F;  // U+D800-U+DFFF
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
      n = 4;
      c = b0 & 0x07;
      if (b0 == 0xF0) lo = 0x90;  // overlong below U+10000
      if (b0 == 0xF4) hi = 0x8F;  // above U+10FFFF
    } else {
      return EINVAL;
    }
    if (len - i < n) return EINVAL;
    if (s[i + 1] < lo || s[i + 1] > hi) return EINVAL;
    for (size_t k = 1; k < n; k++) {
      if (!is_cont(s[i + k])) return EINVAL;
      c = (c << 6) | (s[i + k] & 0x3F);
    }
    out.push_back(c);
    i += n;
  }
  return 0;
}

// Parses UTF-16 in host order; a surrogate that is not part of a high-low
// pair is ill-formed. Returns 0 or EINVAL.
int parse_utf16(const uint16_t* s, size_t units, CodePoints& out) {
  for (size_t i = 0; i < units; i++) {
    uint16_t u = s[i];
    if (u < 0xD800 || u > 0xDFFF) {
      out.push_back(u);
      continue;
    }
    if (u > 0xDBFF || i + 1 == units || s[i + 1] < 0xDC00 || s[i + 1] > 0xDFFF) return EINVAL;
    out.push_back(0x10000 + ((static_cast<utf8proc_int32_t>(u) - 0xD800) << 10) + (s[i + 1] - 0xDC00));
    i++;
  }
  return 0;
}

// --- Normalisation -----------------------------------------------------------------

int combining_class(utf8proc_int32_t c) { return utf8proc_get_property(c)->combining_class; }

// Puts each run of combining marks in the canonical order (a stable sort by
// combining class; marks of class 0 are fixed points).
void canonical_order(CodePoints& v) {
  for (size_t i = 1; i < v.size(); i++) {
    int cc = combining_class(v[i]);
    if (cc == 0) continue;
    for (size_t j = i; j > 0; j--) {
      int prev = combining_class(v[j - 1]);
      if (prev <= cc) break;
      std::swap(v[j - 1], v[j]);
    }
  }
}

// Rewrites cps in NFD (UTF_DECOMPOSED) or NFC (UTF_PRECOMPOSED); without
// either flag it is left as it is. Text below U+00C0 is the same in both
// forms and below U+0300 is already NFC, which lets plain names through
// without a table lookup.
void normalize(CodePoints& cps, CodePoints& work, int flags) {
  if (!(flags & (UTF_DECOMPOSED | UTF_PRECOMPOSED))) return;
  utf8proc_int32_t floor = (flags & UTF_DECOMPOSED) ? 0xC0 : 0x300;
  bool plain = true;
  for (utf8proc_int32_t c : cps) {
    if (c >= floor) {
      plain = false;
      break;
    }
  }
  if (plain) return;

  work.clear();
  for (utf8proc_int32_t c : cps) {
    utf8proc_int32_t parts[8];
    int boundclass = 0;
    utf8proc_ssize_t n = utf8proc_decompose_char(c, parts, 8, kDecompose, &boundclass);
    // Canonical decompositions are at most four code points long.
    if (n < 0 || n > 8) panic("utf8: cannot decompose U+%04X", static_cast<unsigned>(c));
    work.insert(work.end(), parts, parts + n);
  }
  canonical_order(work);
  if (flags & UTF_PRECOMPOSED) {
    auto len = static_cast<utf8proc_ssize_t>(work.size());
    utf8proc_ssize_t n = utf8proc_normalize_utf32(work.data(), len, kCompose);
    if (n < 0) panic("utf8: composition failed");
    work.resize(static_cast<size_t>(n));
  }
  cps.swap(work);
}

// --- Writing -----------------------------------------------------------------------

size_t utf8_length(utf8proc_int32_t c) {
  if (c < 0x80) return 1;
  if (c < 0x800) return 2;
  if (c < 0x10000) return 3;
  return 4;
}

void put_utf8(uint8_t* p, utf8proc_int32_t c, size_t n) {
  switch (n) {
    case 1:
      p[0] = static_cast<uint8_t>(c);
      break;
    case 2:
      p[0] = static_cast<uint8_t>(0xC0 | c >> 6);
      p[1] = static_cast<uint8_t>(0x80 | (c & 0x3F));
      break;
    case 3:
      p[0] = static_cast<uint8_t>(0xE0 | c >> 12);
      p[1] = static_cast<uint8_t>(0x80 | (c >> 6 & 0x3F));
      p[2] = static_cast<uint8_t>(0x80 | (c & 0x3F));
      break;
    default:
      p[0] = static_cast<uint8_t>(0xF0 | c >> 18);
      p[1] = static_cast<uint8_t>(0x80 | (c >> 12 & 0x3F));
      p[2] = static_cast<uint8_t>(0x80 | (c >> 6 & 0x3F));
      p[3] = static_cast<uint8_t>(0x80 | (c & 0x3F));
  }
}

// Writes cps as UTF-16 into at most buflen bytes; a pair is never split.
int write_utf16(const CodePoints& cps, uint16_t* out, size_t* outlen, size_t buflen) {
  size_t units = 0;
  size_t room = buflen / 2;
  for (utf8proc_int32_t c : cps) {
    size_t need = c >= 0x10000 ? 2 : 1;
    if (units + need > room) {
      *outlen = units * 2;
      return ENAMETOOLONG;
    }
    if (need == 1) {
      out[units++] = static_cast<uint16_t>(c);
    } else {
      out[units++] = static_cast<uint16_t>(0xD800 + ((c - 0x10000) >> 10));
      out[units++] = static_cast<uint16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    }
  }
  *outlen = units * 2;
  return 0;
}

// Writes cps as UTF-8 into at most buflen bytes, the terminating NUL
// included unless no_nul; a character is never split.
int write_utf8(const CodePoints& cps, uint8_t* out, size_t* outlen, size_t buflen, bool no_nul) {
  if (!no_nul && buflen == 0) {
    *outlen = 0;
    return ENAMETOOLONG;
  }
  size_t room = no_nul ? buflen : buflen - 1;
  size_t used = 0;
  int error = 0;
  for (utf8proc_int32_t c : cps) {
    size_t need = utf8_length(c);
    if (used + need > room) {
      error = ENAMETOOLONG;
      break;
    }
    put_utf8(out + used, c, need);
    used += need;
  }
  if (!no_nul) out[used] = 0;
  *outlen = used;
  return error;
}

int decode_with(Scratch& s, const uint8_t* utf8p, size_t utf8len, uint16_t* ucsp,
                          size_t* ucslen, size_t buflen, uint16_t altslash, int flags) {
  int error = parse_utf8(utf8p, utf8len, s.cps);
  if (error != 0) return error;
  for (utf8proc_int32_t& c : s.cps) {
    if (c == '/' && altslash != 0) c = altslash;
    else if (flags & UTF_SFM_CONVERSIONS) c = sfm_to_private(c);
  }
  normalize(s.cps, s.work, flags);
  return write_utf16(s.cps, ucsp, ucslen, buflen);
}

int encode_with(Scratch& s, const uint16_t* ucsp, size_t ucslen, uint8_t* utf8p,
                          size_t* utf8len, size_t buflen, uint16_t altslash, int flags) {
  if (ucslen % 2 != 0) return EINVAL;
  int error = parse_utf16(ucsp, ucslen / 2, s.cps);
  if (error != 0) return error;
  normalize(s.cps, s.work, flags);
  for (utf8proc_int32_t& c : s.cps) {
    if (altslash != 0 && c == altslash) c = '/';
    else if (altslash != 0 && c == '/') c = ':';
    else if (flags & UTF_SFM_CONVERSIONS) c = sfm_from_private(c);
  }
  return write_utf8(s.cps, utf8p, utf8len, buflen, (flags & UTF_NO_NULL_TERM) != 0);
}

}  // namespace

// The output parameters are set on every return: *ucslen is 0 for EINVAL,
// and the bytes that fit for ENAMETOOLONG. The input is checked whole before
// anything is written, so ill-formed input is EINVAL however long it is.
// UTF_NO_NULL_TERM is accepted and has no effect: UTF-16 output is never
// terminated.
int utf8_decodestr(const uint8_t* utf8p, size_t utf8len, uint16_t* ucsp, size_t* ucslen,
                   size_t buflen, uint16_t altslash, int flags) {
  check_flags(flags, "utf8_decodestr");
  *ucslen = 0;
  Scratch& s = scratch();
  s.cps.clear();
  int error;
  try {
    error = decode_with(s, utf8p, utf8len, ucsp, ucslen, buflen, altslash, flags);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  s.trim();
  return error;
}

// The output is terminated on every return where buflen leaves room for the
// NUL (unless UTF_NO_NULL_TERM), the partial output of ENAMETOOLONG
// included; *utf8len never counts the NUL.
int utf8_encodestr(const uint16_t* ucsp, size_t ucslen, uint8_t* utf8p, size_t* utf8len,
                   size_t buflen, uint16_t altslash, int flags) {
  check_flags(flags, "utf8_encodestr");
  *utf8len = 0;
  if (!(flags & UTF_NO_NULL_TERM) && buflen > 0) utf8p[0] = 0;
  Scratch& s = scratch();
  s.cps.clear();
  int error;
  try {
    error = encode_with(s, ucsp, ucslen, utf8p, utf8len, buflen, altslash, flags);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  s.trim();
  return error;
}
