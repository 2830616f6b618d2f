// korureg top, in the terminals of tmux.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tests/agent/Korud.h"
#include "tests/system/FakeAgent.h"
#include "tests/system/Korureg.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// What is said of a field comes from a file that anybody may have written.
const std::string board = [] {
  std::string text = Korud::chip0;
  const std::string bits = "mode = { bits = \"7:4\"";
  return text.insert(text.find(bits) + bits.size(), ", description = \"a\\u202eb\"");
}();

class Top : public testing::Test {
 protected:
  void SetUp() override {
    if (Testing::run({{"/usr/bin/env", "sh", "-c", "command -v tmux"}}).exitCode != 0) {
      GTEST_SKIP() << "there is no tmux";
    }
    agent.start();
    // (It would go with its last terminal, in the middle of the next one's coming.)
    tmux({"start-server", ";", "set-option", "-g", "exit-empty", "off"});
  }
  void TearDown() override { tmux({"kill-server"}); }

  std::string tmux(const std::vector<std::string>& words) const {
    std::vector<std::string> argv = {"/usr/bin/env",     "tmux", "-u",       "-S",
                                     agent.file("tmux"), "-f",   "/dev/null"};
    argv.insert(argv.end(), words.begin(), words.end());
    return Testing::run({argv, {"KORU_STATE_DIR=" + agent.file(""), "TERM=xterm-256color"}}).out;
  }
  // A terminal of that size, in which it runs; what it ends with is left in "ended".
  void open(int columns, int rows, const std::string& arguments = "") const {
    const std::string line = std::string(Korureg::program) + " top " + arguments +
                             "; echo ended with $? >" + agent.file("ended");
    tmux({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows), line});
  }
  std::string screen() const { return tmux({"capture-pane", "-p", "-e"}); }
  void press(const std::vector<std::string>& keys) const {
    for (const std::string& key : keys) tmux({"send-keys", key});
  }
  template <class Matcher>
  void await(const Matcher& matcher) const {
    std::string last;
    try {
      Korud::until([&] { return testing::Matches(matcher)(last = screen()); });
    } catch (const std::exception&) {
      EXPECT_THAT(last, matcher);
    }
  }
  void await(const char* text) const { await(HasSubstr(text)); }
  // To the line of ctrl.mode.
  void chooseMode() const {
    await("chip0");
    press({"Enter"});
    await("ctrl.mode");
    press({"/", "m", "o", "d", "e", "Enter", "End"});
    await(AllOf(HasSubstr("/mode"), Not(HasSubstr("WIDE"))));
  }

  Korud::Agent agent{board};
};

TEST_F(Top, WritesAFieldOnceThatIsConfirmed) {
  open(80, 24);
  chooseMode();
  EXPECT_THAT(screen(), Not(HasSubstr("\u202e")));  // which would turn what follows
  Korud::Client client = agent.client();
  const auto ask = [&](const char* value) {
    press({"e", value, "Enter"});
    await("CTRL 0x30 -> 0x90 (y/n)");
  };
  ask("9");
  press({"n"});
  await("nothing was done");
  EXPECT_EQ(client.hardware("CTRL"), 0x30);
  ask("9");
  press({"y"});
  await("0x00000090");
  EXPECT_EQ(client.hardware("CTRL"), 0x90);
  press({"e", "1", "6", "Enter"});
  await("field ctrl.mode: 16 is more than 0xf");
  // Out of the filter, of the chip, and of the program.
  press({"q", "q", "q"});
  Korud::until([&] { return std::ifstream(agent.file("ended")).peek() == 'e'; });
  EXPECT_EQ(Korud::linesOf(std::ifstream(agent.file("ended"))).at(0), "ended with 0");
}

TEST_F(Top, ShowsWhatOthersDoUnlessItIsFrozen) {
  open(200, 50, "chip0");
  await("ctrl.mode");
  Korud::Client client = agent.client();
  client.write("ctrl", "mode", 5);
  await("0x00000050");
  press({"Space"});
  await("frozen");
  client.write("ctrl", "mode", 6);
  client.write("ctrl", "mode", 7);
  press({"Home", "End"});
  EXPECT_THAT(screen(), HasSubstr("0x00000050"));
  press({"Space"});
  await(AllOf(HasSubstr("0x00000070"), Not(HasSubstr("frozen"))));
  // Spoiled behind the agent's back.
  std::ofstream(agent.file("window0"), std::ios::binary | std::ios::in).write("\xEE\0\0\0", 4);
  press({"R"});
  await(testing::ContainsRegex("\x1b\\[[0-9;]*31m *0x000000ee"));
  // When nothing happens it does nothing.
  await("0.0 writes/s");
  std::string shell = tmux({"list-panes", "-F", "#{pane_pid}"});
  shell.pop_back();
  std::string top, call;
  std::ifstream("/proc/" + shell + "/task/" + shell + "/children") >> top;
  std::getline(std::ifstream("/proc/" + top + "/syscall"), call);
  EXPECT_THAT(call, HasSubstr("0xffffffff")) << "it waits with a limit";
}

