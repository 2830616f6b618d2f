// The queue of an SPI device and the reactor that empties it, on a simulated bus.

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Spi/SpiSm.h"
#include "testing/BusSimulator.h"
#include "testing/Expect.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* node = "/dev/spidev7.1";

class SpiQueue : public testing::Test {
 protected:
  SpiQueue() { bus.spiNodeIs(node); }
  void queue(unsigned id) {
    Spi::Request request(id);
    for (uint8_t slot = 0; slot < 3; ++slot) request.cmdDataIs(slot, {.data = slot});
    config->requestEnq(request);
  }
  void start() {
    sm = Spi::SpiSm::SpiSmIs(Orb::make<HalSpiAccel::Accel>(Orb::make<Plat::Pax>("spi0", node)),
                             config, status);
    bus.takeLedger();
  }
  void finish() {
    Testing::waitFor([&] { return config->requests() == 0; });
  }

  std::vector<std::string> errors() const {
    std::vector<std::string> texts;
    for (const auto& [id, reason] : status->error())
      texts.push_back(fmt::format("{}: {}", id, reason));
    return texts;
  }

  Testing::BusSimulator bus;
  const Orb::Ptr<Spi::Config> config = Orb::make<Spi::Config>("spi0");
  const Orb::Ptr<Spi::Status> status = Orb::make<Spi::Status>("spi0");
  Orb::Ptr<Spi::SpiSm> sm;
};

TEST_F(SpiQueue, ServesWhatWasQueuedBeforeItWasStarted) {
  queue(1);
  queue(2);
  start();
  finish();
  EXPECT_EQ(status->done(), 2u);
  EXPECT_THAT(bus.takeLedger(), ElementsAre("spi 00 01 02", "spi 00 01 02"));
}

// A hundred tries for each, and not for all of them together.
TEST_F(SpiQueue, CountsTheTriesOfEachRequest) {
  start();
  for (const unsigned id : {1u, 2u}) {
    bus.faultIs(1, EAGAIN, 60);
    queue(id);
    finish();
  }
  EXPECT_EQ(status->done(), 2u);
  EXPECT_THAT(errors(), IsEmpty());
  bus.faultIs(1, EAGAIN, 100);
  queue(3);
  queue(4);
  finish();
  EXPECT_THAT(errors(), ElementsAre("3: Resource temporarily unavailable (11)"));
  EXPECT_EQ(status->lastId(), 4u);
}

TEST_F(SpiQueue, AMessageThatWasNotSentWholeHasFailed) {
  start();
  bus.faultIs(1, 0);
  queue(1);
  queue(2);
  finish();
  EXPECT_THAT(errors(), ElementsAre("1: Input/output error (5)"));
  EXPECT_EQ(status->lastId(), 2u);
}

}  // namespace
