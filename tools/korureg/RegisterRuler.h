#pragma once

// A register's bits drawn as a ruler, in plain ASCII and at most 80 columns wide:
//
//        7        6        5        4        3        2        1        0
//    +--------+--------------------------+-----------------+-----------------+
//    |   EN   |           MODE           |                 |      RATE       |
//    +--------+--------------------------+-----------------+-----------------+
//
// Used by "map show" and "hw read".

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korureg {

struct RulerField {
  std::string name;
  unsigned high;
  unsigned low;
};

// The lines of the ruler: 16 bits side by side at most. Fields that overlap lie in rows below each
// other; a name that is longer than its bits has a mark, which a line at the end explains. With a
// value, its bits stand below. What lies outside of the register is left out. Names have gone
// through Orb::printable.
std::vector<std::string> registerRuler(unsigned width, std::vector<RulerField> fields,
                                       std::optional<uint32_t> value = {});

}  // namespace korureg
