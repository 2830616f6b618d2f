#pragma once

// A chip with all kinds of fields on a simulated bus, and an agent that keeps it.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "testing/Process.h"
#include "tests/agent/Chips.h"

namespace Korud {

// Where the simulator is; the test program says so.
extern const char* const korusimProgram;

// CTRL clears its bit 7 by itself; FLAGS is set from outside and cleared by ones; INTR forgets what
// it said; VALUE is 25.0 degrees, and COUNT what the chip counts.
inline constexpr const char* fieldsChips = R"(
[[chip]]
name = "sensor"
i2c = "/dev/i2c-1:0x48"
registers = [
  { at = 0, clears = 0x80 },
  { at = 1 },
  { at = 2 },
  { at = 3, write_1_to_clear = 0xf0 },
  { at = 4, read_to_clear = 0xff, access = "read-only" },
  { at = 5, reset = 0x1900, bits = 16, access = "read-only" },
  { at = 6, reset = 0x0c },
]
)";
inline constexpr const char* fieldsMap =
    "number,name,type,writeable,width\n"
    "2,MODE,cfg,true,8\n"
    "0,CTRL,cfg,true,8\n"
    "1,LIMIT,cfg,true,8\n"
    "3,FLAGS,cfg,true,8\n"
    "4,INTR,sts,false,8\n"
    "5,VALUE,sts,false,16\n"
    "6,COUNT,cfg,true,8\n";
inline const std::string fieldsBoard = R"(
[[chip]]
name = "chip0"
register_map = "map.csv"
i2c = "/dev/i2c-1:0x48,high-first"
read_changes = ["INTR"]
[chip.physical.CTRL]
RST = { bits = 7, kind = "pulse" }
GAIN = { bits = "5:4", values = { x1 = 0, x2 = 1, x8 = 3 } }
EN = { bits = 0 }
[chip.physical.LIMIT]
LIMIT = { bits = "7:0", signed = true, scale = 0.5, unit = "°C" }
[chip.physical.MODE]
MODE = { bits = "3:0" }
[chip.physical.FLAGS]
FLAGS = { bits = "7:4", kind = "write1clear" }
MASK = { bits = "3:0" }
[chip.physical.COUNT]
LOW = { bits = "3:0" }
HIGH = { bits = "7:4", kind = "volatile" }
[chip.status.VALUE]
TEMPERATURE = { bits = "15:4", signed = true, scale = 0.0625, unit = "°C" }
SIGN = { bits = 15 }
[chip.status.INTR]
CAUSE = { bits = "3:0" }
[chip.logical.ctrl]
reset = { to = "CTRL.RST", bits = 15 }
gain = { to = "CTRL.GAIN", value = "x2" }
en = { to = "CTRL.EN", value = 1 }
limit = { to = "LIMIT.LIMIT", bits = "31:24", value = "-1.5 °C" }
mode = { to = "MODE.MODE", bits = "35:32" }
[chip.logical.irq]
flags = { to = "FLAGS.FLAGS" }
mask = { to = "FLAGS.MASK", value = 2 }
[chip.logical.count]
low = { to = "COUNT.LOW", value = 12 }
high = { to = "COUNT.HIGH" }
)";

class ChipFields : public testing::Test {
 protected:
  ChipFields() {
    agent.write("map.csv", fieldsMap);
    agent.write("chips.toml", fieldsChips);
    agent.wrapper = {korusimProgram, "--state", agent.file("sim"), agent.file("chips.toml"), "--"};
    agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  }
  Client start(const std::string& described = fieldsBoard) {
    agent.write("board.toml", described);
    agent.start();
    Client client = agent.client();
    Korud::until([&] {
      const json chip = client.chip("chip0");
      return chip["state"] == "up" && chip["in_flight"] == 0;
    });
    return client;
  }
  void simulator(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {korusimProgram, "--state", agent.file("sim"),
                                        agent.file("chips.toml")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(Testing::run({command}).exitCode, 0);
  }
  // What went over the bus since the last call.
  std::vector<std::string> traffic() {
    std::vector<std::string> lines;
    for (const std::string& line : Korud::linesOf(std::ifstream(agent.file("sim/ledger")))) {
      if (line.starts_with("/dev/")) lines.push_back(line.substr(line.find(' ') + 1));
    }
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(seen_));
    seen_ += lines.size();
    return lines;
  }
  static json field(const char* op, const char* reg, const char* name) {
    return Korud::request(op, "chip0", reg, name);
  }
  static json together(json fields, const char* order = "map") {
    return {{"op", "fields.write"}, {"chip", "chip0"}, {"fields", fields}, {"order", order}};
  }
  // An event of that kind, about this chip.
  static json event(Client& listener, const std::string& kind) {
    while (true) {
      json found = json::parse(listener.line());
      if (found.value("event", "") == kind) return found;
    }
  }
  static Client listener(const Korud::Agent& agent) {
    Client client = agent.client();
    client.ask(json({{"op", "subscribe"}, {"chip", "chip0"}}));
    return client;
  }

  Korud::Agent agent;

 private:
  size_t seen_ = 0;
};

}  // namespace Korud
