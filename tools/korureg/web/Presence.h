#pragma once

// Which chips answer, as long as somebody wants to know: once a second one register of each is
// read, one that the agent itself may read unasked. One thread.

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "korureg/web/AgentLink.h"

namespace korureg::web {

class Presence {
 public:
  using Changed = std::function<void()>;

  Presence(AgentLink& link, Changed changed) : link_(link), changed_(std::move(changed)) {}

  // Whether anybody wants to know.
  void wantedIs(bool isWanted);
  // A chip has come, gone, or changed.
  void changed(const std::string& chip);

  // Those that do not answer, and what was said instead, by name.
  AgentLink::Json silent() const;

  void serve(Clock::time_point now);
  Clock::time_point next() const { return due_; }

 private:
  struct Chip {
    std::string reg = {};  // that is read; none while it is empty
    std::string why = {};  // it does not answer
    bool isKnown = false;  // whether it was looked for
    bool isWaiting = false;
  };

  void learn();
  void learn(const std::string& chip);
  void read(const std::string& name, Chip& chip);
  void heard(const std::string& name, const std::string& why);

  AgentLink& link_;
  const Changed changed_;
  std::map<std::string, Chip> chips_;
  bool isStale_ = true;
  Clock::time_point due_ = never;
};

}  // namespace korureg::web
