#include "Orb/Entity.h"

namespace Orb {

Entity::~Entity() = default;

void Entity::onZeroReferences() {
  if (zeroReferencesNotifiee_ && zeroReferencesNotifiee_->hasNotificationActive()) {
    zeroReferencesNotifiee_->onZeroReferences();
  }
}

ZeroReferencesNotifiee::ZeroReferencesNotifiee(Entity& notifier) : notifier_(notifier) {
  notifier_.zeroReferencesNotifiee_ = this;
}

ZeroReferencesNotifiee::~ZeroReferencesNotifiee() {
  if (notifier_.zeroReferencesNotifiee_ == this) notifier_.zeroReferencesNotifiee_ = nullptr;
}

}  // namespace Orb
