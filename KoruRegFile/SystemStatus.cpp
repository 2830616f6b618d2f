#include "KoruRegFile/SystemStatus.h"

#include "Orb/EntityType.h"

namespace KoruRegFile {

Orb::Ptr<PossibleChipStatus> possibleChipStatusFactory(const Orb::String& name) {
  return Orb::make<PossibleChipStatus>(name);
}

Orb::Ptr<PossibleSystemStatus> possibleSystemStatusFactory(const Orb::String& name) {
  return Orb::make<PossibleSystemStatus>(name);
}

Orb::Ptr<PossibleChipStatus> PossibleChipStatus::PossibleChipStatusIs(const Orb::String& name) {
  return possibleChipStatusFactory(name);
}

const Orb::EntityType& PossibleChipStatus::entityType() {
  using T = PossibleChipStatus;
  static const auto type = Orb::EntityTypeOf<T>("KoruRegFile::PossibleChipStatus")
                               .attribute("name", &T::name)
                               .attribute("devId", &T::devId)
                               .attribute("profileName", &T::profileName)
                               .operation("devIdIs", &T::devIdIs, {"devId"})
                               .operation("profileNameIs", &T::profileNameIs, {"profileName"});
  return type;
}

Orb::Ptr<PossibleSystemStatus> PossibleSystemStatus::PossibleSystemStatusIs(
    const Orb::String& name) {
  return possibleSystemStatusFactory(name);
}

const Orb::EntityType& PossibleSystemStatus::entityType() {
  using T = PossibleSystemStatus;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::PossibleSystemStatus")
          .attribute("name", &T::name)
          .attribute("chipStatus", static_cast<const ChipStatuses& (T::*)() const>(&T::chipStatus))
          .attribute("profile", static_cast<const Profiles& (T::*)() const>(&T::profile))
          .operation("chipStatusIs", &T::chipStatusIs, {"name"})
          .operation("chipStatusDel", &T::chipStatusDel, {"name"})
          .operation("chipStatusDelAll", &T::chipStatusDelAll, {})
          .operation("profileIs", &T::profileIs, {"profile"})
          .operation("profileDel", &T::profileDel, {"profileName"})
          .operation("profileDelAll", &T::profileDelAll, {});
  return type;
}

Orb::Ptr<PossibleChipStatus> PossibleSystemStatus::chipStatusIs(const Orb::String& name) {
  auto created = possibleChipStatusFactory(name);
  collectionIs(chipStatus_, name, created, &Notifiee::onChipStatus);
  return created;
}

void PossibleSystemStatus::chipStatusDel(const Orb::String& name) {
  collectionDel(chipStatus_, name, &Notifiee::onChipStatus);
}

void PossibleSystemStatus::chipStatusDelAll() {
  collectionDelAll(chipStatus_, &Notifiee::onChipStatus);
}

void PossibleSystemStatus::profileIs(const PossibleProfile& profile) {
  collectionIs(profile_, profile.profileName(), profile, &Notifiee::onProfile);
}

void PossibleSystemStatus::profileDel(const Orb::String& profileName) {
  collectionDel(profile_, profileName, &Notifiee::onProfile);
}

void PossibleSystemStatus::profileDelAll() { collectionDelAll(profile_, &Notifiee::onProfile); }

}  // namespace KoruRegFile
