#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "testing/RecordingTraceSink.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class EventLoopTest : public testing::Test {
 protected:
  void send() { EXPECT_EQ(::eventfd_write(fd.get(), 1), 0); }
  void receive() {
    eventfd_t one;
    EXPECT_EQ(::eventfd_read(fd.get(), &one), 0);
  }

  Orb::EventLoop loop;
  const Orb::Descriptor fd{::eventfd(0, EFD_SEMAPHORE)};
  std::vector<std::string> log;
};

TEST_F(EventLoopTest, DefersInOrderAndNotFromInside) {
  loop.defer([&] {
    log.push_back("a");
    loop.defer([&] { log.push_back("nested"); });
    log.push_back("a ends");
  });
  loop.defer([&] { log.push_back("b"); });
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(loop.runPending(), 3u);
  EXPECT_THAT(log, ElementsAre("a", "a ends", "b", "nested"));
  EXPECT_EQ(loop.runPending(), 0u);
}

TEST_F(EventLoopTest, ServesADescriptorAgainAndAgainUntilTheWatchGoes) {
  auto watch = loop.readable(fd.get(), [&] {
    receive();
    log.push_back("read");
  });
  EXPECT_EQ(loop.runPending(), 0u);
  send();
  loop.runFor(1min);
  send();
  loop.runFor(1min);
  EXPECT_THAT(log, ElementsAre("read", "read"));
  watch.reset();
  send();
  EXPECT_EQ(loop.runPending(), 0u);
  receive();  // the descriptor is still open
  EXPECT_EQ(::fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(EventLoopTest, AWatchMayDestroyItselfAndAnother) {
  std::unique_ptr<Orb::EventWatch> first, second;
  first = loop.readable(fd.get(), [&] {
    log.push_back("first");
    second.reset();
    first.reset();
    log.push_back("still here");
  });
  second = loop.after(0s, [&] { log.push_back("second"); });
  send();
  loop.runFor(1min);
  while (loop.runPending() != 0) {
  }
  // The timer may have been served before the descriptor; afterwards nothing is left to serve.
  EXPECT_EQ(log.back(), "still here");
}

TEST_F(EventLoopTest, TimersFireOnceOrRepeatedly) {
  int ticks = 0;
  auto once = loop.after(1ms, [&] { log.push_back("once"); });
  std::unique_ptr<Orb::EventWatch> every = loop.every(1ms, [&] {
    if (++ticks == 3) loop.stop();
  });
  loop.run();
  EXPECT_EQ(ticks, 3);
  EXPECT_THAT(log, ElementsAre("once"));
}

TEST_F(EventLoopTest, ACallbackThatOutlastsItsPeriodDoesNotHoldUpTheCaller) {
  int ticks = 0;
  std::unique_ptr<Orb::EventWatch> every = loop.every(10ms, [&] {
    if (++ticks == 5) every.reset();
    std::this_thread::sleep_for(20ms);
  });
  EXPECT_LT(loop.runFor(std::chrono::nanoseconds::max()), 5u);
}

// Periods that went by while nobody served the loop are not made up for.
TEST_F(EventLoopTest, MissedPeriodsAreLeftOut) {
  int ticks = 0;
  const auto every = loop.every(5ms, [&] { ++ticks; });
  const auto end = std::chrono::steady_clock::now() + 100ms;
  while (std::chrono::steady_clock::now() < end) {
  }
  for (int turn = 0; turn < 20; ++turn) loop.runPending();
  EXPECT_GE(ticks, 1);
  EXPECT_LE(ticks, 2 + (std::chrono::steady_clock::now() - end) / 5ms);
}

// What there is to serve shows outside, and is gone when it was served.
TEST_F(EventLoopTest, CanBeServedFromAnotherLoop) {
  pollfd outside = {.fd = loop.fd(), .events = POLLIN, .revents = 0};
  const auto isReady = [&](int patience) { return ::poll(&outside, 1, patience) == 1; };
  const auto isServed = [&] { return isReady(60000) && loop.runPending() == 1 && !isReady(0); };
  EXPECT_FALSE(isReady(0));
  loop.defer([&] { log.push_back("deferred"); });
  EXPECT_TRUE(isServed());
  const auto reading = loop.readable(fd.get(), [&] { receive(); });
  send();
  EXPECT_TRUE(isServed());
  const auto timer = loop.after(2ms, [&] { log.push_back("timer"); });
  EXPECT_TRUE(isServed());
  // What is deferred from inside is left over when it is deferred again and again.
  std::function<void()> again = [&] { loop.defer(again); };
  loop.defer(again);
  EXPECT_EQ(loop.runPending(), 2u);
  EXPECT_TRUE(isReady(0));
  again = [] {};
  EXPECT_EQ(loop.runPending(), 2u);
  EXPECT_FALSE(isReady(0));
  EXPECT_THAT(log, ElementsAre("deferred", "timer"));
}

TEST_F(EventLoopTest, LeavesWhatIsReadyToTheNextTurnOnceItIsStopped) {
  const auto stopping = [&](const char* name) {
    return [this, name] {
      log.emplace_back(name);
      loop.stop();
    };
  };
  loop.defer(stopping("a"));
  loop.defer(stopping("b"));
  const auto timers = {loop.after(0s, stopping("c")).release(),
                       loop.after(0s, stopping("d")).release()};
  send();
  const auto reading = loop.readable(fd.get(), [&] {
    receive();
    stopping("e")();
  });
  for (size_t turn = 0; turn < 5; ++turn) {
    loop.run();
    EXPECT_EQ(log.size(), turn + 1);
  }
  EXPECT_THAT(log, ElementsAre("a", "b", "c", "d", "e"));
  for (Orb::EventWatch* timer : timers) delete timer;
}

// A watch that goes while others are served is not called any more, whoever takes its place.
TEST_F(EventLoopTest, AWatchThatGoesInACallbackIsNotCalled) {
  const Orb::Descriptor other(::eventfd(1, 0));
  send();
  std::unique_ptr<Orb::EventWatch> watches[2];
  const int fds[] = {fd.get(), other.get()};
  for (int i : {0, 1}) {
    watches[i] = loop.readable(fds[i], [&, i] {
      log.emplace_back("one");
      watches[1 - i].reset();
      watches[1 - i] = loop.after(1h, [] {});
    });
  }
  EXPECT_EQ(loop.runPending(), 1u);
  const auto timers = {loop.after(0s, [&] { log.emplace_back("timer"); }).release()};
  for (Orb::EventWatch* timer : timers) delete timer;
  EXPECT_EQ(loop.runPending(), 1u);
  EXPECT_THAT(log, ElementsAre("one", "one"));
}

// Nor does a timer come again, or wake whoever waits for the loop.
TEST_F(EventLoopTest, ATimerThatGoesInACallbackIsOver) {
  std::unique_ptr<Orb::EventWatch> timers[2];
  for (auto& timer : timers) {
    timer = loop.every(1ms, [&] {
      log.emplace_back("one");
      for (auto& each : timers) each.reset();
    });
  }
  std::this_thread::sleep_for(5ms);  // for both to be due
  EXPECT_EQ(loop.runPending(), 1u);
  EXPECT_THAT(log, ElementsAre("one"));
  pollfd outside = {.fd = loop.fd(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(::poll(&outside, 1, 20), 0);
}

TEST_F(EventLoopTest, WritableCallsOnceAndRefusesWhatCannotBeWaitedFor) {
  const auto watch = loop.writable(fd.get(), [&] { log.emplace_back("writable"); });
  EXPECT_EQ(loop.runPending(), 1u);
  EXPECT_EQ(loop.runPending(), 0u);
  const Orb::Descriptor regular(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  for (const int refused : {-1, regular.get(), fd.get()}) {
    EXPECT_THROW(static_cast<void>(loop.readable(refused, [] {})), std::system_error) << refused;
  }
}

TEST(EventLoopDeathTest, AWatchMayBeLeftToTheEndOfTheProcess) {
  static std::unique_ptr<Orb::EventWatch> watch;
  const auto leave = [] {
    watch = Orb::eventLoop().after(1h, [] {});
    std::exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "");
}

TEST_F(EventLoopTest, AThrowingCallbackIsTracedAndTheLoopGoesOn) {
  const Testing::RecordedTraces traces("EventLoop", 0);
  auto watch = loop.readable(fd.get(), [&] {
    receive();
    log.push_back("read");
    throw std::runtime_error("too bad");
  });
  loop.defer([] { throw 7; });
  send();
  send();
  while (log.size() < 2) loop.runFor(1min);
  EXPECT_THAT(traces.texts(), testing::UnorderedElementsAre(
                                  "a callback threw: too bad", "a callback threw: too bad",
                                  "a callback threw something that is no std::exception"));
}

}  // namespace
