#pragma once

// Registers, bit ranges and values as people write them: "CTRL", "CTRL[7:4]", "CTRL[3]"; "42",
// "0x2a", "0b101010". Used by the command line and by agents that take requests in text. Stateless;
// any thread.

#include <cstdint>
#include <string>
#include <string_view>

#include "KoruRegFile/Export.h"

namespace KoruRegFile {

// A range of bits of a 32-bit register value, both ends included.
struct KORU_EXPORT BitRange {
  uint8_t high = 31;
  uint8_t low = 0;

  // The bits of the range, moved down to bit 0, and back again.
  uint32_t mask() const;
  uint32_t extract(uint32_t registerValue) const;
  // `registerValue` with the bits of the range replaced by the low bits of `value`.
  uint32_t insert(uint32_t registerValue, uint32_t value) const;

  uint8_t width() const { return static_cast<uint8_t>(high - low + 1); }

  friend bool operator==(const BitRange&, const BitRange&) = default;
};

// A register's name, with or without a range of its bits.
struct KORU_EXPORT RegisterBits {
  std::string name;
  BitRange range;
  bool hasRange = false;

  // Throws std::invalid_argument that says what is wrong with the range.
  static RegisterBits parse(std::string_view text);
};

// A number in decimal, hexadecimal (0x) or binary (0b). Throws std::invalid_argument for anything
// else, and for a number above `highest`.
KORU_EXPORT uint64_t parseNumber(std::string_view text, uint64_t highest = UINT64_MAX);

// Whether `value` has no bits beyond `width`, which is at most 64.
KORU_EXPORT bool fitsWidth(uint64_t value, uint32_t width);

}  // namespace KoruRegFile
