// Transports as the agent uses them: writes that are posted, buses that are busy, and callbacks
// that drop the transport which calls them.

#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "Spi/Config.h"
#include "Spi/Status.h"
#include "board/chips/OpenTransport.h"
#include "board/devices/TransportKind.h"
#include "testing/BusSimulator.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"

namespace {

using Board::PostingTransport;
using testing::ElementsAre;
using Status = KoruRegFile::RegCallbackStatus;

struct Way {
  const char* name;
  const Board::KindRow* kind;
  const char* place;
  const char* last;  // a write of 0x3ff
};
const Way ways[] = {
    {"relay", &Board::relayKind, "/dev/i2c-2:0x51", "51 w 00 01 00 00 03 ff"},
    {"spi", &Board::spiKind, "/dev/spidev0.0", "spi 01 03 ff"},
    {"words", &Board::i2cKind, "/dev/i2c-2:0x52,word", "52 W 01 03ff"},
    {"blocks", &Board::i2cKind, "/dev/i2c-2:0x51", "51 w 00 01 00 00 03 ff"},
    {"format", &Board::i2cKind, "/dev/i2c-2:0x51,address_bits=16", "51 w 00 01 00 00 03 ff"},
    {"relayedFormat", &Board::relayKind, "/dev/i2c-2:0x51,address_bits=16",
     "51 w 00 01 00 00 03 ff"},
    {"spiFormat", &Board::spiKind, "/dev/spidev0.0,mode=3", "spi 01 00 00 03 ff"},
};

class Posting : public testing::TestWithParam<Way> {
 protected:
  Posting() {
    simulator.spiNodeIs("/dev/spidev0.0");
    simulator.chipIs("/dev/i2c-2", 0x51, 16);
    simulator.chipIs("/dev/i2c-2", 0x52, 8);
    chip.name = "chip0";
    chip.registerMap = map.path();
  }
  PostingTransport& open(const Way& way) {
    chip.transport = Board::Transport::at(*way.kind, way.place);
    return *Board::openTransport(*method, chip);
  }
  std::vector<std::string> traffic() {
    auto ledger = simulator.takeLedger();
    std::erase_if(ledger,
                  [](const std::string& e) { return e.starts_with("lock") || e == "unlock"; });
    return ledger;
  }
  static void drain(const PostingTransport& posting) {
    Testing::waitFor([&] { return posting.inFlight() == 0; });
  }

