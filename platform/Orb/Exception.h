#pragma once

// The framework's exceptions. All of them are programming or input errors that the caller could
// have avoided, hence std::logic_error; failures of the outside world are std::runtime_error.

#include <stdexcept>
#include <string>

#include "Orb/Export.h"

namespace Orb {

// A value lies outside the range of its type.
class ORB_EXPORT RangeException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~RangeException() override;
};

// A text is not the string form of the type that was asked for.
class ORB_EXPORT ParseException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~ParseException() override;
};

// A hash was asked of a type that has none.
class ORB_EXPORT UnhashableTypeException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~UnhashableTypeException() override;
};

// The interface by name was asked for something that does not exist, or with a wrong argument
// count.
class ORB_EXPORT InterfaceException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~InterfaceException() override;
};

[[noreturn]] ORB_EXPORT void throwRangeException(const std::string& message);

}  // namespace Orb
