#include "Orb/Exception.h"

namespace Orb {

RangeException::~RangeException() = default;
ParseException::~ParseException() = default;
UnhashableTypeException::~UnhashableTypeException() = default;
InterfaceException::~InterfaceException() = default;

void throwRangeException(const std::string& message) { throw RangeException(message); }

}  // namespace Orb
