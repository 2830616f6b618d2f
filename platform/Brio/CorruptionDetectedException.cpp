#include "Brio/CorruptionDetectedException.h"

namespace Brio {

CorruptionDetectedException::CorruptionDetectedException(const std::string& message)
    : std::runtime_error(message), message_(message) {}

CorruptionDetectedException::~CorruptionDetectedException() = default;

}  // namespace Brio
