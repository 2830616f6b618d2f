// What is told of a bus, the text that it becomes, and what a chip that is not there makes of that.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/TransportMethod.h"
#include "board/devices/BusTap.h"
#include "board/devices/ReplayTransport.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"
#include "tests/agent/Korud.h"

namespace {

using Board::BusRecorder;
using Board::BusTap;
using testing::ElementsAre;
using testing::HasSubstr;

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
  tap->regReadWithOutcome("A", ignore);
  recorder->isWantedIs(false);
  late->later[1]({.value = 9});
  EXPECT_THAT(told, ElementsAre("1 c read B 0x7"));
}

// The tap is put in front of a transport that is in use.
TEST_F(Bus, IsHeardOfThroughHandlesThatWereThereBefore) {
  const auto method = KoruRegFile::transportMethodFactory("chip0");
  const auto wrap = [&](std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> inner) {
    return std::make_unique<BusTap>(std::move(inner), recorder);
  };
  EXPECT_THROW(method->implPtrWrap(wrap), std::runtime_error);
  method->implPtrIs(std::make_unique<LateTransport>(map.path()));
  KoruRegFile::RegisterHandle handle = method->reg("A");
  EXPECT_EQ(handle.read(), 7u);
  method->implPtrWrap(wrap);
  EXPECT_EQ(handle.read(), 7u);
  EXPECT_EQ(method->regRead("B"), 7u);
  EXPECT_THAT(told, ElementsAre("1 c read A 0x7", "2 c read B 0x7"));
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
  for (const auto& row : table) {
    EXPECT_THAT(Testing::failure<RecordingError>([&] { Board::recordsIn(row.first, "F"); }),
                testing::StartsWith(row.second))
        << row.first.substr(0, 100);
  }
  const Testing::StateDirectory directory;
  const std::string pipe = directory.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::pair<std::string, const char*> files[] = {
      {pipe, "it is no regular file"},
      {directory.path(), "it is a directory"},
      {directory.file("none"), "No such file or directory"},
      {"/dev/zero", "it is no regular file"}};
  for (const auto& row : files) {
    EXPECT_EQ(Testing::failure<RecordingError>([&] { Board::readRecording(row.first); }),
              "cannot read the recording " + row.first + ": " + row.second);
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

// What is held may be written first, until the order has begun; reads that nobody asks for tell
// what was known at that place of the order.
TEST(Recording, IsAnsweredInItsOrder) {
  const Testing::StateDirectory directory;
  const std::string path = directory.file("session.rec");
  const std::string map = directory.file("map.csv");
  std::ofstream(map) << Korud::registerMap;
  std::ofstream(path)
      << Board::recordingHeader
      << "\na holds CTRL 1\na holds WIDE 2\na unasked STATUS\na read STATUS 10\n"
         "a write CTRL 5\na read STATUS 11\na read STATUS 12\na write WIDE 6\nend\n";
  Board::ReplayTransport replay({path, "", "a", map});
  replay.regWrite("CTRL", 1);
  EXPECT_EQ(replay.regRead("STATUS"), 10u);
  EXPECT_EQ(replay.regRead("STATUS"), 10u);
  replay.regWrite("CTRL", 5);
  replay.regWrite("WIDE", 6);
  EXPECT_EQ(replay.regRead("STATUS"), 12u);
  Board::ReplayTransport other({path, "", "a", map});
  other.regWrite("CTRL", 5);
  EXPECT_THAT(Testing::failure<Board::ReplayDeparture>([&] { other.regWrite("CTRL", 1); }),
              HasSubstr("record 2: write WIDE 0x6 was expected, and write CTRL 0x1 came"));
}

}  // namespace
