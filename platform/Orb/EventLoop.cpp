#include "Orb/EventLoop.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Orb/Trace.h"

namespace Orb {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

TraceHandle trace("EventLoop");

// `span` after `from`, or the end of time when that comes first.
Clock::time_point later(Clock::time_point from, nanoseconds span) {
  return span < Clock::time_point::max() - from ? from + span : Clock::time_point::max();
}

// At most what fits 32 bits, which is what some machines have for it; nobody waits for so long at a
// time.
timespec toTimespec(nanoseconds span) {
  constexpr std::chrono::seconds most(std::numeric_limits<int32_t>::max());
  span = std::min<nanoseconds>(span, most);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(span);
  return {.tv_sec = static_cast<time_t>(seconds.count()),
          .tv_nsec = static_cast<long>((span - seconds).count())};
}

// What a watch and the loop share: it lives until its last call has returned, and `isOver` says
// that nobody wants it any more.
struct Watched {
  explicit Watched(EventLoop::Callback c) : callback(std::move(c)) {}
  const EventLoop::Callback callback;
  bool isOver = false;
};

struct WatchedTimer : Watched {
  WatchedTimer(EventLoop::Callback c, nanoseconds p, bool r)
      : Watched(std::move(c)), period(p), repeats(r), due(later(Clock::now(), p)) {}

  // Periods that were missed, in the callback too, are not made up for.
  void advance() {
    due = later(due, period);
    const Clock::time_point now = Clock::now();
    if (due < now) due = later(now, period);
  }

  const nanoseconds period;
  const bool repeats;
  Clock::time_point due;
};

// The timers of a loop, with a descriptor that can be read when the first one is due.
class Timers {
 public:
  Timers() : fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
    if (!fd_) throwErrno("cannot make a timer");
  }
  int fd() const { return fd_.get(); }

  void add(const std::shared_ptr<WatchedTimer>& timer) {
    waiting_.emplace(timer->due, timer);
    arm();
  }
  void remove(const WatchedTimer& timer) {
    const auto [begin, end] = waiting_.equal_range(timer.due);
    const auto found =
        std::find_if(begin, end, [&](const auto& entry) { return entry.second.get() == &timer; });
    if (found != end) waiting_.erase(found);
    arm();
  }
  // Takes out those that are due.
  std::vector<std::shared_ptr<WatchedTimer>> takeDue() {
    std::vector<std::shared_ptr<WatchedTimer>> due;
    if (waiting_.empty()) return due;
    const auto end = waiting_.upper_bound(Clock::now());
    for (auto each = waiting_.begin(); each != end; ++each) due.push_back(each->second);
    waiting_.erase(waiting_.begin(), end);
    arm();
    return due;
  }

 private:
  // The descriptor follows the first timer, and can no longer be read once it is set anew.
  void arm() {
    const auto first = waiting_.empty() ? Clock::time_point::max() : waiting_.begin()->first;
    if (first == armed_) return;
    itimerspec when = {};
    if (first != Clock::time_point::max()) {
      // A time of 0 would disarm it.
      when.it_value = toTimespec(std::max(first.time_since_epoch(), nanoseconds(1)));
    }
    if (::timerfd_settime(fd_.get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
      throwErrno("cannot set a timer");
    }
    armed_ = first;
  }

  const Descriptor fd_;
  std::multimap<Clock::time_point, std::shared_ptr<WatchedTimer>> waiting_;
  Clock::time_point armed_ = Clock::time_point::max();
};

}  // namespace

EventWatch::~EventWatch() = default;

struct EventLoop::Impl {
  Impl();
  void add(int fd, uint32_t events, Watched* watched);
  void remove(int fd, const Watched* watched);
  void call(const Callback& callback);
  void callIfWanted(const std::shared_ptr<Watched>& watched);
  void serveDeferred();
  void serveReady(int patience);
  void serveTimers();
  void tellOthers();

