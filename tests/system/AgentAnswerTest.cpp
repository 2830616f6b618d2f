// What korureg makes of whatever answers in the agent's place, and what it asks for.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>
#include <tuple>

#include "testing/StateDirectory.h"
#include "tests/system/FakeAgent.h"
#include "tests/system/Korureg.h"

namespace {

using nlohmann::json;
using Testing::Outcome;

class AgentAnswer : public testing::Test {
 protected:
  Outcome ask(const std::string& words) const {
    return Testing::run(Korureg::command(words + " --socket " + place));
  }
  Outcome ask(FakeAgent::Answers answers, const std::string& words) {
    const FakeAgent agent(place, std::move(answers));
    return ask(words);
  }
  const Testing::StateDirectory state;
  const std::string place = state.file("place");
};

constexpr const char* oneField =
    R"([{"register": "r", "field": "f", "kind": "stored", "bits": [3, 0], "hw_register": "R",)"
    R"( "hw_bits": [3, 0], "wanted": 2, "written": 2}])";
constexpr const char* oneRegister =
    R"([{"name": "R", "address": 1, "width": 8, "readable": true, "configured": true}])";

TEST_F(AgentAnswer, MakesNoSense) {
  const std::vector<std::string> noList = {"null", "{}", "3", "\"x\"", "[1]", "[[]]"};
  const std::vector<std::string> noValue = {
      "null", "[]", "{}", "\"x\"", "{\"value\": \"1\"}", "{\"value\": -1}", "{\"value\": 1.5}"};
  const std::vector<std::string> noFields = {
      R"([{"register": 1}])",        R"([{"hw_bits": [0, 3]}])",    R"([{"hw_bits": [64, 0]}])",
      R"([{"hw_bits": "x"}])",       R"([{"wanted": 4294967296}])", R"([{"values": [1]}])",
      R"([{"values": {"a": "b"}}])", R"([{"scale": "x"}])",
  };
  const std::tuple<std::string, std::string, std::vector<std::string>> table[] = {
      {"chip list", "chip.list", noList},
      {"chip defaults c", "chip.defaults", {"3", R"({"fields": 1})", R"({"fields": [1]})"}},
      {"stats", "stats", noList},
      {"field list c", "field.list", noList},
      {"field list c", "field.list", noFields},
      {"field read c r.f", "field.read", noValue},
      {"register list c", "register.list", noList},
      {"register read c r", "register.read", noValue},
      {"register read c r",
       "register.read",
       {R"({"value": 1, "fields": 3})", R"({"value": 1, "fields": {"f": "x"}})",
        R"({"value": 1, "fields": {"f": 1}, "texts": []})",
        R"({"value": 1, "fields": {"f": 1}, "texts": {"f": 1}})"}},
      {"hw read c R", "hw.read", noValue},
      {"hw dump c", "hw.list", noList},
      {"hw dump c", "hw.list", {R"([{"name": "R", "readable": 1}])", R"([{"name": 1}])"}},
      {"hw dump c", "hw.read", noValue},
      {"verify c", "chip.registers", noList},
      {"verify c", "chip.registers", {R"([{"name": "R", "verified": "x"}])", R"([{"width": -1}])"}},
  };
  for (const auto& [words, op, results] : table) {
    for (const std::string& result : results) {
      SCOPED_TRACE(fmt::format("{}: {}", words, result));
      FakeAgent::Answers answers = {{"field.list", FakeAgent::result(oneField)},
                                    {"hw.list", FakeAgent::result(oneRegister)}};
      answers[op] = FakeAgent::result(result);
      Korureg::expectFailure(ask(answers, words), 1, "the agent's answer makes no sense");
    }
  }
  const std::pair<const char*, const char*> lines[] = {
      {"{", "the agent's answer makes no sense"},
      {"[]", "the agent's answer makes no sense"},
      {"{\"ok\": 1}", "the agent's answer makes no sense"},
      {FakeAgent::hangsUp.c_str(), "the agent hung up before it answered"},
  };
  for (const auto& [line, why] : lines) {
    Korureg::expectFailure(ask({{"chip.list", line}}, "chip list"), 1, why);
  }
}

// Names and texts are the system file's, and whoever wrote it.
TEST_F(AgentAnswer, CannotDriveTheTerminal) {
  const std::string evil = R"("\u001b[1m\nx")";
  const std::string field = R"([{"register": "r", "field": )" + evil + R"(, "kind": )" + evil +
                            R"(, "hw_register": "R", "hw_bits": [3, 0], "wanted": 2, "unit": )" +
                            evil + R"(, "description": )" + evil + "}]";
  const FakeAgent::Answers answers = {
      {"chip.list", FakeAgent::result(R"([{"name": )" + evil + "}]")},
      {"chip.show", FakeAgent::result("{" + evil + ": " + evil + "}")},
      {"field.list", FakeAgent::result(field)},
      {"field.read", FakeAgent::result(R"({"value": 1, "text": )" + evil + "}")},
      {"register.read",
       FakeAgent::result(R"({"value": 1, "fields": {)" + evil + R"(: 1}, "texts": {}})")},
      {"hw.list", FakeAgent::result(oneRegister)},
      {"hw.read", FakeAgent::result(R"({"value": 1})")},
      {"chip.defaults", FakeAgent::result(R"({"fields": [{"register": "r", "field": )" + evil +
                                          R"(, "was": 1, "value": 2, "text": )" + evil + "}]}")},
      {"subscribe", FakeAgent::result("{}") + R"(
{"event": )" + evil + R"(, "reason": )" +
                        evil + R"(})"},
      {"field.write", FakeAgent::error("badValue", "\033[1m\nx")},
  };
  const FakeAgent agent(place, answers);
  for (const char* words : {"chip list", "chip show c", "field list c", "field read c r.f",
                            "field read c r", "register read c r", "hw dump c",
                            "hw read c R --bits", "chip defaults c", "field write c r.f=1"}) {
    const Outcome outcome = ask(words);
    const std::string all = outcome.out + outcome.err;
    EXPECT_EQ(all.find('\033'), std::string::npos) << words << all;
    EXPECT_NE(all.find("\\x1b[1m\\x0ax"), std::string::npos) << words << all;
  }
  Testing::Process watch(Korureg::command("field watch c --socket " + place));
  Korureg::nextLine(watch);
  EXPECT_EQ(Korureg::nextLine(watch), "\\x1b[1m\\x0ax  \\x1b[1m\\x0ax");
}

// One that was stopped in the middle is waited for once, and not for each register.
TEST_F(AgentAnswer, IsWaitedForOnce) {
  const FakeAgent::Answers answers = {
      {"hw.list",
       FakeAgent::result(R"([{"name": "A", "readable": true}, {"name": "B", "readable": true}])")},
      {"field.list", FakeAgent::result("[]")},
      {"chip.registers",
       FakeAgent::result(R"([{"name": "A", "verified": 1}, {"name": "B", "verified": 1}])")},
      {"hw.read", FakeAgent::saysNothing},
  };
  FakeAgent agent(place, answers);
  for (const char* words : {"hw dump c --timeout 0.2", "verify c --timeout 0.2"}) {
    Korureg::expectFailure(ask(words), 1,
                           "the agent at " + place + " does not answer within 0.2 s");
    size_t reads = 0;
    for (const json& request : agent.requests()) reads += request["op"] == "hw.read" ? 1 : 0;
    EXPECT_EQ(reads, 1u);
  }
}

// A register that does not keep what is written.
TEST_F(AgentAnswer, SaysThatAFixWasInVain) {
  FakeAgent agent(
      place, {{"chip.registers",
               FakeAgent::result(R"([{"name": "A", "width": 8, "verified": 255, "written": 5}])")},
              {"hw.read", FakeAgent::result(R"({"value": 4})")},
              {"chip.rewrite", FakeAgent::result(R"({"written": 1})")}});
  const Outcome outcome = ask("verify c --fix");
  EXPECT_EQ(outcome.out,
            "REGISTER  VERDICT  DETAIL\nA         differs  0x05 was written, 0x04 was read\n");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(agent.requests()[2]["registers"], json({"A"}));
}

TEST_F(AgentAnswer, IsAskedForWhatWasTyped) {
  const std::tuple<const char*, const char*> table[] = {
      {"field write c r f 1",
       R"({"op":"field.write","chip":"c","register":"r","field":"f","text":"1"})"},
      {"field write c r f -1.5",
       R"({"op":"field.write","chip":"c","register":"r","field":"f","text":"-1.5"})"},
      {"field write c r.f=x=2",
       R"({"op":"field.write","chip":"c","register":"r","field":"f","text":"x=2"})"},
      {"field write c a.r.f=0b1 --raw",
       R"({"op":"field.write","chip":"c","register":"a.r","field":"f","value":"0b1"})"},
      {"field write c r.f=1 r.g=-2",
       R"({"op":"fields.write","chip":"c","fields":[{"register":"r","field":"f","text":"1"},)"
       R"({"register":"r","field":"g","text":"-2"}]})"},
      {"field reset c r.f", R"({"op":"field.reset","chip":"c","register":"r","field":"f"})"},
      {"field read c r f --live",
       R"({"op":"field.read","chip":"c","register":"r","field":"f","live":true})"},
      {"chip rewrite c", R"({"op":"chip.rewrite","chip":"c"})"},
      {"chip rewrite c A B", R"({"op":"chip.rewrite","chip":"c","registers":["A","B"]})"},
  };
  FakeAgent agent(place, {});
  for (const auto& [words, request] : table) {
    ask(words);
    EXPECT_THAT(agent.requests(), testing::ElementsAre(json::parse(request))) << words;
  }
  const std::pair<const char*, const char*> refusals[] = {
      {"field write c r.f", "'r.f' is no assignment (write REGISTER.FIELD=VALUE)"},
      {"field write c r.f=", "'r.f=' is no assignment (write REGISTER.FIELD=VALUE)"},
      {"field write c =1", "'=1' is no assignment (write REGISTER.FIELD=VALUE)"},
      {"field write c f=1", "'f' names no field (write REGISTER.FIELD)"},
      {"field reset c r.", "'r.' names no field (write REGISTER.FIELD)"},
      {"field read c --value", "--value is of one field: name it"},
      {"register read c --value", "--value is of one register: name it"},
      {"hw read c --bits", "name a register to be shown"},
      {"field watch c -3", "'-3' names no field (write REGISTER.FIELD)"},
  };
  for (const auto& [words, why] : refusals) {
    Korureg::expectFailure(
        ask({{"subscribe", FakeAgent::result("{}")}, {"field.list", FakeAgent::result("[]")}},
            words),
        2, why);
  }
}

TEST_F(AgentAnswer, IsFollowedByTheNearestNames) {
  FakeAgent::Answers answers = {
      {"chip.list", FakeAgent::result(R"([{"name": "chip0"}, {"name": "power"}])")},
      {"register.list", FakeAgent::result(R"([{"name": "config"}])")},
      {"hw.list", FakeAgent::result(R"([{"name": "CONTROL"}])")},
      {"field.list", FakeAgent::result(R"([{"register": "config", "field": "gain"},)"
                                       R"( {"register": "config", "field": "mode"}])")},
  };
  const std::tuple<std::string, std::string, std::string, std::string> table[] = {
      {"field read chip1 a.b", "field.read", "noSuchChip", "'chip0'"},
      {"field read chip0 cofnig.gain", "field.read", "noSuchRegister", "'config'"},
      {"field read chip0 config.gian", "field.read", "noSuchField", "'gain'"},
      {"field write chip0 config.mode=1 config.gian=2", "fields.write", "noSuchField", "'gain'"},
      {"hw read chip0 CONTRL", "hw.read", "noSuchRegister", "'CONTROL'"},
      {"chip rewrite chip0 CONTROL CONTRO", "chip.rewrite", "noSuchRegister", "'CONTROL'"},
  };
  for (const auto& [words, op, kind, name] : table) {
    FakeAgent::Answers all = answers;
    all[op] = FakeAgent::error(kind, "there is none");
    Korureg::expectFailure(ask(all, words), 2, "there is none; did you mean " + name + "?");
    // What does not tell its names, or not in a way that can be understood, has refused all the
    // same.
    for (const std::string& list :
         {FakeAgent::result("3"), FakeAgent::hangsUp, FakeAgent::error("noSuchChip", "nor that")}) {
      for (auto& [each, answer] : all) {
        if (each != op) answer = list;
      }
      Korureg::expectFailure(ask(all, words), 2, "there is none");
    }
  }
}

TEST_F(AgentAnswer, TellsWhichLineOfAPlanIsWrong) {
  const std::string plan = state.file("plan");
  const std::pair<const char*, const char*> table[] = {
      {"# good\nc r.f = 1\nc r.g\n", ":3: 'r.g' is no assignment (write REGISTER.FIELD=VALUE)"},
      {"c\n", ":1: 'c' is no step (write CHIP REGISTER.FIELD = VALUE)"},
      {"c r.f = # 1\n", ":1: 'r.f =' is no assignment (write REGISTER.FIELD=VALUE)"},
      {"\n\nc f = 1\n", ":3: 'f' names no field (write REGISTER.FIELD)"},
      {"c r.f = 1\nd r.f = 1\nc  r.f=2\n", ":3: r.f is set in line 1 already"},
      {"c r.f = 1\nc r.g = 1", ":2: the last line has no end; is the file whole?"},
  };
  for (const auto& [text, why] : table) {
    std::ofstream(plan) << text;
    Korureg::expectFailure(ask("apply " + plan), 2, plan + why);
  }
  Korureg::expectFailure(ask("apply /"), 1, "/: Is a directory");
  Korureg::expectFailure(ask("apply /none"), 1, "/none: No such file or directory");
}

}  // namespace
