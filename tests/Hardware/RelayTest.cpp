// The relay, against a simulated bus.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>

#include <cerrno>
#include <stdexcept>
#include <tuple>

#include "Hardware/Relay.h"
#include "Orb/Exception.h"
#include "testing/BusSimulator.h"
#include "testing/Expect.h"

namespace {

using Hardware::ReadByteSwap;
using Hardware::RelayRequest;
using Hardware::SmbusAddrSize;
using Hardware::WriteByteSwap;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* node = "/dev/i2c-7";

uint64_t address(uint16_t offset, uint8_t device = 0x51,
                 SmbusAddrSize size = SmbusAddrSize::twoBytes) {
  Smbus::RelayAddress packed;
  packed.offsetIs(offset);
  packed.deviceAddressIs(Smbus::U7(device));
  packed.addrSizeIs(size);
  return packed.value();
}

class Relay : public testing::Test {
 protected:
  Relay() {
    bus.chipIs(node, 0x51, 16);
    bus.chipIs(node, 0x52, 16);
    relay = Hardware::relayFactory("relay0", node);
    bus.takeLedger();
  }
  Orb::Ptr<RelayRequest> write(uint16_t offset, uint8_t device = 0x51) {
    const auto request = relay->newRequest();
    request->makeWriteOp(address(offset, device), 1, WriteByteSwap::highByteFirst, 0);
    request->stateIs(RelayRequest::submitted);
    return request;
  }
  // Returns the state in which the request ends.
  static auto finish(const Orb::Ptr<RelayRequest>& request) {
    Testing::waitFor([&] { return request->state() != RelayRequest::submitted; });
    return request->state();
  }

