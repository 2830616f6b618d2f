#include "board/description/internal/FieldTables.h"

namespace Board {

namespace {

constexpr unsigned widestField = 32;

std::optional<unsigned> wholeNumber(std::string_view text) {
  if (text.empty() || text.size() > 3) return std::nullopt;
  unsigned number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = 10 * number + static_cast<unsigned>(c - '0');
  }
  return number;
}

}  // namespace

std::string joined(const Names& names) { return names.first + '.' + names.second; }

std::string bitsText(const Bits& bits) {
  return fmt::format("[{}:{}]", bits.start + bits.size - 1, bits.start);
}

std::optional<Bits> readBits(ChipReading& reading, const toml::node& node, unsigned limit) {
  std::optional<unsigned> high;
  std::optional<unsigned> low;
  if (const auto* single = node.as_integer()) {
    if (single->get() >= 0 && single->get() < limit)
      low = high = static_cast<unsigned>(single->get());
  } else if (const auto* text = node.as_string()) {
    const std::string_view range = text->get();
    const size_t colon = range.find(':');
    high = wholeNumber(range.substr(0, colon));
    low = colon == std::string_view::npos ? high : wholeNumber(range.substr(colon + 1));
  }
  if (!high || !low || *high < *low || *high >= limit || *high - *low >= widestField) {
    reading.problem(node,
                    "bits have to be a number or \"high:low\", from 0 to {} and at most {} of them",
                    limit - 1, widestField);
    return std::nullopt;
  }
  return Bits{static_cast<uint8_t>(*low), static_cast<uint8_t>(*high - *low + 1)};
}

std::optional<Bits> readHardwareBits(ChipReading& reading, const Names& names,
                                     const toml::table& field) {
  if (const toml::node* node = field.get("bits")) return readBits(reading, *node, 32);
  reading.problem(field, "field {} has no bits", joined(names));
  return std::nullopt;
}

const KoruRegFile::Register* registerWith(ChipReading& reading, const ChipSource& source,
                                          const Names& names, const Bits& bits,
                                          const toml::node& node) {
  if (!source.registers.hasRegName(names.first)) {
    reading.problem(node, "there is no register '{}' in the map", names.first);
    return nullptr;
  }
  const KoruRegFile::Register& reg = source.registers.findRegisterByName(names.first);
  if (bits.start + bits.size <= reg.width) return &reg;
  reading.problem(node, "field {} {} lies outside its register, which has {} bits", joined(names),
                  bitsText(bits), reg.width);
  return nullptr;
}

}  // namespace Board
