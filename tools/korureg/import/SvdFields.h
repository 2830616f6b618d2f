#pragma once

// CMSIS-SVD: the fields of a register, and what they have of what lies around them.

#include <optional>
#include <string_view>
#include <vector>

#include "korureg/import/SvdTree.h"

namespace korureg {

// What registers and fields are when they do not say so themselves.
struct SvdDefaults {
  uint64_t size = 32;
  Access access;
  std::optional<uint64_t> reset;
  uint64_t resetMask = ~uint64_t{0};  // bits that a reset sets
  std::string_view modified;          // modifiedWriteValues
  std::optional<uint64_t> resetBits() const {
    return reset ? std::optional(*reset & resetMask) : std::nullopt;
  }
  // The same with what this element says.
  SvdDefaults of(const SvdChain& chain) const;
};

std::vector<ImportedField> readSvdFields(const SvdChain& reg, const SvdDefaults& defaults,
                                         Import& import);

}  // namespace korureg
