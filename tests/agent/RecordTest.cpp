// Sessions on a bus that are recorded, and replayed on a chip that is not there.

#include <cerrno>
#include <thread>

#include "Keel/GenericSigbusHandler.h"
#include "board/devices/ReplayTransport.h"
#include "board/devices/internal/BusTap.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"
#include "tests/agent/ChipFields.h"

namespace {

namespace fs = std::filesystem;
using Board::BusRecorder;
using Board::BusTap;
using Korud::Client;
using Korud::json;
using Korud::replaced;
using Korud::request;
using testing::ElementsAre;
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
  EXPECT_LT(agent.status("VmRSS"), 200'000);
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

// ---- Parts

// Ends accesses as late as it is told to.
class LateTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  explicit LateTransport(const std::string& map) : BaseTransportMethodImpl(map.c_str(), 1, {}) {}
  uint32_t regRead(const char*) override {
    if (isBusy) throw KoruRegFile::TransportError("busy", EAGAIN);
    return 7;
  }
  void regWrite(const char*, uint32_t) override {
    throw KoruRegFile::TransportError("nobody answers", ENXIO);
  }
  void regReadWithOutcome(const char*, KoruRegFile::AccessCallback callback) override {
    if (isBusy) throw KoruRegFile::TransportError("busy", EAGAIN);
    later.push_back(std::move(callback));
  }
  void regWriteWithOutcome(const char*, uint32_t, KoruRegFile::AccessCallback callback) override {
    later.push_back(std::move(callback));
  }

  std::vector<KoruRegFile::AccessCallback> later;
  bool isBusy = false;
};

// What is told of a bus, as lines of a recording.
class Bus : public testing::Test {
 protected:
  Bus() { recorder->isWantedIs(true); }
  static void ignore(const KoruRegFile::AccessOutcome&) {}

