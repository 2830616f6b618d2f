#pragma once

// "Did you mean": the names nearest to one that does not exist.

#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/RegisterFile.h"

namespace korureg {

// " (did you mean 'config' or 'control'?)", or nothing when no name is near.
std::string suggestion(std::string_view wanted,
                       const std::vector<KoruRegFile::Register>& registers);

}  // namespace korureg
