// Fields as chips have them, on simulated buses: the exact transactions that each of them takes,
// and those that nobody asked for.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "testing/Process.h"
#include "tests/agent/Chips.h"

namespace {

namespace fs = std::filesystem;
using Korud::Client;
using Korud::json;
using Korud::replaced;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// CTRL clears its bit 7 by itself; FLAGS is set from outside and cleared by ones; INTR forgets what
// it said; VALUE is 25.0 degrees, and COUNT what the chip counts.
constexpr const char* chips = R"(
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
constexpr const char* map =
    "number,name,type,writeable,width\n"
    "2,MODE,cfg,true,8\n"
    "0,CTRL,cfg,true,8\n"
    "1,LIMIT,cfg,true,8\n"
    "3,FLAGS,cfg,true,8\n"
    "4,INTR,sts,false,8\n"
    "5,VALUE,sts,false,16\n"
    "6,COUNT,cfg,true,8\n";
const std::string board = R"(
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
    agent.write("map.csv", map);
    agent.write("chips.toml", chips);
    agent.wrapper = {KORUSIM_PROGRAM, "--state", agent.file("sim"), agent.file("chips.toml"), "--"};
    agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  }
  Client start(const std::string& described = board) {
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
    std::vector<std::string> command = {KORUSIM_PROGRAM, "--state", agent.file("sim"),
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

TEST_F(ChipFields, AreShownAndTakenAsDataSheetsHaveThem) {
  Client client = start();
  EXPECT_THAT(traffic(), testing::UnorderedElementsAre("48w 02 00", "48w 00 11", "48w 01 fd",
                                                       "48w 03 02", "48w 06 0c"));
  const json temperature = client.result(field("field.read", "VALUE", "TEMPERATURE"));
  EXPECT_EQ(temperature, json::parse(R"({"value": 400, "live": true, "text": "25.0 °C",
                                         "number": 25.0})"));
  EXPECT_THAT(traffic(), ElementsAre("48w 05 48r 19 00"));
  simulator({"--set", "sensor:5=0xfff0"});
  // One read for all fields of a register.
  const json value = client.result(Korud::request("register.read", "chip0", "VALUE"));
  EXPECT_EQ(value["texts"], json::parse(R"({"TEMPERATURE": "-0.0625 °C"})"));
  EXPECT_EQ(value["fields"], json::parse(R"({"TEMPERATURE": 4095, "SIGN": 1})"));
  EXPECT_THAT(traffic(), ElementsAre("48w 05 48r ff f0"));
  // Configured fields are answered from what was written.
  EXPECT_EQ(client.result(field("field.read", "ctrl", "gain"))["name"], "x2");
  EXPECT_EQ(client.result(field("field.read", "ctrl", "limit"))["text"], "-1.5 °C");
  EXPECT_THAT(traffic(), IsEmpty());
  json live = field("field.read", "ctrl", "limit");
  live["live"] = true;
  EXPECT_EQ(client.result(live)["number"], -1.5);
  EXPECT_THAT(traffic(), ElementsAre("48w 01 48r fd"));

  struct Row {
    const char* name;
    json key;
    const char* written;  // or what is wrong
  };
  const Row table[] = {
      {"gain", {{"text", "x8"}}, "48w 00 31"},
      {"gain", {{"value", "x1"}}, "48w 00 01"},
      {"gain", {{"value", 2}}, "48w 00 21"},
      {"gain", {{"text", "x3"}}, "x8"},
      {"gain", {{"value", "x3"}}, "'x3'"},
      {"gain", {{"value", 1}, {"text", "x2"}}, "either"},
      {"gain", json::object(), "missing"},
      {"gain", {{"text", 1}}, "string"},
      {"limit", {{"text", "20.5"}}, "48w 01 29"},
      {"limit", {{"text", "-64 °C"}}, "48w 01 80"},
      {"limit", {{"text", "64 °C"}}, "63.5"},
      {"limit", {{"text", "0.3"}}, "0.5"},
      {"limit", {{"value", 256}}, "8 bits"},
  };
  for (const Row& row : table) {
    json request = field("field.write", "ctrl", row.name);
    request.update(row.key);
    SCOPED_TRACE(request.dump());
    const json answer = client.ask(request);
    if (std::string_view(row.written).starts_with("48w")) {
      EXPECT_TRUE(answer["ok"]) << answer;
      EXPECT_THAT(traffic(), ElementsAre(row.written));
    } else {
      EXPECT_THAT(answer["error"]["message"], HasSubstr(row.written));
      EXPECT_THAT(traffic(), IsEmpty());
    }
  }
}

TEST_F(ChipFields, ThatAreSentOnceAreNeverHeld) {
  Client client = start();
  Client events = listener(agent);
  traffic();
  client.write("ctrl", "reset", 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 91"));
  const json told = event(events, "field");
  EXPECT_EQ(told["pulse"], true);
  EXPECT_EQ(told["field"], "reset");
  EXPECT_EQ(client.read("ctrl", "reset"), 0u);
  client.write("ctrl", "reset", 0);  // nothing to send
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 10"));
  client.result(field("field.reset", "ctrl", "reset"));
  EXPECT_THAT(traffic(), IsEmpty());

  // Cleared by a 1 that goes out once, and read live.
  simulator({"--set", "sensor:3=0x52"});
  EXPECT_EQ(client.result(field("field.read", "irq", "flags"))["value"], 5);
  client.write("irq", "flags", 4);
  client.write("irq", "mask", 3);
  EXPECT_THAT(traffic(), ElementsAre("48w 03 48r 52", "48w 03 42", "48w 03 03"));

  client.write("ctrl", "reset", 1);
  agent.stop(SIGKILL);
  traffic();
  client = start();
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 11"));

  // With other fields of its register, and at a chip that does not answer.
  client.result(together({{{"register", "ctrl"}, {"field", "gain"}, {"value", 0}},
                          {{"register", "ctrl"}, {"field", "reset"}, {"value", 1}}}));
  EXPECT_THAT(traffic(), ElementsAre("48w 00 81"));
  simulator({"--unplug", "sensor"});
  const json failed = client.ask(Korud::request("field.write", "chip0", "ctrl", "reset", 1));
  EXPECT_THAT(failed["error"]["message"], HasSubstr("nothing acknowledges"));
  simulator({"--plug", "sensor"});
  agent.waitForState("chip0", "up");
  EXPECT_THAT(traffic(), Not(Contains("48w 00 81")));
}

// The tables of an agent that knew no pulses may hold one.
TEST_F(ChipFields, ThatBecomeAPulseAreLetGo) {
  std::string before = replaced(board, ", kind = \"pulse\"", "");
  Client client = start(before);
  client.write("ctrl", "reset", 1);
  agent.stop(SIGKILL);
  traffic();
  client = start();
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 10"));
}

TEST_F(ChipFields, AreWrittenTogetherOrNotAtAll) {
  Client client = start();
  traffic();
  const auto item = [](const char* name, const json& value) {
    return json{{"register", "ctrl"}, {"field", name}, {"value", value}};
  };
  const json plan = {item("limit", 4), item("en", 0), item("gain", 1), item("gain", "x8"),
                     item("mode", 7)};
  json dry = together(plan);
  dry["dry_run"] = true;
  const json expected = client.result(dry);
  EXPECT_THAT(traffic(), IsEmpty());
  EXPECT_EQ(expected["registers"], json::parse(R"([{"name": "MODE", "from": 0, "to": 7},
                            {"name": "CTRL", "from": 17, "to": 48},
                            {"name": "LIMIT", "from": 253, "to": 4}])"));
  EXPECT_EQ(expected["fields"][2],
            json::parse(R"({"register": "ctrl", "field": "gain", "value": 3, "was": 1,
                            "text": "x8", "name": "x8", "was_text": "x2"})"));
  EXPECT_EQ(client.result(together(plan)), expected);
  EXPECT_THAT(traffic(), ElementsAre("48w 02 07", "48w 00 30", "48w 01 04"));
  EXPECT_EQ(client.read("ctrl", "gain"), 3u);
  client.result(together(plan));  // It holds already.
  client.result(together({item("limit", 5), item("en", 1), item("mode", 1)}, "given"));
  EXPECT_THAT(traffic(), ElementsAre("48w 01 05", "48w 00 31", "48w 02 01"));
  // A whole logical register, which lies in three.
  json whole = Korud::request("register.write", "chip0", "ctrl");
  whole["value"] = uint64_t{0x206000020};
  client.result(whole);
  EXPECT_THAT(traffic(), ElementsAre("48w 02 02", "48w 00 20", "48w 01 06"));

  // One that cannot be, and none is written.
  const std::pair<json, const char*> refusals[] = {
      {together({item("en", 0), item("gain", 4)}), "2 bits"},
      {together({item("en", 0), item("gone", 4)}), "no field 'gone'"},
      {together({item("en", 0), item("gain", "x7")}), "x7"},
      {together({item("en", 0), json(7)}), "object"},
      {together(json::array()), "list"},
      {together(json::object()), "list"},
      {together({item("en", 0)}, "any"), "order"},
  };
  for (const auto& [request, why] : refusals) {
    SCOPED_TRACE(request.dump());
    EXPECT_THAT(client.ask(request)["error"]["message"], HasSubstr(why));
  }
  fs::create_directory(agent.file("korud/chip0.together"));
  EXPECT_EQ(client.ask(together({item("en", 1), item("gain", 0)}))["ok"], false);
  EXPECT_THAT(traffic(), IsEmpty());
  EXPECT_EQ(client.read("ctrl", "en"), 0u);
  fs::remove(agent.file("korud/chip0.together"));
  client.result(together({item("en", 1), item("gain", 0)}));
  EXPECT_THAT(traffic(), ElementsAre("48w 00 01"));
}

TEST_F(ChipFields, AreReadNoMoreOftenThanAsked) {
  Client client = start();
  traffic();
  for (const char* op : {"field.list", "register.list", "hw.list", "chip.registers", "chip.show"}) {
    const json answer = client.result({{"op", op}, {"chip", "chip0"}});
    EXPECT_FALSE(answer.empty()) << op;
  }
  EXPECT_THAT(traffic(), IsEmpty());
  const auto marked = [](const json& list) {
    std::vector<std::string> names;
    for (const json& entry : list) {
      if (entry.value("read_changes", false)) names.push_back(entry.value("name", "CAUSE"));
    }
    return names;
  };
  EXPECT_THAT(marked(client.result({{"op", "hw.list"}, {"chip", "chip0"}})), ElementsAre("INTR"));
  EXPECT_THAT(marked(client.result({{"op", "field.list"}, {"chip", "chip0"}})),
              ElementsAre("CAUSE"));
  simulator({"--set", "sensor:4=0x03"});
  EXPECT_EQ(client.result(field("field.read", "INTR", "CAUSE"))["value"], 3);
  EXPECT_EQ(client.result(field("field.read", "INTR", "CAUSE"))["value"], 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 04 48r 03", "48w 04 48r 00"));
}

// In place of the keys of the first chip.
std::string withKeys(const std::string& keys) {
  return replaced(board, "read_changes = [\"INTR\"]", keys);
}

TEST_F(ChipFields, AreWrittenInTheOrderThatTheChipAsksFor) {
  const std::string ordered =
      replaced(withKeys("first = [\"LIMIT\"]\nlast = [\"CTRL\", \"MODE\"]"),
               "[chip.physical.LIMIT]", "[chip.physical.LIMIT]\nsettle = \"300ms\"");
  for (const char* transport : {"i2c", "relay"}) {
    SCOPED_TRACE(transport);
    simulator({"--reset"});
    const auto begun = std::chrono::steady_clock::now();
    Client client = start(replaced(ordered, "i2c", transport));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(300));
    const auto inOrder =
        ElementsAre("48w 01 fd", testing::AnyOf("48w 03 02", "48w 06 0c"),
                    testing::AnyOf("48w 03 02", "48w 06 0c"), "48w 00 11", "48w 02 00");
    EXPECT_THAT(traffic(), inOrder);
    // Another restart, when they differ since the status says so.
    client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}});
    EXPECT_THAT(traffic(), inOrder);
    // What follows such a register waits, and nobody else does.
    client.write("ctrl", "limit", 9);
    client.write("ctrl", "en", 0);
    EXPECT_GE(client.chip("chip0")["in_flight"], 1);
    agent.stop(SIGKILL);
    EXPECT_THAT(traffic(), testing::AnyOf(IsEmpty(), ElementsAre("48w 01 09")));
    client = start(replaced(ordered, "i2c", transport));
    EXPECT_THAT(traffic(), Contains("48w 00 10"));
    agent.stop(SIGTERM);
    fs::remove_all(agent.file("KoruRegFile"));
    fs::remove_all(agent.file("korud"));
  }
  // Registers that differ after a restart, but need no rewriting: the values of the file have won.
  start(ordered);
  agent.stop(SIGTERM);
  traffic();
  start(replaced(
      replaced(replaced(ordered, "name = \"chip0\"", "name = \"chip0\"\non_start = \"defaults\""),
               "-1.5", "2.5"),
      "LOW\", value = 12", "LOW\", value = 13"));
  EXPECT_THAT(traffic(), ElementsAre("48w 01 05", "48w 06 0d"));
}

