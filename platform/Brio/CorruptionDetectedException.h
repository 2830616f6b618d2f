#pragma once

// Thrown when stored data turns out not to be what was stored.

#include <stdexcept>
#include <string>

#include "Orb/Export.h"

namespace Brio {

class ORB_EXPORT CorruptionDetectedException : public std::runtime_error {
 public:
  explicit CorruptionDetectedException(const std::string& message);
  ~CorruptionDetectedException() override;

  // What was found damaged, and where.
  const std::string& msg() const noexcept { return message_; }

 private:
  std::string message_;
};

}  // namespace Brio
