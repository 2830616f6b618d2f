#include "Keel/GenericSigbusHandler.h"

namespace Keel {

GenericSigbusHandler::SigbusException::~SigbusException() = default;

const char* GenericSigbusHandler::SigbusException::what() const noexcept { return "Caught SIGBUS"; }

}  // namespace Keel
