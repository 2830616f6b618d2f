#include "Orb/EventLoop.h"

#include <fcntl.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "Orb/Trace.h"

namespace Orb {

namespace asio = boost::asio;

namespace {

using Clock = std::chrono::steady_clock;

TraceHandle trace("EventLoop");

// `span` after `from`, or the end of time when that comes first.
Clock::time_point later(Clock::time_point from, std::chrono::nanoseconds span) {
  return span < Clock::time_point::max() - from ? from + span : Clock::time_point::max();
}

void callAndGoOn(const EventLoop::Callback& callback, size_t& served) {
  ++served;
  try {
    callback();
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "a callback threw: {}", e.what());
  } catch (...) {
    ORB_TRACE(trace, 0, "a callback threw something that is no std::exception");
  }
}

// The part of a watch that its pending asio handlers share: it lives until the last of them has
// run, and `over` tells them that nobody wants their call any more.
struct Watched : std::enable_shared_from_this<Watched> {
  Watched(EventLoop::Callback c, size_t& s) : callback(std::move(c)), served(s) {}
  virtual ~Watched() = default;
  virtual void wait() = 0;
  virtual void cancel() = 0;

  void occurred(bool again) {
    if (over) return;
    callAndGoOn(callback, served);
    if (again && !over) wait();
  }

  EventLoop::Callback callback;
  size_t& served;  // the loop's count of callbacks
  bool over = false;
};

struct WatchedDescriptor : Watched {
  WatchedDescriptor(asio::io_context& context, int fd, bool w, EventLoop::Callback c, size_t& s)
      : Watched(std::move(c), s), descriptor(context, fd), forWriting(w) {}
  // The descriptor is the caller's to close.
  ~WatchedDescriptor() override { release(); }
  void release() {
    if (descriptor.is_open()) descriptor.release();
  }
  void wait() override {
    using Wait = asio::posix::stream_descriptor;
    descriptor.async_wait(
        forWriting ? Wait::wait_write : Wait::wait_read,
        [self = shared_from_this(), again = !forWriting](const boost::system::error_code& error) {
          if (!error) self->occurred(again);
        });
  }
  void cancel() override { release(); }

  asio::posix::stream_descriptor descriptor;
  const bool forWriting;
};

struct WatchedTimer : Watched {
  WatchedTimer(asio::io_context& context, std::chrono::nanoseconds p, bool r, EventLoop::Callback c,
               size_t& s)
      : Watched(std::move(c), s), timer(context), period(p), repeats(r), due(Clock::now()) {}
  void wait() override {
    due = later(due, period);
    // Periods that were missed, in the callback too, are not made up for.
    const Clock::time_point now = Clock::now();
    if (due < now) due = later(now, period);
    timer.expires_at(due);
    timer.async_wait(
        [self = shared_from_this(), again = repeats](const boost::system::error_code& error) {
          if (!error) self->occurred(again);
        });
  }
  void cancel() override { timer.cancel(); }

  asio::steady_timer timer;
  const std::chrono::nanoseconds period;
  const bool repeats;
  Clock::time_point due;
};

class Watch : public EventWatch {
 public:
  explicit Watch(std::shared_ptr<Watched> watched) : watched_(std::move(watched)) {
    watched_->wait();
  }
  ~Watch() override {
    watched_->over = true;
    watched_->cancel();
  }

 private:
  std::shared_ptr<Watched> watched_;
};

}  // namespace

EventWatch::~EventWatch() = default;

struct EventLoop::Impl {
  void serveReady();

  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  size_t served = 0;
  bool isServing = false;
  uint64_t marksSet = 0;
  uint64_t marksPassed = 0;
};

// Asio looks for ready descriptors and timers once per round of its queue: what it finds stands
// behind the first mark and before the second. What keeps deferring itself does not hold up the
// caller any longer.
void EventLoop::Impl::serveReady() {
  for (int round = 0; round < 2; ++round) {
    const uint64_t mark = ++marksSet;
    asio::post(context, [this] { ++marksPassed; });
    while (marksPassed < mark && context.poll_one() != 0) {
    }
  }
}

EventLoop::EventLoop() : impl_(std::make_unique<Impl>()) {}
EventLoop::~EventLoop() = default;

std::unique_ptr<EventWatch> EventLoop::readable(int fd, Callback callback) {
  return watch(fd, false, std::move(callback));
}

std::unique_ptr<EventWatch> EventLoop::writable(int fd, Callback callback) {
  return watch(fd, true, std::move(callback));
}

std::unique_ptr<EventWatch> EventLoop::watch(int fd, bool forWriting, Callback callback) {
  const int flags = ::fcntl(fd, F_GETFL);
  auto watch = std::make_unique<Watch>(std::make_shared<WatchedDescriptor>(
      impl_->context, fd, forWriting, std::move(callback), impl_->served));
  // Asio makes the descriptor non-blocking with the first wait, though it reads nothing itself.
  ::fcntl(fd, F_SETFL, flags);
  return watch;
}

std::unique_ptr<EventWatch> EventLoop::after(std::chrono::nanoseconds delay, Callback callback) {
  return std::make_unique<Watch>(std::make_shared<WatchedTimer>(
      impl_->context, delay, false, std::move(callback), impl_->served));
}

std::unique_ptr<EventWatch> EventLoop::every(std::chrono::nanoseconds period, Callback callback) {
  return std::make_unique<Watch>(std::make_shared<WatchedTimer>(
      impl_->context, period, true, std::move(callback), impl_->served));
}

void EventLoop::defer(Callback callback) {
  asio::post(impl_->context, [callback = std::move(callback), &served = impl_->served] {
    callAndGoOn(callback, served);
  });
}

// One stay in the loop. The loop is not entered a second time from one of its own callbacks.
struct EventLoop::Stay {
  explicit Stay(Impl& i) : impl(i) {
    if (impl.isServing) throw std::logic_error("the event loop is already serving");
    impl.isServing = true;
    impl.context.restart();
  }
  ~Stay() { impl.isServing = false; }
  Stay(const Stay&) = delete;
  Stay& operator=(const Stay&) = delete;

  Impl& impl;
};

void EventLoop::run() {
  const Stay stay(*impl_);
  impl_->context.run();
}

size_t EventLoop::runPending() {
  const Stay stay(*impl_);
  const size_t before = impl_->served;
  impl_->serveReady();
  return impl_->served - before;
}

size_t EventLoop::runFor(std::chrono::nanoseconds limit) {
  const Stay stay(*impl_);
  const size_t before = impl_->served;
  // (Asio's own run_one_until() wakes every second.)
  const auto isOver = std::make_shared<bool>(false);
  asio::steady_timer limiter(impl_->context, later(Clock::now(), limit));
  limiter.async_wait([isOver](const boost::system::error_code& error) {
    if (!error) *isOver = true;
  });
  // What asio has to do for itself, such as ending a watch, counts for nothing.
  while (impl_->served == before && !*isOver && impl_->context.run_one() != 0) {
  }
  limiter.cancel();
  impl_->serveReady();
  return impl_->served - before;
}

void EventLoop::stop() { impl_->context.stop(); }

EventLoop& eventLoop() {
  // Never destroyed, so that static objects may hold watches until the end.
  static EventLoop* loop = new EventLoop;
  return *loop;
}

}  // namespace Orb
