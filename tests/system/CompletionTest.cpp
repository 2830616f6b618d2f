// What korureg says could stand at the end of a command line, and what shells make of it.

#include <gmock/gmock.h>

#include <filesystem>
#include <tuple>

#include "tests/agent/Korud.h"
#include "tests/system/FakeAgent.h"
#include "tests/system/Korureg.h"

namespace {

class Completion : public testing::Test {
 protected:
  // The last word of `line` is being typed; a blank at the end begins another one.
  std::string words(const std::string& line, const std::string& state) const {
    Testing::Command command = Korureg::command("complete-words -- " + line);
    if (line.empty() || line.back() == ' ') command.argv.emplace_back();
    command.environment.push_back("KORU_STATE_DIR=" + state);
    const auto outcome = Testing::run(command);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
    std::string found = outcome.out;
    std::replace(found.begin(), found.end(), '\n', ' ');
    return found;
  }
};

TEST_F(Completion, ListsWhatThereIs) {
  Korud::Agent agent;
  agent.start();
  const std::string map = "--map " + agent.file("map.csv");
  const std::tuple<std::string, std::string> table[] = {
      {"ma", "map "},
      {"field re", "read reset "},
      {"chip show ", "chip0 "},
      {"chip show --ti", "--timeout "},
      {"chip show --timeout ", ""},
      {"field read chip0 ", "ctrl.en ctrl.mode wide.all "},
      {"field read --timeout 3 chip0 ctrl.m", "ctrl.mode "},
      {"field write chip0 ctrl.en=1 wide", "wide.all= "},
      {"register read chip0 ", "ctrl wide "},
      {"hw read chip0 ", "CTRL WIDE STATUS "},
      {"chip rewrite chip0 CTRL W", "WIDE "},
      {"chip rewrite nobody ", ""},
      {map + " read CTRL S", "STATUS "},
      {map + " write W", "WIDE= "},
      {"--map /nonexistent read ", ""},
      {"nonsense ", ""},
      {"field read chip0 --no-such-option c", "ctrl.en ctrl.mode "},
  };
  for (const auto& [line, expected] : table) {
    EXPECT_EQ(words(line, agent.file("")), expected) << line;
  }
}

// A name that would be several, or drive the terminal, is left out; nobody is waited for long.
TEST_F(Completion, StandsAnyAgent) {
  const Testing::StateDirectory state;
  EXPECT_EQ(words("chip show ", state.path()), "");
  const std::pair<std::string, std::string> table[] = {
      {FakeAgent::result(R"([{"name": "a\nb"}, {"name": "\u001b[2J"}, {"name": "good"}])"),
       "good "},
      {FakeAgent::result(R"([{"name": 7}, 3])"), ""},
      {FakeAgent::result("{}"), ""},
      {FakeAgent::error("noSuchOp", "what?"), ""},
      {"[[[[", ""},
      {FakeAgent::hangsUp, ""},
      {FakeAgent::saysNothing, ""},
  };
  for (const auto& [answer, expected] : table) {
    const FakeAgent fake(state.file("korud.sock"), {{"chip.list", answer}});
    EXPECT_EQ(words("chip show ", state.path()), expected) << answer;
  }
}

TEST_F(Completion, IsWhatBashTakes) {
  const std::string folder = std::filesystem::path(Korureg::program).parent_path();
  const std::string script =
      "source <(korureg completion bash); COMP_WORDS=(korureg map ch); "
      "COMP_CWORD=2; _korureg; echo \"${COMPREPLY[@]}\"";
  EXPECT_EQ(Testing::run({{"/bin/bash", "-c", "PATH=" + folder + ":$PATH; " + script}}).out,
            "check\n");
  Korureg::expectFailure(Testing::run(Korureg::command("completion fish")), 2,
                         "there is a completion for bash and for zsh");
}

}  // namespace
