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
#include <utility>

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
  // Calls `onceInLine` before it waits.
  template <class OnceInLine>
  void enter(OnceInLine onceInLine) {
    std::unique_lock guard(mutex_);
    const uint64_t ticket = next_++;
    guard.unlock();
    onceInLine();
    guard.lock();
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

// Who serves the loop, for all that wait for something of it. The others sleep until there is news,
// or nobody serves any more.
class Service {
 public:
  bool tryTakeUp() {
    const std::lock_guard guard(mutex_);
    return !std::exchange(isTaken_, true);
  }
  void layDown() {
    const std::lock_guard guard(mutex_);
    isTaken_ = false;
    told_.notify_all();
  }
  void tell() {
    const std::lock_guard guard(mutex_);
    ++news_;
    told_.notify_all();
  }
  uint64_t news() {
    const std::lock_guard guard(mutex_);
    return news_;
  }
  // Waits for more news than those.
  void await(uint64_t known, Clock::time_point end) {
    std::unique_lock guard(mutex_);
    told_.wait_until(guard, end, [&] { return news_ != known || !isTaken_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable told_;
  uint64_t news_ = 0;
  bool isTaken_ = false;
};

struct Turns {
  Queue queue;
  Service service;
  std::atomic<std::thread::id> owner;
  unsigned depth = 0;                   // of the owner's turns within each other
  std::atomic<Alarm*> alarm = nullptr;  // while somebody serves the loop
  std::atomic<int> waits = 0;
  std::atomic<std::thread::id> ending;  // who ends the interpreter
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
    all.queue.enter([&all] {
      if (const Alarm* alarm = all.alarm) alarm->ring();
    });
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

// One wait, from beginning to end.
class Wait {
 public:
  Wait() { ++turns().waits; }
  ~Wait() { --turns().waits; }
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;

  // Throws when it is not to go on.
  void check() const {
    const std::thread::id ending = turns().ending;
    if (ending != std::thread::id() && ending != std::this_thread::get_id()) {
      PyErr_SetString(PyExc_SystemExit, "the interpreter ends");
      throw py::error_already_set();
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
};

// At the end of the interpreter, when threads may still take the GIL.
void endWaits() {
  Turns& all = turns();
  all.ending = std::this_thread::get_id();
  const Clock::time_point end = Clock::now() + std::chrono::seconds(2);
  const py::gil_scoped_release others;
  while (all.waits != 0 && Clock::now() < end) std::this_thread::sleep_for(slice / 10);
}

// A thread's part in serving the loop, without the GIL.
class Serving {
 public:
  explicit Serving(Clock::time_point end) : end_(end) {}
  ~Serving() {
    if (isMine_) all_.service.layDown();
  }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;

  // Serves some events, lets somebody have a turn, or waits for news of whoever serves.
  void step() {
    if (!isMine_) isMine_ = all_.service.tryTakeUp();
    if (!isMine_) {
      without([this, known = all_.service.news()] { all_.service.await(known, end_); });
    } else if (all_.queue.isWaitedFor()) {
      without([] {});
    } else {
      serve();
    }
  }

 private:
  template <class Meanwhile>
  void without(Meanwhile meanwhile) {
    const unsigned depth = give();
    meanwhile();
    all_.queue.enter([this] { ring(); });
    own(depth);
  }
  void ring() const {
    if (const Alarm* alarm = all_.alarm) alarm->ring();
  }
  void serve() {
    all_.alarm = &sharedAlarm();
    // (Somebody may have asked just before there was an alarm.)
    const auto left = all_.queue.isWaitedFor() ? Clock::duration::zero() : end_ - Clock::now();
    Orb::eventLoop().runFor(std::max(left, Clock::duration::zero()));
    all_.alarm = nullptr;
    all_.service.tell();
  }

  Turns& all_ = turns();
  const Clock::time_point end_;
  bool isMine_ = false;
};

void serveSlice(const std::function<bool()>& isDone, Clock::time_point end) {
  const py::gil_scoped_release others;
  Serving serving(end);
  while (!isDone() && Clock::now() < end) serving.step();
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
  const Wait wait;
  while (true) {
    wait.check();
    serveSlice(isDone, sliceEnd(deadline));
    if (isDone()) return true;
    if (isOver(deadline)) return false;
  }
}

void endWaitsWithInterpreter() {
  py::module_::import("atexit").attr("register")(py::cpp_function(&endWaits));
}

void pauseFor(std::chrono::milliseconds time, Deadline deadline) {
  const Clock::time_point end = Clock::now() + time;
  const Wait wait;
  const TurnPause letThem;
  do {
    wait.check();
    const py::gil_scoped_release others;
    std::this_thread::sleep_until(std::min(end, sliceEnd(deadline)));
  } while (Clock::now() < end && !isOver(deadline));
}

}  // namespace Bindings