TEST_F(Top, OutlivesTheAgent) {
  open(80, 24, "chip0");
  await("ctrl.mode");
  agent.stop(SIGKILL);
  await("no agent");
  press({"r"});
  await(AllOf(HasSubstr("no agent listens at"), HasSubstr("0x00000030")));
  agent.start();
  await(AllOf(HasSubstr("up"), Not(HasSubstr("no agent"))));
  press({"r"});
  await("0x00000030");
}

TEST_F(Top, LooksAtTheTablesAlone) {
  Korud::Client client = agent.client();
  open(80, 24, "--tables --config " + agent.file("board.toml") + " chip0");
  await(AllOf(HasSubstr("ctrl.mode"), HasSubstr("[7:4]")));
  client.write("ctrl", "mode", 5);
  await("0x00000050");
  press({"Down", "Down", "e", "1", "Enter"});
  await("the tables can only be looked at");
  agent.stop(SIGKILL);
  press({"q"});
  await("detached");
}

// Of the map of a chip, once; of what is in it, at each look.
TEST_F(Top, AsksForAMapOnceAndAgainWhenItIsAnother) {
  const std::string fields = R"([{"register": "ctrl", "field": "mode", "kind": "stored",
      "bits": [7, 4], "hw_register": "CTRL", "hw_field": "mode", "hw_bits": [7, 4], "wanted": 3,
      "written": 3, "default": 3}])";
  std::string oneLine = fields;
  std::erase(oneLine, '\n');
  const std::string event = R"({"event": "field", "chip": "chip0", "register": "ctrl"})";
  {
    FakeAgent fake(agent.file("fake.sock"),
                   {{"subscribe", FakeAgent::result("null")},
                    {"chip.list", FakeAgent::result(R"([{"name": "chip0", "state": "up"}])")},
                    {"field.list", FakeAgent::result(oneLine)},
                    {"chip.registers", FakeAgent::result("[]")},
                    {"hw.list", FakeAgent::result(R"([{"name": "CTRL", "readable": true}])")},
                    {"hw.read", event + "\n" + FakeAgent::result(R"({"value": 48})")}});
    open(80, 24, "--socket " + agent.file("fake.sock") + " chip0");
    await("ctrl.mode");
    std::map<std::string, int> asked;
    const auto lookAtRequests = [&] {
      for (const auto& one : fake.requests()) ++asked[one["op"]];
      return asked["field.list"];
    };
    for (int looks = lookAtRequests(); looks < 3; looks = lookAtRequests()) {
      press({"r"});
      Korud::until([&] { return lookAtRequests() > looks; });
    }
    EXPECT_EQ(asked["hw.list"], 1);
    tmux({"kill-session"});
  }
  open(80, 24, "chip0");
  await("WIDE");
  std::string map = Korud::registerMap;
  std::string text = board;
  for (size_t at; (at = text.find("WIDE")) != std::string::npos;) text.replace(at, 4, "BROAD");
  map.replace(map.find("WIDE"), 4, "BROAD");
  agent.write("map.csv", map);
  agent.write("board.toml", text);
  await(AllOf(HasSubstr("BROAD"), Not(HasSubstr("WIDE"))));
}

// Where korureg is alone.
TEST(TopProgram, IsMissedInPlainWords) {
  const Testing::StateDirectory directory;
  const std::string alone = directory.file("korureg");
  std::filesystem::copy_file(Korureg::program, alone);
  const auto outcome = Testing::run({{alone, "top"}});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.err, "korureg: " + directory.path() +
                             "/../libexec/koruregfile/korureg-top is missing; it is built where "
                             "ncurses is\n");
}

// Without a terminal, and in ones that cannot be.
TEST_F(Top, SaysWhyItCannotBe) {
  const std::vector<std::string> state = {"KORU_STATE_DIR=" + agent.file("")};
  Korureg::expectFailure(Testing::run(Korureg::command("top", state)), 1,
                         "top needs a terminal; 'chip list' and 'field watch' print lines");
  const std::pair<const char*, const char*> table[] = {
      {"TERM=strange", "nobody knows the terminal 'strange'; set TERM to what it is"},
      {"KORU_STATE_DIR=/nowhere", "no agent listens at /nowhere/korud.sock"},
  };
  for (const auto& [variable, why] : table) {
    // (A terminal that nobody knows leaves something behind in ncurses.)
    const std::string line = std::string("env ASAN_OPTIONS=detect_leaks=0 ") + variable + ' ' +
                             Korureg::program + " top 2>" + agent.file("said") + "; echo >" +
                             agent.file("ended");
    tmux({"new-session", "-d", line});
    Korud::until([&] { return std::ifstream(agent.file("ended")).peek() == '\n'; });
    EXPECT_THAT(Korud::linesOf(std::ifstream(agent.file("said"))),
                testing::ElementsAre(HasSubstr(why)));
    ::unlink(agent.file("ended").c_str());
  }
  // Smaller than what it has to show.
  open(20, 3);
  await("chip0");
  press({"Enter", "Down"});
  await("ctrl.en");
}

}  // namespace
