#pragma once

// Why an access to a chip, or the opening of its device, failed: as an exception on its way up, and
// as a value for whoever has to act on it. Usable from any thread.

#include <exception>
#include <stdexcept>
#include <string>

#include "KoruRegFile/Export.h"

namespace KoruRegFile {

// Thrown by the transports where the system gave a reason; what() is the whole text.
class KORU_EXPORT TransportError : public std::runtime_error {
 public:
  TransportError(const std::string& text, int error) : std::runtime_error(text), error_(error) {}
  ~TransportError() override;

  // The errno, or 0 when there is none.
  int error() const noexcept { return error_; }

 private:
  int error_;
};

struct KORU_EXPORT TransportFailure {
  std::string reason;       // in words
  int error = 0;            // the errno, or 0 when there is none
  bool isBusError = false;  // the memory of the device is gone

  // What an exception tells: a TransportError, a std::system_error, a SigbusException, or any
  // other.
  static TransportFailure of(const std::exception& e);
};

}  // namespace KoruRegFile
