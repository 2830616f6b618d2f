// One suite over all transports, through TransportMethod and its factory, as agents use them. What
// differs is a matter of capabilities, which the suite lists.

#include <gmock/gmock.h>

#include <stdexcept>

#include "KoruRegFile/AwaitAccess.h"
#include "Orb/EventLoop.h"
#include "testing/CallbackLedger.h"
#include "testing/Expect.h"
#include "testing/Sanitizers.h"
#include "testing/TempFile.h"
#include "tests/KoruRegFile/ConformanceRigs.h"

namespace {

using namespace KoruRegFile;
using Conformance::Transport;
using testing::ElementsAre;

constexpr const char* names[] = {"first", "second", "third"};

class Conforms : public testing::TestWithParam<Transport> {
 protected:
  Conforms() {
    tm->init(rig->descriptor(), csv.path());
    error = tm->errorNotifierIs("chip0");
  }

  uint32_t value(uint32_t pattern) const { return can.bits == 16 ? pattern & 0xffff : pattern; }

  // Throw std::runtime_error for an access that failed.
  void write(const char* reg, uint32_t value) {
    const AccessOutcome outcome = awaitWrite(*tm, reg, value);
    if (!outcome.isDone()) throw std::runtime_error(outcome.failure->reason);
  }
  uint32_t read(const char* reg) {
    const AccessOutcome outcome = awaitRead(*tm, reg);
    if (!outcome.isDone()) throw std::runtime_error(outcome.failure->reason);
    return outcome.value;
  }

  const Conformance::Capabilities can = GetParam().can;
  const std::unique_ptr<Conformance::Rig> rig = GetParam().rig();
  const Testing::TempFile csv{
      fmt::format("number,name,type,writeable,width\n"
                  "16,first,cfg,true,{0}\n18,second,cfg,true,{0}\n"
                  "20,third,cfg,true,{0}\n",
                  can.bits)};
  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  Orb::Ptr<TransportMethodError> error;
};

TEST_P(Conforms, EachWriteReachesItsRegisterAlone) {
  const uint32_t patterns[] = {0, 0xffffffff, 0x12345678, 0x80000001};
  for (const uint32_t pattern : patterns) {
    for (uint32_t i = 0; i < 3; ++i) write(names[i], value(pattern + i));
    for (uint32_t i = 0; i < 3; ++i) {
      const auto held = rig->held(16 + 2 * i);
      if (held) {
        EXPECT_EQ(*held, value(pattern + i)) << names[i];
      }
      if (can.reads) {
        EXPECT_EQ(read(names[i]), value(pattern + i)) << names[i];
      }
    }
  }
  EXPECT_FALSE(error->error());
}

// A transport that cannot do a thing refuses it, rather than doing something else.
TEST_P(Conforms, ListsItsCapabilitiesAndRefusesOtherAccesses) {
  fmt::print("{}: reads {}, waits {}, calls back {}, {} bits\n", GetParam().name, can.reads,
             can.waits, can.callsBack, can.bits);
  write("first", 1);
  tm->regWrite("first", 2);
  if (can.reads && can.waits) {
    EXPECT_EQ(tm->regRead("first"), 2u);
    EXPECT_FALSE(error->error());
  } else {
    EXPECT_EQ(tm->regRead("first"), failedReadValue);
    EXPECT_TRUE(error->error());
  }
}

TEST_P(Conforms, CallbacksAreCalledOnceWithTheName) {
  Testing::CallbackLedger told;
  tm->regWriteWithCallback("second", 7, told.onWrite);
  Testing::waitFor([&] { return !told.calls.empty(); });
  tm->regReadWithCallback("second", told.onRead);
  Testing::waitFor([&] { return told.calls.size() == 2; });
  Testing::settle();
  EXPECT_THAT(told.calls,
              ElementsAre("second 1", can.reads ? "second 1 0x7" : "second 2 0xffffffff"));
  EXPECT_FALSE(error->error());
}

TEST_P(Conforms, AnUnknownRegisterIsToldAndTouchesNothing) {
  write("first", 5);
  tm->regWrite("nobody", 1);
  EXPECT_TRUE(error->error());
  error->errorIs(false);
  EXPECT_EQ(tm->regRead("nobody"), failedReadValue);
  EXPECT_TRUE(error->error());
  Testing::CallbackLedger told;
  tm->regReadWithCallback("nobody", told.onRead);
  tm->regWriteWithCallback("nobody", 1, told.onWrite);
  EXPECT_THAT(told.calls, ElementsAre("nobody 2 0xffffffff", "nobody 2"));
  if (can.reads) {
    EXPECT_EQ(read("first"), 5u);
  }
}

// Destroying the transport with accesses under way is safe, whatever they were about to write to.
TEST_P(Conforms, MayBeDestroyedAtAnyTime) {
  for (int i = 0; i < 10; ++i) {
    tm->regWrite("first", 1);
    tm->regWriteWithCallback("second", 1, [](auto...) {});
    tm->regReadWithCallback("second", [](auto...) {});
    tm->implPtrIs(nullptr);
    EXPECT_THROW(tm->regRead("first"), std::runtime_error);
    tm->init(rig->descriptor(), csv.path());
  }
  Testing::settle();
  write("third", 3);
}

std::string nameOf(const testing::TestParamInfo<Transport>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Transports, Conforms, testing::ValuesIn(Conformance::transports()),
                         nameOf);

// Of the transports whose device can fail.
class SurvivesFailure : public Conforms {};

TEST_P(SurvivesFailure, TellsItAndWorksAgainAfterwards) {
  if (Testing::threadSanitized && GetParam().name == std::string("pci"))
    GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  write("first", 1);
  rig->failsIs(true);
  EXPECT_THROW(write("first", 2), std::runtime_error);
  if (can.reads) {
    EXPECT_THROW(read("first"), std::runtime_error);
  }
  if (can.waits) {
    tm->regWrite("first", 2);
    EXPECT_TRUE(error->error());
    EXPECT_EQ(tm->regRead("first"), failedReadValue);
  }
  RegCallbackStatus status{};
  tm->regWriteWithCallback("first", 2, [&](auto, RegCallbackStatus s) { status = s; });
  Testing::waitFor([&] { return status != RegCallbackStatus{}; });
  EXPECT_EQ(status == RegCallbackStatus::failed, can.callsBack) << "or else is told elsewhere";
  Testing::settle();
  rig->failsIs(false);
  write("first", 3);
  EXPECT_EQ(rig->held(16), 3u);
}

std::vector<Transport> thoseThatCanFail() {
  std::vector<Transport> some;
  for (const Transport& transport : Conformance::transports()) {
    if (std::string(transport.name) != "mock") some.push_back(transport);
  }
  return some;
}

INSTANTIATE_TEST_SUITE_P(Transports, SurvivesFailure, testing::ValuesIn(thoseThatCanFail()),
                         nameOf);

}  // namespace
