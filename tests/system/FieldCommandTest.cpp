// The commands about fields that stand for something, against a real agent.

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <tuple>

#include "tests/agent/Korud.h"
#include "tests/system/Korureg.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* maps =
    "number,name,type,writeable,width\n"
    "0,CTRL,cfg,true,16\n1,TEMP,sts,false,16\n2,FLAGS,sts,false,8\n3,LIMIT,cfg,true,16\n4,odd[7:4],"
    "cfg,true,8\n";
constexpr const char* board = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = "window0"
read_changes = ["FLAGS"]
[chip.status.TEMP]
VALUE = { bits = "15:4", signed = true, scale = 0.0625, unit = "°C" }
[chip.status.FLAGS]
ready = { bits = 0 }
[chip.physical.CTRL]
RST = { bits = 15, kind = "pulse" }
PG = { bits = "12:11", values = { x1 = 0, x2 = 1, x4 = 2, x8 = 3 }, description = "Gain" }
MODE = { bits = "2:0" }
[chip.physical.LIMIT]
HIGH = { bits = "15:4", signed = true, scale = 0.0625, unit = "°C" }
[chip.logical.config]
mode = { to = "CTRL.MODE", value = 5 }
gain = { to = "CTRL.PG", bits = "4:3", value = "x2" }
reset = { to = "CTRL.RST", bits = 8 }
[chip.logical.limits]
high = { to = "LIMIT.HIGH", value = "80" }
)";

class FieldCommand : public testing::Test {
 protected:
  FieldCommand() : agent(board) {
    agent.write("map.csv", maps);
    agent.start();
    temperature(0x1900);  // 25
  }
  // What the sensor of the window holds.
  void temperature(uint16_t value) const {
    std::fstream window(agent.file("window0"), std::ios::in | std::ios::out | std::ios::binary);
    window.seekp(4);
    window.write(reinterpret_cast<const char*>(&value), sizeof value);
  }
  Testing::Command command(const std::string& words) const {
    return Korureg::command(words, {"KORU_STATE_DIR=" + agent.file("")});
  }
  Outcome run(const std::string& words) const { return Testing::run(command(words)); }
  std::string out(const std::string& words) const {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << words << outcome.err;
    return outcome.out;
  }
  Korud::Agent agent;
};

