#pragma once

// Accessors to a chip's hardware, by bus, as transport descriptors carry them.

#include <cstdint>

#include "Orb/Entity.h"
#include "Orb/EntityType.h"

namespace Plat {

// An SPI hardware accessor: the kernel's device node and how it is to be clocked. Nothing is opened
// here; whoever drives the device does that.
class ORB_EXPORT Pax : public Orb::Entity {
 public:
  // At most `speedHz` bits a second; 0 leaves the speed to the kernel.
  explicit Pax(Orb::String name, Orb::String devicePath = {}, uint32_t speedHz = 0)
      : name_(std::move(name)), devicePath_(std::move(devicePath)), speedHz_(speedHz) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  const Orb::String& devicePath() const { return devicePath_; }
  uint32_t speedHz() const { return speedHz_; }

 private:
  const Orb::String name_;
  const Orb::String devicePath_;
  const uint32_t speedHz_;
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
