#pragma once
// UTF-8 <-> UTF-16 conversion with Unicode normalisation.

#include "host/types.h"

#define UTF_REVERSE_ENDIAN 0x0001  // not supported (panics)
#define UTF_NO_NULL_TERM 0x0002
#define UTF_DECOMPOSED 0x0004      // output in NFD
#define UTF_PRECOMPOSED 0x0008     // output in NFC
#define UTF_ESCAPE_ILLEGAL 0x0010  // not supported (panics)
#define UTF_SFM_CONVERSIONS 0x0020 // map the characters that the SFM scheme covers

// UTF-8 (len bytes, not NUL-terminated) -> UTF-16 in host order. buflen is
// the output limit in bytes; *ucslen receives the bytes produced. altslash,
// when nonzero, is the UTF-16 unit that '/' turns into. ENAMETOOLONG when the
// output does not fit (what fits has been written), EINVAL for ill-formed
// input.
int utf8_decodestr(const uint8_t* utf8p, size_t utf8len, uint16_t* ucsp, size_t* ucslen,
                   size_t buflen, uint16_t altslash, int flags);

// UTF-16 (ucslen bytes) -> UTF-8. buflen is the output limit in bytes,
// including the terminating NUL unless UTF_NO_NULL_TERM; *utf8len receives the
// bytes produced, without the NUL. altslash, when nonzero, is the UTF-16 unit
// that becomes '/' (and '/' then becomes ':'). ENAMETOOLONG when it does not
// fit (what fits, cut at a character boundary, has been written and
// terminated), EINVAL for ill-formed input (an unpaired surrogate).
int utf8_encodestr(const uint16_t* ucsp, size_t ucslen, uint8_t* utf8p, size_t* utf8len,
                   size_t buflen, uint16_t altslash, int flags);
