#pragma once

// What a chip's registers were accessed, for whoever watches over the board. Plain values, which
// only grow as long as the chip is described in the same way.

#include <array>
#include <cstddef>
#include <cstdint>

namespace Board {

struct AccessCounts {
  // The longest time of each class, in nanoseconds; what takes longer is in the last class.
  static constexpr std::array<uint64_t, 9> longest = {
      1'000, 10'000, 50'000, 100'000, 500'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000};

  uint64_t reads = 0;
  uint64_t writes = 0;
  uint64_t failures = 0;
  uint64_t retries = 0;  // since the bus was busy
  // How long accesses took, from the call to the end; those are left out whose end nobody is told.
  std::array<uint64_t, longest.size() + 1> classes = {};
  uint64_t nanoseconds = 0;  // all of them together
  int64_t lastChange = 0;    // of a field, in nanoseconds since 1970; 0 for none

  void took(uint64_t time) {
    size_t which = 0;
    while (which < longest.size() && time > longest[which]) ++which;
    ++classes[which];
    nanoseconds += time;
  }
};

}  // namespace Board