  const Testing::TempFile map{
      "number,name,type,writeable,width\n1,A,cfg,true,32\n2,B,cfg,true,8\n"};
  std::vector<std::string> told;
  const std::shared_ptr<BusRecorder> recorder =
      std::make_shared<BusRecorder>([this](const Board::BusAccess& access, uint64_t number) {
        const auto kind =
            access.isWrite ? Board::Recorded::Kind::write : Board::Recorded::Kind::read;
        told.push_back(std::to_string(number) + " " +
                       Board::recordText({.kind = kind,
                                          .chip = "c",
                                          .reg = access.reg,
                                          .value = access.value,
                                          .failure = access.failure}));
      });
  LateTransport* late = new LateTransport(map.path());
  std::unique_ptr<BusTap> tap = std::make_unique<BusTap>(
      std::unique_ptr<KoruRegFile::BaseTransportMethodImpl>(late), recorder);
};

TEST_F(Bus, IsToldInTheOrderInWhichAccessesBegin) {
  tap->regWriteWithOutcome("A", 5, ignore);
  tap->regReadWithOutcome("B", ignore);
  EXPECT_EQ(tap->regRead("A"), 7u);
  EXPECT_THROW(tap->regWrite("B", 3), KoruRegFile::TransportError);
  late->isBusy = true;
  EXPECT_THROW(tap->regRead("A"), KoruRegFile::TransportError);
  EXPECT_THROW(tap->regReadWithOutcome("A", ignore), KoruRegFile::TransportError);
  late->isBusy = false;
  tap->regWriteWithOutcome("A", 6, ignore);
  late->later[1]({.value = 9});
  EXPECT_THAT(told, ElementsAre());
  late->later[0]({.value = 5});
  const auto known = ElementsAre("1 c write A 0x5", "2 c read B 0x9", "3 c read A 0x7",
                                 "4 c write B 0x3 failed 6 \"nobody answers\"");
  EXPECT_THAT(told, known);
  tap.reset();
  EXPECT_EQ(told.back(), "5 c write A 0x6 failed 0 \"its end was not seen\"");
}

TEST_F(Bus, IsNotToldWhileNobodyWantsToHear) {
  recorder->isWantedIs(false);
  tap->regRead("A");
  tap->regReadWithOutcome("A", ignore);
  recorder->isWantedIs(true);
  late->later[0]({.value = 9});
  tap->regRead("B");
  EXPECT_THAT(told, ElementsAre("1 c read B 0x7"));
}

// ---- Texts

using Board::Recorded;
using Board::RecordingError;

TEST(Recording, SaysWhatWasWritten) {
  const KoruRegFile::TransportFailure failure{.reason = "a \"b\"\n\xff", .error = EIO};
  const KoruRegFile::TransportFailure busError{.reason = "gone", .isBusError = true};
  const std::vector<Recorded> records = {
      {.kind = Recorded::Kind::holds, .chip = "c", .reg = "A[3]", .value = 0xffffffff},
      {.kind = Recorded::Kind::unasked, .chip = "c", .reg = "a b"},
      {.kind = Recorded::Kind::read, .chip = "end", .reg = "failed", .value = 1},
      {.kind = Recorded::Kind::read, .chip = "c", .reg = "A", .failure = failure},
      {.kind = Recorded::Kind::write, .chip = "ä", .reg = "#", .value = 2, .failure = busError},
      {.kind = Recorded::Kind::write, .chip = "c", .reg = "", .value = 3},
      {.kind = Recorded::Kind::gap, .chip = "c", .missing = UINT64_MAX},
      {.kind = Recorded::Kind::end}};
  std::string text = Board::recordingHeader + std::string("\n# a comment\n\n");
  for (Recorded record : records) {
    if (record.kind == Recorded::Kind::write) {
      record.times = Recorded::Times{std::chrono::nanoseconds(1), std::chrono::hours(100)};
    }
    text += Board::recordText(record) + "\n";
  }
  const auto read = Board::recordsIn(text, "F");
  ASSERT_EQ(read.size(), records.size());
  for (size_t i = 0; i < read.size(); ++i) {
    SCOPED_TRACE(Board::recordText(records[i]));
    EXPECT_EQ(read[i].kind, records[i].kind);
    if (i + 1 < read.size()) {
      EXPECT_EQ(read[i].chip, records[i].chip);
    }
    EXPECT_EQ(read[i].reg, records[i].reg);
    EXPECT_EQ(read[i].value, records[i].value);
    EXPECT_EQ(read[i].missing, records[i].missing);
    EXPECT_EQ(read[i].line, i + 4);
    ASSERT_EQ(read[i].failure.has_value(), records[i].failure.has_value());
    if (!read[i].failure) continue;
    EXPECT_EQ(read[i].failure->error, records[i].failure->error);
    EXPECT_EQ(read[i].failure->isBusError, records[i].failure->isBusError);
  }
  EXPECT_EQ(read[3].failure->reason, "a \"b\"\n\xef\xbf\xbd");
  EXPECT_EQ(read[4].times->at, std::chrono::nanoseconds(1));
  EXPECT_EQ(read[4].times->took, std::chrono::hours(100));
}

TEST(Recording, IsRefusedWhenItIsNone) {
  const std::string giant(5000, 'x');
  const std::pair<std::string, std::string> table[] = {
      {"", "F:1: the line was cut short"},
      {"koru-recording 2\nend\n",
       "F:1: a recording begins with 'koru-recording 1', and this with "},
      {"\x7f\x45\x4c\x46\x02\n", "F:1: a recording begins with 'koru-recording 1', and this with "},
      {giant, "F:1: a line has at most 4096 bytes"},
      {"koru-recording 1\n", "F:1: the recording was cut short; with a line 'end' behind it, "},
      {"koru-recording 1\nc read A 1\n", "F:2: the recording was cut short; "},
      {"koru-recording 1\nc read A 1\nen", "F:3: the line was cut short"},
      {"koru-recording 1\nend\nc read A 1\n", "F:3: nothing stands behind the end"},
      {"koru-recording 1\nc read " + giant + "\nend\n", "F:2: a line has at most 4096 bytes"},
      {"koru-recording 1\nc\n", "F:2: what happened is missing"},
      {"koru-recording 1\nc end\n", "F:2: 'end' is nothing that happens"},
      {"koru-recording 1\nc rites A 1\n", "F:2: 'rites' is nothing that happens"},
      {"koru-recording 1\nc write A\n", "F:2: the value is missing"},
      {"koru-recording 1\nc write A 0x100000000\n", "F:2: the value cannot be '0x100000000'"},
      {"koru-recording 1\nc write A -1\n", "F:2: the value cannot be '-1'"},
      {"koru-recording 1\nc write A 1 2\n", "F:2: there is more than a record in the line"},
      {"koru-recording 1\nc write A 1 at nan took 1\n", "F:2: the time cannot be 'nan'"},
      {"koru-recording 1\nc write A 1 at 1e300 took 1\n", "F:2: the time cannot be '1e300'"},
      {"koru-recording 1\nc write A 1 at 1\n", "F:2: 'took' is missing"},
      {"koru-recording 1\nc read A failed x \"y\"\n", "F:2: the errno cannot be 'x'"},
      {"koru-recording 1\nc read A failed 5\n", "F:2: the reason is missing"},
      {"koru-recording 1\nc read \"A 1\n", "F:2: what is between quotes is no text"},
      {"koru-recording 1\nc read \"\\\n", "F:2: what is between quotes is no text"},
      {"koru-recording 1\nc read A\x1b 1\n", "F:2: 'A\\x1b' has to be between quotes"},
      {"koru-recording 1\nc gap x\n", "F:2: how many are missing cannot be 'x'"},
      {"koru-recording 1\n a b c d e f g h i j k l m\n", "F:2: it has too many words"},
      {std::string("koru-recording 1\n\0\n", 19), "F:2: "},
  };
  for (const auto& [text, told] : table) {
    EXPECT_THAT(Testing::failure<RecordingError>([&] { Board::recordsIn(text, "F"); }),
                testing::StartsWith(told))
        << text.substr(0, 100);
  }
  const Testing::StateDirectory directory;
  const std::string pipe = directory.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::pair<std::string, const char*> files[] = {
      {pipe, "it is no regular file"},
      {directory.path(), "it is a directory"},
      {directory.file("none"), "No such file or directory"},
      {"/dev/zero", "it is no regular file"}};
  for (const auto& [path, told] : files) {
    EXPECT_EQ(Testing::failure<RecordingError>([&] { Board::readRecording(path); }),
              "cannot read the recording " + path + ": " + told);
  }
}

// One of two, whole, or a refusal.
TEST(Recording, IsReadWholeWhileOthersPutAnotherInItsPlace) {
  const Testing::StateDirectory directory;
  const std::string path = directory.file("session.rec");
  const auto text = [](const char* reg) {
    std::string all = Board::recordingHeader + std::string("\n");
    for (int i = 0; i < 20'000; ++i) all += fmt::format("c read {} {:#x}\n", reg, i);
    return all + "end\n";
  };
  const std::string texts[] = {text("A"), text("LONGER")};
  const auto put = [&](const std::string& to, size_t which) {
    std::ofstream(to, std::ios::binary) << texts[which];
  };
  put(path, 0);
  std::atomic<bool> isOver{false};
  std::thread other([&] {
    for (size_t i = 0; !isOver; ++i) {
      if (i % 4 < 2) {
        put(path + ".new", i % 2);
        ::rename((path + ".new").c_str(), path.c_str());
      } else {
        put(path, i % 2);
      }
    }
  });
  size_t refused = 0;
  for (int i = 0; i < 60; ++i) {
    try {
      const auto records = Board::readRecording(path);
      ASSERT_EQ(records.size(), 20'001u);
      for (const Recorded& record : records) {
        ASSERT_TRUE(record.kind == Recorded::Kind::end || record.reg == records[0].reg);
      }
    } catch (const RecordingError&) {
      ++refused;
    }
  }
  isOver = true;
  other.join();
  EXPECT_LT(refused, 60u);
}

TEST(Recording, IsReplayedByTheChipThatIsMeant) {
  const Testing::StateDirectory directory;
  const std::string path = directory.file("session.rec");
  const std::string map = directory.file("map.csv");
  std::ofstream(map) << Korud::registerMap;
  const auto replay = [&](const std::string& body, const std::string& name,
                          const std::string& chip = "") {
    std::ofstream(path) << Board::recordingHeader << "\n" << body << "end\n";
    return Board::ReplayTransport({path, chip, name, map}).regRead("CTRL");
  };
  const std::string two = "a read CTRL 1\nb read CTRL 2\n";
  EXPECT_EQ(replay(two, "a"), 1u);
  EXPECT_EQ(replay(two, "a", "b"), 2u);
  EXPECT_EQ(replay("a read CTRL 1\n", "c"), 1u);
  EXPECT_EQ(Testing::failure<RecordingError>([&] { replay(two, "c"); }),
            path + " has no chip 'c'; it has a, b, of which 'chip=NAME' behind the file names one");
  EXPECT_EQ(Testing::failure<RecordingError>([&] { replay("a read CTRL 1\n", "a", "b"); }),
            path + " has no chip 'b'; it has a");
  EXPECT_EQ(Testing::failure<RecordingError>([&] { replay("", "a"); }),
            path + " has no chip 'a'; it has none, of which 'chip=NAME' behind the file names one");
  EXPECT_THAT(Testing::failure<Board::ReplayDeparture>([&] { replay("a gap 12\n", "a"); }),
              HasSubstr(":2, record 1: 12 accesses that were not recorded was expected, and read "
                        "CTRL came"));
  EXPECT_THROW(replay("a read CTRL failed bus \"gone\"\n", "a"),
               Keel::GenericSigbusHandler::SigbusException);
}

}  // namespace
