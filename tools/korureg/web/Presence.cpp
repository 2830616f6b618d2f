#include "korureg/web/Presence.h"

#include <utility>

#include "korureg/AgentAnswer.h"

namespace korureg::web {

namespace {

constexpr std::chrono::seconds betweenReads(1);
constexpr uint64_t searched = 100;  // registers of a chip, for one that can be read

using Json = AgentLink::Json;

// (A chip that is not there yet has another state already.)
bool hasTransport(const Json& chip) {
  const std::string state = textAt(chip, "state");
  return state == "up" || state == "rewriting";
}

}  // namespace

void Presence::wantedIs(bool isWanted) {
  if (isWanted == (due_ != never)) return;
  due_ = isWanted ? Clock::now() : never;
  isStale_ = true;
  chips_.clear();
}

void Presence::changed(const std::string& chip) {
  isStale_ = true;
  if (const auto found = chips_.find(chip); found != chips_.end()) found->second.isKnown = false;
}

Json Presence::silent() const {
  Json silent = Json::object();
  for (const auto& [name, chip] : chips_) {
    if (!chip.why.empty()) silent[name] = chip.why;
  }
  return silent;
}

void Presence::serve(Clock::time_point now) {
  if (due_ > now || !link_.isThere()) return;
  due_ = now + betweenReads;
  if (std::exchange(isStale_, false)) learn();
  for (auto& [name, chip] : chips_) {
    if (!chip.reg.empty() && !chip.isWaiting) read(name, chip);
  }
}

void Presence::learn() {
  link_.ask({{"op", "chip.list"}}, [this](const Json* answer, const std::string&) {
    if (!answer) return;
    std::map<std::string, Chip> chips;
    for (const auto& each : listAt(*answer, "result")) {
      const std::string name = textAt(each, "name");
      if (hasTransport(each)) chips[name] = chips_[name];
    }
    chips_ = std::move(chips);
    for (auto& [name, chip] : chips_) {
      if (!std::exchange(chip.isKnown, true)) learn(name);
    }
    changed_();
  });
}

// One whose bits are kept and compared: reading it changes nothing.
void Presence::learn(const std::string& chip) {
  link_.ask({{"op", "chip.registers"}, {"chip", chip}, {"limit", searched}},
            [this, chip](const Json* answer, const std::string&) {
              const auto found = chips_.find(chip);
              if (!answer || found == chips_.end()) return;
              found->second.reg.clear();
              for (const auto& reg : listAt(*answer, "result")) {
                if (flagAt(reg, "read_changes") || numberAt(reg, "verified").value_or(0) == 0) {
                  continue;
                }
                found->second.reg = textAt(reg, "name");
                break;
              }
            });
}

void Presence::read(const std::string& name, Chip& chip) {
  chip.isWaiting = true;
  link_.ask({{"op", "hw.read"}, {"chip", name}, {"register", chip.reg}},
            [this, name](const Json* answer, const std::string& why) {
              if (!answer) return heard(name, why);
              const Json error = answer->value("error", Json::object());
              heard(name, flagAt(*answer, "ok") ? "" : textAt(error, "message"));
            });
}

void Presence::heard(const std::string& name, const std::string& why) {
  const auto found = chips_.find(name);
  if (found == chips_.end()) return;
  found->second.isWaiting = false;
  if (std::exchange(found->second.why, why) != why) changed_();
}

}  // namespace korureg::web