TEST_F(ChipFields, AreRewrittenWhenAsked) {
  Client client = start();
  traffic();
  simulator({"--set", "sensor:0=0"});
  simulator({"--set", "sensor:1=0"});
  json some = {{"op", "chip.rewrite"}, {"chip", "chip0"}, {"registers", {"LIMIT"}}};
  EXPECT_EQ(client.result(some)["written"], 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 01 fd"));
  EXPECT_EQ(client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}})["written"], 5);
  EXPECT_THAT(traffic(), testing::SizeIs(5));
  for (const char* reg : {"INTR", "GONE"}) {
    some["registers"] = {"LIMIT", reg};
    EXPECT_THAT(client.ask(some)["error"]["message"], HasSubstr(reg));
  }
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "limit", 1);
  client.write("irq", "mask", 1);
  traffic();
  client.result({{"op", "chip.defaults"}, {"chip", "chip0"}});
  EXPECT_THAT(traffic(), ElementsAre("48w 01 fd", "48w 03 02"));
  simulator({"--unplug", "sensor"});
  EXPECT_THAT(client.ask({{"op", "chip.rewrite"}, {"chip", "chip0"}})["error"]["message"],
              HasSubstr("could not be written"));
}

TEST_F(ChipFields, ThatDriftAreFoundAndWrittenAgain) {
  Client client = start(withKeys("verify_every = \"100ms\""));
  Client events = listener(agent);
  traffic();
  simulator({"--set", "sensor:6=0xac"});  // its volatile part
  simulator({"--set", "sensor:3=0xf2"});  // flags
  simulator({"--set", "sensor:1=0x55"});
  const json told = event(events, "drift");
  EXPECT_EQ(told["register"], "LIMIT");
  EXPECT_EQ(told["found"], 0x55);
  Korud::until([&] { return client.hardware("LIMIT") == 0xfd; });
  EXPECT_EQ(client.chip("chip0")["drifted"], 1);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
  std::vector<std::string> seen;
  Korud::until([&] {
    for (std::string& line : traffic()) seen.push_back(std::move(line));
    return seen.size() > 30;
  });
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "48w 01 fd"), 1);
  EXPECT_THAT(seen, Not(Contains(testing::StartsWith("48w 04"))));  // nobody asked
  EXPECT_THAT(seen, Contains("48w 06 48r ac"));
}

