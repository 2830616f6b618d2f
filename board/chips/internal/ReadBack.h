#pragma once

// Reads a chip's registers back without anybody's asking, one at a time and while nothing else goes
// on: finds those that no longer hold what was written, and a chip that was reset. Owned by the
// chip's keeper; used on the framework's thread, served on the event loop.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/LoopTask.h"
#include "board/chips/Health.h"
#include "board/chips/Verification.h"
#include "board/description/Description.h"

namespace Board {

class ReadBack {
 public:
  struct Callbacks {
    // Whether the chip is up, and nothing is in flight.
    std::function<bool()> isIdle;
    std::function<void(const Drift& drift)> drifted;
    // The canary holds its reset value.
    std::function<void()> wasReset;
  };

  // Refers to the description; begins at once when that asks for it.
  ReadBack(const Chip& chip, const Verification& verification,
           Orb::Ptr<KoruRegFile::TransportMethod> transport,
           Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm, Callbacks callbacks);

 private:
  void readNext();
  void lookAtCanary();
  void read(uint32_t address, void (ReadBack::*found)(uint32_t address, uint32_t value));
  const KoruRegFile::Register& registerAt(uint32_t address) const;
  void compare(uint32_t address, uint32_t value);
  void compareCanary(uint32_t address, uint32_t value);

  const Chip& chip_;
  const Verification& verification_;
  const Orb::Ptr<KoruRegFile::TransportMethod> transport_;
  const Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm_;
  const Callbacks callbacks_;
  std::vector<uint32_t> addresses_;    // that are left of this round
  std::chrono::milliseconds delay_{};  // grows while the canary does not heal
  const std::shared_ptr<const bool> alive_ = std::make_shared<bool>(true);
  Orb::LoopTask round_;
  Orb::LoopTask canary_;
};

}  // namespace Board
