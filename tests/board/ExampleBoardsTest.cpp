// The boards of examples/boards with the chips that their data sheets describe: korud brings them
// up on simulated buses, and every byte on the wire is the data sheet's.

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "tests/agent/Korud.h"

namespace {

using Korud::json;
using testing::ElementsAreArray;

std::string textOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

struct Example {
  const char* folder;
  const char* chip;
  std::vector<std::string> bringUp;  // what goes over the bus, up to what comes back meanwhile
  const char* reg;                   // a field that is written
  const char* field;
  uint32_t value;
  const char* written;
  const char* readRegister;  // and a register that is read
  uint32_t read;
  std::vector<std::string> reading;
};

const Example examples[] = {
    {"mcp23017",
     "expander",
     {"20w 00 f0", "20w 0d ff", "20w 14 00"},
     "portA",
     "outputs",
     0xa5,
     "20w 14 a5",
     "IODIRB",
     0xff,
     {"20w 01 20r ff"}},
    // 30 degrees; 25.0 degrees
    {"tmp102",
     "thermometer",
     {"48w 02 4b 00", "48w 03 50 00"},
     "alert",
     "high",
     0x1e0,
     "48w 03 1e 00",
     "TEMPERATURE",
     0x1900,
     {"48w 00 48r 19 00"}},
    {"tmp105",
     "thermometer",
     {"49w 01 60", "49w 03 50 00"},
     "sensor",
     "shutdown",
     1,
     "49w 01 61",
     "TEMPERATURE",
     0x1900,
     {"49w 00 49r 19 00"}},
    // 1.0, then one half
    {"adau1701",
     "audio",
     {"34w 00 10 00 80 00 00", "34w 00 11 00 80 00 00"},
     "volume",
     "left",
     0x400000,
     "34w 00 10 00 40 00 00",
     "LEFT_GAIN",
     0x400000,
     {"34w 00 10 34r 00 40 00 00"}},
    {"pcf8574", "port", {"27w 0f"}, "port", "level", 0xf0, "27w f0", "PINS", 0xf0, {"27r f0"}},
    {"at24c256",
     "eeprom",
     {"50w 00 01 02"},
     "board",
     "revision",
     3,
     "50w 00 01 03",
     "SERIAL",
     0xff,
     {"50w 10 00 50r ff"}},
    {"ad9517",
     "clock",
     {"> 00 00 99", "> 00 10 7d", "> 00 f0 00", "> 02 32 01"},
     "pll",
     "off",
     0,
     "> 00 10 7c",
     "R_LOW",
     1,
     {"> 80 11 00 < ff ff 01"}},
    {"tmc5160",
     "motor",
     {"> 80 00 00 00 04", "> 90 00 00 1f 0a"},
     "drive",
     "hold",
     5,
     "> 90 00 00 1f 05",
     "IOIN",
     0x30000000,
     {"> 04 00 00 00 00", "> 04 00 00 00 00"}},
    {"mcp4921", "dac", {"> 38 00"}, "dac", "level", 0xfff, "> 3f ff", nullptr, 0, {}},
};

class ExampleBoards : public testing::TestWithParam<std::tuple<Example, bool>> {
 protected:
  static std::string folder(const std::string& name) {
    return std::string(KORU_EXAMPLE_BOARDS) + "/" + name + "/";
  }
  static void put(const Korud::Agent& agent, const std::string& name, std::string board) {
    agent.write("registers.csv", textOf(folder(name) + "registers.csv"));
    agent.write("board.toml", board);
  }
  // What went over the buses since the last call: the bus's name off, and what came back only as
  // far as the expectation has it.
  std::vector<std::string> traffic(const std::vector<std::string>& expected) {
    const std::string ledger = agent.file("sim/ledger");
    std::vector<std::string> lines;
    for (const std::string& line : Korud::linesOf(std::ifstream(ledger))) {
      if (line.starts_with("/dev/")) lines.push_back(line.substr(line.find(' ') + 1));
    }
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(seen_));
    seen_ += lines.size();
    for (size_t i = 0; i < lines.size() && i < expected.size(); ++i) {
      const size_t end = lines[i].find(" <");
      if (expected[i].find('<') == std::string::npos && end != std::string::npos) {
        lines[i].resize(end);
      }
    }
    return lines;
  }

  Korud::Agent agent;

 private:
  size_t seen_ = 0;
};

