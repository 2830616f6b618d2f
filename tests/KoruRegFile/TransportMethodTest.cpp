#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/AwaitAccess.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EntityType.h"
#include "testing/CallbackLedger.h"
#include "testing/Expect.h"
#include "testing/MemoryTransport.h"
#include "testing/MockValueFile.h"
#include "testing/RecordingTraceSink.h"
#include "testing/TempFile.h"

namespace {

using namespace KoruRegFile;
using Keel::GenericSigbusHandler;
using testing::ElementsAre;
using Testing::failure;
using testing::IsEmpty;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "0,status,sts,false,16\n"
    "1,control,ctl,true,32\n";

struct ErrorWatcher : TransportMethodError::Notifiee {
  using Notifiee::Notifiee;
  void onError() override { told.push_back(notifier()->error()); }
  std::vector<bool> told;
};

// A descriptor of any triple, of a class that no builder expects.
struct OddDescriptor : BaseTransportDescriptor {
  OddDescriptor(TransportType type, TransportProtocol protocol, TransportFlavour flavour)
      : BaseTransportDescriptor(type, protocol, flavour) {}
};

class Init : public testing::Test {
 protected:
  const Testing::MockValueFile valueFile;
  const Testing::TempFile csv{map};
  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  const Orb::Ptr<BaseTransportDescriptor> mock = mockTransportDescriptorFactory();
};

TEST_F(Init, AFailedOneSaysWhyAndLeavesNoImplementation) {
  const Orb::Ptr<BaseTransportDescriptor> unbuildable =
      i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusRelay, "/dev/i2c-1", 0x50);
  // Its class is not the one that its triple stands for.
  const auto spi = spiTransportDescriptorFactory(Orb::make<Plat::Pax>("spi0"));
  const auto odd = Orb::make<OddDescriptor>(spi->type(), spi->protocol(), spi->flavour());
  const struct {
    Orb::Ptr<BaseTransportDescriptor> descriptor;
    const char* csvPath;
    const char* message;
  } cases[] = {{nullptr, "", "CSV and ORB Ptr cannot be both empty."},
               {mock, "", "CSV and ORB Ptr cannot be both empty."},
               {nullptr, "/nonexistent", "TransportDescriptor is null!"},
               {unbuildable, "/nonexistent", "Unknown transport type 'i2c'"},
               {odd, csv.path(), "TransportMethod implementation init failed"},
               {mock, "/nonexistent", "Error opening CSV file /nonexistent"}};
  for (const auto& c : cases) {
    tm->init(mock, csv.path());
    EXPECT_EQ(tm->regRead("status"), 0u);
    EXPECT_EQ(failure([&] { tm->init(c.descriptor, c.csvPath); }), c.message);
    EXPECT_EQ(tm->implPtr(), nullptr);
    EXPECT_EQ(tm->descriptor(), *c.csvPath ? c.descriptor : mock);
  }
}

TEST_F(Init, EveryOperationNeedsAnImplementation) {
  const auto notifier = tm->errorNotifierIs("chip0");
  const std::vector<std::function<void()>> operations = {
      [&] { tm->regRead("status"); },
      [&] { tm->regWrite("control", 1); },
      [&] { tm->regReadWithCallback("status", {}); },
      [&] { tm->regWriteWithCallback("control", 1, {}); },
      [&] { tm->regNameToAddr("status"); },
      [&] { tm->regAddrToName(0); },
      [&] { tm->hasRegName("status"); },
      [&] { tm->regList(); },
  };
  for (const auto& operation : operations) {
    EXPECT_EQ(failure(operation), "TransportMethod implementation does not exist");
  }
  EXPECT_FALSE(notifier->error());
}

TEST_F(Init, AnInitializedMockWorksByNameToo) {
  tm->init(mock, csv.path());
  EXPECT_EQ(Testing::call(*tm, "regWrite", {"'control'", "42"}), "None");
  EXPECT_EQ(Testing::call(*tm, "regRead", {"'control'"}), "42");
  EXPECT_EQ(Testing::call(*tm, "regAddrToName", {"4"}), "'control'");
  EXPECT_EQ(Testing::call(*tm, "hasRegName", {"'nobody'"}), "False");
  EXPECT_THROW(Testing::call(*tm, "regWrite", {"'control'", "4294967296"}), Orb::RangeException);
  EXPECT_EQ(Orb::attributeStrep(*tm, "errorNotifier"), "None");
  EXPECT_EQ(tm->regList()->registerName().size(), 2u);
}

