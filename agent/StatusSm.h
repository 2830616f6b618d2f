#pragma once

// The agent's reactor to the system status: chips are added and removed by their keepers, and this
// asks the keeper for what the library needs of a chip. Used on the framework's thread.

#include <functional>

#include "KoruRegFile/SystemChipStatusSm.h"
#include "system/Description.h"

namespace Agent {

class ChipKeeper;

class StatusSm : public KoruRegFile::SystemChipStatusSmBase {
 public:
  // Finds the keeper of a chip, which is there whenever the chip is.
  using FindKeeper = std::function<ChipKeeper&(std::string_view chip)>;

  static Orb::Ptr<StatusSm> StatusSmIs(FindKeeper findKeeper);

  // Brings the chip up, or what is missing of it. Throws what the making of its objects throws.
  void add(const System::Chip& chip);
  void remove(const System::Chip& chip);
  void profilesAre(const std::vector<System::Profile>& profiles);

  Orb::Ptr<KoruRegFile::LogicalChip> createLogicalChip(const Orb::String& chipName) override;
  Orb::Ptr<KoruRegFile::TransportMethod> createTransport(const Orb::String& chipName) override;

  StatusSm(Orb::Ptr<KoruRegFile::PossibleSystemStatus> status, FindKeeper findKeeper);

 private:
  const Orb::Ptr<KoruRegFile::PossibleSystemStatus> status_;
  const FindKeeper findKeeper_;
};

}  // namespace Agent
