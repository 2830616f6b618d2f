#pragma once

// Finds the fields of a description by name. Refers to the description, which stays where it is.

#include <string_view>

#include "Orb/PositionIndex.h"
#include "board/description/Description.h"

namespace Board {

class FieldIndex {
 public:
  explicit FieldIndex(const Chip& chip);

  // Null when there is none.
  const Field* field(std::string_view reg, std::string_view field) const;
  const StatusField* statusField(std::string_view reg, std::string_view field) const;

 private:
  const Chip& chip_;
  Orb::PositionIndex fields_;
  Orb::PositionIndex statusFields_;
};

}  // namespace Board
