#include "board/service/internal/Turns.h"

#include <utility>

#include "board/service/internal/Connection.h"

namespace Board {

Turns::Turns() : task_(Orb::eventLoop(), [this] { next(); }) {}

void Turns::add(std::weak_ptr<Connection> connection) {
  waiting_.push_back(std::move(connection));
  task_.schedule();
}

void Turns::next() {
  std::shared_ptr<Connection> connection;
  while (!connection && !waiting_.empty()) {
    connection = waiting_.front().lock();
    waiting_.pop_front();
  }
  if (!waiting_.empty()) task_.schedule();
  if (connection) connection->turn();
}

}  // namespace Board
