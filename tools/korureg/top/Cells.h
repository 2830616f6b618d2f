#pragma once

// Texts as wide as a column.

#include <string>
#include <string_view>

#include "Orb/Printable.h"

namespace korureg::top {

// So many code points: cut, with a "~" at the end, or filled, and with one blank at least behind
// it.
inline std::string cell(std::string text, size_t columns) {
  const size_t length = Orb::codePoints(text);
  if (length < columns) return text + std::string(columns - length, ' ');
  size_t end = 0;
  for (size_t left = columns - 2; end < text.size(); ++end) {
    const bool isNext = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
    if (isNext && left-- == 0) break;
  }
  text.resize(end);
  return text + "~ ";
}

// At the right of the column.
inline std::string right(const std::string& text, size_t columns) {
  const size_t length = Orb::codePoints(text);
  return std::string(length < columns ? columns - length : 1, ' ') + text;
}

}  // namespace korureg::top
