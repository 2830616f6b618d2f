#pragma once

// Knows which registers of a chip are changed by being read. One thread.

#include <functional>
#include <map>
#include <set>
#include <string>

#include "korureg/web/AgentLink.h"

namespace korureg::web {

class ReadGuard {
 public:
  enum class Says { mayRead, changesTheChip, cannotKnow };
  using Then = std::function<void(Says says)>;

  explicit ReadGuard(AgentLink& link) : link_(link) {}

  // Asks the agent, if that was not done just now.
  void check(const std::string& chip, const std::string& reg, Then then);

 private:
  struct Known {
    std::set<std::string> changing;
    Clock::time_point until;
  };
  bool learn(const std::string& chip, const AgentLink::Json* answer);
  Says saidOf(const std::string& chip, const std::string& reg) const;

  AgentLink& link_;
  std::map<std::string, Known> chips_;
};

}  // namespace korureg::web
