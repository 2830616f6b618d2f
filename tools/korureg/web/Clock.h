#pragma once

// Points in time at which something is due.

#include <chrono>

namespace korureg::web {

using Clock = std::chrono::steady_clock;

inline constexpr Clock::time_point never = Clock::time_point::max();

}  // namespace korureg::web