class Access : public testing::Test {
 protected:
  Access() {
    auto owned = std::make_unique<Testing::MemoryTransport>(csv.path());
    memory = owned.get();
    tm->implPtrIs(std::move(owned));
  }

  const Testing::TempFile csv{map};
  Testing::MemoryTransport* memory;
  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  const Testing::RecordedTraces traces{"tryPerformIO", 0};
};

TEST_F(Access, AFailureIsTracedFlaggedOnceAndSwallowed) {
  EXPECT_EQ(tm->regRead("nobody"), 0xFFFFFFFF);
  ErrorWatcher watcher(tm->errorNotifierIs("chip0"));
  watcher.hasNotificationActiveIs(true);
  memory->faultIs("status", [] { throw GenericSigbusHandler::SigbusException(); });
  EXPECT_EQ(tm->regRead("status"), 0xFFFFFFFF);
  memory->faultIs("control", [] { throw std::system_error(EIO, std::generic_category()); });
  tm->regWrite("control", 1);
  EXPECT_THAT(watcher.told, ElementsAre(true));
  EXPECT_THAT(traces.texts(),
              ElementsAre("TransportMethod error on register 'nobody': RegisterFile does not have "
                          "register 'nobody'!",
                          "TransportMethod exception caught, Notifying agent: ",
                          "Got SIGBUS when performing operation on register 'status'",
                          "TransportMethod exception caught, Notifying agent: chip0",
                          "TransportMethod error on register 'control': Input/output error",
                          "TransportMethod exception caught, Notifying agent: chip0"));
  for (const auto& message : traces.messages()) EXPECT_EQ(message.level, 0);
  EXPECT_EQ(traces.messages()[0].category, "tryPerformIO");
  EXPECT_EQ(traces.messages()[1].category, "handleExceptionGeneric");

  watcher.notifier()->errorIs(false);
  tm->regRead("nobody");
  EXPECT_THAT(watcher.told, ElementsAre(true, false, true));
}

// A name is never cut: one with a NUL byte stands for no register, least of all for another one.
TEST_F(Access, ANameWithANulByteIsUnknown) {
  const Orb::String name(std::string_view("control\0x", 9));
  const std::string reason = "RegisterFile does not have register 'control\\x00x'!";
  const auto error = tm->errorNotifierIs("chip0");
  tm->regWrite("control", 5);
  tm->regWrite(name, 9);
  EXPECT_TRUE(error->error());
  EXPECT_EQ(tm->lastFailure().reason, reason);
  EXPECT_EQ(tm->regRead(name), 0xFFFFFFFF);
  EXPECT_EQ(failure([&] { tm->regNameToAddr(name); }), reason);
  Testing::CallbackLedger told;
  tm->regReadWithCallback(name, told.onRead);
  tm->regWriteWithCallback(name, 9, told.onWrite);
  EXPECT_THAT(told.calls, ElementsAre("control 2 0xffffffff", "control 2"));
  EXPECT_EQ(awaitRead(*tm, name).failure->reason, reason);
  EXPECT_EQ(awaitWrite(*tm, name, 9).failure->reason, reason);
  EXPECT_EQ(tm->regRead("control"), 5u);
  EXPECT_EQ(tm->regRead(name.view()), failedReadValue);
  EXPECT_EQ(tm->lastFailure().reason, reason);
  EXPECT_EQ(tm->regRead(std::string(1000, 'x')), failedReadValue);
}

