#pragma once

// A refusal of the system, as an error: a std::system_error that says what could not be done and,
// behind that, why. Used from any thread.
//
//     if (::fstat(fd, &status) != 0) Orb::throwErrno("cannot look at {}", path);

#include <fmt/format.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Orb {

// For functions that return the number of the error.
template <class... Args>
[[noreturn]] void throwError(int error, fmt::format_string<Args...> what, Args&&... args) {
  throw std::system_error(error, std::generic_category(),
                          fmt::format(what, std::forward<Args>(args)...));
}

// For functions that leave it in errno.
template <class... Args>
[[noreturn]] void throwErrno(fmt::format_string<Args...> what, Args&&... args) {
  const int error = errno;  // formatting may change it
  throwError(error, what, std::forward<Args>(args)...);
}

}  // namespace Orb