TEST_F(ChipFields, BetrayAChipThatWasReset) {
  Client client =
      start(withKeys("canary = { register = \"CTRL\", reset = 0x00, every = \"100ms\" }"));
  Client events = listener(agent);
  client.write("ctrl", "limit", 9);
  traffic();
  simulator({"--reset"});
  EXPECT_THAT(event(events, "reset")["reason"], HasSubstr("CTRL"));
  agent.waitForState("chip0", "up");
  Korud::until([&] { return client.hardware("LIMIT") == 9; });
  EXPECT_EQ(client.chip("chip0")["resets"], 1);
  // Where it may hold that value nothing follows from it.
  client.write("ctrl", "en", 0);
  client.write("ctrl", "gain", 0);
  traffic();
  std::vector<std::string> seen;
  Korud::until([&] {
    for (std::string& line : traffic()) seen.push_back(std::move(line));
    return seen.size() > 3;
  });
  EXPECT_THAT(seen, testing::Each("48w 00 48r 00"));
}

// A device's file that is another one by now.
TEST(ChipNode, IsUsedAndWrittenWhenItComesBack) {
  Korud::Agent agent;
  fs::create_directory(agent.file("bar"));
  const auto plug = [&] {
    std::ofstream(agent.file("bar.new")) << std::string(64, '\0');
    fs::rename(agent.file("bar.new"), agent.file("bar/window"));
  };
  agent.write("board.toml", replaced(Korud::chip0, "memory = \"window0\"", "pci = \"bar/window\""));
  Client client = agent.startAndConnect();
  agent.waitForState("chip0", "failed");
  plug();
  agent.waitForState("chip0", "up");
  client.write("ctrl", "mode", 9);
  plug();
  agent.waitFor("chip0",
                [](const json& chip) { return chip["state"] == "up" && chip["rewrites"] == 2; });
  std::ifstream window(agent.file("bar/window"), std::ios::binary);
  EXPECT_EQ(window.get(), 0x90);
}

TEST(ChipInMemory, IsWrittenAtEveryStart) {
  Korud::Agent agent(replaced(Korud::chip0, "\"window0\"", "true"));
  agent.startAndConnect().write("ctrl", "mode", 9);
  agent.stop(SIGTERM);
  Client client = agent.startAndConnect();
  EXPECT_EQ(client.hardware("CTRL"), 0x90u);
  EXPECT_EQ(client.chip("chip0")["state"], "up");
}

}  // namespace