  const Descriptor epoll{::epoll_create1(EPOLL_CLOEXEC)};
  Timers timers;
  std::map<const Watched*, std::shared_ptr<Watched>> descriptors;
  std::vector<epoll_event> ready;  // of the round that is being served
  std::deque<Callback> deferred;
  Descriptor
      signal;  // for whoever waits for fd(): something was deferred; none as long as nobody does
  bool isSignalled = false;
  size_t served = 0;
  bool isServing = false;
  bool isStopped = false;
};

EventLoop::Impl::Impl() {
  if (!epoll) throwErrno("cannot make an event loop");
  add(timers.fd(), EPOLLIN, nullptr);
}

void EventLoop::Impl::add(int fd, uint32_t events, Watched* watched) {
  epoll_event event = {.events = events, .data = {.ptr = watched}};
  if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throwErrno("cannot wait for descriptor {}", fd);
  }
}

void EventLoop::Impl::remove(int fd, const Watched* watched) {
  ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
  descriptors.erase(watched);
  for (epoll_event& event : ready) {
    if (event.data.ptr == watched) event.data.ptr = nullptr;
  }
}

void EventLoop::Impl::call(const Callback& callback) {
  ++served;
  try {
    callback();
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "a callback threw: {}", e.what());
  } catch (...) {
    ORB_TRACE(trace, 0, "a callback threw something that is no std::exception");
  }
}

void EventLoop::Impl::callIfWanted(const std::shared_ptr<Watched>& watched) {
  // It may end its own watch. NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  const auto keep = watched;
  if (!keep->isOver) call(keep->callback);
}

// Those that were deferred before: what they defer comes later.
void EventLoop::Impl::serveDeferred() {
  for (size_t left = deferred.size(); left != 0 && !isStopped; --left) {
    const Callback callback = std::move(deferred.front());
    deferred.pop_front();
    call(callback);
  }
}

void EventLoop::Impl::serveTimers() {
  auto due = timers.takeDue();
  for (auto timer = due.begin(); timer != due.end(); ++timer) {
    if (isStopped) {
      timers.add(*timer);
      continue;
    }
    callIfWanted(*timer);
    if (!(*timer)->repeats || (*timer)->isOver) continue;
    (*timer)->advance();
    timers.add(*timer);
  }
}

// Descriptors, all of those that are ready, and timers. Waits for them so many milliseconds, for
// ever when that is negative.
void EventLoop::Impl::serveReady(int patience) {
  ready.resize(descriptors.size() + 2);
  const int count =
      ::epoll_wait(epoll.get(), ready.data(), static_cast<int>(ready.size()), patience);
  if (count < 0 && errno != EINTR) throwErrno("cannot wait for events");
  ready.resize(static_cast<size_t>(std::max(count, 0)));
  serveTimers();
  // (A callback may take entries out of this list.)
  for (size_t i = 0; i < ready.size() && !isStopped; ++i) {
    const auto found = descriptors.find(static_cast<const Watched*>(ready[i].data.ptr));
    if (found != descriptors.end()) callIfWanted(found->second);
  }
  ready.clear();
}

// What is left to be done can be seen at fd().
void EventLoop::Impl::tellOthers() {
  if (!signal || isServing || isSignalled != deferred.empty()) return;
  eventfd_t ignored;
  isSignalled = !deferred.empty();
  isSignalled ? ::eventfd_write(signal.get(), 1) : ::eventfd_read(signal.get(), &ignored);
}

namespace {

class TimerWatch : public EventWatch {
 public:
  TimerWatch(Timers& timers, std::shared_ptr<WatchedTimer> timer)
      : timers_(timers), timer_(std::move(timer)) {
    timers_.add(timer_);
  }
  ~TimerWatch() override {
    timer_->isOver = true;
    timers_.remove(*timer_);
  }

 private:
  Timers& timers_;
  const std::shared_ptr<WatchedTimer> timer_;
};

}  // namespace

class EventLoop::DescriptorWatch : public EventWatch {
 public:
  DescriptorWatch(Impl& impl, int fd, uint32_t events, Callback callback)
      : impl_(impl), fd_(fd), watched_(std::make_shared<Watched>(std::move(callback))) {
    impl_.descriptors.emplace(watched_.get(), watched_);
    try {
      impl_.add(fd, events, watched_.get());
    } catch (...) {
      impl_.descriptors.erase(watched_.get());
      throw;
    }
  }
  ~DescriptorWatch() override {
    watched_->isOver = true;
    impl_.remove(fd_, watched_.get());
  }

