#pragma once

// Times, as they are given on a command line.

#include <chrono>
#include <cstdint>
#include <string>

namespace korureg {

// Nanoseconds since 1970 of "30s", "10m", "2h" or "1d" ago, or of a local time: "2026-01-31",
// "2026-01-31T14:05" or "2026-01-31T14:05:09". Throws std::invalid_argument.
int64_t timePointOf(const std::string& text);
// "30s", "10m", "2h" or "1d". Throws std::invalid_argument.
std::chrono::seconds lengthOf(const std::string& text);

}  // namespace korureg
