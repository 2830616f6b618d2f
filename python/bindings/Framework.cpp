#include "python/bindings/Framework.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Orb/EventLoop.h"

namespace Bindings {

namespace {

// How long a signal's handler may have to wait.
constexpr std::chrono::milliseconds slice{50};

// Whoever asks first comes first, so that a thread that waits in turns does not starve the others.
class Queue {
 public:
  bool tryEnter() {
    const std::lock_guard guard(mutex_);
    if (next_ != served_) return false;
    ++next_;
    return true;
  }
  void enter() {
    std::unique_lock guard(mutex_);
    const uint64_t ticket = next_++;
    called_.wait(guard, [&] { return served_ == ticket; });
  }
  void leave() {
    const std::lock_guard guard(mutex_);
    ++served_;
    if (next_ != served_) called_.notify_all();
  }
  bool isWaitedFor() {
    const std::lock_guard guard(mutex_);
    return next_ - served_ > 1;
  }

 private:
  std::mutex mutex_;
  std::condition_variable called_;
  uint64_t next_ = 0;
  uint64_t served_ = 0;
};

// Wakes the event loop for somebody who wants a turn.
class Alarm {
 public:
  Alarm() : event_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!event_) Orb::throwErrno("eventfd");
    watch_ = Orb::eventLoop().readable(event_.get(), [this] {
      uint64_t count;
      [[maybe_unused]] const ssize_t got = ::read(event_.get(), &count, sizeof count);
    });
  }
  void ring() const {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t put = ::write(event_.get(), &one, sizeof one);
  }

 private:
  const Orb::Descriptor event_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

struct Turns {
  Queue queue;
  std::atomic<std::thread::id> owner;
  unsigned depth = 0;                   // of the owner's turns within each other
  std::atomic<Alarm*> alarm = nullptr;  // while somebody serves the loop
};

// Never destroyed: objects may go as late as they like.
Turns& turns() {
  static auto* all = new Turns;
  return *all;
}

void own(unsigned depth) {
  turns().owner = std::this_thread::get_id();
  turns().depth = depth;
}

void take(unsigned depth) {
  Turns& all = turns();
  if (!all.queue.tryEnter()) {
    const py::gil_scoped_release others;
    if (const Alarm* alarm = all.alarm) alarm->ring();
    all.queue.enter();
  }
  own(depth);
}

unsigned give() {
  Turns& all = turns();
  const unsigned depth = all.depth;
  all.owner = std::thread::id();
  all.queue.leave();
  return depth;
}

Alarm& sharedAlarm() {
  static auto* alarm = new Alarm;
  return *alarm;
}

Clock::time_point sliceEnd(Deadline deadline) {
  const Clock::time_point end = Clock::now() + slice;
  return deadline ? std::min(*deadline, end) : end;
}

bool isOver(Deadline deadline) { return deadline && Clock::now() >= *deadline; }

void checkSignals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// Without the GIL; those who want a turn have theirs at once.
void serveSlice(const std::function<bool()>& isDone, Clock::time_point end) {
  Turns& all = turns();
  const py::gil_scoped_release others;
  while (!isDone()) {
    const auto left = end - Clock::now();
    if (left <= left.zero()) return;
    if (all.queue.isWaitedFor()) {
      const unsigned depth = give();
      all.queue.enter();
      own(depth);
    } else {
      all.alarm = &sharedAlarm();
      // (Somebody may have asked just before there was an alarm.)
      Orb::eventLoop().runFor(all.queue.isWaitedFor() ? left.zero() : left);
      all.alarm = nullptr;
    }
  }
}

}  // namespace

Deadline deadlineAfter(const py::object& seconds) {
  if (seconds.is_none()) return std::nullopt;
  const double time = PyFloat_AsDouble(seconds.ptr());
  if (time == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (!(time >= 0)) throw py::value_error("a timeout is a number of seconds, not below 0");
  constexpr double aYear = 365 * 86400.0;
  if (time > aYear) return std::nullopt;
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(time));
}

Turn::Turn() {
  if (turns().owner == std::this_thread::get_id()) {
    ++turns().depth;
  } else {
    take(1);
  }
}

Turn::~Turn() {
  if (turns().depth > 1) {
    --turns().depth;
  } else {
    give();
  }
}

TurnPause::TurnPause() : depth_(give()) {}
TurnPause::~TurnPause() { take(depth_); }

bool serveUntil(const std::function<bool()>& isDone, Deadline deadline) {
  while (true) {
    checkSignals();
    serveSlice(isDone, sliceEnd(deadline));
    if (isDone()) return true;
    if (isOver(deadline)) return false;
  }
}

void pauseFor(std::chrono::milliseconds time, Deadline deadline) {
  const Clock::time_point end = Clock::now() + time;
  const TurnPause letThem;
  do {
    checkSignals();
    const py::gil_scoped_release others;
    std::this_thread::sleep_until(std::min(end, sliceEnd(deadline)));
  } while (Clock::now() < end && !isOver(deadline));
}

}  // namespace Bindings
