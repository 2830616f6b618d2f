#pragma once

// The platform's central status: which chips a system has, and what each of them is. Filled by the
// platform, observed by agents; used on the framework's thread.

#include <cstdint>

#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"
#include "Orb/Value.h"

namespace Ore::Central {

// What kind of chip it is: who makes it, which one, and which revision of it; all 0 when unknown.
class ORB_EXPORT DeviceId : public Orb::OrderedValue<DeviceId> {
 public:
  DeviceId() = default;
  DeviceId(uint16_t vendor, uint16_t device, uint16_t revision)
      : vendor_(vendor), device_(device), revision_(revision) {}
  static constexpr auto description() {
    using T = DeviceId;
    return Orb::describe("Ore::Central::DeviceId", Orb::named("vendor", &T::vendor_),
                         Orb::named("device", &T::device_), Orb::named("revision", &T::revision_));
  }
  uint16_t vendor() const { return vendor_; }
  uint16_t device() const { return device_; }
  uint16_t revision() const { return revision_; }

 private:
  uint16_t vendor_ = 0;
  uint16_t device_ = 0;
  uint16_t revision_ = 0;
};

class ORB_EXPORT ChipStatus : public Orb::Notifier<ChipStatus> {
 public:
  class Notifiee : public Orb::NotifieeOf<ChipStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onDevId() {}
  };

  explicit ChipStatus(const Orb::String& name) : name_(name) {}
  static Orb::Ptr<ChipStatus> ChipStatusIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  const DeviceId& devId() const { return devId_(); }
  void devIdIs(const DeviceId& devId) { attributeIs(devId_, devId, &Notifiee::onDevId); }

 private:
  const Orb::String name_;
  Orb::Attribute<DeviceId> devId_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

class ORB_EXPORT SystemStatus : public Orb::Notifier<SystemStatus> {
 public:
  class Notifiee : public Orb::NotifieeOf<SystemStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onChipStatus(const Orb::String& /*name*/) {}
  };
  using ChipStatuses = Orb::Collection<Orb::String, Orb::Ptr<ChipStatus>>;

  explicit SystemStatus(const Orb::String& name) : name_(name) {}
  static Orb::Ptr<SystemStatus> SystemStatusIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  const ChipStatuses& chipStatus() const { return chipStatus_; }
  // Null when there is none of that name.
  const Orb::Ptr<ChipStatus>& chipStatus(std::string_view name) const { return chipStatus_(name); }
  // Creates an entry, in the place of one that is there, and returns it.
  Orb::Ptr<ChipStatus> chipStatusIs(const Orb::String& name);
  void chipStatusDel(const Orb::String& name);
  void chipStatusDelAll();

 private:
  const Orb::String name_;
  ChipStatuses chipStatus_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

ORB_EXPORT Orb::Ptr<ChipStatus> chipStatusFactory(const Orb::String& name);
ORB_EXPORT Orb::Ptr<SystemStatus> systemStatusFactory(const Orb::String& name);

}  // namespace Ore::Central
