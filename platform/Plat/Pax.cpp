#include "Plat/Pax.h"

namespace Plat {

const Orb::EntityType& Pax::entityType() {
  static const auto type = Orb::EntityTypeOf<Pax>("Plat::Pax")
                               .attribute("name", &Pax::name)
                               .attribute("devicePath", &Pax::devicePath)
                               .attribute("speedHz", &Pax::speedHz);
  return type;
}

const Orb::EntityType& PaxImpl::entityType() {
  static const auto type =
      Orb::EntityTypeOf<PaxImpl>("Plat::PaxImpl").attribute("name", &PaxImpl::name);
  return type;
}

}  // namespace Plat
