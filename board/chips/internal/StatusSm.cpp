#include "board/chips/internal/StatusSm.h"

#include <utility>

namespace Board {

StatusSm::StatusSm(Orb::Ptr<KoruRegFile::PossibleSystemStatus> status)
    : SystemChipStatusSmBase(OrbPool::entityManagerFactory(), status,
                             KoruRegFile::logicalModelFactory(),
                             KoruRegFile::physicalModelFactory()),
      status_(std::move(status)) {}

Orb::Ptr<StatusSm> StatusSm::StatusSmIs() {
  return Orb::make<StatusSm>(KoruRegFile::possibleSystemStatusFactory("korud"));
}

void StatusSm::add(const Chip& chip, const ChipParts& parts) {
  // (Whoever hears of one chip may add another.)
  struct Adding {
    Adding(const ChipParts*& current, const ChipParts& added)
        : place(current), before(std::exchange(current, &added)) {}
    ~Adding() { place = before; }
    const ChipParts*& place;
    const ChipParts* const before;
  } const adding(parts_, parts);
  if (status_->chipStatusHas(chip.name)) {
    handleSystemChipStatus(chip.name);
  } else {
    status_->chipStatusIs(chip.name);
  }
  const auto& status = status_->chipStatus(chip.name);
  status->devIdIs(chip.devId);
  status->profileNameIs(chip.profile);
}

void StatusSm::remove(const Chip& chip) {
  if (status_->chipStatusHas(chip.name)) status_->chipStatusDel(chip.name);
}

void StatusSm::profilesAre(const std::vector<Profile>& profiles) {
  std::vector<Orb::String> gone;
  for (const auto& [name, profile] : status_->profile()) gone.push_back(name);
  for (const Profile& profile : profiles) {
    std::erase(gone, Orb::String(profile.name));
    status_->profileIs({profile.name, {profile.major, profile.minor}});
  }
  for (const Orb::String& name : gone) status_->profileDel(name);
}

Orb::Ptr<KoruRegFile::LogicalChip> StatusSm::createLogicalChip(const Orb::String&) {
  return parts_->logicalChip;
}

Orb::Ptr<KoruRegFile::TransportMethod> StatusSm::createTransport(const Orb::String&) {
  if (!parts_->transport) std::rethrow_exception(parts_->whyNoTransport);
  return parts_->transport;
}

}  // namespace Board
