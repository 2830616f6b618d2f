#include "KoruRegFile/RegisterBits.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace KoruRegFile {

namespace {

constexpr uint8_t highestBit = 31;

uint8_t parseBit(std::string_view text, std::string_view whole) {
  uint8_t bit = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bit);
  if (error != std::errc() || end != text.data() + text.size() || bit > highestBit) {
    throw std::invalid_argument(
        fmt::format("'{}' in '{}' is no bit number from 0 to {}", text, whole, highestBit));
  }
  return bit;
}

}  // namespace

uint32_t BitRange::mask() const {
  return static_cast<uint32_t>(((uint64_t{1} << width()) - 1) << low);
}

uint32_t BitRange::extract(uint32_t registerValue) const { return (registerValue & mask()) >> low; }

uint32_t BitRange::insert(uint32_t registerValue, uint32_t value) const {
  return (registerValue & ~mask()) | ((value << low) & mask());
}

RegisterBits RegisterBits::parse(std::string_view text) {
  const size_t open = text.rfind('[');
  if (open == std::string_view::npos || text.back() != ']') return {std::string(text), {}, false};
  const std::string_view inside = text.substr(open + 1, text.size() - open - 2);
  const size_t colon = inside.find(':');
  BitRange range;
  range.high = parseBit(inside.substr(0, colon), text);
  range.low =
      colon == std::string_view::npos ? range.high : parseBit(inside.substr(colon + 1), text);
  if (range.high < range.low) {
    throw std::invalid_argument(
        fmt::format("'{}' names its bits upside down, write [{}:{}]", text, range.low, range.high));
  }
  return {std::string(text.substr(0, open)), range, true};
}

uint64_t parseNumber(std::string_view text, uint64_t highest) {
  int base = 10;
  std::string_view digits = text;
  if (digits.starts_with("0x") || digits.starts_with("0X")) base = 16;
  if (digits.starts_with("0b") || digits.starts_with("0B")) base = 2;
  if (base != 10) digits.remove_prefix(2);
  uint64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
  if (error == std::errc::invalid_argument || stop != end) {
    throw std::invalid_argument(
        fmt::format("'{}' is no number (write 42, 0x2a or 0b101010)", text));
  }
  if (error == std::errc::result_out_of_range || value > highest) {
    throw std::invalid_argument(fmt::format("{} is more than {:#x}", text, highest));
  }
  return value;
}

bool fitsWidth(uint64_t value, uint32_t width) { return width >= 64 || (value >> width) == 0; }

}  // namespace KoruRegFile
