#include "Shoal/CollectionControl.h"

#include "Orb/EntityType.h"

namespace Shoal {

Orb::Ptr<CollectionControl> collectionControlFactory() { return Orb::make<CollectionControl>(); }

Orb::Ptr<CollectionControl> CollectionControl::CollectionControlIs() {
  return collectionControlFactory();
}

const Orb::EntityType& CollectionControl::entityType() {
  using C = CollectionControl;
  static const auto type = Orb::EntityTypeOf<C>("Shoal::CollectionControl")
                               .attribute("mountStatus", &C::mountStatus)
                               .attribute("quiesced", &C::quiesced)
                               .attribute("pending", &C::pending);
  return type;
}

void CollectionControl::pendingIs(bool pending) {
  pending_ = pending;
  // The entity may own this control: it goes last.
  if (!pending) const auto entity = std::move(entityRef_);
}

void CollectionControl::entityRefIs(const Orb::Ptr<Orb::Entity>& entity) {
  if (pending_) entityRef_ = entity;
}

}  // namespace Shoal
