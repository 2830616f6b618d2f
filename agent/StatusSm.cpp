#include "agent/StatusSm.h"

#include <utility>
#include <vector>

#include "agent/ChipKeeper.h"

namespace Agent {

StatusSm::StatusSm(Orb::Ptr<KoruRegFile::PossibleSystemStatus> status, FindKeeper findKeeper)
    : SystemChipStatusSmBase(OrbPool::entityManagerFactory(), status,
                             KoruRegFile::logicalModelFactory(),
                             KoruRegFile::physicalModelFactory()),
      status_(std::move(status)),
      findKeeper_(std::move(findKeeper)) {}

Orb::Ptr<StatusSm> StatusSm::StatusSmIs(FindKeeper findKeeper) {
  return Orb::make<StatusSm>(KoruRegFile::possibleSystemStatusFactory("korud"),
                             std::move(findKeeper));
}

void StatusSm::add(const System::Chip& chip) {
  if (status_->chipStatusHas(chip.name)) {
    handleSystemChipStatus(chip.name);
  } else {
    status_->chipStatusIs(chip.name);
  }
  const auto& status = status_->chipStatus(chip.name);
  status->devIdIs(chip.devId);
  status->profileNameIs(chip.profile);
}

void StatusSm::remove(const System::Chip& chip) {
  if (status_->chipStatusHas(chip.name)) status_->chipStatusDel(chip.name);
}

void StatusSm::profilesAre(const std::vector<System::Profile>& profiles) {
  std::vector<Orb::String> gone;
  for (const auto& [name, profile] : status_->profile()) gone.push_back(name);
  for (const System::Profile& profile : profiles) {
    std::erase(gone, Orb::String(profile.name));
    status_->profileIs({profile.name, {profile.major, profile.minor}});
  }
  for (const Orb::String& name : gone) status_->profileDel(name);
}

Orb::Ptr<KoruRegFile::LogicalChip> StatusSm::createLogicalChip(const Orb::String& chipName) {
  return findKeeper_(chipName).createLogicalChip();
}

Orb::Ptr<KoruRegFile::TransportMethod> StatusSm::createTransport(const Orb::String& chipName) {
  return findKeeper_(chipName).createTransport();
}

}  // namespace Agent
