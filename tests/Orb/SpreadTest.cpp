#include <gtest/gtest.h>

#include "Orb/Spread.h"

namespace {

// Machines with and without a product of 128 bits have to find the same in a table.
TEST(FoldedProduct, IsTheSameWithAndWithoutAWideProduct) {
  struct Case {
    uint64_t a, b, product;
  };
  const Case cases[] = {
      {0, UINT64_MAX, 0},
      {1, 0x0123456789abcdef, 0x0123456789abcdef},
      {UINT32_MAX, UINT32_MAX, 0xfffffffe00000001},
      // (2^64 - 1)^2 is 2^128 - 2^65 + 1: every carry there is.
      {UINT64_MAX, UINT64_MAX, UINT64_MAX},
      {uint64_t{1} << 32, uint64_t{1} << 32, 1},
      {uint64_t{1} << 63, 2, 1},
      {0x00000001ffffffff, 0xffffffff00000001, 0x0000000300000002},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Orb::foldedProductOfWords(c.a, c.b), c.product) << std::hex << c.a << " * " << c.b;
    EXPECT_EQ(Orb::foldedProduct(c.a, c.b), c.product) << std::hex << c.a << " * " << c.b;
  }
  uint64_t a = 1, b = 2;
  for (int i = 0; i < 1000; ++i) {
    a = Orb::spread(a + 1);
    b = Orb::spread(b + a);
    EXPECT_EQ(Orb::foldedProductOfWords(a, b), Orb::foldedProduct(a, b));
  }
}

}  // namespace
