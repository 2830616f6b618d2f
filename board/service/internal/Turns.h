#pragma once

// Clients that have more to be done for them than fits one turn of the event loop: they are served
// one after the other, one a turn of the loop, with everybody else in between. Used on the
// framework's thread.

#include <deque>
#include <memory>

#include "Orb/LoopTask.h"

namespace Board {

class Connection;

class Turns {
 public:
  Turns();

  // The connection's turn() is called, once, when those before it have had theirs.
  void add(std::weak_ptr<Connection> connection);

 private:
  void next();

  std::deque<std::weak_ptr<Connection>> waiting_;
  Orb::LoopTask task_;
};

}  // namespace Board