TEST_F(FieldCommand, ShowsWhatValuesStandFor) {
  const std::pair<const char*, const char*> table[] = {
      {"field list chip0",
       "FIELD           BITS  KIND    WANTED   WRITTEN  DESCRIPTION\n"
       "config.gain    [4:3]  stored  x2       x2       Gain\n"
       "config.mode    [2:0]  stored  0x5      0x5\n"
       "config.reset     [8]  pulse   0x0      0x0\n"
       "limits.high   [15:4]  stored  80.0 °C  80.0 °C\n"
       "TEMP.VALUE    [15:4]  status  -        -\n"
       "FLAGS.ready      [0]  status  -        -\n"},
      {"field read chip0 config.gain", "x2\n"},
      {"field read chip0 config gain --raw", "0x1\n"},
      {"field read chip0 limits.high", "80.0 °C\n"},
      {"field read chip0 limits.high --value", "80.0\n"},
      {"field read chip0 TEMP.VALUE", "25.0 °C\n"},
      {"field read chip0 TEMP.VALUE --raw", "0x190\n"},
      {"field read chip0",
       "FIELD           RAW  VALUE\n"
       "config.gain     0x1  x2\n"
       "config.mode     0x5  0x5\n"
       "config.reset    0x0  0x0\n"
       "limits.high   0x500  80.0 °C\n"
       "TEMP.VALUE    0x190  25.0 °C\n"
       "FLAGS.ready       -  left out: reading it changes the chip\n"},
      {"field read chip0 TEMP --raw", "FIELD         RAW  VALUE\nTEMP.VALUE  0x190  0x190\n"},
      {"register list chip0",
       "REGISTER  KIND     FIELDS   VALUE\n"
       "config    logical       3     0xd\n"
       "limits    logical       1  0x5000\n"
       "TEMP      status        1       -\n"
       "FLAGS     status        1       -\n"},
      {"register read chip0 config",
       "0xd\n"
       "FIELD  HEX  DECIMAL  VALUE\n"
       "gain   0x1        1  x2\n"
       "mode   0x5        5\n"
       "reset  0x0        0\n"},
      {"register read chip0 config --value", "0xd\n"},
      {"register read chip0",
       "REGISTER   VALUE  FIELDS\n"
       "config       0xd  gain=x2  mode=0x5  reset=0x0\n"
       "limits    0x5000  high=80.0 °C\n"
       "TEMP      0x1900  VALUE=25.0 °C\n"
       "FLAGS          -  left out: reading it changes the chip\n"},
      {"hw read chip0 CTRL", "0x805\n"},
      {"hw read chip0 CTRL[12:11]", "0x1\n"},
      {"hw read chip0 odd[7:4]", "0x0\n"},
      {"hw read chip0 odd[7:4][0]", "0x0\n"},
      {"hw read chip0",
       "REGISTER  PLACE     HEX  VALUE\n"
       "CTRL       0x00  0x0805  2053\n"
       "TEMP       0x04  0x1900  6400\n"
       "FLAGS      0x08       -  left out: reading it changes the chip (--all)\n"
       "LIMIT      0x0c  0x5000  20480\n"
       "odd[7:4]   0x10    0x00  0\n"},
      {"hw dump chip0 --match [CF]*",
       "REGISTER          PLACE     HEX  VALUE\n"
       "CTRL               0x00  0x0805  2053\n"
       "  config.reset     [15]     0x0  0\n"
       "  config.gain   [12:11]     0x1  x2\n"
       "  config.mode     [2:0]     0x5  5\n"
       "FLAGS              0x08       -  left out: reading it changes the chip (--all)\n"},
      {"hw read chip0 TEMP --bits",
       " 15  14  13  12  11  10   9   8   7   6   5   4   3   2   1   0\n"
       "+-----------------------------------------------+---------------+\n"
       "|                     VALUE                     |               |\n"
       "+-----------------------------------------------+---------------+\n"
       "| 0   0   0   1   1   0   0   1   0   0   0   0 | 0   0   0   0 |\n"
       "+-----------------------------------------------+---------------+\n"
       "REGISTER       PLACE     HEX  VALUE\n"
       "TEMP                  0x1900  6400\n"
       "  TEMP.VALUE  [15:4]   0x190  25.0 °C\n"},
  };
  for (const auto& [words, expected] : table) EXPECT_THAT(out(words), expected) << words;
  EXPECT_EQ(json::parse(out("--json hw dump chip0 --all"))[2]["value"], 0);
  EXPECT_EQ(json::parse(out("--json field read chip0 --all"))[5]["value"], 0);
  EXPECT_EQ(json::parse(out("--json field read chip0 TEMP.VALUE"))["number"], 25.0);
}

TEST_F(FieldCommand, WritesWhatValuesStandFor) {
  out("field write chip0 config.gain=x8 limits.high=-0.5");
  EXPECT_EQ(out("hw read chip0 CTRL"), "0x1805\n");
  EXPECT_EQ(out("hw read chip0 LIMIT"), "0xff80\n");
  out("field write chip0 limits high -1");
  EXPECT_EQ(out("hw read chip0 LIMIT"), "0xff00\n");
  out("field write chip0 limits.high=0x10");
  EXPECT_EQ(out("hw read chip0 LIMIT"), "0x100\n");
  out("field write chip0 limits.high=16 --raw");
  EXPECT_EQ(out("hw read chip0 LIMIT"), "0x100\n");
  out("field reset chip0 limits.high");
  EXPECT_EQ(out("chip defaults chip0"),
            "CHIP   WHAT         FROM    TO\n"
            "chip0  config.gain  x8      x2\n"
            "chip0  CTRL         0x1805  0x805\n");
  EXPECT_EQ(out("chip defaults chip0"), "nothing changes\n");
  const std::tuple<const char*, int, const char*> refusals[] = {
      {"field read chip1 config.gain", 2, "there is no chip 'chip1'; did you mean 'chip0'?"},
      {"field read chip0 confg.gain", 2,
       "chip 'chip0' has no logical register 'confg'; did you mean 'config'?"},
      {"field read chip0 config.gian", 2,
       "register 'config' of chip 'chip0' has no field 'gian'; did you mean 'gain'?"},
      {"field watch chip0 config.gian", 2, "there is no field config.gian; did you mean 'gain'?"},
      {"hw read chip0 CRTL", 2,
       "there is no register 'CRTL' in the map of chip 'chip0'; did you mean 'CTRL'?"},
      {"hw read chip0 odd[7:4][8]", 2, "odd[7:4][8]: the register has 8 bits only"},
      {"hw read chip0 CTRL[16]", 2, "CTRL[16]: the register has 16 bits only"},
      {"hw read chip0 CTRL[1:2]", 2, "'CTRL[1:2]' names its bits upside down, write [2:1]"},
      {"chip rewrite chip0 CTRL TMEP", 2,
       "there is no register 'TMEP' in the map of chip 'chip0'; did you mean 'TEMP'?"},
  };
  for (const auto& [words, exitCode, why] : refusals) {
    Korureg::expectFailure(run(words), exitCode, why);
  }
}

