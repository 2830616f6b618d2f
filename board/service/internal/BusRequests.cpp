// Requests about what goes over the buses of chips, for whoever records it.

#include <algorithm>
#include <chrono>

#include "KoruRegFile/ShadowSms.h"
#include "board/chips/Verification.h"
#include "board/devices/BusRecorder.h"
#include "board/service/internal/Call.h"

namespace Board {

namespace {

int64_t nanoseconds(std::chrono::steady_clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

// What registers were written with, as the agent knows, and those that it reads of its own accord.
void addState(Json& json, BoardKeeper& keeper, const std::string& chip) {
  json["holds"] = Json::array();
  json["unasked"] = Json::array();
  const auto shadowSm = keeper.shadowSm(chip);
  const auto transport = keeper.transport(chip);
  const Chip* const described = keeper.description(chip);
  const Verification* const verification = keeper.verification(chip);
  if (!shadowSm || !transport || !transport->implPtr() || !described || !verification) return;
  const auto& map = *transport->regFileHelper().csvRegFile();
  const Upkeep& upkeep = described->upkeep;
  const Health health = keeper.health(chip);
  // Otherwise registers are being written with what they are said to hold.
  const bool isSettled = health.state == ChipState::up && health.inFlight == 0;
  std::vector<std::pair<uint32_t, uint32_t>> registers;
  for (const auto& [address, value] : shadowSm->regStatus()) registers.emplace_back(address, value);
  std::sort(registers.begin(), registers.end());
  for (const auto& [address, value] : registers) {
    const std::string name(map.regNameAtAddr(address).view());
    if (isSettled) json["holds"].push_back({{"register", name}, {"value", value}});
    const bool isVerified = upkeep.verifyEvery.count() != 0 &&
                            verification->verified(map.findRegisterByName(name)).mask != 0;
    if (isVerified || (upkeep.canary && upkeep.canary->reg == name))
      json["unasked"].push_back({{"register", name}});
  }
}

}  // namespace

Json Requests::busSubscribe(Call& call) {
  const std::string chip = call.text("chip");
  requireChip(keeper_, chip);
  call.asker.hearBus(chip);
  Json result = {{"next", keeper_.busRecorder(chip).nextNumber()}};
  addState(result, keeper_, chip);
  return result;
}

Json Requests::busUnsubscribe(Call& call) {
  Json chips = Json::object();
  for (const std::string& chip : call.asker.hearNoBus()) {
    chips[chip] = keeper_.busRecorder(chip).nextNumber();
  }
  return {{"next", std::move(chips)}};
}

Json Requests::busEvent(const std::string& chip, const BusAccess& access, uint64_t number) {
  Json event = {{"event", "bus"},
                {"chip", chip},
                {"number", number},
                {"write", access.isWrite},
                {"register", access.reg}};
  if (access.isWrite || !access.failure) event["value"] = access.value;
  if (access.failure) {
    event["reason"] = access.failure->reason;
    event["errno"] = access.failure->error;
    if (access.failure->isBusError) event["bus_error"] = true;
  }
  event["at_ns"] = nanoseconds(access.begin.time_since_epoch());
  event["took_ns"] = nanoseconds(access.took);
  return event;
}

}  // namespace Board
