#pragma once

// What registers were found to hold, and how that is shown. Used by read, write, dump and wait.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "korureg/Chip.h"

namespace korureg {

struct Reading {
  Target target;
  uint32_t value = 0;
  std::string failure;  // why there is no value; empty when there is one
};

// Reads a target; a failure is kept in the reading.
Reading readTarget(const Chip& chip, const Target& target);
std::vector<Reading> readTargets(const Chip& chip, const std::vector<Target>& targets);

nlohmann::ordered_json toJson(const Reading& reading);

// Prints the readings as a table or as JSON, failures also on standard error. Returns `failed` when
// any of them has no value.
int report(const std::vector<Reading>& readings, bool json);

// The columns that tell what a register is, as JSON and as cells of a table.
// Without a transport or a block size, registers have no addresses but the map's numbers.
void printRegisters(const std::vector<Target>& registers, bool haveAddresses, bool json);

}  // namespace korureg
