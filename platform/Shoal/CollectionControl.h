#pragma once

// What a table entity tells about its collection in shared memory: how its mount stands, and
// whether all known changes have been told. It also keeps the entity alive, once nobody else does,
// for as long as something is still pending for it. Owned by the entity; used on the framework's
// thread.

#include "Orb/Notifier.h"
#include "Shoal/MountStatus.h"

namespace Shoal {

class ORB_EXPORT CollectionControl : public Orb::Notifier<CollectionControl> {
 public:
  class Notifiee : public Orb::NotifieeOf<CollectionControl> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onMountStatus() {}
    virtual void onQuiesced() {}
  };

  static Orb::Ptr<CollectionControl> CollectionControlIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  MountStatus mountStatus() const { return mountStatus_(); }
  void mountStatusIs(MountStatus status) {
    attributeIs(mountStatus_, status, &Notifiee::onMountStatus);
  }
  bool quiesced() const { return quiesced_(); }
  void quiescedIs(bool quiesced) { attributeIs(quiesced_, quiesced, &Notifiee::onQuiesced); }

  // Work that needs the entity is under way; when the last of it is over, the entity is let go.
  bool pending() const { return pending_; }
  void pendingIs(bool pending);
  // The entity, after its last user has dropped it. Let go at once when nothing is pending.
  void entityRefIs(const Orb::Ptr<Orb::Entity>& entity);

 private:
  Orb::Attribute<MountStatus> mountStatus_;
  Orb::Attribute<bool> quiesced_;
  bool pending_ = false;
  Orb::Ptr<Orb::Entity> entityRef_;
};

ORB_EXPORT Orb::Ptr<CollectionControl> collectionControlFactory();

}  // namespace Shoal
