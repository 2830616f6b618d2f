#pragma once

// Has the agent follow its system file: reads it again when it, or a register map beside it, has
// changed. A file that cannot be read leaves the chips as they are.

#include <memory>
#include <string>

#include "Orb/DirectoryWatch.h"
#include "Orb/EventLoop.h"
#include "agent/Agent.h"

namespace Agent {

class BoardWatch {
 public:
  BoardWatch(Agent& agent, std::string file);

  // Reads the file and gives the agent what it says. Traces at level 0 what cannot be read.
  void load();
  // Why the file could not be read the last time; empty when it could.
  const std::string& failure() const { return failure_; }

 private:
  void changed();
  std::string stamp() const;

  Agent& agent_;
  const std::string file_;
  std::string failure_;
  std::vector<std::string> files_;  // that the chips are described in
  std::string stamp_;               // of these files, when they were read
  std::unique_ptr<Orb::DirectoryWatch> watch_;
};

}  // namespace Agent
