#include "Orb/Entity.h"

#include "Orb/Assert.h"

namespace Orb {

Entity::~Entity() = default;

void Entity::onZeroReferences() {
  if (zeroReferencesNotifiee_ && zeroReferencesNotifiee_->hasNotificationActive()) {
    zeroReferencesNotifiee_->onZeroReferences();
  }
}

ZeroReferencesNotifiee::ZeroReferencesNotifiee(Entity& notifier) : notifier_(notifier) {
  ORB_ASSERT(!notifier_.zeroReferencesNotifiee_, "!zeroReferencesNotifiee",
             "an entity has one zero-references notifiee");
  notifier_.zeroReferencesNotifiee_ = this;
}

ZeroReferencesNotifiee::~ZeroReferencesNotifiee() {
  if (notifier_.zeroReferencesNotifiee_ == this) notifier_.zeroReferencesNotifiee_ = nullptr;
}

}  // namespace Orb
