#include "Hardware/Relay.h"

namespace Hardware {

const Orb::EntityType& Relay::entityType() {
  static const auto type =
      Orb::EntityTypeOf<Relay>("Hardware::Relay").attribute("name", &Relay::name);
  return type;
}

}  // namespace Hardware
