#pragma once

// Fatal assertions, for broken invariants of the program itself: they print message, condition,
// file and line, flush the trace and abort. Bad input gets an exception instead.
//
//     ORB_ASSERT(addrBlockSize != 0, "addrBlockSize", "the block size of a register map is 0");
//
// The second argument is the text of the condition as it is to be printed; the rest is a format and
// its arguments, evaluated only when the assertion fails. Sanitizer and release builds keep them.

#include <fmt/core.h>

#include "Orb/Export.h"

namespace Orb {

[[noreturn]] ORB_EXPORT void assertionFailed(fmt::string_view message, const char* condition,
                                             const char* file, int line) noexcept;

}  // namespace Orb

#define ORB_ASSERT(condition, conditionText, ...)                                              \
  do {                                                                                         \
    if (!(condition)) [[unlikely]] {                                                           \
      ::Orb::assertionFailed(::fmt::format(__VA_ARGS__), (conditionText), __FILE__, __LINE__); \
    }                                                                                          \
  } while (false)