  const Testing::TempFile map{"number,name,type,writeable,width\n1,CTRL,cfg,true,32\n"};
  Testing::BusSimulator simulator;
  Board::Chip chip;
  const Orb::Ptr<KoruRegFile::TransportMethod> method =
      KoruRegFile::transportMethodFactory("chip0");
  const Orb::Ptr<KoruRegFile::TransportMethodError> error = method->errorNotifierIs("chip0");
};

// What waits for a device is bounded.
TEST_F(Posting, CountsAndTells) {
  for (const Way& way : {ways[0], ways[1], ways[5], ways[6]}) {
    SCOPED_TRACE(way.name);
    const PostingTransport& posting = open(way);
    error->errorIs(false);
    for (unsigned i = 0; i < posting.mostInFlight; ++i) method->regWrite("CTRL", i);
    EXPECT_FALSE(error->error());
    method->regWrite("CTRL", 1);
    EXPECT_TRUE(error->error());
    EXPECT_EQ(method->lastFailure().reason, "too many writes are in flight");
    EXPECT_EQ(posting.inFlight(), posting.mostInFlight);
    drain(posting);
    EXPECT_EQ(traffic().back(), way.last);
  }
  const PostingTransport& posting = open(ways[1]);
  std::vector<Status> ends;
  const auto note = [&](const char*, Status status) { ends.push_back(status); };
  // More failures than the status remembers.
  constexpr size_t failures = Spi::Status::mostErrors + 6;
  simulator.faultIs(1, EIO, failures);
  for (unsigned i = 0; i < 2 * failures; ++i) method->regWriteWithCallback("CTRL", i, note);
  drain(posting);
  std::vector<Status> expected(failures, Status::failed);
  expected.resize(2 * failures, Status::done);
  EXPECT_EQ(ends, expected);
  ends.clear();

  method->regWriteWithCallback("CTRL", 0x10000, note);  // refused at once
  EXPECT_EQ(posting.inFlight(), 0u);
  method->regWriteWithCallback("CTRL", 1, note);
  method->implPtrIs(nullptr);
  EXPECT_EQ(ends.size(), 1u);
  Testing::waitFor([&] { return ends.size() == 2; });
  EXPECT_THAT(ends, ElementsAre(Status::failed, Status::failed));
}

// The callback of each access in turn drops the transport: those behind it are told of a failure,
// each once, a full queue included.
TEST_P(Posting, MayBeDroppedByEveryCallback) {
  constexpr unsigned writes = Spi::Config::capacity + 2;
  for (const unsigned dropping : {0u, 1u, writes - 3, writes - 1}) {
    open(GetParam());
    unsigned done = 0;
    unsigned failed = 0;
    for (unsigned i = 0; i < writes && method->implPtr(); ++i) {
      method->regWriteWithCallback("CTRL", i, [&, i](const char*, Status status) {
        ++(status == Status::done ? done : failed);
        if (i == dropping) method->implPtrIs(nullptr);
      });
    }
    const bool endsAtOnce = GetParam().kind == &Board::i2cKind;
    const unsigned begun = endsAtOnce ? dropping + 1 : writes;
    Testing::settle();
    method->implPtrIs(nullptr);
    Testing::settle();
    EXPECT_EQ(done + failed, begun) << dropping;
    if (endsAtOnce) {
      EXPECT_EQ(failed, 0u);
    }
  }
}

// Likewise by whoever hears of a failed write, and by the callback of one that had to wait.
TEST_P(Posting, MayBeDroppedByOthers) {
  struct Dropping : KoruRegFile::TransportMethodError::Notifiee {
    Dropping(const Orb::Ptr<KoruRegFile::TransportMethodError>& error,
             KoruRegFile::TransportMethod& m)
        : Notifiee(error), method(m) {
      hasNotificationActiveIs(true);
    }
    void onError() override { method.implPtrIs(nullptr); }
    KoruRegFile::TransportMethod& method;
  };
  open(GetParam());
  {
    simulator.silentIs(true);
    const Dropping dropping(error, *method);
    for (int i = 0; i < 3 && method->implPtr(); ++i) method->regWrite("CTRL", 1);
    Testing::waitFor([&] { return !method->implPtr(); });
    simulator.silentIs(false);
  }
  open(GetParam());
  simulator.busyIs(true);
  method->regWriteWithCallback("CTRL", 1, [&](auto...) { method->implPtrIs(nullptr); });
  method->regWrite("CTRL", 2);
  simulator.busyIs(false);
  Testing::waitFor([&] { return !method->implPtr(); });
  Testing::settle();
}

INSTANTIATE_TEST_SUITE_P(Over, Posting, testing::ValuesIn(ways),
                         [](const auto& way) { return way.param.name; });

// Formats, too, keep out of other processes' transactions, and out of those queued before.
TEST_F(Posting, KeepsItsTurn) {
  for (const Way& way : {ways[4], ways[5]}) {
    const PostingTransport& posting = open(way);
    simulator.takeLedger();
    method->regWrite("CTRL", 0x3ff);
    drain(posting);
    const auto ledger = simulator.takeLedger();
    const auto made = std::find(ledger.begin(), ledger.end(), way.last);
    ASSERT_NE(made, ledger.end());
    EXPECT_NE(std::find(ledger.begin(), made, "lock"), made) << way.name;
    EXPECT_EQ(*(made + 1), "unlock") << way.name;
  }
  open(ways[6]);
  method->regWrite("CTRL", 1);
  try {
    method->implPtr()->regRead("CTRL");
    ADD_FAILURE() << "overtook a write";
  } catch (const KoruRegFile::TransportError& e) {
    EXPECT_EQ(e.error(), EAGAIN);
  }
}

// A bus that others keep busy holds nobody up: writes and reads wait in their order, and the loop
// goes on.
TEST_F(Posting, WaitsForABusyBusOutsideTheCaller) {
  for (const Way& way : {ways[0], ways[2], ways[3]}) {
    const PostingTransport& posting = open(way);
    simulator.busyIs(true);
    std::vector<std::string> told;
    method->regWrite("CTRL", 1);
    method->regWriteWithCallback("CTRL", 2, [&](auto...) { told.push_back("written"); });
    method->regReadWithCallback("CTRL", [&](auto, auto, uint32_t value) {
      told.push_back(fmt::format("read {:#x}", value));
    });
    method->regWrite("CTRL", 0x3ff);
    EXPECT_EQ(posting.inFlight(), 3u);
    bool isServed = false;
    Orb::eventLoop().defer([&] { isServed = true; });
    Orb::eventLoop().runPending();
    EXPECT_TRUE(isServed);
    EXPECT_THAT(told, testing::IsEmpty());
    simulator.busyIs(false);
    drain(posting);
    EXPECT_THAT(told, ElementsAre("written", "read 0x2"));
    EXPECT_EQ(traffic().back(), way.last);
    EXPECT_FALSE(error->error());
  }
}

// One whose callback throws has ended all the same, and those behind it go on.
TEST_F(Posting, EndsAnAccessOnceWhoseCallbackThrows) {
  const PostingTransport& posting = open(ways[2]);
  simulator.busyIs(true);
  const auto thrower = [](auto...) { throw KoruRegFile::TransportError("no", EAGAIN); };
  method->regWriteWithCallback("CTRL", 1, thrower);
  method->regWrite("CTRL", 0x3ff);
  simulator.busyIs(false);
  drain(posting);
  Testing::settle();
  EXPECT_EQ(posting.inFlight(), 0u);
  EXPECT_THAT(traffic(), ElementsAre("open /dev/i2c-2", "slave 52", "52 W 01 0001 ! 11",
                                     "52 W 01 0001", ways[2].last));
}

// In the end it is an error like any other.
TEST_F(Posting, WaitsNoLongerThanItsPatience) {
  method->implPtrIs(std::make_unique<PostingTransport>(
      *method,
      std::make_unique<KoruRegFile::I2cTransportMethodImpl>("/dev/i2c-2", 0x51, map.path(),
                                                            KoruRegFile::I2cFlavour::dataBlock,
                                                            nullptr, KoruRegFile::I2cBusy::refuse),
      PostingTransport::Ends::atOnce, Board::Patience{std::chrono::milliseconds(0), 3}));
  simulator.busyIs(true);
  // Opened, tried at once, and from the loop, those behind it once; then anew.
  for (const size_t calls : {2u + 1u + 3u + 2u, 1u + 3u + 2u}) {
    error->errorIs(false);
    for (const uint32_t value : {1u, 2u, 3u}) method->regWrite("CTRL", value);
    EXPECT_FALSE(error->error());
    EXPECT_THROW(method->implPtr()->regRead("CTRL"), KoruRegFile::TransportError);
    drain(*dynamic_cast<PostingTransport*>(method->implPtr()));
    EXPECT_TRUE(error->error());
    EXPECT_EQ(method->lastFailure().error, EAGAIN);
    EXPECT_EQ(method->lastFailure().reason, "the bus stays busy, or locked by another process");
    EXPECT_EQ(traffic().size(), calls);
  }
}

// Each access has the whole of it, however long the one before had to wait.
TEST_F(Posting, IsPatientWithEachAccess) {
  method->implPtrIs(std::make_unique<PostingTransport>(
      *method,
      std::make_unique<KoruRegFile::I2cTransportMethodImpl>("/dev/i2c-2", 0x52, map.path(),
                                                            KoruRegFile::I2cFlavour::dataWord,
                                                            nullptr, KoruRegFile::I2cBusy::refuse),
      PostingTransport::Ends::atOnce, Board::Patience{std::chrono::milliseconds(1), 3}));
  const auto awaitTries = [&](size_t count) {
    size_t tries = 0;
    Testing::waitFor([&] { return (tries += traffic().size()) >= count; });
  };
  simulator.busyIs(true);
  std::vector<Status> ends;
  const auto ended = [&](auto, Status status) {
    ends.push_back(status);
    simulator.busyIs(ends.size() == 1);
  };
  method->regWriteWithCallback("CTRL", 1, ended);
  method->regWriteWithCallback("CTRL", 2, ended);
  traffic();
  awaitTries(2);
  simulator.busyIs(false);
  Testing::waitFor([&] { return ends.size() == 1; });
  traffic();
  awaitTries(1);
  simulator.busyIs(false);
  Testing::waitFor([&] { return ends.size() == 2; });
  EXPECT_THAT(ends, ElementsAre(Status::done, Status::done));
}

}  // namespace
