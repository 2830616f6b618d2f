#pragma once

// Numbers as bytes on a bus.

#include <cstddef>
#include <cstdint>
#include <span>

namespace Board {

enum class ByteOrder : uint8_t { highFirst, lowFirst };

// The low bytes of `number`, as many as there is room for.
inline void putNumber(std::span<uint8_t> bytes, uint32_t number, ByteOrder order) {
  const size_t size = bytes.size();
  for (size_t i = 0; i < size; ++i) {
    bytes[order == ByteOrder::highFirst ? size - 1 - i : i] = static_cast<uint8_t>(number);
    number >>= 8;
  }
}

// Of at most four bytes.
inline uint32_t numberOf(std::span<const uint8_t> bytes, ByteOrder order) {
  uint32_t number = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const size_t at = order == ByteOrder::highFirst ? i : bytes.size() - 1 - i;
    number = number << 8 | bytes[at];
  }
  return number;
}

// All ones below.
constexpr uint32_t maskOf(unsigned bits) { return bits >= 32 ? ~0u : (1u << bits) - 1; }

}  // namespace Board
