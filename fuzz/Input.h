#pragma once

// What the fuzzers share: the bytes that they are given, taken piece by piece, and what they ask of
// the code. A fuzzer is a function that may end in one way only, whatever the bytes are: it
// returns.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace Fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }
  // Zeroes, where there is no more.
  uint8_t byte() { return static_cast<uint8_t>(number(1)); }
  uint32_t number(size_t bytes = 4) {
    uint32_t value = 0;
    for (size_t i = 0; i < bytes && !rest_.empty(); ++i) {
      value |= uint32_t{static_cast<uint8_t>(rest_[0])} << (8 * i);
      rest_.remove_prefix(1);
    }
    return value;
  }
  // Below `limit`, which is not 0.
  uint32_t below(uint32_t limit) { return number(limit > 256 ? 4 : 1) % limit; }
  std::string text(size_t most) {
    const std::string_view piece = rest_.substr(0, most);
    rest_.remove_prefix(piece.size());
    return std::string(piece);
  }
  std::string rest() { return text(rest_.size()); }

 private:
  std::string_view rest_;
};

// Ends the process, and so the search: here is a fault.
inline void require(bool holds, std::string_view what) {
  if (holds) return;
  std::fprintf(stderr, "fault: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
