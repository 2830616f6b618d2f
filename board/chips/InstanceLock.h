#pragma once

// One agent for a state directory: a record lock on korud.lock, which the kernel releases when the
// process dies.

#include <string>

#include "Orb/Descriptor.h"
#include "board/Export.h"

namespace Board {

class BOARD_EXPORT InstanceLock {
 public:
  // Throws std::runtime_error that names the process which has the lock, and what opening a file of
  // the agent's own throws (StateFiles.h).
  explicit InstanceLock(const std::string& stateDirectory);

 private:
  Orb::Descriptor file_;
};

}  // namespace Board
