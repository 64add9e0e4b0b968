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
  EXPECT_EQ(uio_iovcnt(uio), 1);
  EXPECT_EQ(uio_curriovbase(uio), addr(c + 3));
  EXPECT_EQ(uio_curriovlen(uio), 2u);
  uio_setresid(uio, 1);
  EXPECT_EQ(uiomove("ghijkl", 6, uio), 0);
  EXPECT_EQ(std::string(c, 5), std::string("defg\0", 5));
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 107);
  uio_free(uio);
}

// A write gathers from the vectors; a reset starts over with new vectors; an update
// skips without copying; a null vector is a bad address.
TEST(Uio, WriteGathersResetStartsOverAndUpdateSkips) {
  const char x[] = "hello ", y[] = "world";
  char out[16] = {};
  uio_t uio = uio_create(3, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, addr(out), 1);
  uio_reset(uio, 4096, UIO_USERSPACE64, UIO_WRITE);
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 4096);
  EXPECT_EQ(uio_iovcnt(uio), 0);
  EXPECT_EQ(uio_rw(uio), UIO_WRITE);
  EXPECT_TRUE(uio_isuserspace(uio));
  uio_addiov(uio, addr(x), 6);
  uio_addiov(uio, addr(y), 5);
  EXPECT_EQ(uiomove64(addr(out), 8, uio), 0);
  EXPECT_EQ(uiomove(out + 8, 8, uio), 0);
  EXPECT_EQ(std::string(out), "hello world");
  EXPECT_EQ(uio_resid(uio), 0);
  EXPECT_EQ(uio_offset(uio), 4096 + 11);
  EXPECT_EQ(uio_curriovbase(uio), 0u);

  char a[4] = {'x', 'x', 'x', 'x'}, b[4] = {};
  uio_reset(uio, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, addr(a), 4);
  uio_addiov(uio, addr(b), 4);
  uio_addiov(uio, 0, 2);
  uio_update(uio, 5);
  EXPECT_EQ(uio_resid(uio), 5);
  EXPECT_EQ(uio_offset(uio), 5);
  EXPECT_EQ(uio_curriovbase(uio), addr(b + 1));
  EXPECT_EQ(std::string(a, 4), "xxxx");
  EXPECT_EQ(uiomove("yzwvu", 5, uio), EFAULT);
  EXPECT_EQ(std::string(b + 1, 3), "yzw");
  EXPECT_EQ(uio_resid(uio), 2);
  EXPECT_EQ(uio_offset(uio), 8);
  uio_free(uio);
}
