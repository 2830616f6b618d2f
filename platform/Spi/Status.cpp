#include "Spi/Status.h"

#include "Orb/EntityType.h"

namespace Spi {

const Orb::EntityType& Status::entityType() {
  static const auto type = Orb::EntityTypeOf<Status>("Spi::Status")
                               .attribute("name", &Status::name)
                               .attribute("done", &Status::done)
                               .attribute("lastId", &Status::lastId)
                               .attribute("failed", &Status::failed);
  return type;
}

void Status::doneIs(uint32_t id) {
  ++done_;
  lastId_ = id;
  notify(&Notifiee::onDone);
}

void Status::errorIs(uint32_t id, const Orb::String& reason, int error) {
  const auto keep = Orb::keepAlive(this);
  ++failed_;
  lastError_ = error;
  collectionIs(error_, id, reason, &Notifiee::onError);
  if (error_.size() > mostErrors) {
    collectionDel(error_, error_.begin()->first, &Notifiee::onError);
  }
}

}  // namespace Spi
