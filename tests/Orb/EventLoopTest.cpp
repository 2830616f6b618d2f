#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
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
