// The transport through the relay, with the real agent on a simulated bus.

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "Orb/Exception.h"
#include "testing/BusSimulator.h"
#include "testing/CallbackLedger.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"

namespace {

using Hardware::RelayRequest;
using KoruRegFile::I2cTransportRelayImpl;
using testing::ElementsAre;
using Testing::failure;
using testing::IsEmpty;

constexpr const char* node = "/dev/i2c-7";

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "4,gain,cfg,true,32\n"
    "258,wide,cfg,true,32\n"
    "16385,around,cfg,true,32\n";

class I2cRelay : public testing::Test, protected Testing::CallbackLedger {
 protected:
  I2cRelay() {
    bus.chipIs(node, 5, 16);
    relay = Hardware::relayFactory("relay0", node);
    bus.takeLedger();
    transport = make(5);
  }
  std::unique_ptr<I2cTransportRelayImpl> make(unsigned devId) const {
    return std::make_unique<I2cTransportRelayImpl>(relay, devId, csv.path(), nullptr);
  }
  void read(const char* reg) { transport->regReadWithCallback(reg, onRead); }
  void write(const char* reg, uint32_t value) {
    transport->regWriteWithCallback(reg, value, onWrite);
  }
  size_t inFlight() const { return transport->sm()->i2cTransportRequest().size(); }
  void finish() {
    Testing::waitFor([&] { return inFlight() == 0; });
  }

