#pragma once

// Accessors to a chip's hardware, by bus, as transport descriptors carry them.

#include "Orb/Entity.h"
#include "Orb/EntityType.h"

namespace Plat {

// An SPI hardware accessor.
class ORB_EXPORT Pax : public Orb::Entity {
 public:
  explicit Pax(Orb::String name) : name_(std::move(name)) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

 private:
  const Orb::String name_;
};

// A memory-mapped hardware accessor; Plat/PciPaxImpl.h has the one for PCI.
class ORB_EXPORT PaxImpl : public Orb::Entity {
 public:
  explicit PaxImpl(Orb::String name) : name_(std::move(name)) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

 private:
  const Orb::String name_;
};

}  // namespace Plat
