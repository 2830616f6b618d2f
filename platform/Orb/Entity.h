#pragma once

// Entities: reference-counted objects of the framework, with a type that can be asked about by
// name. Those with attributes that change derive from Orb::Notifier (Orb/Notifier.h). Used on the
// framework's thread only.

#include "Orb/Export.h"
#include "Orb/Ptr.h"
#include "Orb/String.h"

namespace Orb {

class EntityType;
class ZeroReferencesNotifiee;

// Base of every entity.
class ORB_EXPORT Entity : public PtrInterface {
 public:
  // What the entity is: its type's name, attributes and operations (Orb/EntityType.h).
  virtual const EntityType& fwkType() const = 0;
  // The name that tells it from others of its type; empty when it has none.
  virtual String entityName() const { return {}; }

 protected:
  Entity() = default;
  ~Entity() override;
  void onZeroReferences() override;

 private:
  friend class ZeroReferencesNotifiee;
  ZeroReferencesNotifiee* zeroReferencesNotifiee_ = nullptr;
};

// Told when the last reference to an entity goes away, before it is deleted: a reference that it
// takes then keeps the entity. Owned by the entity itself or by something the entity owns; one per
// entity. Off until hasNotificationActiveIs(true).
class ORB_EXPORT ZeroReferencesNotifiee {
 public:
  explicit ZeroReferencesNotifiee(Entity& notifier);
  virtual ~ZeroReferencesNotifiee();
  ZeroReferencesNotifiee(const ZeroReferencesNotifiee&) = delete;
  ZeroReferencesNotifiee& operator=(const ZeroReferencesNotifiee&) = delete;

  // Must not throw.
  virtual void onZeroReferences() = 0;

  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active) { active_ = active; }

 private:
  Entity& notifier_;
  bool active_ = false;
};

}  // namespace Orb