  const Testing::TempFile csv{map};
  Testing::BusSimulator bus;
  Orb::Ptr<Hardware::Relay> relay;
  std::unique_ptr<I2cTransportRelayImpl> transport;
};

TEST_F(I2cRelay, AccessesReturnAtOnceAndCallBackInOrder) {
  write("wide", 0x11223344);
  read("wide");
  write("around", 7);
  read("gain");
  transport->regWriteWithCallback("gain", 9, {});
  EXPECT_EQ(inFlight(), 5u);
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_THAT(bus.takeLedger(), IsEmpty());
  finish();
  EXPECT_THAT(calls, ElementsAre("wide 1", "wide 1 0x11223344", "around 1", "gain 1 0x0"));
  EXPECT_THAT(bus.takeLedger(), ElementsAre("lock", "slave 05", "05 w 01 02 11 22 33 44", "unlock",
                                            "lock", "05 w 01 02", "05 r 01 +4", "unlock",  //
                                            "lock", "05 w 00 01 00 00 00 07", "unlock",    //
                                            "lock", "05 w 00 04", "05 r 00 +4", "unlock",  //
                                            "lock", "05 w 00 04 00 00 00 09", "unlock"));
}

TEST_F(I2cRelay, OnlyTheLowByteOfTheDeviceAddressCounts) {
  transport = make(0x105);
  write("gain", 1);
  finish();
  EXPECT_THAT(calls, ElementsAre("gain 1"));
  transport = make(0x80);
  EXPECT_EQ(failure<Orb::RangeException>([&] { read("gain"); }),
            "U7::value < 0 or > 0x7f not allowed");
  ASSERT_EQ(inFlight(), 1u) << "stays, idle";
  EXPECT_EQ(transport->sm()->i2cTransportRequest().begin()->first->state(), RelayRequest::idle);
  EXPECT_EQ(relay->queued(), 0u);
}

TEST_F(I2cRelay, RefusesRegistersBeforeAnythingIsQueued) {
  const auto model = Hardware::KoruRegFile::hardwareRegisterFileFactory("model");
  model->regIs({"big", Hardware::KoruRegFile::HardwareRegisterType::cfg, true, 0, 33, 32});
  transport = std::make_unique<I2cTransportRelayImpl>(relay, 5, "", model);
  EXPECT_EQ(failure([&] { read("big"); }),
            "Unexpected width of register big (got 33 bits, expected at most 32 bits)");
  EXPECT_EQ(failure([&] { write("nobody", 1); }), "RegisterFile does not have register 'nobody'!");
  EXPECT_EQ(inFlight(), 0u);
  EXPECT_EQ(failure([&] { I2cTransportRelayImpl(nullptr, 5, csv.path(), nullptr); }),
            "there is no hardware access agent");
}

// The states of the agent's request, set by hand.
TEST_F(I2cRelay, ARequestEndsInAnyStateAboveOne) {
  for (const uint32_t state : {2u, 3u, 4u}) {
    const auto access = transport->sm()->newTransportRequest("gain");
    access->readCallbackIs(onRead);
    access->dataIs(state);
    access->request()->stateIs(1);
    access->request()->stateIs(0);
    EXPECT_EQ(inFlight(), 1u);
    access->request()->stateIs(state);
    EXPECT_EQ(inFlight(), 0u);
    access->request()->stateIs(5);
  }
  EXPECT_THAT(calls, ElementsAre("gain 2 0xffffffff", "gain 1 0x3", "gain 2 0xffffffff"));
  // Also one that its callback ends once more.
  const auto access = transport->sm()->newTransportRequest("gain");
  int told = 0;
  access->writeCallbackIs([&](auto...) {
    if (++told == 1) access->request()->stateIs(4);
  });
  access->request()->stateIs(3);
  EXPECT_EQ(told, 1);
}

TEST_F(I2cRelay, DestroyedInFlightNothingIsWrittenAnyMore) {
  read("gain");
  const auto request = transport->sm()->i2cTransportRequest().begin()->first;
  transport.reset();
  EXPECT_EQ(request->state(), RelayRequest::idle);
  request->stateIs(RelayRequest::submitted);
  Testing::waitFor([&] { return request->state() == RelayRequest::done; });
  EXPECT_THAT(bus.takeLedger(), IsEmpty());
  EXPECT_THAT(calls, IsEmpty());
}

// A key that is in flight is used again: nothing is written to what it stood for.
TEST_F(I2cRelay, AReplacedRequestIsWithdrawnAndTold) {
  read("wide");
  const auto request = transport->sm()->i2cTransportRequest().begin()->first;
  const auto access = transport->sm()->i2cTransportRequestIs(request, 5, "gain", 16);
  EXPECT_THAT(calls, ElementsAre("wide 2 0xffffffff"));
  EXPECT_EQ(request->state(), RelayRequest::idle);
  Testing::settle();
  EXPECT_THAT(bus.takeLedger(), IsEmpty());
  transport->sm()->i2cTransportRequestDelAll();
  EXPECT_EQ(calls.size(), 1u);
}

// Whoever looks on while requests are withdrawn may throw, and drop the transport.
TEST_F(I2cRelay, AnObserverStopsNoRemoval) {
  struct Observer : RelayRequest::Notifiee {
    using Notifiee::Notifiee;
    void onState() override { act(); }
    std::function<void()> act;
  };
  for (const bool drops : {false, true}) {
    read("gain");
    read("wide");
    write("wide", 1);
    std::vector<Orb::Ptr<RelayRequest>> requests;
    for (const auto& [request, access] : transport->sm()->i2cTransportRequest()) {
      requests.push_back(request);
    }
    Observer first(requests[0]);
    first.act = [&] {
      if (drops) transport.reset();
      throw std::runtime_error("too bad");
    };
    first.hasNotificationActiveIs(true);
    KoruRegFile::I2cTransportRelayImplSm& sm = *transport->sm();
    EXPECT_EQ(failure([&] { sm.i2cTransportRequestDelAll(); }), "too bad");
    for (const auto& request : requests) EXPECT_EQ(request->state(), RelayRequest::idle);
    if (!drops) {
      EXPECT_EQ(inFlight(), 0u);
    }
    EXPECT_EQ(relay->queued(), 0u);
    EXPECT_THAT(calls, IsEmpty());
  }
}

}  // namespace