// Outcomes carry what kind of failure it was; what the callback throws is no failure of the access.
TEST_F(Access, AnOutcomeTellsTheReason) {
  memory->faultIs("status", [] { throw GenericSigbusHandler::SigbusException(); });
  memory->faultIs("control", [] { throw std::system_error(EIO, std::generic_category(), "no"); });
  const auto error = tm->errorNotifierIs("chip0");
  EXPECT_TRUE(awaitRead(*tm, "status").failure->isBusError);
  const AccessOutcome written = awaitWrite(*tm, "control", 1);
  EXPECT_EQ(written.failure->error, EIO);
  EXPECT_EQ(written.failure->reason, "no: Input/output error");
  EXPECT_FALSE(error->error());
  memory->faultIs("status", {});
  int calls = 0;
  const auto throwing = [&](const AccessOutcome&) {
    ++calls;
    throw std::runtime_error("mine");
  };
  EXPECT_EQ(failure([&] { tm->regReadOutcome("status", throwing); }), "mine");
  EXPECT_EQ(calls, 1);
  // One that is dropped with its transport ends a wait.
  struct Dropping : Testing::MemoryTransport {
    using MemoryTransport::MemoryTransport;
    void regReadWithOutcome(const char*, AccessCallback) override {}
  };
  tm->implPtrIs(std::make_unique<Dropping>(csv.path()));
  EXPECT_EQ(awaitRead(*tm, "status").failure->reason, "the transport went before the access ended");
}

TEST_F(Access, EveryOtherExceptionPasses) {
  const auto error = tm->errorNotifierIs("chip0");
  memory->faultIs("status", [] { Orb::throwRangeException("too far"); });
  EXPECT_THROW(tm->regRead("status"), Orb::RangeException);
  EXPECT_THROW(tm->regReadWithCallback("status", [](auto...) {}), Orb::RangeException);
  EXPECT_THROW(tryPerformIO(tm.get(), "status", {}), std::bad_function_call);
  EXPECT_FALSE(error->error());
  EXPECT_THAT(traces.texts(), IsEmpty());
}

TEST_F(Access, ACallbackIsToldOfAFailureAndNobodyElse) {
  const auto error = tm->errorNotifierIs("chip0");
  Testing::CallbackLedger told;
  memory->faultIs("status", [] { throw GenericSigbusHandler::SigbusException(); });
  tm->regWriteWithCallback("control", 9, told.onWrite);
  tm->regReadWithCallback("control", told.onRead);
  tm->regReadWithCallback("status", told.onRead);
  tm->regWriteWithCallback("nobody", 9, told.onWrite);
  EXPECT_THAT(told.calls,
              ElementsAre("control 1", "control 1 0x9", "status 2 0xffffffff", "nobody 2"));
  tm->regWriteWithCallback("nobody", 9, {});
  tm->regWriteWithCallback("control", 10, {});
  tm->regReadWithCallback("nobody", {});
  tm->regReadWithCallback("control", {});
  EXPECT_EQ(memory->ledger().back(), "write control 10") << "read in vain";
  EXPECT_THAT(traces.texts(), IsEmpty());
  EXPECT_FALSE(error->error());
}

TEST_F(Access, ACallbackMayDropTheTransportAndTheNameBeforeItThrows) {
  Testing::CallbackLedger told;
  auto owned = transportMethodFactory("chip1");
  auto name = std::make_unique<Orb::String>("control");
  const RegWriteCallback dropAndThrow = [&](const char* regName, RegCallbackStatus status) {
    told.onWrite(regName, status);
    owned.reset();
    name.reset();
    if (status == RegCallbackStatus::done) throw std::runtime_error("no");
  };
  owned->implPtrIs(std::make_unique<Testing::MemoryTransport>(csv.path()));
  owned.get()->regWriteWithCallback(*name, 1, dropAndThrow);
  tm->regReadWithCallback("status",
                          [&](const char* reg, auto status, auto) { dropAndThrow(reg, status); });
  EXPECT_THAT(told.calls, ElementsAre("control 1", "control 2", "status 1", "status 2"));
}

TEST_F(Access, CountsReadsWritesAndFailures) {
  tm->regRead("status");
  tm->regRead("nobody");
  tm->regWrite("control", 1);
  tm->regWriteWithCallback("nobody", 1, {});
  for (const char* counter : {"regRead", "regWrite", "regFail"}) {
    EXPECT_EQ(Testing::counted("chip0", counter), 2u) << counter;
  }
}

TEST_F(Access, TheNotifierOfAChipNameStays) {
  const auto first = tm->errorNotifierIs("chip0");
  first->errorIs(true);
  EXPECT_EQ(tm->errorNotifierIs("chip0"), first);
  EXPECT_TRUE(first->error());
  const auto second = tm->errorNotifierIs("chip1");
  EXPECT_NE(second, first);
  EXPECT_FALSE(second->error());
  tm->errorNotifierDel();
  EXPECT_EQ(tm->errorNotifier(), nullptr);
}

}  // namespace
