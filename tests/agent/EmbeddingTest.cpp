// Agents of one's own: chips described in code, the class behind korud, and the examples.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "Orb/EventLoop.h"
#include "board/agent/Agent.h"
#include "board/description/ChipBuilder.h"
#include "board/description/SystemFile.h"
#include "testing/Expect.h"
#include "tests/agent/Korud.h"

namespace {

using Board::ChipBuilder;
using Board::DescriptionError;
using testing::ElementsAre;
using Testing::failure;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

class Embedding : public testing::Test {
 protected:
  Embedding() { std::ofstream(map) << Korud::registerMap; }
  ChipBuilder builder() const { return {"chip0", map, "memory", "window0"}; }

  const Testing::StateDirectory state;
  const std::string map = state.file("map.csv");
};

TEST_F(Embedding, AChipInCodeIsThatOfAFile) {
  const std::string text = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = "window0"
on_start = "rewrite"
first = ["WIDE"]
[chip.physical.CTRL]
"ctrl.mode" = { bits = "7:4", values = { slow = 1, fast = 2 }, description = "how fast" }
"ctrl.go" = { bits = 31, kind = "pulse" }
[chip.physical.WIDE]
"wide.level" = { bits = "15:0", signed = true, scale = 0.5, offset = 1, unit = "V" }
[chip.status.STATUS]
BUSY = { bits = 3 }
[chip.logical.ctrl]
mode = { to = "CTRL.ctrl.mode", value = "fast" }
go = { to = "CTRL.ctrl.go" }
[chip.logical.wide]
level = { to = "WIDE.wide.level" }
)";
  std::ofstream(state.file("board.toml")) << text;
  Board::Chip fromFile = Board::readFile(state.file("board.toml")).chips.at(0);
  Board::Chip fromCode = builder()
                             .field({.name = "ctrl.mode",
                                     .bits = "CTRL[7:4]",
                                     .value = "fast",
                                     .values = {{"slow", 1}, {"fast", 2}},
                                     .description = "how fast"})
                             .field({.name = "ctrl.go", .bits = "CTRL[31]", .kind = "pulse"})
                             .field({.name = "wide.level",
                                     .bits = "WIDE[15:0]",
                                     .unit = "V",
                                     .scale = 0.5,
                                     .offset = 1,
                                     .isSigned = true})
                             .status({.name = "BUSY", .bits = "STATUS[3]"})
                             .key("on_start", "rewrite")
                             .key("first", std::vector<std::string>{"WIDE"})
                             .chip();
  EXPECT_TRUE(fromCode == fromFile);
}

TEST_F(Embedding, AChipThatCannotBeIsToldWithAllReasons) {
  const Board::FieldText mode = {.name = "ctrl.mode", .bits = "CTRL[7:4]"};
  const auto failureOf = [](const ChipBuilder& chip) {
    return failure<DescriptionError>([&] { static_cast<void>(chip.chip()); });
  };
  const std::pair<std::function<void(ChipBuilder&)>, const char*> table[] = {
      {[](auto& chip) { chip.field({.name = "mode", .bits = "CTRL[7:4]"}); },
       "chip 'chip0': 'mode' has to be REGISTER.FIELD"},
      {[](auto& chip) { chip.field({.name = "ctrl.mode", .bits = "CTRL"}); }, "bits"},
      {[](auto& chip) { chip.field({.name = "ctrl.mode", .bits = "CTRL[40:4]"}); }, "from 0 to 31"},
      {[](auto& chip) { chip.field({.name = "ctrl.mode", .bits = "NONE[1]"}); },
       "there is no register 'NONE'"},
      {[](auto& chip) { chip.field({.name = "status.busy", .bits = "STATUS[1]"}); }, "read-only"},
      {[&](auto& chip) { chip.field(mode).field(mode); }, "there are two fields ctrl.mode"},
      {[&](auto& chip) { chip.field(mode).field({.name = "ctrl.other", .bits = "CTRL[4:0]"}); },
       "overlaps"},
      {[&](auto& chip) { chip.status(mode).status(mode); },
       "there are two status fields CTRL.ctrl.mode"},
      {[](auto& chip) { chip.field({.name = "ctrl.mode", .bits = "CTRL[7:4]", .value = "99"}); },
       "99"},
      {[](auto& chip) { chip.key("on_sart", "rewrite"); }, "there is no key 'on_sart'"},
  };
  for (const auto& [spoil, reason] : table) {
    auto chip = builder();
    spoil(chip);
    EXPECT_THAT(failureOf(chip), HasSubstr(reason));
  }
  EXPECT_THAT(failureOf({"chip0", state.file("none.csv"), "memory"}), HasSubstr("none.csv"));
  EXPECT_THAT(failureOf({"a/b", map, "memory"}), HasSubstr("'/'"));
  EXPECT_THAT(failureOf({"chip0", map, "carrier pigeon", "roof"}),
              HasSubstr("there is no transport 'carrier pigeon'; there are mock, "));
  EXPECT_THAT(failureOf({"chip0", map, "i2c", "/dev/i2c-1"}), HasSubstr("i2c: "));
}

