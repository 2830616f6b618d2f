#include "KoruRegFile/TransportMethodError.h"

#include "Orb/EntityType.h"

namespace KoruRegFile {

Orb::Ptr<TransportMethodError> transportMethodErrorFactory(const Orb::String& chipName) {
  return Orb::make<TransportMethodError>(chipName);
}

Orb::Ptr<TransportMethodError> TransportMethodError::TransportMethodErrorIs(
    const Orb::String& chipName) {
  return transportMethodErrorFactory(chipName);
}

const Orb::EntityType& TransportMethodError::entityType() {
  using E = TransportMethodError;
  static const auto type = Orb::EntityTypeOf<E>("KoruRegFile::TransportMethodError")
                               .attribute("chipName", &E::chipName)
                               .attribute("error", &E::error)
                               .operation("chipNameIs", &E::chipNameIs, {"chipName"})
                               .operation("errorIs", &E::errorIs, {"error"});
  return type;
}

}  // namespace KoruRegFile
