#pragma once

// Bus errors as exceptions: what a guarded access to mapped memory throws when the memory is gone.

#include <exception>

#include "Orb/Export.h"

namespace Keel {

class ORB_EXPORT GenericSigbusHandler {
 public:
  // Deliberately no std::runtime_error: a bus error is told apart from every other failure.
  class ORB_EXPORT SigbusException : public std::exception {
   public:
    ~SigbusException() override;
    const char* what() const noexcept override;
  };
};

}  // namespace Keel
