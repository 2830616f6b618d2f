#pragma once

// What the bits of a field stand for, as a data sheet puts it: a number with a unit, or a name.
// Plain values, made by the reader of system files or by hand; usable on any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "board/Export.h"

namespace Board {

struct NamedValue {
  std::string name;
  uint32_t value = 0;
  bool operator==(const NamedValue&) const = default;
};

// A raw value stands for raw * scale + offset, in `unit`; in two's complement when it is signed.
struct BOARD_EXPORT Meaning {
  std::string description;
  std::string unit;
  double scale = 1;
  double offset = 0;
  bool isSigned = false;
  std::vector<NamedValue> values;  // by value, each name and each value once

  // Whether a number of its own stands for the raw one.
  bool isScaled() const { return scale != 1 || offset != 0 || isSigned || !unit.empty(); }
  // Whether there is anything to say of a value beside the raw one.
  bool isSpoken() const { return isScaled() || !values.empty(); }
  // Null when the value has no name.
  const std::string* nameOf(uint32_t raw) const;
  // Of the low `size` bits, 1 to 32.
  double numberOf(uint32_t raw, unsigned size) const;
  // "x2", "24.75 °C", "-5": the name, or else the number with the decimals that it needs; "0x1f"
  // for what is neither named nor scaled.
  std::string textOf(uint32_t raw, unsigned size) const;
  bool operator==(const Meaning&) const = default;
};

// The raw value that a text stands for: a name; a number, with or without the unit; or the raw
// value itself with the prefix of a base (0x, 0b), or without any when the field is not scaled.
// `meaning` may be null. Throws std::invalid_argument that says what there is, or between which two
// numbers the field has no other.
BOARD_EXPORT uint32_t rawValue(const Meaning* meaning, std::string_view text, unsigned size);

// Shared by the copies of a description; null for a field of which nothing was said. Equal when
// what it points at is.
class SharedMeaning {
 public:
  SharedMeaning() = default;
  explicit SharedMeaning(Meaning meaning)
      : meaning_(std::make_shared<const Meaning>(std::move(meaning))) {}
  const Meaning* get() const { return meaning_.get(); }
  const Meaning* operator->() const { return meaning_.get(); }
  explicit operator bool() const { return meaning_ != nullptr; }
  bool operator==(const SharedMeaning& other) const {
    return meaning_ == other.meaning_ ||
           (meaning_ && other.meaning_ && *meaning_ == *other.meaning_);
  }

 private:
  std::shared_ptr<const Meaning> meaning_;
};

}  // namespace Board
