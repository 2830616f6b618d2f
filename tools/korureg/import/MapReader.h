#pragma once

// The project's own files as readers of this folder have them, to be written in other formats.

#include <string>

#include "board/description/Description.h"
#include "korureg/import/ImportedMap.h"

namespace korureg {

// The chip that the system file describes with that map. Throws UsageError when there is none,
// Board::FileError.
Board::Chip chipWithMap(const std::string& system, const std::string& map);

// The registers of a map, with their addresses, and the fields that the system file has of them;
// `system` may be empty. `step` is what a number stands for, unless the chip's way says so. Throws
// Failure for a map that cannot be read, and what chipWithMap() throws.
ImportedMap readOwn(const std::string& map, const std::string& system, unsigned step);

}  // namespace korureg