 private:
  Impl& impl_;
  const int fd_;
  const std::shared_ptr<Watched> watched_;
};

EventLoop::EventLoop() : impl_(std::make_unique<Impl>()) {}
EventLoop::~EventLoop() = default;

std::unique_ptr<EventWatch> EventLoop::readable(int fd, Callback callback) {
  return std::make_unique<DescriptorWatch>(*impl_, fd, EPOLLIN, std::move(callback));
}

std::unique_ptr<EventWatch> EventLoop::writable(int fd, Callback callback) {
  return std::make_unique<DescriptorWatch>(*impl_, fd, EPOLLOUT | EPOLLONESHOT,
                                           std::move(callback));
}

std::unique_ptr<EventWatch> EventLoop::after(nanoseconds delay, Callback callback) {
  return std::make_unique<TimerWatch>(
      impl_->timers, std::make_shared<WatchedTimer>(std::move(callback), delay, false));
}

std::unique_ptr<EventWatch> EventLoop::every(nanoseconds period, Callback callback) {
  return std::make_unique<TimerWatch>(
      impl_->timers, std::make_shared<WatchedTimer>(std::move(callback), period, true));
}

void EventLoop::defer(Callback callback) {
  impl_->deferred.push_back(std::move(callback));
  impl_->tellOthers();
}

int EventLoop::fd() {
  if (!impl_->signal) {
    Descriptor made(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!made) throwErrno("cannot make a descriptor for the event loop");
    impl_->add(made.get(), EPOLLIN, nullptr);
    impl_->signal = std::move(made);
    impl_->tellOthers();
  }
  return impl_->epoll.get();
}

// One stay in the loop. The loop is not entered a second time from one of its own callbacks.
struct EventLoop::Stay {
  explicit Stay(Impl& i) : impl(i) {
    if (impl.isServing) throw std::logic_error("the event loop is already serving");
    impl.isServing = true;
    impl.isStopped = false;
  }
  ~Stay() {
    impl.isServing = false;
    impl.tellOthers();
  }
  Stay(const Stay&) = delete;
  Stay& operator=(const Stay&) = delete;

  Impl& impl;
};

void EventLoop::run() {
  const Stay stay(*impl_);
  while (!impl_->isStopped) {
    impl_->serveDeferred();
    if (!impl_->isStopped) impl_->serveReady(impl_->deferred.empty() ? -1 : 0);
  }
}

// What keeps deferring itself does not hold up the caller any longer than two rounds.
size_t EventLoop::runPending() {
  const Stay stay(*impl_);
  const size_t before = impl_->served;
  impl_->serveDeferred();
  if (!impl_->isStopped) impl_->serveReady(0);
  impl_->serveDeferred();
  return impl_->served - before;
}

size_t EventLoop::runFor(nanoseconds limit) {
  const Stay stay(*impl_);
  const size_t before = impl_->served;
  const Clock::time_point end = later(Clock::now(), limit);
  while (impl_->served == before && !impl_->isStopped) {
    impl_->serveDeferred();
    if (impl_->served != before || impl_->isStopped) break;
    const auto left = std::max(nanoseconds(end - Clock::now()), nanoseconds(0));
    pollfd waiting = {.fd = impl_->epoll.get(), .events = POLLIN, .revents = 0};
    const timespec patience = toTimespec(left);
    ::ppoll(&waiting, 1, &patience, nullptr);
    impl_->serveReady(0);
    if (left == nanoseconds(0)) break;
  }
  if (!impl_->isStopped) {
    impl_->serveReady(0);
    impl_->serveDeferred();
  }
  return impl_->served - before;
}

void EventLoop::stop() { impl_->isStopped = true; }

bool EventLoop::isServing() const { return impl_->isServing; }

EventLoop& eventLoop() {
  // Never destroyed, so that static objects may hold watches until the end.
  static EventLoop* loop = new EventLoop;
  return *loop;
}

}  // namespace Orb
