#pragma once

// The signals that end and reload an agent, as events of the framework's loop: SIGTERM and SIGINT
// stop it, SIGHUP calls back. From then on they stay blocked in the process, and SIGPIPE and
// SIGXFSZ ignored. One at a time, made before there are other threads, which would get the signals
// instead.

#include <functional>
#include <memory>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "board/Export.h"

namespace Board {

class BOARD_EXPORT Signals {
 public:
  // Throws std::system_error when there are no descriptors left.
  explicit Signals(std::function<void()> hangup);
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

 private:
  void serve();

  const std::function<void()> hangup_;
  Orb::Descriptor fd_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Board
