#pragma once
// Names as the volume treats them: stored precomposed (NFC), listed
// decomposed (NFD), limited to 255 UTF-16 units, and compared without
// regard to case through the volume's up-case table.
//
// The model folds case for ASCII and the Latin-1 letters only. Generated
// names keep to that alphabet, where every up-case table this suite
// formats (and mkfs.exfat's full one) agrees with the fold.

#include <cstdint>
#include <string>
#include <vector>

namespace exvol::model {

std::string nfc(const std::string& utf8);
std::string nfd(const std::string& utf8);
// UTF-16 code units of the NFC form.
size_t utf16_units(const std::string& utf8);
// The key two names share exactly when the volume calls them the same.
std::string fold_key(const std::string& utf8);
// The name with the case of code point i toggled where bit i % 64 of
// `bits` is set (ASCII and Latin-1 letters only).
std::string case_variant(const std::string& utf8, uint64_t bits);
// The up-case table the suite's builder images carry: identity except
// a-z and the Latin-1 letters U+00E0-U+00FE (but U+00F7), which map 0x20
// down.
std::vector<uint16_t> latin_upcase_table();

}  // namespace exvol::model
