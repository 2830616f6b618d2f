#pragma once

// The files that are written of what was read: the register map, and a system file to begin with.
// Stateless.

#include <string>

#include "board/devices/Transport.h"
#include "korureg/import/ImportedMap.h"

namespace korureg {

// The map, as koru-map(5) has it. Addresses are the numbers of the map.
std::string csvText(const ImportedMap& map);

struct StubChip {
  std::string name;
  std::string registerMap;
  Board::Transport transport;
};

// A system file with this chip alone, with all fields, kinds, values and descriptions.
std::string stubText(const ImportedMap& map, const StubChip& chip);

}  // namespace korureg