// At once, and, on I2C, through the relay's queue.
TEST_P(ExampleBoards, PutTheDataSheetsBytesOnTheBus) {
  const auto& [example, relayed] = GetParam();
  std::string board = textOf(folder(example.folder) + "board.toml");
  if (relayed) {
    const size_t at = board.find("i2c");
    board.replace(board.find("\n[chip.i2c]") == std::string::npos ? board.find("\ni2c") + 1
                                                                  : board.find("[chip.i2c]") + 6,
                  3, "relay");
    ASSERT_NE(at, std::string::npos);
  }
  put(agent, example.folder, board);
  agent.wrapper = {KORUSIM_PROGRAM, "--state", agent.file("sim"),
                   folder(example.folder) + "chips.toml", "--"};
  agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  Korud::Client client = agent.startAndConnect();
  agent.waitForState(example.chip, "up");
  const auto waitUntilWritten = [&client, chip = std::string(example.chip)] {
    Korud::until([&] { return client.chip(chip)["in_flight"] == 0; });
  };
  waitUntilWritten();
  EXPECT_THAT(traffic(example.bringUp), ElementsAreArray(example.bringUp));

  // Nothing is read for it.
  client.ask(
      Korud::request("field.write", example.chip, example.reg, example.field, example.value));
  waitUntilWritten();
  EXPECT_THAT(traffic({example.written}), testing::ElementsAre(example.written));

  if (!example.readRegister) return;
  const json read = client.ask(Korud::request("hw.read", example.chip, example.readRegister));
  EXPECT_EQ(read["result"]["value"], example.read) << read;
  EXPECT_THAT(traffic(example.reading), ElementsAreArray(example.reading));
}

bool isI2c(const Example& example) { return example.bringUp.at(0).find('w') == 2; }

std::vector<std::tuple<Example, bool>> ways() {
  std::vector<std::tuple<Example, bool>> all;
  for (const Example& example : examples) {
    all.emplace_back(example, false);
    if (isI2c(example)) all.emplace_back(example, true);
  }
  return all;
}

std::string nameOf(const testing::TestParamInfo<std::tuple<Example, bool>>& info) {
  return std::string(std::get<0>(info.param).folder) + (std::get<1>(info.param) ? "_relay" : "");
}

INSTANTIATE_TEST_SUITE_P(OnTheWire, ExampleBoards, testing::ValuesIn(ways()), nameOf);

// In the words of the data sheet, below 0 as well.
TEST(ExampleThermometer, TellsDegreesByName) {
  Korud::Agent agent;
  const std::string example = std::string(KORU_EXAMPLE_BOARDS) + "/tmp102/";
  for (const char* file : {"registers.csv", "board.toml"})
    agent.write(file, textOf(example + file));
  const std::vector<std::string> simulator = {KORUSIM_PROGRAM, "--state", agent.file("sim"),
                                              example + "chips.toml"};
  agent.wrapper = simulator;
  agent.wrapper.push_back("--");
  agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  Korud::Client client = agent.startAndConnect();
  agent.waitForState("thermometer", "up");
  const std::pair<const char*, const char*> table[] = {{"0x1900", "25.0 °C"},
                                                       {"0x7ff0", "127.9375 °C"},
                                                       {"0xfff0", "-0.0625 °C"},
                                                       {"0xe700", "-25.0 °C"},
                                                       {"0xc900", "-55.0 °C"}};
  for (const auto& [raw, text] : table) {
    std::vector<std::string> command = simulator;
    command.insert(command.end(), {"--set", std::string("thermometer:0=") + raw});
    ASSERT_EQ(Testing::run({command}).exitCode, 0);
    EXPECT_EQ(
        client.result(Korud::request("field.read", "thermometer", "TEMPERATURE", "VALUE"))["text"],
        text);
  }
  EXPECT_EQ(client.result(Korud::request("field.read", "thermometer", "alert", "high"))["text"],
            "80.0 °C");
  json write = Korud::request("field.write", "thermometer", "alert", "low");
  write["text"] = "-3.5 °C";
  client.result(write);
  EXPECT_EQ(client.hardware("T_LOW", "thermometer"), 0xfc80u);
}

// Bytes side by side: each is written alone.
TEST(ExampleWindow, IsWrittenByteByByte) {
  Korud::Agent agent;
  const std::string folder = std::string(KORU_EXAMPLE_BOARDS) + "/uart16550/";
  agent.write("registers.csv", textOf(folder + "registers.csv"));
  agent.write("board.toml", textOf(folder + "board.toml"));
  agent.write("uart.window", std::string(8, '\xee'));
  Korud::Client client = agent.startAndConnect();
  agent.waitForState("uart", "up");
  EXPECT_EQ(textOf(agent.file("uart.window")), "\xee\xee\xee\x03\x02\xee\xee\x5a");
  client.ask(Korud::request("field.write", "uart", "line", "stop", 1));
  EXPECT_EQ(textOf(agent.file("uart.window")), "\xee\xee\xee\x07\x02\xee\xee\x5a");
  const json read = client.ask(Korud::request("hw.read", "uart", "SCR"));
  EXPECT_EQ(read["result"]["value"], 0x5a);
}

}  // namespace
