#include "board/chips/internal/ReadBack.h"

#include <algorithm>
#include <utility>

#include "Orb/EventLoop.h"

namespace Board {

namespace {

// Between two registers, and until somebody who is busy is asked again.
constexpr std::chrono::milliseconds pause{5};
constexpr std::chrono::milliseconds busy{1000};
constexpr std::chrono::milliseconds longestDelay{30000};

}  // namespace

ReadBack::ReadBack(const Chip& chip, const Verification& verification,
                   Orb::Ptr<KoruRegFile::TransportMethod> transport,
                   Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm, Callbacks callbacks)
    : chip_(chip),
      verification_(verification),
      transport_(std::move(transport)),
      shadowSm_(std::move(shadowSm)),
      callbacks_(std::move(callbacks)),
      round_(Orb::eventLoop(), [this] { readNext(); }),
      canary_(Orb::eventLoop(), [this] { lookAtCanary(); }) {
  if (chip_.upkeep.verifyEvery.count() != 0) round_.scheduleAfter(chip_.upkeep.verifyEvery);
  if (!chip_.upkeep.canary) return;
  delay_ = chip_.upkeep.canary->every;
  canary_.scheduleAfter(delay_);
}

// The first call of a round finds none left.
void ReadBack::readNext() {
  if (!callbacks_.isIdle()) return round_.scheduleAfter(std::min(chip_.upkeep.verifyEvery, busy));
  if (addresses_.empty()) {
    for (const auto& [address, value] : shadowSm_->regStatus()) addresses_.push_back(address);
  }
  while (!addresses_.empty()) {
    const uint32_t address = addresses_.back();
    addresses_.pop_back();
    if (verification_.verified(registerAt(address)).mask == 0) continue;
    read(address, &ReadBack::compare);
    break;
  }
  if (addresses_.empty()) return round_.scheduleAfter(chip_.upkeep.verifyEvery);
  round_.scheduleAfter(pause);
}

void ReadBack::lookAtCanary() {
  canary_.scheduleAfter(delay_);
  if (callbacks_.isIdle()) read(chip_.upkeep.canary->address, &ReadBack::compareCanary);
}

// What is written meanwhile makes the value say nothing. A read that fails does not either: whoever
// writes the chip next will hear of it.
void ReadBack::read(uint32_t address, void (ReadBack::*found)(uint32_t address, uint32_t value)) {
  const uint32_t before = shadowSm_->regStatus()(address);
  transport_->regReadOutcome(
      transport_->regAddrToName(address), [this, alive = std::weak_ptr(alive_), address, before,
                                           found](const KoruRegFile::AccessOutcome& outcome) {
        if (alive.expired() || !outcome.isDone()) return;
        if (shadowSm_->regStatus()(address) != before || !callbacks_.isIdle()) return;
        (this->*found)(address, outcome.value);
      });
}

const KoruRegFile::Register& ReadBack::registerAt(uint32_t address) const {
  const auto& map = *transport_->regFileHelper().csvRegFile();
  return map.findRegisterByName(map.regNameAtAddr(address).view());
}

void ReadBack::compare(uint32_t address, uint32_t value) {
  const auto& reg = registerAt(address);
  const uint32_t written = shadowSm_->regStatus()(address);
  if (((value ^ written) & verification_.verified(reg).mask) == 0) return;
  callbacks_.drifted({reg.name, address, written, value});
}

void ReadBack::compareCanary(uint32_t address, uint32_t value) {
  const uint32_t mask = verification_.kept(registerAt(address));
  const uint32_t reset = chip_.upkeep.canary->reset;
  const bool betrays = ((shadowSm_->regStatus()(address) ^ reset) & mask) != 0;
  if (!betrays || ((value ^ reset) & mask) != 0) {
    delay_ = chip_.upkeep.canary->every;
    return;
  }
  delay_ = std::max(delay_, std::min(2 * delay_, longestDelay));
  callbacks_.wasReset();
}

}  // namespace Board
