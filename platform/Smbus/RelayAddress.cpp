#include "Smbus/RelayAddress.h"

#include "Orb/Exception.h"

namespace Smbus {

U7::U7(uint8_t value) : value_(value) {
  if (value > 0x7f) Orb::throwRangeException("U7::value < 0 or > 0x7f not allowed");
}

}  // namespace Smbus
