#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/uio.h"

namespace {

user_addr_t addr(const void* p) { return static_cast<user_addr_t>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace

// A read scatters over the vectors, skips empty ones, stops at the residual count.
TEST(Uio, ReadScattersAcrossVectorsWithinTheResidual) {
  char a[3] = {}, c[5] = {};
  char empty;
  uio_t uio = uio_create(3, 100, UIO_SYSSPACE, UIO_READ);
  ASSERT_EQ(uio_addiov(uio, addr(a), sizeof a), 0);
  ASSERT_EQ(uio_addiov(uio, addr(&empty), 0), 0);
  ASSERT_EQ(uio_addiov(uio, addr(c), sizeof c), 0);
  EXPECT_EQ(uio_addiov(uio, addr(c), 1), EINVAL) << "more vectors than made for";
  EXPECT_EQ(uio_resid(uio), 8);
  EXPECT_EQ(uiomove("abcdef", 6, uio), 0);
  EXPECT_EQ(std::string(a, 3), "abc");
  EXPECT_EQ(uio_resid(uio), 2);
  EXPECT_EQ(uio_offset(uio), 106);
  uio_setresid(uio, 1);
  EXPECT_EQ(uiomove("ghijkl", 6, uio), 0);
  EXPECT_EQ(std::string(c, 5), std::string("defg\0", 5));
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 107);
  uio_free(uio);
}

// A write gathers from the vectors; a null vector is EFAULT after what precedes it.
TEST(Uio, WriteGathersAndANullVectorIsABadAddress) {
  const char x[] = "hello ", y[] = "world";
  char out[16] = {};
  uio_t uio = uio_create(3, 4096, UIO_SYSSPACE, UIO_WRITE);
  uio_addiov(uio, addr(x), 6);
  uio_addiov(uio, addr(y), 5);
  uio_addiov(uio, 0, 2);
  EXPECT_EQ(uiomove(out, 8, uio), 0);
  EXPECT_EQ(uiomove(out + 8, 8, uio), EFAULT);
  EXPECT_EQ(std::string(out), "hello world");
  EXPECT_EQ(uio_resid(uio), 2);
  EXPECT_EQ(uio_offset(uio), 4096 + 11);
  uio_free(uio);
}