// One agent in this process: what it does with chips is what korud does, whose tests these are.
TEST_F(Embedding, AnAgentKeepsTheChipsThatItIsTold) {
  const auto chip = [&](const char* value) {
    auto described = builder();
    described.field({.name = "ctrl.mode", .bits = "CTRL[7:4]", .value = value});
    return described.chip();
  };
  std::optional<Board::Agent> agent;
  agent.emplace(Board::AgentOptions{.stateDirectory = state.path()});
  EXPECT_THAT(failure([&] { Board::Agent({.stateDirectory = state.path()}); }),
              HasSubstr("has an agent already"));
  EXPECT_THAT(failure([&] { agent->chip("chip0"); }), "there is no chip 'chip0'");
  EXPECT_THROW(agent->follow(state.file("none.toml")), Board::FileError);
  EXPECT_EQ(failure<std::invalid_argument>([&] {
              agent->chipsAre({chip("3"), chip("4")});
            }),
            "there are two chips 'chip0'");
  agent->chipsAre({chip("3")});
  const auto mode = agent->chip("chip0")->field("ctrl", "mode");
  EXPECT_EQ(mode.lastWritten(), 3u);
  mode.write(5);
  // Two observers: one that leaves when it is told, and throws, and the socket.
  struct Leaving : Board::BoardKeeper::Observer {
    void fieldChanged(const std::string&, const KoruRegFile::LogicalFieldName& field) override {
      told.emplace_back(field.name());
      keeper->forget(*this);
      throw std::runtime_error("told");
    }
    Board::BoardKeeper* keeper = nullptr;
    std::vector<std::string> told;
  };
  Leaving leaving;
  leaving.keeper = &agent->keeper();
  agent->keeper().observe(leaving);
  agent->serve();
  Korud::Client client(state.file("korud.sock"));
  client.send("{\"op\": \"subscribe\"}\n");
  Testing::settle();
  EXPECT_EQ(failure([&] { mode.write(6); }), "told");
  mode.write(7);
  Testing::settle();
  EXPECT_THAT(leaving.told, ElementsAre("mode"));
  EXPECT_THAT(client.line(), HasSubstr("\"ok\""));
  EXPECT_THAT(client.line(), HasSubstr("\"value\":6"));
  // A chip that goes takes its handles' purpose with it; a new agent goes on with its values.
  agent->chipsAre({});
  EXPECT_THAT(failure([&] { mode.write(1); }), HasSubstr("cannot be accessed"));
  // It may go in a callback of the loop, which cannot be waited in.
  Orb::eventLoop().defer([&] { agent.reset(); });
  Testing::settle();
  EXPECT_FALSE(agent);
  agent.emplace(Board::AgentOptions{.stateDirectory = state.path()});
  agent->chipsAre({chip("3")});
  EXPECT_EQ(agent->chip("chip0")->field("ctrl", "mode").lastWritten(), 7u);
}

#ifdef EMBEDDING_AGENT

TEST_F(Embedding, TheShortExampleKeepsItsValuesWhenItIsKilled) {
  const auto started = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {EMBEDDING_AGENT, KORU_EXAMPLE_MAPS "/ina219.csv"});
    return Testing::Command{arguments, {"KORU_STATE_DIR=" + state.path()}};
  };
  {
    Testing::Process first(started({"2"}));
    EXPECT_EQ(first.line(), "gain is 3");
    EXPECT_EQ(first.line(), "gain is 2 now");
    EXPECT_THAT(Testing::run(started({})).err, HasSubstr("another agent uses"));
    first.signal(SIGKILL);
    EXPECT_EQ(first.wait().signal, SIGKILL);
  }
  Testing::Process second(started({}));
  EXPECT_EQ(second.line(), "gain is 2");
  Korud::Client client(state.file("korud.sock"));
  EXPECT_EQ(client.ask(Korud::request("field.read", "power0", "config", "gain"))["result"]["text"],
            "160mV");
  uint32_t written = 0;
  std::ifstream(state.file("power0.window"), std::ios::binary)
      .read(reinterpret_cast<char*>(&written), sizeof written);
  EXPECT_EQ(written, 0x1000u);
  second.signal(SIGTERM);
  EXPECT_EQ(second.wait().exitCode, 0);
  EXPECT_EQ(Testing::run({{EMBEDDING_AGENT}}).exitCode, 2);
}

TEST(Loops, OfOthersServeTheLibrarys) {
  const auto lines = [](const std::vector<std::string>& argv) {
    return Korud::linesOf(std::istringstream(Testing::run({argv}).out));
  };
  // Which comes first is the machine's affair.
  EXPECT_THAT(lines({LOOPS_ASIO}), UnorderedElementsAre("the library's timer", "asio's timer"));
  EXPECT_THAT(lines({"/bin/sh", "-c", "echo hello | " LOOPS_EPOLL}),
              UnorderedElementsAre("from standard input: hello", "the library's timer"));
}

#endif

}  // namespace
