#pragma once

// The TOML library as it is used here; internal to system/. Its assertions, on which parts of it
// rely in a release build too, end in a TomlAssertion instead of the process or worse: what it
// parses comes from outside.

#include <stdexcept>

namespace Board {

class TomlAssertion : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~TomlAssertion() override;
};
[[noreturn]] void throwTomlAssertion(const char* expression);

}  // namespace Board

#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(expression) \
  (static_cast<bool>(expression) ? void() : ::Board::throwTomlAssertion(#expression))
#define TOML_HEADER_ONLY 1
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")
