#pragma once

// What a register map and a system file can hold of what was read: numbers, names and widths that
// fit, and each address and each name once. Stateless.

#include "board/devices/Transport.h"
#include "korureg/import/ImportedMap.h"

namespace korureg {

struct Holding {
  uint64_t base = 0;  // is taken off each address
  unsigned step = 4;  // bytes that a number of the map stands for
  Board::Transport transport;
};

// Leaves out what cannot be held, which `import` is told of; gives every register its type and, as
// its address, the number in the map. Fields that cannot be written lose that access.
void keepWhatFits(Import& import, const Holding& holding);

}  // namespace korureg
