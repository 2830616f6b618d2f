#include "KoruRegFile/TransportError.h"

#include <system_error>

#include "Keel/GenericSigbusHandler.h"

namespace KoruRegFile {

TransportError::~TransportError() = default;

TransportFailure TransportFailure::of(const std::exception& e) {
  TransportFailure failure{.reason = e.what()};
  if (const auto* transport = dynamic_cast<const TransportError*>(&e)) {
    failure.error = transport->error();
  } else if (const auto* system = dynamic_cast<const std::system_error*>(&e)) {
    failure.error = system->code().value();
  } else {
    failure.isBusError =
        dynamic_cast<const Keel::GenericSigbusHandler::SigbusException*>(&e) != nullptr;
  }
  return failure;
}

}  // namespace KoruRegFile
