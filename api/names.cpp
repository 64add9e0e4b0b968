// The names of a listing as the library hands them on: composed, and only
// those that a path can name.

#include <utf8proc.h>

#include <cstdlib>

#include "api/api_private.h"

namespace exvol::detail {

namespace {

// The characters the driver stores as private-use stand-ins (controls and
// " * : < > ? \ |) and gives back as themselves in a listing. A stand-in
// composes with nothing, so the driver's lookup never joins one to the
// mark after it: "<" followed by U+0338 stays two characters on the
// volume, while composing the listed text would make it U+226E, a name the
// lookup can't find. The text between them is composed piece by piece.
bool stands_in(unsigned char c) {
  if (c >= 0x01 && c <= 0x1F)
    return true;
  switch (c) {
    case '"': case '*': case ':': case '<': case '>': case '?': case '\\': case '|':
      return true;
    default:
      return false;
  }
}

// NFC of a piece of UTF-8; the piece unchanged if it can't be composed
// (the driver hands out only well-formed UTF-8, so that does not happen).
void append_composed(std::string_view piece, std::string* out) {
  bool plain = true;
  for (unsigned char c : piece)
    plain = plain && c < 0x80;
  if (plain) {
    out->append(piece);
    return;
  }
  utf8proc_uint8_t* composed = nullptr;
  utf8proc_ssize_t n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(piece.data()),
                                    static_cast<utf8proc_ssize_t>(piece.size()), &composed,
                                    static_cast<utf8proc_option_t>(UTF8PROC_STABLE |
                                                                   UTF8PROC_COMPOSE));
  if (n < 0)
    out->append(piece);
  else
    out->append(reinterpret_cast<const char*>(composed), static_cast<size_t>(n));
  free(composed);
}

}  // namespace

std::string listed_name(std::string_view name, bool decomposed) {
  if (decomposed)
    return std::string(name);
  std::string out;
  out.reserve(name.size());
  size_t start = 0;
  for (size_t i = 0; i < name.size(); i++) {
    if (stands_in(static_cast<unsigned char>(name[i]))) {
      append_composed(name.substr(start, i - start), &out);
      out.push_back(name[i]);
      start = i + 1;
    }
  }
  append_composed(name.substr(start), &out);
  return out;
}

bool reachable_name(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace exvol::detail
