#pragma once

// Where and why a register map cannot be used, in the words that all commands share.

#include <cstddef>
#include <string>

namespace korureg {

// "chip.csv:3:7" with as much of line and column as is known (not 0).
std::string mapPlace(const std::string& file, size_t line, size_t column);

// Why the file cannot be opened for reading; empty when no reason is found.
std::string whyUnreadable(const std::string& file);

}  // namespace korureg
