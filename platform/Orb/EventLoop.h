#pragma once

// The framework's event loop: descriptors, timers and deferred calls, served one after the other on
// the thread that runs the loop. Nothing here starts a thread, and all of it is used on that
// thread.
//
// A callback that throws is traced at level 0 (category "EventLoop") and the loop goes on.
// Destroying an EventWatch ends its calls for good, also from inside its own callback.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "Orb/Export.h"

namespace Orb {

// Keeps a descriptor or a timer served; owned by whoever asked for it. Must not outlive its loop.
class ORB_EXPORT EventWatch {
 public:
  virtual ~EventWatch();

 protected:
  EventWatch() = default;
};

class ORB_EXPORT EventLoop {
 public:
  using Callback = std::function<void()>;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls back whenever `fd` can be read (an end of file or an error counts). The descriptor stays
  // the caller's, blocking or not as it was, who closes it after the watch is gone; one watch a
  // descriptor. Throws
  // std::system_error for a descriptor that cannot be waited for, a regular file for instance.
  [[nodiscard]] std::unique_ptr<EventWatch> readable(int fd, Callback callback);

  // Calls back once, when `fd` can be written to; otherwise as readable(). A descriptor that has a
  // watch for reading already needs a duplicate for this one.
  [[nodiscard]] std::unique_ptr<EventWatch> writable(int fd, Callback callback);

  // Calls back once, after `delay`, or every `period`, which is more than 0.
  [[nodiscard]] std::unique_ptr<EventWatch> after(std::chrono::nanoseconds delay,
                                                  Callback callback);
  [[nodiscard]] std::unique_ptr<EventWatch> every(std::chrono::nanoseconds period,
                                                  Callback callback);

  // Calls back once, from the loop and not from inside this call, in the order of the deferrals.
  void defer(Callback callback);

  // These three throw std::logic_error when called from inside a callback.

  // Serves events until stop(); sleeps when there are none.
  void run();
  // Serves what is pending and returns how many callbacks that were, for an agent that has a loop
  // of its own. Neither waits nor goes on for callbacks that defer themselves again and again.
  size_t runPending();
  // Serves at least one event, waiting at most `limit` for it; returns how many callbacks there
  // were.
  size_t runFor(std::chrono::nanoseconds limit);
  // Makes run() return after the current callback.
  void stop();
  // Whether one of the three above is under way, so that this is called from inside a callback.
  bool isServing() const;

  // For an agent that has a loop of its own: a descriptor that can be read (poll(2), epoll(7))
  // whenever runPending() has something to serve. It stays the loop's, who alone reads from it.
  // Throws std::system_error when there are no descriptors left.
  int fd();

 private:
  struct Impl;
  struct Stay;
  class DescriptorWatch;

  std::unique_ptr<Impl> impl_;
};

// The loop that the process's agents and services share; made on first use and never destroyed.
ORB_EXPORT EventLoop& eventLoop();

}  // namespace Orb
