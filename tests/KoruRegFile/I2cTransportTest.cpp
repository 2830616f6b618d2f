// The transport over the kernel's I2C nodes, against a simulated bus.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "testing/BusSimulator.h"
#include "testing/Expect.h"
#include "testing/RecordingTraceSink.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::I2cFlavour;
using KoruRegFile::I2cTransportMethodImpl;
using testing::ElementsAre;
using Testing::failure;
using testing::IsEmpty;

constexpr const char* node = "/dev/i2c-7";
constexpr int wordChip = 0x50;
constexpr int blockChip = 0x51;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "18,low,cfg,true,16\n"
    "255,last,cfg,true,16\n"
    "256,beyond,cfg,true,16\n"
    "258,wide,cfg,true,32\n"
    "259,narrow,cfg,true,16\n"
    "260,odd,cfg,true,12\n"
    "65535,top,cfg,true,32\n";

std::string text(int error) { return fmt::format("{} ({})", std::strerror(error), error); }

class I2c : public testing::Test {
 protected:
  I2c() {
    bus.chipIs(node, wordChip, 8);
    bus.chipIs(node, blockChip, 16);
  }
  std::unique_ptr<I2cTransportMethodImpl> make(I2cFlavour flavour) {
    auto transport = std::make_unique<I2cTransportMethodImpl>(
        node, flavour == I2cFlavour::dataWord ? wordChip : blockChip, csv.path(), flavour, nullptr);
    bus.takeLedger();
    return transport;
  }
  std::string traffic() { return fmt::format("{}", fmt::join(bus.takeLedger(), ", ")); }

  const Testing::TempFile csv{map};
  Testing::BusSimulator bus;
};

TEST_F(I2c, OpensTheNodeAndBindsTheAddress) {
  const Testing::RecordedTraces traces("I2cTransportMethodImpl", 0);
  {
    const I2cTransportMethodImpl transport(node, 0x50, csv.path(), I2cFlavour::dataWord, nullptr);
    EXPECT_THAT(traces.texts(), ElementsAre(testing::StartsWith("Opened i2c with fd ")));
    EXPECT_EQ(bus.openDescriptors(), 1u);
    EXPECT_FALSE(bus.areInherited());
  }
  EXPECT_THAT(bus.takeLedger(), ElementsAre("open /dev/i2c-7", "slave 50", "close"));
}

TEST_F(I2c, LooksAtTheFlavourBeforeAnythingElse) {
  const auto openAs = [](int flavour) {
    I2cTransportMethodImpl(node, 5, "/nonexistent", static_cast<I2cFlavour>(flavour), nullptr);
  };
  for (const int flavour : {0, 3, 255, 257}) {
    EXPECT_EQ(failure<std::out_of_range>([&] { openAs(flavour); }), "_Map_base::at") << flavour;
  }
  EXPECT_THROW(openAs(1), std::runtime_error);
  EXPECT_THAT(bus.takeLedger(), IsEmpty());
}

constexpr I2cFlavour word = I2cFlavour::dataWord;
constexpr I2cFlavour block = I2cFlavour::dataBlock;

// Block transfers hold the lock of the node, words need none.
TEST_F(I2c, AccessesHaveExactlyThisTraffic) {
  const struct {
    I2cFlavour flavour;
    const char* reg;
    uint32_t value;  // written, or expected from the read
    std::string traffic;
    std::optional<uint32_t> held = {};  // by the register, before a read
  } cases[] = {{word, "low", 0x12345, "50 W 12 2345"},
               {word, "last", 0xffff, "50 W ff ffff"},
               {word, "low", 0xbeef, "50 R 12", 0xbeef},
               {block, "wide", 0x11223344, "51 w 01 02 11 22 33 44"},
               {block, "odd", 0xffffffff, "51 w 01 04 ff ff ff ff"},
               {block, "wide", 0x11223344, "51 w 01 02, 51 r 01 +4", 0x11223344},
               {block, "narrow", 0x11220000, "51 w 01 03, 51 r 01 +4", 0x11223344},
               {block, "odd", 0x11020000, "51 w 01 04, 51 r 01 +4", 0x11223344},
               {block, "top", 0xffffffff, "51 w ff ff, 51 r ff +4", 0xffffffff}};
  for (const auto& c : cases) {
    const auto transport = make(c.flavour);
    if (c.held) {
      const uint32_t address = transport->regFileHelper()->findRegisterByName(c.reg).address;
      bus.registers(node, c.flavour == word ? wordChip : blockChip)[address] = *c.held;
      EXPECT_EQ(transport->regRead(c.reg), c.value);
    } else {
      transport->regWrite(c.reg, c.value);
    }
    EXPECT_EQ(traffic(), c.flavour == block ? "lock, " + c.traffic + ", unlock" : c.traffic);
  }
}

