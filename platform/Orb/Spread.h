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

}  // namespace Orb
