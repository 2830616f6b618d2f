#include "board/description/internal/Meanings.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

#include "KoruRegFile/RegisterBits.h"
#include "board/devices/Bytes.h"

namespace Board {

namespace {

// Of fifteen digits, a number needs to have enough left for the steps of its field.
constexpr double finestStep = 4e-14;

// Somebody who writes it could mean a number: "25", "-3.5", "0x1f", "25 °C".
bool looksLikeNumber(std::string_view name, std::string_view unit) {
  if (name.starts_with('+')) name.remove_prefix(1);
  const size_t first = name.find_first_not_of("-.");
  if (first == name.npos || name[first] < '0' || name[first] > '9') return false;
  if (name.starts_with("0x") || name.starts_with("0X") || name.starts_with("0b") ||
      name.starts_with("0B")) {
    return true;
  }
  double number = 0;
  const char* const end = name.data() + name.size();
  const char* const stop = std::from_chars(name.data(), end, number).ptr;
  std::string_view rest(stop, static_cast<size_t>(end - stop));
  while (rest.starts_with(' ')) rest.remove_prefix(1);
  return rest.empty() || rest == unit;
}

// Why a value cannot have that name; null when it can.
const char* whyNoName(std::string_view name, std::string_view unit) {
  if (name.empty()) return "is empty";
  if (name.front() == ' ' || name.back() == ' ') return "begins or ends with a blank";
  if (!isPrintable(name)) return "has a control character";
  return looksLikeNumber(name, unit) ? "could be meant as a number" : nullptr;
}

// Shown to people, so without what their terminals would do.
std::string shown(std::string_view name) {
  return isPrintable(name) ? std::string(name) : std::string("?");
}

class MeaningReading {
 public:
  MeaningReading(ChipReading& reading, const Names& names, const toml::table& field, unsigned size)
      : reading_(reading), names_(names), field_(field), size_(size) {}

  void read(Meaning& meaning) {
    if (const auto text = reading_.label(field_, "description")) meaning.description = *text;
    if (const auto text = reading_.label(field_, "unit")) meaning.unit = *text;
    if (const auto number = reading_.real(field_, "scale")) meaning.scale = *number;
    if (const auto number = reading_.real(field_, "offset")) meaning.offset = *number;
    if (const auto flag = reading_.flag(field_, "signed")) meaning.isSigned = *flag;
    checkNumbers(meaning);
    if (field_.contains("values")) readValues(meaning);
    checkWidths(meaning.values);
  }

 private:
  // What has been told of a physical field is not told of the logical one again.
  void checkNumbers(Meaning& meaning) {
    if (meaning.scale != 0 && areNumbersApart(meaning)) return;
    reading_.problem(field_, "field {}: {}", joined(names_),
                     meaning.scale == 0 ? "a scale of 0 leaves nothing of its value"
                                        : "with that scale and offset its numbers are all the "
                                          "same, or too large");
    meaning.scale = 1;
    meaning.offset = 0;
  }

  void checkWidths(std::vector<NamedValue>& values) {
    std::erase_if(values, [&](const NamedValue& named) {
      const bool fits = named.value <= maskOf(size_);
      if (!fits) {
        reading_.problem(field_, "the value {} = {:#x} has more than the {} bits of field {}",
                         named.name, named.value, size_, joined(names_));
      }
      return !fits;
    });
  }

  bool areNumbersApart(const Meaning& meaning) const {
    const uint32_t least = meaning.isSigned ? 1u << (size_ - 1) : 0;
    const uint32_t most = meaning.isSigned ? least - 1 : maskOf(size_);
    const double largest =
        std::max(std::abs(meaning.numberOf(least, size_)), std::abs(meaning.numberOf(most, size_)));
    return (largest + std::abs(meaning.offset)) * finestStep <= std::abs(meaning.scale);
  }

  void readValues(Meaning& meaning) {
    meaning.values.clear();
    const toml::table* values = reading_.table(field_, "values");
    if (!values) return;
    for (const auto& [key, node] : *values) {
      const std::string_view name = key.str();
      const auto* value = node.as_integer();
      if (const char* why = whyNoName(name, meaning.unit)) {
        reading_.problem(node, "a value's name {}: '{}'", why, shown(name));
      } else if (!value || value->get() < 0 || value->get() > int64_t{maskOf(32)}) {
        reading_.problem(node,
                         "the value '{}' has to be a number that fits the {} bits of field "
                         "{}, as it stands in the register",
                         name, size_, joined(names_));
      } else {
        meaning.values.push_back({std::string(name), static_cast<uint32_t>(value->get())});
      }
    }
    sortValues(meaning.values, *values);
  }

  void sortValues(std::vector<NamedValue>& values, const toml::table& table) {
    std::stable_sort(values.begin(), values.end(),
                     [](const auto& a, const auto& b) { return a.value < b.value; });
    for (size_t i = 1; i < values.size(); ++i) {
      if (values[i].value != values[i - 1].value) continue;
      reading_.problem(*table.get(values[i].name), "the values '{}' and '{}' are both {:#x}",
                       values[i - 1].name, values[i].name, values[i].value);
    }
  }

  ChipReading& reading_;
  const Names& names_;
  const toml::table& field_;
  const unsigned size_;
};

}  // namespace

SharedMeaning readMeaning(ChipReading& reading, const Names& names, const toml::table& field,
                          unsigned size, const SharedMeaning& inherited) {
  const bool isSaid = std::any_of(std::begin(meaningKeys), std::end(meaningKeys),
                                  [&](std::string_view key) { return field.contains(key); });
  if (!isSaid && !inherited) return {};
  Meaning meaning = inherited ? *inherited.get() : Meaning();
  MeaningReading(reading, names, field, size).read(meaning);
  return isSaid ? SharedMeaning(std::move(meaning)) : inherited;
}

}  // namespace Board
