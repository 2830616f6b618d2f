#pragma once

// The reactor to the system status: keepers add and remove their chips, with what they have made of
// them; it hands that on to the library, which asks for it. Used on the framework's thread.

#include <exception>
#include <vector>

#include "KoruRegFile/SystemChipStatusSm.h"
#include "board/description/Description.h"

namespace Board {

// What the library needs of a chip.
struct ChipParts {
  Orb::Ptr<KoruRegFile::LogicalChip> logicalChip;  // not asked for when the model has one
  Orb::Ptr<KoruRegFile::TransportMethod> transport;
  std::exception_ptr whyNoTransport;  // when there is none
};

class StatusSm : public KoruRegFile::SystemChipStatusSmBase {
 public:
  static Orb::Ptr<StatusSm> StatusSmIs();

  // Brings the chip up, or what is missing of it. Throws what its registers' first writes throw,
  // and the reason why there is no transport; its logical chip is in the model then.
  void add(const Chip& chip, const ChipParts& parts);
  void remove(const Chip& chip);
  void profilesAre(const std::vector<Profile>& profiles);

  Orb::Ptr<KoruRegFile::LogicalChip> createLogicalChip(const Orb::String& chipName) override;
  Orb::Ptr<KoruRegFile::TransportMethod> createTransport(const Orb::String& chipName) override;

  explicit StatusSm(Orb::Ptr<KoruRegFile::PossibleSystemStatus> status);

 private:
  const Orb::Ptr<KoruRegFile::PossibleSystemStatus> status_;
  const ChipParts* parts_ = nullptr;  // of the chip that is being added
};

}  // namespace Board
