#include "board/devices/Format.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <vector>

#include "KoruRegFile/RegisterBits.h"

namespace Board {

FormatError::~FormatError() = default;
Format::~Format() = default;

SettingsReader::SettingsReader(const FormatSettings& settings,
                               std::initializer_list<std::string_view> known)
    : settings_(settings) {
  for (const auto& [key, value] : settings) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    throw FormatError(
        key, fmt::format("is nothing that can be said here; there are {}", fmt::join(known, ", ")));
  }
}

const std::string* SettingsReader::find(std::string_view key) const {
  const auto found = settings_.find(key);
  return found == settings_.end() ? nullptr : &found->second;
}

uint32_t SettingsReader::number(std::string_view key, uint32_t least, uint32_t most,
                                uint32_t byDefault) const {
  const std::string* text = find(key);
  if (!text) return byDefault;
  try {
    const uint64_t value = KoruRegFile::parseNumber(*text, most);
    if (value >= least) return static_cast<uint32_t>(value);
  } catch (const std::exception&) {
  }
  throw FormatError(std::string(key), fmt::format("has to be a number from {} to {:#x}, not '{}'",
                                                  least, most, *text));
}

unsigned SettingsReader::oneOf(std::string_view key, std::initializer_list<unsigned> allowed,
                               unsigned byDefault) const {
  const std::string* text = find(key);
  if (!text) return byDefault;
  try {
    const uint64_t value = KoruRegFile::parseNumber(*text, 0xffff);
    if (std::find(allowed.begin(), allowed.end(), value) != allowed.end())
      return static_cast<unsigned>(value);
  } catch (const std::exception&) {
  }
  throw FormatError(std::string(key),
                    fmt::format("has to be one of {}, not '{}'", fmt::join(allowed, ", "), *text));
}

bool SettingsReader::flag(std::string_view key, bool byDefault) const {
  return word(key, {"false", "true"}, byDefault ? 1 : 0) == 1;
}

size_t SettingsReader::word(std::string_view key, std::initializer_list<std::string_view> words,
                            size_t byDefault) const {
  const std::string* text = find(key);
  if (!text) return byDefault;
  const auto* const found = std::find(words.begin(), words.end(), *text);
  if (found != words.end()) return static_cast<size_t>(found - words.begin());
  throw FormatError(std::string(key),
                    fmt::format("has to be one of {}, not '{}'", fmt::join(words, ", "), *text));
}

std::optional<std::string> whyNotWidth(const KoruRegFile::Register& reg, unsigned valueBits) {
  if (reg.width == 0) return "it has no bits";
  if (valueBits == 0) return std::nullopt;
  if (reg.width <= valueBits && bytesOf(reg.width) == bytesOf(valueBits)) return std::nullopt;
  return fmt::format("it has {} bits, and the format carries {}", reg.width, valueBits);
}

}  // namespace Board
