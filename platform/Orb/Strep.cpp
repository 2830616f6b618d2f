#include "Orb/Strep.h"

#include <fmt/format.h>

#include <algorithm>

namespace Orb {

namespace {

constexpr size_t shownOfText = 200;

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

bool isWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

}  // namespace

void appendQuoted(std::string& out, std::string_view text) {
  out += '\'';
  for (const char c : text) {
    switch (c) {
      case '\'':
        out += "\\'";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (isControl(c)) {
          fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<unsigned char>(c));
        } else {
          out += c;
        }
    }
  }
  out += '\'';
}

bool StrepReader::accept(std::string_view literal) {
  if (text_.substr(position_, literal.size()) != literal) return false;
  position_ += literal.size();
  return true;
}

void StrepReader::expect(std::string_view literal) {
  if (!accept(literal)) fail(literal);
}

std::string_view StrepReader::word() {
  const size_t begin = position_;
  while (position_ < text_.size() && isWordCharacter(text_[position_])) ++position_;
  if (position_ == begin) fail("a name");
  return text_.substr(begin, position_ - begin);
}

uint64_t StrepReader::number(std::string_view typeName, uint64_t highest) {
  const char* begin = text_.data() + position_;
  const char* end = text_.data() + text_.size();
  uint64_t value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value);
  if (error == std::errc::invalid_argument) fail(typeName);
  if (*begin == '0' && stop != begin + 1) fail("a number without leading zeroes");
  if (error == std::errc::result_out_of_range || value > highest) {
    throwRangeException(fmt::format(
        "{} is out of range for {} (0..{})",
        text_.substr(position_, std::min(static_cast<size_t>(stop - begin), shownOfText)), typeName,
        highest));
  }
  position_ += static_cast<size_t>(stop - begin);
  return value;
}

std::string StrepReader::quoted() {
  expect("'");
  std::string text;
  while (position_ < text_.size()) {
    const char c = text_[position_];
    if (isControl(c)) fail("an escaped control character");
    ++position_;
    if (c == '\'') return text;
    text += c == '\\' ? escaped() : c;
  }
  fail("a closing quote");
}

char StrepReader::escaped() {
  if (accept("'")) return '\'';
  if (accept("\\")) return '\\';
  if (accept("n")) return '\n';
  if (accept("r")) return '\r';
  if (accept("t")) return '\t';
  if (text_.size() - position_ >= 3 && accept("x")) {
    const int high = hexDigit(text_[position_]);
    const int low = hexDigit(text_[position_ + 1]);
    const char c = static_cast<char>(high * 16 + low);
    if (high >= 0 && low >= 0 && isControl(c) && c != '\n' && c != '\r' && c != '\t') {
      position_ += 2;
      return c;
    }
  }
  fail("a known escape");
}

void StrepReader::expectEnd() {
  if (position_ != text_.size()) fail("the end");
}

void StrepReader::fail(std::string_view what) const {
  const std::string_view shown = text_.substr(0, shownOfText);
  throw ParseException(fmt::format("expected {} at byte {} of {}{}", what, position_, shown,
                                   shown.size() < text_.size() ? "..." : ""));
}

}  // namespace Orb
