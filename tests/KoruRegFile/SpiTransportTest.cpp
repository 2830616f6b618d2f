// The transport through the SPI accelerator, with the platform's queue on a simulated bus.

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>

#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "Orb/Exception.h"
#include "testing/BusSimulator.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::SpiTransportMethodImpl;
using testing::ElementsAre;
using Testing::failure;

constexpr const char* node = "/dev/spidev7.1";

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "18,mode,cfg,true,16\n"
    "255,last,cfg,true,16\n"
    "256,beyond,cfg,true,16\n";

class SpiTransport : public testing::Test {
 protected:
  SpiTransport() {
    bus.spiNodeIs(node);
    transport = make(Orb::make<Plat::Pax>("spi0", node));
    status = transport->status();
    bus.takeLedger();
  }
  std::unique_ptr<SpiTransportMethodImpl> make(const Orb::Ptr<const Plat::Pax>& pax) const {
    return std::make_unique<SpiTransportMethodImpl>(pax, csv.path(), nullptr);
  }
  std::vector<std::string> errors() const {
    std::vector<std::string> texts;
    for (const auto& [id, reason] : status->error()) {
      texts.push_back(fmt::format("{}: {}", id, reason));
    }
    return texts;
  }
  void finish() {
    Testing::waitFor([&] { return transport->config()->requests() == 0; });
  }

  const Testing::TempFile csv{map};
  Testing::BusSimulator bus;
  std::unique_ptr<SpiTransportMethodImpl> transport;
  Orb::Ptr<Spi::Status> status;
};

TEST_F(SpiTransport, QueuesWritesAndSendsThemInOrder) {
  transport->regWrite("mode", 0xbeef);
  transport->regWrite("last", 0xffff);
  transport->regWrite("mode", 0);
  EXPECT_THAT(bus.takeLedger(), testing::IsEmpty());
  EXPECT_EQ(transport->config()->requests(), 3u);
  finish();
  EXPECT_THAT(bus.takeLedger(), ElementsAre("spi 12 be ef", "spi ff ff ff", "spi 12 00 00"));
  EXPECT_EQ(status->done(), 3u);
  EXPECT_EQ(status->lastId(), 2u);
  EXPECT_TRUE(status->error().empty());
}

TEST_F(SpiTransport, ARefusedWriteUsesUpItsId) {
  EXPECT_EQ(failure([&] { transport->regWrite("beyond", 0x10000); }),
            "SPI address 256 longer than 8 bits");
  EXPECT_EQ(failure([&] { transport->regWrite("mode", 65536); }),
            "SPI value 65536 longer than 16 bits");
  EXPECT_EQ(failure([&] { transport->regWrite("nobody", 1); }),
            "RegisterFile does not have register 'nobody'!");
  EXPECT_EQ(failure([&] { transport->regRead("nobody"); }), "SPI read not implemented!");
  transport->regWrite("mode", 1);
  finish();
  EXPECT_EQ(status->lastId(), 2u);
  EXPECT_EQ(status->done(), 1u);
}

TEST_F(SpiTransport, TellsWhichWriteFailedAndWhy) {
  bus.faultIs(2, ESHUTDOWN, 2);
  for (uint32_t i = 0; i < 4; ++i) transport->regWrite("mode", i);
  finish();
  EXPECT_THAT(errors(), ElementsAre("1: Cannot send after transport endpoint shutdown (108)",
                                    "2: Cannot send after transport endpoint shutdown (108)"));
  EXPECT_EQ(status->failed(), 2u);
  EXPECT_EQ(status->done(), 2u);
  EXPECT_EQ(status->lastId(), 3u);
}

// A hundred tries for each write, and not for all of them together.
TEST_F(SpiTransport, RidesOutInterruptionsAndABusyDevice) {
  for (const int error : {EINTR, EAGAIN, EAGAIN}) {
    bus.faultIs(1, error, 60);
    transport->regWrite("mode", 1);
    finish();
  }
  EXPECT_EQ(status->done(), 3u);
  bus.faultIs(1, EAGAIN, 100);
  transport->regWrite("mode", 1);
  transport->regWrite("mode", 1);
  finish();
  EXPECT_THAT(errors(), ElementsAre("3: Resource temporarily unavailable (11)"));
  EXPECT_EQ(status->done(), 4u);
}

TEST_F(SpiTransport, AMessageThatWasNotSentWholeHasFailed) {
  bus.faultIs(1, 0);
  transport->regWrite("mode", 1);
  transport->regWrite("mode", 1);
  finish();
  EXPECT_THAT(errors(), ElementsAre("0: Input/output error (5)"));
  EXPECT_EQ(status->done(), 1u);
}

TEST_F(SpiTransport, ServesWhatWasQueuedBeforeTheQueueIsServed) {
  const auto config = Orb::make<Spi::Config>("spi1");
  Spi::Request request(1);
  request.cmdDataIs(0, {5, 0});
  config->requestEnq(request);
  const auto sm = Spi::SpiSm::SpiSmIs(
      Orb::make<HalSpiAccel::Accel>(Orb::make<Plat::Pax>("spi1", node)), config, status);
  Testing::waitFor([&] { return config->requests() == 0; });
  EXPECT_EQ(status->done(), 1u);
}

TEST_F(SpiTransport, AFullQueueRefusesAndNeverBlocks) {
  constexpr size_t extra = 100;
  for (size_t i = 0; i < Spi::Config::capacity + extra; ++i) transport->regWrite("mode", 1);
  // Whoever waits for an outcome hears of it before anything is queued.
  EXPECT_EQ(failure([&] {
              transport->regWriteWithOutcome("mode", 1, [](const auto&) { ADD_FAILURE(); });
            }),
            "the queue is full");
  EXPECT_EQ(status->failed(), extra);
  EXPECT_EQ(status->error().size(), Spi::Status::mostErrors) << "the latest";
  EXPECT_EQ(errors().back(),
            fmt::format("{}: the queue is full", Spi::Config::capacity + extra - 1));
  finish();
  EXPECT_EQ(status->done(), Spi::Config::capacity);
}

TEST_F(SpiTransport, DestroyedInFlightItSendsNothingMore) {
  transport->regWrite("mode", 1);
  transport.reset();
  Testing::settle();
  EXPECT_THAT(bus.takeLedger(), ElementsAre("close"));
  EXPECT_EQ(status->done(), 0u);
}

TEST_F(SpiTransport, PausesBetweenBytes) {
  Spi::Request request(9);
  request.cmdDataIs(3, {0, 4});
  request.cmdDataIs(0, {5, 1});
  request.cmdDataIs(1, {0, 2});
  EXPECT_THROW(request.cmdDataIs(16, {}), Orb::RangeException);
  transport->config()->requestEnq(request);
  finish();
  EXPECT_THAT(bus.takeLedger(), ElementsAre("spi 01~5 02 00 04"));
  EXPECT_EQ(status->lastId(), 9u);
}

TEST_F(SpiTransport, ADeviceThatCannotBeOpenedLeavesNothingBehind) {
  const size_t open = bus.openDescriptors();
  EXPECT_EQ(failure([&] { make(Orb::make<Plat::Pax>("spi1", "/nonexistent")); }),
            "cannot open SPI device /nonexistent: No such file or directory");
  EXPECT_EQ(failure([&] { make(nullptr); }), "there is no SPI accessor");
  bus.faultIs(1, EACCES);
  EXPECT_EQ(failure([&] { make(Orb::make<Plat::Pax>("spi1", node)); }),
            "cannot open SPI device /dev/spidev7.1: Permission denied");
  EXPECT_EQ(bus.openDescriptors(), open);
}

}  // namespace
