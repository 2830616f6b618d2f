#include "board/description/Meaning.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "KoruRegFile/RegisterBits.h"
#include "board/devices/Bytes.h"

namespace Board {

namespace {

constexpr int sureDigits = 15;    // of a number, whatever it went through
constexpr int mostZeros = 9;      // behind the point, before a number is written with an exponent
constexpr size_t mostNames = 32;  // in a message

// How many decimals the number needs: 4 for 0.0625, none for 1e6.
int decimalsOf(double number) {
  char buffer[32];
  const auto last =
      std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::scientific);
  const std::string_view text(buffer, static_cast<size_t>(last.ptr - buffer));
  const size_t mark = text.find('e');
  if (mark == text.npos) return 0;
  const size_t point = std::min(text.find('.'), mark - 1);
  const int digits = static_cast<int>(mark - point) - 1;
  int exponent = 0;
  std::from_chars(buffer + mark + (text[mark + 1] == '+' ? 2 : 1), last.ptr, exponent);
  return std::max(0, digits - exponent);
}

// Without what floating point adds: of 0.1 * 3 the decimals that 0.1 has.
std::string numberText(double number, int decimals) {
  char text[64];
  const int exponent = number == 0 || !std::isfinite(number)
                           ? 0
                           : static_cast<int>(std::floor(std::log10(std::abs(number))));
  const bool isLong = exponent >= sureDigits || (exponent < -mostZeros && decimals > sureDigits);
  if (isLong || !std::isfinite(number)) {
    const auto end =
        std::to_chars(text, text + sizeof text, number, std::chars_format::general, sureDigits);
    return {text, end.ptr};
  }
  const int places = std::min(decimals, sureDigits - 1 - exponent);
  char* end = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, places).ptr;
  if (places > 0) {
    while (end[-1] == '0' && end[-2] != '.') --end;
  }
  const std::string_view found(text, static_cast<size_t>(end - text));
  const bool isZero = found.find_first_not_of("-0.") == found.npos;
  return std::string(isZero && found.starts_with('-') ? found.substr(1) : found);
}

std::string scaledText(const Meaning& meaning, uint32_t raw, unsigned size) {
  const int decimals = std::max(decimalsOf(meaning.scale), decimalsOf(meaning.offset));
  const std::string number = numberText(meaning.numberOf(raw, size), decimals);
  return meaning.unit.empty() ? number : number + ' ' + meaning.unit;
}

std::string_view trimmed(std::string_view text) {
  const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

// "-3.5", "25°C", "25 °C"
std::optional<double> numberIn(std::string_view text, const std::string& unit) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || !std::isfinite(number)) return std::nullopt;
  const std::string_view rest = trimmed({stop, static_cast<size_t>(end - stop)});
  if (!rest.empty() && rest != unit) return std::nullopt;
  return number;
}

// "; the names are x1, x2", for the end of a message.
std::string namesOf(const Meaning& meaning) {
  std::string names;
  for (size_t i = 0; i < meaning.values.size() && i < mostNames; ++i) {
    names += (i == 0 ? "; the names are " : ", ") + meaning.values[i].name;
  }
  const size_t count = meaning.values.size();
  return count <= mostNames ? names : fmt::format("{} and {} more", names, count - mostNames);
}

uint32_t plainValue(const Meaning* meaning, std::string_view text, unsigned size) {
  try {
    return static_cast<uint32_t>(KoruRegFile::parseNumber(text, maskOf(size)));
  } catch (const std::invalid_argument& e) {
    throw std::invalid_argument(e.what() + (meaning ? namesOf(*meaning) : std::string()));
  }
}

uint32_t scaledValue(const Meaning& meaning, std::string_view text, double number, unsigned size) {
  const double least = meaning.isSigned ? -std::ldexp(1, static_cast<int>(size) - 1) : 0;
  const double most = least + maskOf(size);
  const auto rawOf = [&](double step) {
    return static_cast<uint32_t>(static_cast<int64_t>(step)) & maskOf(size);
  };
  const auto textAt = [&](double step) { return scaledText(meaning, rawOf(step), size); };
  const double step = (number - meaning.offset) / meaning.scale;
  const double nearest = std::nearbyint(step);
  // What is shown of a number has to lead back to it.
  const double slack =
      1e-9 + (std::abs(number) + std::abs(meaning.offset)) * 1e-14 / std::abs(meaning.scale);
  const bool isStep = std::abs(step - nearest) <= slack;
  if (isStep && nearest >= least && nearest <= most) return rawOf(nearest);
  if (!(step >= least && step <= most)) {
    const bool isFalling = meaning.scale < 0;
    throw std::invalid_argument(fmt::format("'{}' is outside of {} to {}", text,
                                            textAt(isFalling ? most : least),
                                            textAt(isFalling ? least : most)));
  }
  throw std::invalid_argument(
      fmt::format("'{}' lies between {} and {}, and the field has no number there", text,
                  textAt(std::floor(step)), textAt(std::floor(step) + 1)));
}

}  // namespace

const std::string* Meaning::nameOf(uint32_t raw) const {
  const auto found =
      std::lower_bound(values.begin(), values.end(), raw,
                       [](const NamedValue& named, uint32_t value) { return named.value < value; });
  return found == values.end() || found->value != raw ? nullptr : &found->name;
}

double Meaning::numberOf(uint32_t raw, unsigned size) const {
  double number = raw & maskOf(size);
  if (isSigned && (raw >> (size - 1) & 1) != 0) number -= std::ldexp(1, static_cast<int>(size));
  return number * scale + offset;
}

std::string Meaning::textOf(uint32_t raw, unsigned size) const {
  if (const std::string* name = nameOf(raw & maskOf(size))) return *name;
  return isScaled() ? scaledText(*this, raw, size) : fmt::format("{:#x}", raw & maskOf(size));
}

uint32_t rawValue(const Meaning* meaning, std::string_view whole, unsigned size) {
  const std::string_view text = trimmed(whole);
  if (!meaning) return plainValue(meaning, text, size);
  for (const NamedValue& named : meaning->values) {
    if (named.name == text) return named.value;
  }
  if (!meaning->isScaled()) return plainValue(meaning, text, size);
  if (const auto number = numberIn(text, meaning->unit)) {
    return scaledValue(*meaning, text, *number, size);
  }
  const std::string_view prefix = text.substr(0, 2);
  const bool isRaw = prefix == "0x" || prefix == "0X" || prefix == "0b" || prefix == "0B";
  if (isRaw) return plainValue(meaning, text, size);
  throw std::invalid_argument(fmt::format("'{}' is no number{}{}", text,
                                          meaning->unit.empty() ? "" : " in " + meaning->unit,
                                          namesOf(*meaning)));
}

}  // namespace Board
