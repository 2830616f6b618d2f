#pragma once

// Describes a chip in code, by name, as a system file does: the register comes from the map, the
// bits are those of the data sheet. The same words and the same checks; docs/Agent.md and
// korud.toml(5) have them.
//
//     const Board::Chip chip = Board::ChipBuilder("power0", "ina219.csv", "i2c",
//                                                 "/dev/i2c-1:0x40,word-high-first")
//         .field({.name = "config.gain", .bits = "CONFIGURATION[12:11]", .value = "3"})
//         .status({.name = "VOLTAGE", .bits = "BUS_VOLTAGE[15:3]", .unit = "V", .scale = 0.004})
//         .chip();
//
// Used on one thread; the chip is a plain value.

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/Export.h"
#include "board/description/Description.h"

namespace Board {

// A chip that cannot be as it was described; what() has all that is wrong with it, a line each.
class BOARD_EXPORT DescriptionError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
  ~DescriptionError() override;
};

// A field as it is described. What is left empty is not said.
struct FieldText {
  std::string name;                     // "register.field", as agents call it
  std::string bits;                     // "REGISTER[7:4]" or "REGISTER[0]", in the hardware
  std::string value = {};               // before anybody has written one: a number or a name
  std::string kind = {};                // "pulse", "write1clear", "volatile"
  std::vector<NamedValue> values = {};  // names of values
  std::string description = {};
  std::string unit = {};
  double scale = 1;
  double offset = 0;
  bool isSigned = false;
};

class BOARD_EXPORT ChipBuilder {
 public:
  // `transport` is a kind of transport, "i2c" or "mock", and `place` where it is reached (korureg
  // has an option for each, which takes the same). Relative paths are relative to the working
  // directory.
  ChipBuilder(const std::string& name, const std::string& registerMap, const std::string& transport,
              const std::string& place = {});
  ~ChipBuilder();
  ChipBuilder(const ChipBuilder&) = delete;
  ChipBuilder& operator=(const ChipBuilder&) = delete;

  // A field to be written. It lies in its logical register as it lies in the hardware.
  ChipBuilder& field(const FieldText& field);
  // One to be read live only; its name is that of the field alone, and `value` and `kind` do not go
  // with it.
  ChipBuilder& status(const FieldText& field);
  // Any other key of a chip in a system file: "on_start", "rewrite"; "first", {"MODE", "CTRL"}.
  ChipBuilder& key(const std::string& key, const std::string& value);
  ChipBuilder& key(const std::string& key, const std::vector<std::string>& values);

  // The chip, with its register map read. Throws DescriptionError.
  Chip chip() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Board
