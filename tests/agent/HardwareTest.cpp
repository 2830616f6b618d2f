// Chips behind hardware, on simulated buses: what a system file may say of them, and what the agent
// does when they stop answering or when it is killed with writes in flight.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "Orb/EventLoop.h"
#include "board/description/SystemFile.h"
#include "tests/agent/Korud.h"

namespace {

namespace fs = std::filesystem;
using Korud::Client;
using Korud::json;
using testing::HasSubstr;

TEST(SystemFileTransports, AreTakenOrRefusedWithTheReason) {
  const Testing::StateDirectory directory;
  std::ofstream(directory.file("map.csv")) << "number,name,type,writeable,width\n"
                                              "3,WIDE,cfg,true,32\n"
                                              "255,LAST,cfg,true,16\n"
                                              "256,NEXT,cfg,true,16\n"
                                              "16383,LASTWORD,cfg,true,32\n"
                                              "16384,FAR,cfg,true,32\n"
                                              "65536,FARTHER,cfg,true,32\n";
  const std::string words = R"(i2c = "/dev/i2c-1:0x50,word")";
  const std::string blocks = R"(i2c = "/dev/i2c-1:80")";
  const std::string relay = R"(relay = "/dev/i2c-1:0x50")";
  const std::string pci = R"(pci = "03:00.0/2")";
  const std::string spi = R"(spi = "/dev/spidev0.0")";
  // The device, or what is wrong with the transport.
  const std::tuple<std::string, const char*, std::string> table[] = {
      {words, "LAST", "/dev/i2c-1"},
      {words, "NEXT",
       "7: chip 'c': register 'NEXT' cannot be written: words on an I2C bus have addresses up to "
       "0xff, its address is 0x100"},
      {words, "WIDE", "it has 32 bits, and a word carries 16 at once"},
      {blocks, "FAR", "/dev/i2c-1"},
      {blocks, "FARTHER", "blocks on an I2C bus have addresses up to 0xffff"},
      {relay, "LASTWORD", "/dev/i2c-1"},
      {relay, "FAR", "the relay has addresses up to 0xffff, its address is 0x10000"},
      {pci, "FARTHER", "/sys/bus/pci/devices/0000:03:00.0/resource2"},
      {R"(pci = "bar/window")", "WIDE", directory.file("bar/window")},
      {spi, "LAST", "/dev/spidev0.0"},
      {spi, "NEXT", "SPI messages have addresses up to 0xff"},
      {spi, "WIDE", "it has 32 bits, and an SPI message carries 16 at once"},
      {"i2c = true", "WIDE", "3: chip 'c': i2c has to be a string that says where"},
      {R"(i2c = "/dev/i2c-1")", "WIDE",
       "3: chip 'c': i2c: '/dev/i2c-1' is no chip on a bus (write /dev/i2c-1:0x50, or with a "
       "form behind it, as in /dev/i2c-1:0x50,byte; there are block, word, byte, "},
      {R"(relay = "/dev/i2c-1:0x50,word")", "WIDE", "relay: '/dev/i2c-1:0x50,word' is no chip"},
      {R"(i2c = "/dev/i2c-1:0x80")", "WIDE", "i2c: 0x80 is more than 0x7f"},
      {R"(spi = "")", "WIDE", "spi: it has to say where"},
      {spi + "\nmock = true", "LAST", "there is more than one transport"},
  };
  for (const auto& [transport, reg, outcome] : table) {
    SCOPED_TRACE(transport + ", " + reg);
    std::ofstream(directory.file("board.toml")) << fmt::format(
        "[[chip]]\nname = \"c\"\n{}\nregister_map = \"map.csv\"\n"
        "[chip.physical.{}]\n\nf = {{ bits = 0 }}\n"
        "[chip.logical.l]\nf = {{ to = \"{}.f\" }}\n",
        transport, reg, reg);
    const Board::Description board = Board::readFile(directory.file("board.toml"));
    ASSERT_EQ(board.problems.empty(), outcome.starts_with("/"));
    if (board.problems.empty()) {
      EXPECT_EQ(board.chips.at(0).transport.device, outcome);
    } else {
      EXPECT_THAT(board.problems[0].message(), HasSubstr(outcome));
    }
  }
}

// Where the simulated chips are, and how a register write looks on the bus.
struct Way {
  const char* name;
  const char* transport;
  const char* failure;  // and what to do
  const char* written;
  std::string write(unsigned reg, unsigned value) const {
    return fmt::format(fmt::runtime(written), reg, value, value >> 8, value & 0xff);
  }
};

constexpr const char* buses = "i2c /dev/i2c-1 0x50 8\ni2c /dev/i2c-2 0x51 16\nspi /dev/spidev0.0\n";
const Way ways[] = {
    {"i2c", R"(i2c = "/dev/i2c-1:0x50,word")",
     "address 0x2 failed: No such device or address (6); nothing acknowledges: check the address "
     "0x50",
     "50 W {0:02x} {1:04x}"},
    {"relay", R"(relay = "/dev/i2c-2:0x51")",
     "of device 0x51 failed: No such device or address (6); nothing acknowledges",
     "51 w 00 {0:02x} 00 00 {2:02x} {3:02x}"},
    {"spi", R"(spi = "/dev/spidev0.0")",
     "Cannot send after transport endpoint shutdown (108); the device has gone",
     "spi {0:02x} {2:02x} {3:02x}"},
};
const Way& overRelay = ways[1];
const Way overBlocks = {"blocks", R"(i2c = "/dev/i2c-2:0x51")",
                        "No such device or address (6); nothing acknowledges", overRelay.written};

class HardwareChips : public testing::TestWithParam<Way> {
 protected:
  HardwareChips() {
    fs::create_directory(agent.file("bus"));
    agent.write("bus/buses", buses);
    agent.write("map.csv",
                "number,name,type,writeable,width\n1,CTRL,cfg,true,16\n"
                "2,MODE,cfg,true,16\n3,WIDE,cfg,true,32\n");
    agent.environment = {"LD_PRELOAD=" KORU_BUS_SIMULATOR_LIBRARY,
                         "ASAN_OPTIONS=verify_asan_link_order=0",
                         "KORU_BUS_SIMULATOR=" + agent.file("bus")};
  }
  static std::string board(const std::string& transport) {
    return "[[chip]]\nname = \"chip0\"\nregister_map = \"map.csv\"\n" + transport +
           "\n[chip.physical.CTRL]\nall = { bits = \"15:0\" }\n"
           "[chip.physical.MODE]\nlow = { bits = \"7:0\" }\n"
           "[chip.logical.l]\nctrl = { to = \"CTRL.all\", bits = \"15:0\", value = 0x1234 }\n"
           "mode = { to = \"MODE.low\", bits = \"23:16\", value = 0x56 }\n";
  }
  Client start(const Way& way) {
    agent.write("board.toml", board(way.transport));
    return restart();
  }
  // Starts it, and waits until everything is on the device.
  Client restart() {
    agent.start();
    agent.waitForState("chip0", "up");
    Client client = agent.client();
    Korud::until([&] { return client.chip("chip0")["in_flight"] == 0; });
    return client;
  }
  std::vector<std::string> takeLedger() const {
    auto lines = Korud::linesOf(std::ifstream(agent.file("bus/ledger")));
    fs::remove(agent.file("bus/ledger"));
    return lines;
  }
  void silentIs(bool silent) const {
    if (silent) agent.write("bus/silent", "");
    if (!silent) fs::remove(agent.file("bus/silent"));
  }
  bool isMarked() const { return fs::exists(agent.file("korud/chip0.dirty")); }
  // As long as the descriptor is open, nothing gets on the relay's bus.
  Orb::Descriptor lockedBus() const {
    Orb::Descriptor file(::open(agent.file("bus/i2c-2").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::flock(file.get(), LOCK_EX), 0);
    return file;
  }

  Korud::Agent agent;
};

TEST_P(HardwareChips, AreRewrittenWhenTheyAnswerAgain) {
  const Way& way = GetParam();
  Client client = start(way);
  EXPECT_FALSE(isMarked());
  EXPECT_THAT(takeLedger(), testing::IsSupersetOf({way.write(1, 0x1234), way.write(2, 0x56)}));
  for (const unsigned value : {0x4321u, 0x8765u}) {
    silentIs(true);
    client.write("l", "ctrl", value);
    agent.waitForState("chip0", "rewriting");
    EXPECT_TRUE(isMarked());
    client.write("l", "mode", value & 0xff);
    const auto down = agent.waitFor("chip0", [](const json& c) { return c["attempts"] >= 3; });
    EXPECT_THAT(down["reason"], testing::AllOf(HasSubstr("2 registers could not be written: "),
                                               HasSubstr(way.failure)));
    takeLedger();
    silentIs(false);
    agent.waitForState("chip0", "up");
    EXPECT_THAT(takeLedger(),
                testing::IsSupersetOf({way.write(1, value), way.write(2, value & 0xff)}));
    EXPECT_FALSE(isMarked());
  }
  const std::string traces = agent.stop(SIGKILL).err;
  for (const int delay : {100, 200, 400}) {
    EXPECT_THAT(traces, HasSubstr(fmt::format("in {} ms", delay)));
  }
  restart();
  EXPECT_THAT(takeLedger(), testing::Not(testing::Contains(testing::ContainsRegex("[wW] |spi "))));
}

INSTANTIATE_TEST_SUITE_P(Over, HardwareChips, testing::ValuesIn(ways),
                         [](const auto& way) { return way.param.name; });

// Another process may hold the lock of the bus.
class ChipsOnALockedBus : public HardwareChips {};

INSTANTIATE_TEST_SUITE_P(Over, ChipsOnALockedBus, testing::Values(overRelay, overBlocks),
                         [](const auto& way) { return way.param.name; });

TEST_P(ChipsOnALockedBus, LosesNothingWhenTheAgentIsKilledWithWritesInFlight) {
  Client client = start(GetParam());
  takeLedger();
  {
    const auto lock = lockedBus();
    client.write("l", "ctrl", 0x4321);
    client.write("l", "mode", 0x77);
    EXPECT_EQ(client.chip("chip0")["in_flight"], 2);
    agent.stop(SIGKILL);
  }
  EXPECT_THAT(takeLedger(), testing::Not(testing::Contains(GetParam().write(1, 0x4321))));
  restart();
  EXPECT_THAT(takeLedger(),
              testing::IsSupersetOf({GetParam().write(1, 0x4321), GetParam().write(2, 0x77)}));
  EXPECT_FALSE(isMarked());
}

TEST_P(ChipsOnALockedBus, IsWaitedForABoundedTime) {
  start(GetParam());
  {
    const auto lock = lockedBus();
    agent.client().write("l", "ctrl", 0x4321);
    agent.signal(SIGTERM);
    Korud::until([&] { return !fs::exists(agent.file("korud.sock")); });
  }
  EXPECT_EQ(agent.wait().exitCode, 0);
  EXPECT_THAT(takeLedger(), testing::Contains(GetParam().write(1, 0x4321)));
  EXPECT_FALSE(isMarked());
  restart();
  const auto lock = lockedBus();
  agent.client().write("l", "ctrl", 1);
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
  EXPECT_TRUE(isMarked());
}

TEST_P(ChipsOnALockedBus, AnswersLaterOrWhenItIsTakenDown) {
  Client client = start(GetParam());
  const json read = Korud::request("hw.read", "chip0", "CTRL");
  // (Of a narrow register, a block keeps the bytes that come first.)
  const bool isRelay = GetParam().name == std::string("relay");
  EXPECT_EQ(client.result(read)["value"], isRelay ? 0x1234 : 0);
  silentIs(true);
  EXPECT_THAT(client.ask(read)["error"]["message"],
              HasSubstr("register 'CTRL' could not be read: "));
  silentIs(false);
  const auto lock = lockedBus();
  client.send(read.dump() + "\n");
  // Nothing of it reaches a bus that is locked; the other clients are served.
  EXPECT_EQ(client.chip("chip0")["state"], "up");
  agent.write("board.toml", "chip = []\n");
  EXPECT_EQ(json::parse(client.line())["error"]["message"],
            "register 'CTRL' could not be read: the transport was closed");
}

// Nothing of a register is sent that the transport cannot carry as it is, not even by force.
TEST_F(HardwareChips, SendNoRegisterInPart) {
  Client client = start(ways[0]);
  takeLedger();
  for (const char* op : {"hw.read", "hw.write"}) {
    json request = Korud::request(op, "chip0", "WIDE");
    request["value"] = 1;
    request["force"] = true;
    EXPECT_EQ(client.ask(request)["error"]["message"],
              "register 'WIDE' cannot be accessed: it has 32 bits, and a word carries 16 at once");
  }
  EXPECT_THAT(takeLedger(), testing::IsEmpty());
}

}  // namespace