TEST_F(I2c, AnAddressBeyondAByteMakesNoTraffic) {
  const auto transport = make(word);
  const std::string message = "Register address 0x100 is out of range!";
  EXPECT_EQ(failure([&] { transport->regRead("beyond"); }), message);
  EXPECT_EQ(failure([&] { transport->regWrite("beyond", 1); }), message);
  EXPECT_THROW(transport->regRead("nobody"), std::runtime_error);
  EXPECT_THAT(bus.takeLedger(), IsEmpty());
}

// Each system call of an access fails: what is said, and what had been done by then. Nothing stays
// locked, and the transport works afterwards.
TEST_F(I2c, EveryFailingCallOfAnAccessIsToldAndReleasesTheLock) {
  const auto words = make(word);
  const Testing::RecordedTraces traces("I2cTransportMethodImpl", 0);
  const auto blocks = make(block);
  const std::string fd = traces.texts().at(0).substr(std::strlen("Opened i2c with fd ")) + ": ";
  const struct {
    I2cTransportMethodImpl& transport;
    const char* reg;
    bool isWrite;
    size_t call;
    std::string message;
    std::string traffic;
  } cases[] = {
      {*words, "low", false, 1, "I2C word read from address 0x12 failed: ", "50 R 12 ! 5"},
      {*words, "low", true, 1, "I2C word write from address 0x12 failed: ", "50 W 12 0007 ! 5"},
      {*blocks, "wide", false, 1, "flock error: ", "lock ! 5"},
      {*blocks, "wide", false, 2, "Error writing address 0x102 on FD " + fd,
       "lock, 51 w 01 02 ! 5, unlock"},
      {*blocks, "wide", false, 3, "Error reading from address 0x102 on FD " + fd,
       "lock, 51 w 01 02, 51 r 01 +4 ! 5, unlock"},
      {*blocks, "wide", true, 2, "Error writing value 0x7 to address 0x102 on FD " + fd,
       "lock, 51 w 01 02 00 00 00 07 ! 5, unlock"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    bus.faultIs(c.call, EIO);
    const auto access = [&] {
      c.isWrite ? c.transport.regWrite(c.reg, 7) : void(c.transport.regRead(c.reg));
    };
    EXPECT_EQ(failure<KoruRegFile::TransportError>(access),
              c.message + (c.traffic == "lock ! 5" ? std::strerror(EIO) : text(EIO)));
    EXPECT_EQ(traffic(), c.traffic);
    EXPECT_NO_THROW(access());
    bus.takeLedger();
  }
}

TEST_F(I2c, AShortBlockReadHasFailed) {
  const auto transport = make(block);
  bus.shortReadsAre(true);
  EXPECT_THAT(failure([&] { transport->regRead("wide"); }), testing::EndsWith(text(EPROTO)));
  EXPECT_EQ(traffic(), "lock, 51 w 01 02, 51 r 01 +4, unlock");
}

// Told to refuse, an access waits neither for a bus that is busy nor for a lock.
TEST_F(I2c, RefusesToWait) {
  const std::tuple<I2cFlavour, int, const char*> cases[] = {{word, wordChip, "low"},
                                                            {block, blockChip, "wide"}};
  for (const auto& [flavour, chip, reg] : cases) {
    I2cTransportMethodImpl transport(node, chip, csv.path(), flavour, nullptr,
                                     KoruRegFile::I2cBusy::refuse);
    transport.regWrite(reg, 1);
    bus.busyIs(true);
    EXPECT_THROW(transport.regRead(reg), KoruRegFile::TransportError);
    EXPECT_THROW(transport.regWrite(reg, 2), KoruRegFile::TransportError);
    bus.busyIs(false);
    EXPECT_EQ(transport.regRead(reg), 1u);
  }
}

TEST_F(I2c, RidesOutStormsOfInterruptionsAndBusyBuses) {
  const auto transport = make(block);
  for (const int error : {EINTR, EAGAIN}) {
    for (const size_t call : {1u, 2u, 3u}) {
      bus.faultIs(call, error, 5);
      EXPECT_EQ(transport->regRead("wide"), 0u);
      EXPECT_EQ(bus.calls(), 8u) << "five calls were repeated";
    }
    bus.faultIs(2, error, 5);
    const I2cTransportMethodImpl bound(node, 0x50, csv.path(), word, nullptr);
    EXPECT_EQ(bus.calls(), 7u);
  }
}

TEST_F(I2c, AFailedOpeningLeavesNoDescriptor) {
  const auto open = [&](const char* path, int address) {
    return failure([&] { I2cTransportMethodImpl(path, address, csv.path(), block, nullptr); });
  };
  EXPECT_EQ(open("/nonexistent", 0x50), "Error opening I2C device /nonexistent: " + text(ENOENT));
  EXPECT_EQ(open(node, 0x105), "Error setting peripheral address to 0x105: " + text(EINVAL));
  bus.faultIs(1, EACCES);
  EXPECT_EQ(open(node, 0x50), "Error opening I2C device /dev/i2c-7: " + text(EACCES));
  bus.faultIs(2, EBUSY);
  EXPECT_EQ(open(node, 0x50), "Error setting peripheral address to 0x50: " + text(EBUSY));
  EXPECT_EQ(bus.openDescriptors(), 0u);
}

}  // namespace
