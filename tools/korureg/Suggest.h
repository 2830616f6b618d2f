#pragma once

// "Did you mean": the names nearest to one that does not exist.

#include <string>
#include <string_view>
#include <vector>

namespace korureg {

// "; did you mean 'config' or 'control'?", or nothing when no name is near.
std::string suggestion(std::string_view wanted, const std::vector<std::string_view>& names);

}  // namespace korureg
