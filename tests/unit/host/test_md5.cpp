#include <gtest/gtest.h>

#include <md5.h>

#include <cstdio>
#include <string>

// The driver names volumes (a name-based UUID) and checks symbolic links
// with MD5 through the BSD interface; these pin that interface to the
// reference digests.

namespace {

std::string hex(const uint8_t digest[MD5_DIGEST_LENGTH]) {
  std::string s;
  char b[3];
  for (int i = 0; i < MD5_DIGEST_LENGTH; i++) {
    snprintf(b, sizeof b, "%02x", digest[i]);
    s += b;
  }
  return s;
}

std::string md5_in_pieces(const std::string& msg, size_t piece) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  for (size_t i = 0; i < msg.size(); i += piece) {
    size_t n = std::min(piece, msg.size() - i);
    MD5Update(&ctx, reinterpret_cast<const uint8_t*>(msg.data() + i), n);
  }
  uint8_t digest[MD5_DIGEST_LENGTH];
  MD5Final(digest, &ctx);
  return hex(digest);
}

}  // namespace

TEST(Md5, ReferenceDigestsWholeAndInPieces) {
  const struct {
    const char* msg;
    const char* digest;
  } vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& v : vectors) {
    // Pieces of 1 and 7 bytes straddle the 64-byte blocks; 64 fills them exactly.
    for (size_t piece : {size_t{1}, size_t{7}, size_t{64}, size_t{1000}}) {
      EXPECT_EQ(md5_in_pieces(v.msg, piece), v.digest) << "\"" << v.msg << "\" in pieces of " << piece;
    }
  }
}
