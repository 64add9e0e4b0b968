#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/uio.h"

namespace {

user_addr_t addr(const void* p) { return static_cast<user_addr_t>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace

TEST(Uio, ReadScattersAcrossVectorsAndSkipsEmptyOnes) {
  char a[3] = {}, c[5] = {};
  char empty;
  uio_t uio = uio_create(3, 100, UIO_SYSSPACE, UIO_READ);
  ASSERT_NE(uio, nullptr);
  ASSERT_EQ(uio_addiov(uio, addr(a), sizeof a), 0);
  ASSERT_EQ(uio_addiov(uio, addr(&empty), 0), 0);
  ASSERT_EQ(uio_addiov(uio, addr(c), sizeof c), 0);
  EXPECT_EQ(uio_resid(uio), 8);
  EXPECT_EQ(uio_iovcnt(uio), 3);

  EXPECT_EQ(uiomove("abcdef", 6, uio), 0);
  EXPECT_EQ(std::string(a, 3), "abc");
  EXPECT_EQ(std::string(c, 3), "def");
  EXPECT_EQ(uio_resid(uio), 2);
  EXPECT_EQ(uio_offset(uio), 106);
  EXPECT_EQ(uio_iovcnt(uio), 1);
  EXPECT_EQ(uio_curriovbase(uio), addr(c + 3));
  EXPECT_EQ(uio_curriovlen(uio), 2u);

  // Asking for more than is left moves what is left.
  EXPECT_EQ(uiomove("ghijkl", 6, uio), 0);
  EXPECT_EQ(std::string(c, 5), "defgh");
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 108);
  EXPECT_EQ(uio_iovcnt(uio), 0);
  EXPECT_EQ(uio_curriovbase(uio), 0u);
  EXPECT_EQ(uio_curriovlen(uio), 0u);
  uio_free(uio);
}

TEST(Uio, WriteGathersFromVectorsIntoTheKernelBuffer) {
  const char x[] = "hello ", y[] = "world";
  char out[16] = {};
  uio_t uio = uio_create(2, 0, UIO_USERSPACE64, UIO_WRITE);
  ASSERT_NE(uio, nullptr);
  EXPECT_EQ(uio_rw(uio), UIO_WRITE);
  EXPECT_TRUE(uio_isuserspace(uio));
  uio_addiov(uio, addr(x), 6);
  uio_addiov(uio, addr(y), 5);
  EXPECT_EQ(uiomove64(addr(out), 8, uio), 0);
  EXPECT_EQ(std::string(out), "hello wo");
  EXPECT_EQ(uiomove(out + 8, 8, uio), 0);
  EXPECT_EQ(std::string(out), "hello world");
  EXPECT_EQ(uio_resid(uio), 0);
  uio_free(uio);
}

TEST(Uio, ResidualCountLimitsTheTransfer) {
  char buf[10] = {};
  uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, addr(buf), sizeof buf);
  uio_setresid(uio, 4);
  EXPECT_EQ(uiomove("0123456789", 10, uio), 0);
  EXPECT_EQ(std::string(buf), "0123");
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 4);
  uio_free(uio);
}

TEST(Uio, VectorsAreLimitedAndResetStartsOver) {
  char buf[4];
  uio_t uio = uio_create(2, 7, UIO_SYSSPACE, UIO_READ);
  EXPECT_EQ(uio_addiov(uio, addr(buf), 1), 0);
  EXPECT_EQ(uio_addiov(uio, addr(buf + 1), 1), 0);
  EXPECT_EQ(uio_addiov(uio, addr(buf + 2), 1), EINVAL);
  EXPECT_EQ(uio_resid(uio), 2);

  uio_reset(uio, 4096, UIO_SYSSPACE, UIO_WRITE);
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 4096);
  EXPECT_EQ(uio_iovcnt(uio), 0);
  EXPECT_EQ(uio_rw(uio), UIO_WRITE);
  EXPECT_FALSE(uio_isuserspace(uio));
  EXPECT_EQ(uio_addiov(uio, addr(buf), 4), 0);
  EXPECT_EQ(uio_addiov(uio, addr(buf), 4), 0);
  EXPECT_EQ(uio_resid(uio), 8);
  uio_setoffset(uio, 12);
  EXPECT_EQ(uio_offset(uio), 12);
  uio_free(uio);
}

TEST(Uio, UpdateAdvancesAcrossVectorsWithoutCopying) {
  char a[4] = {'x', 'x', 'x', 'x'}, b[4] = {};
  uio_t uio = uio_create(2, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, addr(a), 4);
  uio_addiov(uio, addr(b), 4);
  uio_update(uio, 5);
  EXPECT_EQ(uio_resid(uio), 3);
  EXPECT_EQ(uio_offset(uio), 5);
  EXPECT_EQ(uio_iovcnt(uio), 1);
  EXPECT_EQ(uio_curriovbase(uio), addr(b + 1));
  EXPECT_EQ(uio_curriovlen(uio), 3u);
  EXPECT_EQ(std::string(a, 4), "xxxx");
  EXPECT_EQ(uiomove("yz", 2, uio), 0);
  EXPECT_EQ(b[1], 'y');
  EXPECT_EQ(b[2], 'z');
  uio_free(uio);
}

TEST(Uio, NullVectorIsABadAddress) {
  char a[2] = {};
  uio_t uio = uio_create(2, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, addr(a), 2);
  uio_addiov(uio, 0, 2);
  EXPECT_EQ(uiomove("abcd", 4, uio), EFAULT);
  EXPECT_EQ(std::string(a, 2), "ab");
  EXPECT_EQ(uio_resid(uio), 2);
  EXPECT_EQ(uio_offset(uio), 2);
  uio_free(uio);
}

TEST(UioDeathTest, MisuseIsFatal) {
  uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
  char a[4];
  uio_addiov(uio, addr(a), 4);
  EXPECT_DEATH(uio_update(uio, 5), "panic: uio_update: count 5 exceeds residual 4");
  EXPECT_DEATH(uio_create(1, 0, 3, UIO_READ), "panic: uio_create: unsupported address space 3");
  EXPECT_DEATH(uio_create(1, 0, UIO_SYSSPACE, 2), "panic: uio_create: bad direction 2");
  uio_free(uio);
}
