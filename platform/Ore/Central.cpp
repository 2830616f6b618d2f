#include "Ore/Central.h"

#include "Orb/EntityType.h"

namespace Ore::Central {

Orb::Ptr<ChipStatus> chipStatusFactory(const Orb::String& name) {
  return Orb::make<ChipStatus>(name);
}

Orb::Ptr<SystemStatus> systemStatusFactory(const Orb::String& name) {
  return Orb::make<SystemStatus>(name);
}

Orb::Ptr<ChipStatus> ChipStatus::ChipStatusIs(const Orb::String& name) {
  return chipStatusFactory(name);
}

const Orb::EntityType& ChipStatus::entityType() {
  static const auto type = Orb::EntityTypeOf<ChipStatus>("Ore::Central::ChipStatus")
                               .attribute("name", &ChipStatus::name)
                               .attribute("devId", &ChipStatus::devId)
                               .operation("devIdIs", &ChipStatus::devIdIs, {"devId"});
  return type;
}

Orb::Ptr<SystemStatus> SystemStatus::SystemStatusIs(const Orb::String& name) {
  return systemStatusFactory(name);
}

const Orb::EntityType& SystemStatus::entityType() {
  using T = SystemStatus;
  static const auto type =
      Orb::EntityTypeOf<T>("Ore::Central::SystemStatus")
          .attribute("name", &T::name)
          .attribute("chipStatus", static_cast<const ChipStatuses& (T::*)() const>(&T::chipStatus))
          .operation("chipStatusIs", &T::chipStatusIs, {"name"})
          .operation("chipStatusDel", &T::chipStatusDel, {"name"})
          .operation("chipStatusDelAll", &T::chipStatusDelAll, {});
  return type;
}

Orb::Ptr<ChipStatus> SystemStatus::chipStatusIs(const Orb::String& name) {
  auto created = chipStatusFactory(name);
  collectionIs(chipStatus_, name, created, &Notifiee::onChipStatus);
  return created;
}

void SystemStatus::chipStatusDel(const Orb::String& name) {
  collectionDel(chipStatus_, name, &Notifiee::onChipStatus);
}

void SystemStatus::chipStatusDelAll() { collectionDelAll(chipStatus_, &Notifiee::onChipStatus); }

}  // namespace Ore::Central
