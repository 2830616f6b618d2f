#pragma once

// Work that is done in steps from the event loop, so that a long queue never holds up the others:
// whoever has the work owns the task, whose step does one piece and schedules the next. Destroying
// the task ends the steps, also from inside one. Used on the loop's thread.

#include <chrono>
#include <functional>
#include <memory>

#include "Orb/EventLoop.h"
#include "Orb/Export.h"

namespace Orb {

class ORB_EXPORT LoopTask {
 public:
  LoopTask(EventLoop& loop, std::function<void()> step);
  ~LoopTask();
  LoopTask(const LoopTask&) = delete;
  LoopTask& operator=(const LoopTask&) = delete;

  // Takes one step, soon, from the loop and not from inside this call. Until then, scheduling again
  // changes nothing.
  void schedule();
  void scheduleAfter(std::chrono::nanoseconds delay);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace Orb
