// The driver names volumes and checks symbolic links with MD5 through the
// BSD interface; the reference digests pin it, fed whole and in pieces.

#include <gtest/gtest.h>
#include <md5.h>

#include <cstdio>
#include <string>

TEST(Md5, ReferenceDigestsWholeAndInPieces) {
  const struct {
    const char* msg;
    const char* digest;
  } vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& v : vectors) {
    // Pieces of 1 and 7 bytes straddle the 64-byte blocks; 64 fills them exactly.
    for (size_t piece : {size_t{1}, size_t{7}, size_t{64}, size_t{1000}}) {
      std::string msg = v.msg, hex;
      MD5_CTX ctx;
      MD5Init(&ctx);
      for (size_t i = 0; i < msg.size(); i += piece)
        MD5Update(&ctx, reinterpret_cast<const uint8_t*>(msg.data() + i),
                  std::min(piece, msg.size() - i));
      uint8_t digest[MD5_DIGEST_LENGTH];
      MD5Final(digest, &ctx);
      char b[3];
      for (uint8_t d : digest) hex += (snprintf(b, sizeof b, "%02x", d), b);
      EXPECT_EQ(hex, v.digest) << "\"" << msg << "\" in pieces of " << piece;
    }
  }
}
