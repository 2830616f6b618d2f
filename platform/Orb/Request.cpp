#include "Orb/Request.h"

#include "Orb/EntityType.h"

namespace Orb {

const EntityType& Request::entityType() {
  static const auto type = EntityTypeOf<Request>("Orb::Request")
                               .attribute("state", &Request::state)
                               .operation("stateIs", &Request::stateIs, {"state"});
  return type;
}

}  // namespace Orb
