// The commands of korureg that ask the agent, against a real one.

#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "tests/agent/Korud.h"
#include "tests/system/Korureg.h"

const char* const Korud::korudProgram = KORUD_PROGRAM;

namespace {

using nlohmann::json;
using Testing::Outcome;

class AgentCommand : public testing::Test {
 protected:
  void SetUp() override { agent.start(); }
  Outcome run(const std::string& words) const {
    return Testing::run(Korureg::command(words, {"KORU_STATE_DIR=" + agent.file("")}));
  }
  std::string out(const std::string& words) const {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    return outcome.out;
  }
  Korud::Agent agent;
};

TEST_F(AgentCommand, ReadAndWriteByName) {
  EXPECT_EQ(out("field write chip0 ctrl mode 0xa"), "");
  EXPECT_EQ(out("field read chip0 ctrl mode"), "0xa\n");
  EXPECT_EQ(out("hw read chip0 CTRL"), "0xa0\n");
  out("register write chip0 ctrl 0b110001");
  EXPECT_EQ(out("register read chip0 ctrl"),
            "0x31\nFIELD  HEX  DECIMAL\nen     0x1        1\nmode   0x3        3\n");
  EXPECT_EQ(json::parse(out("--json field reset chip0 ctrl mode"))["value"], 3);
  EXPECT_EQ(json::parse(out("--json chip list"))[0]["state"], "up");
  EXPECT_THAT(out("stats"), testing::HasSubstr("fieldIs"));
}

TEST_F(AgentCommand, RefuseWhatCannotBe) {
  const std::tuple<const char*, int, std::string> table[] = {
      {"field read chip9 ctrl mode", 2, "there is no chip 'chip9'; did you mean 'chip0'?"},
      {"field read chip0 ctrl mood", 2,
       "register 'ctrl' of chip 'chip0' has no field 'mood'; did you mean 'mode'?"},
      {"field write chip0 ctrl mode 16", 2, "field ctrl.mode: 16 is more than 0xf"},
      {"field write chip0 ctrl mode much", 2,
       "field ctrl.mode: 'much' is no number (write 42, 0x2a or 0b101010)"},
      {"hw write chip0 CTRL 1", 1,
       "register 'CTRL' is configured; write its fields instead, or say force"},
      {"shadow diff chip9", 1,
       "there is no table KoruRegFile/shadowFieldsConfig/chip9 (" + agent.file("/KoruRegFile/") +
           "shadowFieldsConfig/chip9)"},
  };
  for (const auto& [words, exitCode, message] : table) {
    Korureg::expectFailure(run(words), exitCode, message);
  }
  agent.stop(SIGTERM);
  Korureg::expectFailure(
      run("chip list"), 1,
      "no agent listens at " + agent.file("/korud.sock") + "; start korud, or name its socket");
}

// Whoever listens in the agent's place.
TEST_F(AgentCommand, GiveUpOnAnAnswerThatIsNone) {
  const std::string place = agent.file("place");
  const Orb::Descriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = Korud::addressOf(place);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  const std::string ask = "chip list --timeout 0.2 --socket " + place;
  const std::string nested = std::string(200000, '[') + std::string(200000, ']');
  Korureg::expectFailure(run(ask), 1, "the agent at " + place + " does not answer within 0.2 s");
  // The one before it has not been taken yet.
  Korureg::expectFailure(run(ask), 1, "the agent at " + place + " takes nobody within 0.2 s");
  Orb::Descriptor(::accept(listener.get(), nullptr, nullptr)).reset();
  for (const std::string& answer :
       {nested, R"({"ok": true, "result": )" + nested + "}", std::string("{\"error\": 1}"),
        std::string("{\"ok\": \"x\"}"), std::string("[]")}) {
    Testing::Process asking(Korureg::command("chip list --socket " + place));
    const Orb::Descriptor client(::accept(listener.get(), nullptr, nullptr));
    const std::string line = answer + "\n";
    ::send(client.get(), line.data(), line.size(), MSG_NOSIGNAL);
    Korureg::expectFailure(asking.wait(), 1, "the agent's answer makes no sense");
  }
  // It refuses, and hangs up, while it is still being asked.
  const std::string large(100000, 'x');
  Testing::Process asking(
      Korureg::command("field read " + large + " " + large + " " + large + " --socket " + place));
  Orb::Descriptor client(::accept(listener.get(), nullptr, nullptr));
  const std::string line = "{\"error\": {\"message\": \"full\"}}\n";
  ::send(client.get(), line.data(), line.size(), MSG_NOSIGNAL);
  client.reset();
  Korureg::expectFailure(asking.wait(), 1, "full");
}

TEST_F(AgentCommand, FindWhatDiffers) {
  EXPECT_EQ(run("verify chip0").exitCode, 0);
  const std::string config = " --config " + agent.file("board.toml");
  const std::string diff = "--json shadow diff chip0" + config;
  const json same = json::parse(out(diff));
  EXPECT_EQ(same.size(), 3u);
  EXPECT_EQ(same[1]["name"], "ctrl.mode");
  EXPECT_EQ(same[1]["written"], 3);
  // Nor is there a difference while somebody writes.
  std::atomic<bool> isOver = false;
  std::thread writer([&] {
    Korud::Client client = agent.client();
    for (unsigned i = 0; !isOver; ++i) client.write("ctrl", "mode", i % 16);
    client.write("ctrl", "mode", 3);
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(run("shadow diff chip0").exitCode, 0);
  isOver = true;
  writer.join();
  out("hw write chip0 CTRL 0xff --force");
  const Outcome verified = run("verify chip0");
  EXPECT_EQ(verified.exitCode, 1);
  EXPECT_THAT(verified.out, testing::HasSubstr("0x00000030 was written, 0x000000ff was read"));
  // A chip that cannot be reached: the field waits in the configuration, and no agent is needed to
  // see it.
  agent.stop(SIGTERM);
  std::string moved = Korud::chip0;
  moved.replace(moved.find("window0"), 7, "no/where");
  agent.write("board.toml", moved);
  agent.start();
  out("field write chip0 ctrl mode 9");
  agent.stop(SIGKILL);
  const Outcome waiting = run(diff);
  EXPECT_EQ(waiting.exitCode, 1);
  const json entry = json::parse(waiting.out)[1];
  EXPECT_EQ(entry["wanted"], 9);
  EXPECT_EQ(entry["written"], 3);
  EXPECT_EQ(entry["next"], true);
  const std::string show = "--json shadow show KoruRegFile/shadowFieldsConfig/chip0";
  EXPECT_FALSE(json::parse(out(show))["fields"][1].contains("name"));
  EXPECT_EQ(json::parse(out(show + config))["fields"][1]["name"], "ctrl.mode");
  EXPECT_THAT(run(show + "9" + config).err, testing::HasSubstr("describes no chip 'chip09'"));
}

// Bits that the register does not have, and one that does not keep what is written; then a window
// that has gone.
TEST_F(AgentCommand, VerifyComparesWhatARegisterKeeps) {
  agent.stop(SIGTERM);
  agent.write("map.csv",
              "number,name,type,writeable,width\n0,CTRL,cfg,true,8\n1,WIDE,ctl,true,32\n");
  agent.start();
  std::fstream(agent.file("window0"), std::ios::in | std::ios::out).seekp(1) << "\1\1\1diff";
  const Outcome same = run("verify chip0");
  EXPECT_EQ(same.exitCode, 0) << same.out;
  EXPECT_THAT(same.out, testing::HasSubstr("is of type ctl"));
  std::filesystem::resize_file(agent.file("window0"), 0);
  const Outcome gone = run("verify chip0");
  EXPECT_EQ(gone.exitCode, 1);
  EXPECT_THAT(gone.out, testing::HasSubstr("failed"));
}

}  // namespace
