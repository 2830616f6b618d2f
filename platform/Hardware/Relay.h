#pragma once

// The hardware access agent that carries out bus transactions for others. Its requests come with
// the transport that uses them; a transport descriptor only carries the pointer.

#include "Orb/Entity.h"
#include "Orb/EntityType.h"

namespace Hardware {

class ORB_EXPORT Relay : public Orb::Entity {
 public:
  explicit Relay(Orb::String name) : name_(std::move(name)) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

 private:
  const Orb::String name_;
};

}  // namespace Hardware
