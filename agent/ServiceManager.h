#pragma once

// Tells the service manager that started the agent how it does: when it is ready, reloads and ends,
// a line for people, and, if that is wanted, that the event loop still turns. Without one it says
// nothing. Never waits: what the manager does not take now is told later, from the event loop. Used
// on the framework's thread.

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"

namespace Agent {

class ServiceManager {
 public:
  // As $NOTIFY_SOCKET, $WATCHDOG_USEC and $WATCHDOG_PID say. What makes no sense there is traced,
  // and left out.
  ServiceManager();

  void ready();
  // To be followed by ready().
  void reloading();
  void stopping();
  // Told when it is another one than before.
  void statusIs(const std::string& text);

 private:
  void watchdog();
  void tell(std::string message);
  void deliver();

  std::string address_;  // as the kernel wants it; empty for nobody
  Orb::Descriptor socket_;
  std::string status_;
  std::deque<std::string> untold_;
  std::unique_ptr<Orb::EventWatch> later_;
  std::unique_ptr<Orb::EventWatch> watchdog_;
};

}  // namespace Agent
