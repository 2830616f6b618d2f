// Sessions on a bus that are recorded, and replayed on a chip that is not there.

#include <fmt/format.h>

#include <algorithm>

#include "board/devices/Recording.h"
#include "testing/Sanitizers.h"
#include "tests/agent/ChipFields.h"

namespace {

namespace fs = std::filesystem;
using Korud::Client;
using Korud::json;
using Korud::replaced;
using Korud::request;
using testing::HasSubstr;

std::string textIn(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// The fields' board with its chip behind a recording.
std::string replayBoard(const std::string& board, const std::string& recording) {
  return replaced(board, "i2c = \"/dev/i2c-1:0x48,high-first\"", "replay = \"" + recording + "\"");
}

class Records : public Korud::ChipFields {
 protected:
  std::string recording() const { return agent.file("session.rec"); }
  Testing::Command korureg(const std::string& words) const {
    std::vector<std::string> argv = {KORUREG_PROGRAM};
    std::istringstream in(words);
    for (std::string word; in >> word;) argv.push_back(word);
    return {argv, {"KORU_STATE_DIR=" + agent.file(""), "ORB_TRACE="}};
  }
  // Begins to record, and returns when it does.
  std::unique_ptr<Testing::Process> record(const std::string& words = "") const {
    auto process =
        std::make_unique<Testing::Process>(korureg("record --out " + recording() + " " + words));
    Korud::until([&] { return fs::exists(recording()) && fs::file_size(recording()) != 0; });
    return process;
  }
  static std::string end(Testing::Process& process) {
    process.signal(SIGINT);
    const Testing::Outcome outcome = process.wait();
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    return outcome.out;
  }
  // The same chip on a desk: another state directory, and no bus.
  static void replay(const Records& recorded, Korud::Agent& desk, const std::string& board) {
    desk.write("map.csv", Korud::fieldsMap);
    fs::copy(recorded.recording(), desk.file("session.rec"));
    desk.write("board.toml", replayBoard(board, "session.rec"));
    desk.start();
  }
  static uint64_t counter(Client& client, const char* name) {
    for (const json& entry : client.result({{"op", "stats"}})) {
      if (entry["owner"] == "chip0" && entry["name"] == name) return entry["value"];
    }
    return UINT64_MAX;
  }
};

TEST_F(Records, AreReplayedWithTheSameAnswers) {
  const auto session = [&](Client& client) {
    std::vector<json> answers;
    const auto ask = [&](const json& asked) { answers.push_back(client.ask(asked)); };
    ask(request("field.write", "chip0", "ctrl", "gain", 3));
    ask(request("field.write", "chip0", "ctrl", "reset", 1));
    ask(request("hw.read", "chip0", "VALUE"));
    ask(together({{{"register", "ctrl"}, {"field", "mode"}, {"value", 5}},
                  {{"register", "ctrl"}, {"field", "limit"}, {"value", 9}}}));
    ask(request("hw.read", "chip0", "INTR"));
    ask(request("hw.read", "chip0", "LIMIT"));
    answers.push_back(client.ask({{"op", "hw.write"},
                                  {"chip", "chip0"},
                                  {"register", "COUNT"},
                                  {"value", 3},
                                  {"force", true}}));
    ask({{"op", "chip.rewrite"}, {"chip", "chip0"}});
    return answers;
  };
  for (const char* transport : {"i2c", "relay"}) {
    SCOPED_TRACE(transport);
    simulator({"--reset"});
    Client client = start(replaced(Korud::fieldsBoard, "i2c", transport));
    const auto recorder = record();
    std::vector<json> answers = session(client);
    simulator({"--unplug", "sensor"});
    answers.push_back(client.ask(request("hw.read", "chip0", "VALUE")));
    simulator({"--plug", "sensor"});
    EXPECT_THAT(answers.back()["error"]["message"].dump(), HasSubstr("No such device"));
    EXPECT_THAT(end(*recorder), testing::MatchesRegex("chip0: [0-9]+ accesses\n"));
    agent.stop(SIGTERM);

    Korud::Agent desk;
    replay(*this, desk, Korud::fieldsBoard);
    Client onDesk = desk.client();
    std::vector<json> replayed = session(onDesk);
    replayed.push_back(onDesk.ask(request("hw.read", "chip0", "VALUE")));
    for (size_t i = 0; i < answers.size(); ++i) {
      // (What to do about it depends on the bus.)
      if (!answers[i].value("ok", false)) {
        EXPECT_THAT(answers[i]["error"]["message"].dump(),
                    testing::StartsWith(replayed[i]["error"]["message"].dump().substr(0, 30)));
      } else {
        EXPECT_EQ(answers[i], replayed[i]);
      }
    }
    EXPECT_EQ(onDesk.chip("chip0")["state"], "up");
    EXPECT_EQ(counter(onDesk, "replayed"), counter(onDesk, "recorded"));
    EXPECT_GT(counter(onDesk, "recorded"), 10u);
    desk.stop(SIGTERM);
    fs::remove(recording());
    fs::remove_all(agent.file("KoruRegFile"));
    fs::remove_all(agent.file("korud"));
  }
}

// What the program does before, what it does instead of the third access, and what is said then.
TEST_F(Records, TellWhereAProgramDeparts) {
  Client client = start();
  const auto recorder = record("--no-times chip0");
  client.write("ctrl", "limit", 9);
  client.hardware("VALUE");
  client.write("ctrl", "mode", 5);
  end(*recorder);
  agent.stop(SIGTERM);
  const std::string text = textIn(recording());
  EXPECT_THAT(text, HasSubstr("\nchip0 holds LIMIT 0xfd\n"));
  EXPECT_THAT(text, testing::EndsWith("chip0 write LIMIT 0x9\nchip0 read VALUE 0x1900\n"
                                      "chip0 write MODE 0x5\nend\n"));
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  const auto place = [&](size_t record) {
    return fmt::format("departs from {{}}:{}, record {}: ", lines - 4 + record, record);
  };
  const struct {
    std::vector<json> asked = {};  // the last one departs
    std::string board = Korud::fieldsBoard;
    std::string told;
  } table[] = {
      {.asked = {request("field.write", "chip0", "ctrl", "limit", 9),
                 request("field.write", "chip0", "ctrl", "mode", 5)},
       .told = place(2) + "read VALUE was expected, and write MODE 0x5 came"},
      {.asked = {request("field.write", "chip0", "ctrl", "limit", 8)},
       .told = place(1) +
               "write LIMIT 0x9, or write LIMIT 0xfd as it was held was expected, and write LIMIT "
               "0x8 came"},
      {.asked = {request("field.write", "chip0", "ctrl", "limit", 9),
                 request("hw.read", "chip0", "VALUE"), request("hw.read", "chip0", "VALUE")},
       .told = place(3) + "write MODE 0x5 was expected, and read VALUE came"},
      {.asked = {request("field.write", "chip0", "ctrl", "limit", 9),
                 request("hw.read", "chip0", "VALUE"),
                 request("field.write", "chip0", "ctrl", "mode", 5),
                 request("hw.read", "chip0", "LIMIT")},
       .told = place(4) + "the end of the recording was expected, and read LIMIT came"},
      // It is to hold something else from the start.
      {.board = replaced(Korud::fieldsBoard, "-1.5", "2.5"),
       .told = place(1) +
               "write LIMIT 0x9, or write LIMIT 0xfd as it was held was expected, and write LIMIT "
               "0x5 came"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.told);
    Korud::Agent desk;
    replay(*this, desk, row.board);
    Client onDesk = desk.client();
    const std::string told = fmt::format(fmt::runtime(row.told), desk.file("session.rec"));
    for (const json& asked : row.asked) onDesk.ask(asked);
    // Whatever is asked now, it is said again, and the chip shows it when it wants to be written.
    const json again = onDesk.ask(request("hw.read", "chip0", "VALUE"));
    EXPECT_THAT(again["error"]["message"].dump(), HasSubstr(told));
    onDesk.ask(request("field.write", "chip0", "ctrl", "limit", 77));
    EXPECT_EQ(onDesk.chip("chip0")["state"], "rewriting");
    EXPECT_THAT(onDesk.chip("chip0")["reason"].dump(), HasSubstr(told));
    desk.stop(SIGTERM);
  }
}

// What the agent reads of its own accord is out of the order, and what it finds comes about again.
TEST_F(Records, BringBackWhatUpkeepFinds) {
  const std::string board = replaced(
      Korud::fieldsBoard, "read_changes = [\"INTR\"]",
      "verify_every = \"100ms\"\ncanary = { register = \"LIMIT\", reset = 0, every = \"100ms\" }");
  Client client = start(board);
  const auto recorder = record();
  const auto session = [&](Client& asking, const Korud::Agent& on, auto change) {
    Client hearing = listener(on);
    asking.write("ctrl", "mode", 7);
    change();
    EXPECT_EQ(event(hearing, "drift")["found"], 3);
    asking.write("ctrl", "mode", 8);
    EXPECT_EQ(asking.hardware("VALUE"), 0x1900u);
  };
  session(client, agent, [&] { simulator({"--set", "sensor:2=0x3"}); });
  end(*recorder);
  agent.stop(SIGTERM);
  EXPECT_THAT(textIn(recording()), HasSubstr("chip0 unasked LIMIT\n"));

  Korud::Agent desk;
  replay(*this, desk, board);
  Client onDesk = desk.client();
  session(onDesk, desk, [] {});
  EXPECT_EQ(onDesk.chip("chip0")["state"], "up");
  EXPECT_EQ(counter(onDesk, "replayed"), counter(onDesk, "recorded"));
}

// As it was in the field, its chip is rewritten on the desk until that works out.
TEST_F(Records, BringBackTheTroubleOfAChip) {
  Client client = start();
  simulator({"--unplug", "sensor"});
  client.ask({{"op", "chip.rewrite"}, {"chip", "chip0"}});
  const auto recorder = record("--no-times");
  recorder->stopReading();  // (A terminal that hangs up is nothing to a recording.)
  agent.waitFor("chip0", [](const json& chip) { return chip["attempts"] >= 3; });
  simulator({"--plug", "sensor"});
  agent.waitForState("chip0", "up");
  client.write("ctrl", "mode", 5);
  recorder->signal(SIGHUP);
  recorder->wait();
  agent.stop(SIGTERM);
  EXPECT_THAT(textIn(recording()), testing::Not(HasSubstr(" holds ")));

  Korud::Agent desk;
  replay(*this, desk, Korud::fieldsBoard);
  EXPECT_GE(desk.waitForState("chip0", "up")["failed_writes"], 0);
  Client onDesk = desk.client();
  onDesk.write("ctrl", "mode", 5);
  EXPECT_EQ(onDesk.chip("chip0")["state"], "up");
  EXPECT_EQ(counter(onDesk, "replayed"), counter(onDesk, "recorded"));
}

// A recorder that stands still holds up nobody; what it misses is told, and nobody goes past that.
TEST_F(Records, HaveGapsWhereTheRecorderWasTooSlow) {
  Client client = start();
  const auto recorder = record("--no-times");
  recorder->signal(SIGSTOP);
  const std::string read = request("hw.read", "chip0", "VALUE").dump() + "\n";
  constexpr int batch = 100;
  for (int i = 0; i < 200; ++i) {
    std::string asked;
    for (int each = 0; each < batch; ++each) asked += read;
    client.send(asked);
    for (int each = 0; each < batch; ++each) {
      ASSERT_EQ(json::parse(client.line())["result"]["value"], 0x1900);
    }
  }
  if (!Testing::sanitized) {  // which have memory of their own
    EXPECT_LT(agent.status("VmRSS"), 200'000);
  }
  recorder->signal(SIGCONT);
  EXPECT_THAT(end(*recorder), HasSubstr("that were missed\n"));
  agent.stop(SIGTERM);
  size_t reads = 0;
  size_t missing = 0;
  for (const auto& record : Board::readRecording(recording())) {
    if (record.kind == Board::Recorded::Kind::read) ++reads;
    missing += record.missing;
  }
  EXPECT_GT(missing, 0u);
  EXPECT_EQ(reads + missing, 20'000u);
}

}  // namespace
