#pragma once

// Finds the fields of a description by name, and those of a register, without a walk over all of
// them. Refers to the description, which stays where it is.

#include <cstdint>
#include <string_view>
#include <vector>

#include "Orb/PositionIndex.h"
#include "board/description/Description.h"

namespace Board {

// Which fields belong to a register, as positions in the description.
class RegisterIndex {
 public:
  static constexpr uint32_t none = Orb::PositionIndex::none;

  // The first field of each register, in the order in which the description comes to them.
  const std::vector<uint32_t>& firsts() const { return firsts_; }
  // The next one of the same register, or none.
  uint32_t next(uint32_t position) const { return next_[position]; }

 private:
  friend class FieldIndex;

  template <class Fields>
  void fill(const Fields& fields);
  template <class Fields>
  uint32_t find(const Fields& fields, std::string_view reg) const;

  Orb::PositionIndex index_;  // of firsts_
  std::vector<uint32_t> firsts_;
  std::vector<uint32_t> next_;
};

class FieldIndex {
 public:
  explicit FieldIndex(const Chip& chip);

  // Null when there is none.
  const Field* field(std::string_view reg, std::string_view field) const;
  const StatusField* statusField(std::string_view reg, std::string_view field) const;

  // Of logical registers, and of those that are read live.
  const RegisterIndex& registers() const { return registers_; }
  const RegisterIndex& statusRegisters() const { return statusRegisters_; }
  // The first field of a register; RegisterIndex::none when it has none.
  uint32_t firstOf(std::string_view reg) const;
  uint32_t firstStatusOf(std::string_view reg) const;

 private:
  const Chip& chip_;
  Orb::PositionIndex fields_;
  Orb::PositionIndex statusFields_;
  RegisterIndex registers_;
  RegisterIndex statusRegisters_;
};

}  // namespace Board
