#pragma once

// Spreads numbers for tables that are indexed by a hash. Usable from any thread.

#include <cstdint>

namespace Orb {

// A number of 64 bits for each, all of them different; the upper bits look random however regular
// the numbers are (one product alone would send multiples of some step to the same few places).
constexpr uint64_t spread(uint64_t number) {
  constexpr uint64_t goldenRatio = 0x9E3779B97F4A7C15;
  const uint64_t product = number * goldenRatio;
  return (product ^ product >> 32) * goldenRatio;
}

// The lower half of the 128-bit product, xor its upper half; in words of 32 bits.
constexpr uint64_t foldedProductOfWords(uint64_t a, uint64_t b) {
  const uint64_t aLow = a & UINT32_MAX, aHigh = a >> 32;
  const uint64_t bLow = b & UINT32_MAX, bHigh = b >> 32;
  const uint64_t low = aLow * bLow;
  // None of the sums can overflow: (2^32 - 1)^2 + 2 (2^32 - 1) is 2^64 - 1.
  const uint64_t middle = aHigh * bLow + (low >> 32);
  const uint64_t otherMiddle = aLow * bHigh + (middle & UINT32_MAX);
  const uint64_t high = aHigh * bHigh + (middle >> 32) + (otherMiddle >> 32);
  return high ^ (otherMiddle << 32 | (low & UINT32_MAX));
}

// The same in one multiplication, where the machine has it.
constexpr uint64_t foldedProduct(uint64_t a, uint64_t b) {
#ifdef __SIZEOF_INT128__
  const auto whole = static_cast<unsigned __int128>(a) * b;
  return static_cast<uint64_t>(whole ^ whole >> 64);
#else
  return foldedProductOfWords(a, b);
#endif
}

}  // namespace Orb
