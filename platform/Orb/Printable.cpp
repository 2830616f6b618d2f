#include "Orb/Printable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace Orb {

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

struct CodePoint {
  uint32_t value;
  size_t length;  // in bytes; 0 when they are no UTF-8
};

// The first one of a text that is not empty.
CodePoint firstOf(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {0, 0};
  uint32_t value = lead & (0x7fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if (!isContinuation(text[i])) return {0, 0};
    value = value << 6 | (static_cast<unsigned char>(text[i]) & 0x3fu);
  }
  constexpr uint32_t shortest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = value >= 0xd800 && value <= 0xdfff;
  if (value < shortest[length] || value > 0x10ffff || isSurrogate) return {0, 0};
  return {value, length};
}

// Controls, and characters without a width that change how their neighbours are shown.
bool isHarmful(uint32_t c) {
  constexpr struct {
    uint32_t first;
    uint32_t last;
  } ranges[] = {{0, 0x1f},        {0x7f, 0x9f},      {0xad, 0xad},     {0x61c, 0x61c},
                {0x200b, 0x200f}, {0x2028, 0x202e},  {0x2060, 0x206f}, {0xfeff, 0xfeff},
                {0xfff9, 0xffff}, {0xe0000, 0xe007f}};
  return std::any_of(std::begin(ranges), std::end(ranges),
                     [c](const auto& range) { return c >= range.first && c <= range.last; });
}

}  // namespace

std::string printable(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const CodePoint first = firstOf(text);
    const size_t length = std::max<size_t>(first.length, 1);
    if (first.length != 0 && !isHarmful(first.value)) {
      safe.append(text.substr(0, length));
    } else {
      for (const char byte : text.substr(0, length)) {
        fmt::format_to(std::back_inserter(safe), "\\x{:02x}", static_cast<unsigned char>(byte));
      }
    }
    text.remove_prefix(length);
  }
  return safe;
}

size_t codePoints(std::string_view text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

}  // namespace Orb
