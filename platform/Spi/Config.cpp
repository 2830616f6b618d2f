#include "Spi/Config.h"

#include "Orb/EntityType.h"

namespace Spi {

const Orb::EntityType& Config::entityType() {
  static const auto type = Orb::EntityTypeOf<Config>("Spi::Config")
                               .attribute("name", &Config::name)
                               .attribute("requests", &Config::requests);
  return type;
}

void Config::requestEnq(const Request& request) {
  if (queue_.full()) {
    notify(&Notifiee::onRefusedRequest, request.id());
    return;
  }
  queue_.push_back(request);
  notify(&Notifiee::onRequest);
}

}  // namespace Spi