  Testing::BusSimulator bus;
  Orb::Ptr<Hardware::Relay> relay;
};

TEST_F(Relay, CarriesOutAllOperationsInTheOrderOfTheRequests) {
  EXPECT_EQ(address(0xabcd, 0x7f), 0x0000027f0000abcdu);
  uint32_t first = 0, second = 0;
  const auto one = relay->newRequest();
  one->makeWriteOp(address(0x0102), 0x11223344, WriteByteSwap::highByteFirst, 0);
  one->makeReadOp(address(0x0102), first, ReadByteSwap::highByteFirst, 0);
  one->makeReadOp(address(0x0102), second, ReadByteSwap::lowByteFirst, 0);
  one->stateIs(RelayRequest::submitted);
  const auto two = relay->newRequest();
  two->makeWriteOp(address(7, 0x52), 0x11223344, WriteByteSwap::lowByteFirst, 0);
  two->stateIs(RelayRequest::submitted);
  const auto empty = relay->newRequest();
  empty->stateIs(RelayRequest::submitted);
  EXPECT_EQ(relay->queued(), 3u);
  EXPECT_FALSE(bus.areInherited());
  EXPECT_THAT(bus.takeLedger(), IsEmpty()) << "nothing happens inside the submission";
  finish(empty);
  EXPECT_EQ(one->state(), RelayRequest::done);
  EXPECT_EQ(two->state(), RelayRequest::done);
  EXPECT_EQ(first, 0x11223344u);
  EXPECT_EQ(second, 0x44332211u);
  EXPECT_THAT(bus.takeLedger(),
              ElementsAre("lock", "slave 51", "51 w 01 02 11 22 33 44", "unlock",  //
                          "lock", "51 w 01 02", "51 r 01 +4", "unlock",            //
                          "lock", "51 w 01 02", "51 r 01 +4", "unlock",            //
                          "lock", "slave 52", "52 w 00 07 44 33 22 11", "unlock"));
}

TEST_F(Relay, AShortOffsetIsTheCommandItself) {
  uint32_t value = 0;
  const auto request = relay->newRequest();
  const uint64_t shortAddress = address(0x12, 0x51, SmbusAddrSize::oneByte);
  request->makeWriteOp(shortAddress, 0x11223344, WriteByteSwap::highByteFirst, 0);
  request->makeReadOp(shortAddress, value, ReadByteSwap::highByteFirst, 0);
  request->stateIs(RelayRequest::submitted);
  finish(request);
  EXPECT_THAT(bus.takeLedger(), testing::IsSupersetOf({"51 w 12 11 22 33 44", "51 r 12 +4"}));
}

TEST_F(Relay, AFailureEndsItsRequestAndNoOther) {
  const std::tuple<size_t, int, std::string> cases[] = {
      {1, EIO, "Input/output error (5)"},
      {2, EBUSY, "Device or resource busy (16)"},
      {3, ENXIO, "No such device or address (6)"}};
  for (const auto& [call, error, reason] : cases) {
    SCOPED_TRACE(reason);
    finish(write(1, 0x51));
    bus.faultIs(call, error);
    const auto failing = write(9, 0x52);
    EXPECT_EQ(finish(write(2)), RelayRequest::done);
    EXPECT_EQ(failing->state(), RelayRequest::failed);
    EXPECT_EQ(relay->lastFailure(), "write of offset 0x9 of device 0x52 failed: " + reason);
    EXPECT_EQ(bus.registers(node, 0x52).size(), 0u);
  }
  // An address that was refused is set again, also by the next one who has it.
  finish(write(1, 0x51));
  bus.faultIs(2, EBUSY);
  bus.takeLedger();
  EXPECT_EQ(finish(write(1, 0x52)), RelayRequest::failed);
  EXPECT_EQ(finish(write(1, 0x52)), RelayRequest::done);
  EXPECT_THAT(bus.takeLedger(),
              ElementsAre("lock", "slave 52 ! 16", "unlock",  //
                          "lock", "slave 52", "52 w 00 01 00 00 00 01", "unlock"));
  bus.registers(node, 0x52).clear();
  // A read that brings too little.
  bus.shortReadsAre(true);
  uint32_t value = 7;
  const auto read = relay->newRequest();
  read->makeReadOp(address(1), value, ReadByteSwap::highByteFirst, 0);
  read->stateIs(RelayRequest::submitted);
  EXPECT_EQ(finish(read), RelayRequest::failed);
  EXPECT_EQ(relay->lastError(), EPROTO);
  EXPECT_EQ(value, 7u);
}

TEST_F(Relay, RidesOutABusyBusButNotForever) {
  finish(write(0));  // from now on the device's address is set
  bus.takeLedger();
  bus.faultIs(2, EINTR, 500);
  EXPECT_EQ(finish(write(1)), RelayRequest::done);
  bus.faultIs(2, EAGAIN);
  EXPECT_EQ(finish(write(2)), RelayRequest::done);
  bus.silentIs(true);
  EXPECT_EQ(finish(write(4)), RelayRequest::failed);
  // An operation is tried a hundred times, a millisecond apart.
  bus.silentIs(false);
  bus.busyIs(true);
  const auto request = write(5);
  size_t pending = 0;
  Testing::waitFor([&] { return request->state() != RelayRequest::submitted || ++pending > 200; });
  EXPECT_EQ(request->state(), RelayRequest::failed);
  bus.busyIs(false);
}

TEST_F(Relay, WaitsForWhoeverHasTheLock) {
  const int other = ::open(node, O_RDWR);
  ASSERT_EQ(::flock(other, LOCK_SH), 0);
  const auto request = write(1);
  bus.faultIs(1, 0, 0);
  Testing::waitFor([&] { return bus.calls() > 110; });
  EXPECT_EQ(request->state(), RelayRequest::submitted) << "longer than for a busy bus";
  ::close(other);
  EXPECT_EQ(finish(request), RelayRequest::done);
}

TEST_F(Relay, WhatIsWithdrawnOrDroppedIsNotCarriedOut) {
  uint32_t buffer = 7;
  const auto withdrawn = relay->newRequest();
  withdrawn->makeReadOp(address(1), buffer, ReadByteSwap::highByteFirst, 0);
  withdrawn->stateIs(RelayRequest::submitted);
  write(2).reset();
  const auto kept = write(3);
  withdrawn->stateIs(RelayRequest::idle);
  EXPECT_EQ(relay->queued(), 1u);
  finish(kept);
  EXPECT_THAT(bus.takeLedger(),
              ElementsAre("lock", "slave 51", "51 w 00 03 00 00 00 01", "unlock"));
  EXPECT_EQ(buffer, 7u);
  withdrawn->stateIs(RelayRequest::submitted);
  finish(withdrawn);
  EXPECT_EQ(buffer, 7u) << "a withdrawn request has no operations any more";
}

// The loop is held up for one transaction at a time, though the caller serves it by runPending().
TEST_F(Relay, ALongQueueHoldsNobodyUp) {
  std::vector<Orb::Ptr<RelayRequest>> requests;
  for (uint16_t i = 0; i < 100; ++i) requests.push_back(write(i));
  bool served = false;
  Orb::eventLoop().defer([&] { served = true; });
  Orb::eventLoop().runPending();
  EXPECT_TRUE(served);
  EXPECT_GE(relay->queued(), 95u);
  finish(requests.back());
  EXPECT_EQ(relay->queued(), 0u);
}

TEST_F(Relay, RefusesWhatItCannotCarryOut) {
  EXPECT_THROW(Smbus::U7(0x80), Orb::RangeException);
  uint32_t value = 0;
  const auto request = relay->newRequest();
  EXPECT_THROW(request->makeReadOp(address(1), value, ReadByteSwap::highByteFirst, 1),
               std::logic_error);
  EXPECT_THROW(
      request->makeWriteOp(address(1, 0x51, SmbusAddrSize{3}), 1, WriteByteSwap::highByteFirst, 0),
      std::logic_error);
  request->stateIs(RelayRequest::submitted);
  EXPECT_THROW(request->makeWriteOp(address(1), 1, WriteByteSwap::highByteFirst, 0),
               std::logic_error);
  EXPECT_EQ(Testing::failure([] { Hardware::relayFactory("relay1", "/nonexistent"); }),
            "cannot open I2C device /nonexistent: No such file or directory");
  const size_t open = bus.openDescriptors();
  bus.faultIs(1, EACCES);
  EXPECT_THROW(Hardware::relayFactory("relay1", node), std::runtime_error);
  EXPECT_EQ(bus.openDescriptors(), open);
}

}  // namespace
