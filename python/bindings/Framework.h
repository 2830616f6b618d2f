#pragma once

// The library's framework is used on one thread at a time; Python has many. Each call from Python
// takes its turn, in the order of asking, and gives it away while it waits for the event loop. No
// Python code runs from the loop. All of this is called with the GIL held, and holds it afterwards.

#include <pybind11/pybind11.h>

#include <chrono>
#include <functional>
#include <optional>

namespace Bindings {

namespace py = pybind11;
using Clock = std::chrono::steady_clock;

// When to give up; nothing for never.
using Deadline = std::optional<Clock::time_point>;

// Seconds from now, or None. Throws py::value_error for what is no time, py::type_error for what is
// no number.
Deadline deadlineAfter(const py::object& seconds);

// One call's turn at the framework. May be taken again within itself, as when a finaliser or a
// signal's handler runs in between.
class Turn {
 public:
  Turn();
  ~Turn();
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
};

// Gives the turn away while Python code of the user's runs, which may itself wait for another
// thread.
class TurnPause {
 public:
  TurnPause();
  ~TurnPause();
  TurnPause(const TurnPause&) = delete;
  TurnPause& operator=(const TurnPause&) = delete;

 private:
  unsigned depth_;
};

// Serves the event loop until `isDone`, which touches nothing of Python, or the deadline; returns
// whether it is done. Holds no GIL meanwhile, and others have their turn. Throws
// py::error_already_set when a signal's handler raises.
bool serveUntil(const std::function<bool()>& isDone, Deadline deadline);

// To be called once: has the waits of other threads end with SystemExit when the interpreter does,
// which would otherwise end them in a place that C++ cannot leave.
void endWaitsWithInterpreter();

// Sleeps that long, or until the deadline, likewise.
void pauseFor(std::chrono::milliseconds time, Deadline deadline);

}  // namespace Bindings
