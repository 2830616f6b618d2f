#include "korureg/web/ReadGuard.h"

#include <utility>

#include "korureg/AgentAnswer.h"

namespace korureg::web {

namespace {

// A chip may be described otherwise later on.
constexpr std::chrono::seconds fresh(1);
constexpr size_t mostChips = 64;

}  // namespace

void ReadGuard::check(const std::string& chip, const std::string& reg, Then then) {
  const auto known = chips_.find(chip);
  if (known != chips_.end() && known->second.until > Clock::now()) return then(saidOf(chip, reg));
  link_.ask(
      {{"op", "hw.list"}, {"chip", chip}},
      [this, chip, reg, then = std::move(then)](const AgentLink::Json* answer, const std::string&) {
        then(learn(chip, answer) ? saidOf(chip, reg) : Says::cannotKnow);
      });
}

bool ReadGuard::learn(const std::string& chip, const AgentLink::Json* answer) {
  if (!answer || !flagAt(*answer, "ok")) return false;
  Known known = {.changing = {}, .until = Clock::now() + fresh};
  for (const auto& reg : listAt(*answer, "result")) {
    if (flagAt(reg, "read_changes")) known.changing.insert(textAt(reg, "name"));
  }
  if (chips_.size() == mostChips) chips_.clear();
  chips_[chip] = std::move(known);
  return true;
}

ReadGuard::Says ReadGuard::saidOf(const std::string& chip, const std::string& reg) const {
  return chips_.at(chip).changing.contains(reg) ? Says::changesTheChip : Says::mayRead;
}

}  // namespace korureg::web
