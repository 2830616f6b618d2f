#pragma once

// What a request changes in fields and registers, as the agent tells it.

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

namespace korureg {

// Prints a line for each field and each register that changes, of each chip; "nothing changes" when
// there is none.
void printChanges(const std::vector<std::pair<std::string, nlohmann::ordered_json>>& chips,
                  bool raw);

// Whether a field or a register of the chip gets another value.
bool changesAnything(const nlohmann::ordered_json& answer);

}  // namespace korureg