TEST_F(FieldCommand, AppliesAPlanAsAWhole) {
  const std::string plan = agent.file("plan");
  const auto apply = [&](const char* text, const char* option) {
    std::ofstream(plan) << text;
    return run("apply " + plan + option);
  };
  const std::string changes =
      "CHIP   WHAT         FROM     TO\n"
      "chip0  config.gain  x2       x4\n"
      "chip0  limits.high  80.0 °C  -2.0 °C\n"
      "chip0  CTRL         0x805    0x1005\n"
      "chip0  LIMIT        0x5000   0xfe00\n";
  constexpr const char* good = "chip0 config.gain = x4\nchip0 limits.high = -2 °C # cold\n";
  const Outcome shown = apply(good, "");
  EXPECT_EQ(shown.out, changes);
  Korureg::expectFailure(shown, 1, "nothing was written; --yes writes it");
  EXPECT_EQ(out("hw read chip0 CTRL"), "0x805\n");
  const Outcome wrong = apply("chip0 config.gain = x4\n\nchip0 limits.high = hot\n", " --yes");
  EXPECT_THAT(wrong.err, HasSubstr(plan + ":3: "));
  EXPECT_THAT(wrong.err, HasSubstr("hot"));
  EXPECT_EQ(wrong.exitCode, 2);
  EXPECT_EQ(out("hw read chip0 CTRL"), "0x805\n");
  EXPECT_EQ(apply(good, " --yes").out, changes);
  EXPECT_EQ(out("hw read chip0 CTRL"), "0x1005\n");
  const Outcome again = apply(good, "");
  EXPECT_EQ(again.out, "nothing changes\n");
  EXPECT_EQ(again.exitCode, 0);
  const json done = json::parse(apply("chip0 config.gain=x1\n", " --yes --json").out);
  EXPECT_EQ(done[0]["written"], true);
  EXPECT_EQ(done[0]["fields"][0]["value"], 0);
}

TEST_F(FieldCommand, VerifiesAndFixes) {
  out("hw write chip0 CTRL 0x1005 --force");
  const json found = json::parse(run("verify chip0 --json").out);
  EXPECT_EQ(found[0]["verdict"], "differs");
  EXPECT_EQ(found[0]["written"], 0x805);
  EXPECT_EQ(found[0]["found"], 0x1005);
  EXPECT_EQ(out("verify chip0 --fix"),
            "REGISTER  VERDICT  DETAIL\n"
            "CTRL      fixed    0x1005 was read, 0x0805 once it was written again\n"
            "LIMIT     same     0x5000\n");
  EXPECT_EQ(out("hw read chip0 CTRL"), "0x805\n");
}

TEST_F(FieldCommand, WatchesFieldsAndStatus) {
  Testing::Process watch(command("field watch chip0 config.gain TEMP.VALUE --every 0.01"));
  EXPECT_EQ(Korureg::nextLine(watch), "config.gain  x2");
  EXPECT_EQ(Korureg::nextLine(watch), "TEMP.VALUE  25.0 °C");
  temperature(0x0000);
  EXPECT_EQ(Korureg::nextLine(watch), "TEMP.VALUE  25.0 °C -> 0.0 °C");
  out("field write chip0 config.mode=1");
  out("field write chip0 config.gain=x4");
  EXPECT_EQ(Korureg::nextLine(watch), "config.gain  x2 -> x4");
  Testing::Process pulses(command("field watch chip0 config.reset"));
  EXPECT_EQ(Korureg::nextLine(pulses), "config.reset  0x0");
  out("field write chip0 config.reset=1");
  EXPECT_EQ(Korureg::nextLine(pulses), "config.reset  0x1 was sent");
  agent.signal(SIGSTOP);
  Korureg::expectFailure(
      run("chip list --timeout 0.2"), 1,
      "the agent at " + agent.file("/korud.sock") + " does not answer within 0.2 s");
  agent.signal(SIGCONT);
  watch.signal(SIGINT);
  watch.wait();
  Testing::Process unread(command("field watch chip0 config.gain"));
  unread.line();
  unread.stopReading();
  Korureg::expectFailure(unread.wait(), 1, "nobody reads standard output");
  Testing::Process left(command("field watch chip0 --json"));
  EXPECT_EQ(json::parse(left.line())["value"], 2);
  agent.stop(SIGTERM);
  Korureg::expectFailure(left.wait(), 1, "the agent has hung up");
}

}  // namespace
