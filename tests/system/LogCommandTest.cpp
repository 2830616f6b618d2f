// korureg log, on histories that no agent writes.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "board/chips/internal/HistoryFile.h"
#include "testing/StateDirectory.h"
#include "tests/system/Korureg.h"

namespace {

using Korureg::command;
using Korureg::expectFailure;
namespace fs = std::filesystem;

class LogCommand : public testing::Test {
 protected:
  LogCommand() {
    fs::create_directory(state.file("korud"));
    fs::permissions(state.file("korud"), fs::perms(0750));
  }
  std::string path(const std::string& chip) const { return Board::historyPath(state.path(), chip); }
  void append(const std::string& chip, const Board::HistoryEntry& entry) const {
    Board::HistoryFile(path(chip), 100).append(entry);
  }
  Testing::Command log(const std::string& words) const {
    return command("log --state-dir " + state.path() + " " + words);
  }
  // Its lines without their times.
  std::vector<std::string> lines(const std::string& words) const {
    const Testing::Outcome outcome = Testing::run(log(words));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    std::vector<std::string> all;
    std::istringstream in(outcome.out);
    for (std::string line; std::getline(in, line);) all.push_back(line.substr(line.find("  ") + 2));
    return all;
  }

  const Board::Actor actor{1000, 4711, "korureg"};
  const Board::HistoryEntry write{.actor = &actor,
                                  .why = Board::WrittenFor::request,
                                  .hasField = true,
                                  .reg = "ctrl",
                                  .field = "mode",
                                  .was = 3,
                                  .value = 5,
                                  .hasRegister = true,
                                  .hardware = "CTRL",
                                  .sent = 0x50,
                                  .end = Board::WriteEnd::done,
                                  .took = 12'345};
  const Board::HistoryEntry failed{.why = Board::WrittenFor::drift,
                                   .hasRegister = true,
                                   .hardware = "WIDE",
                                   .sent = 1,
                                   .end = Board::WriteEnd::failed,
                                   .reason = "nobody answers",
                                   .error = ENXIO};
  const std::string writeLine =
      "ctrl.mode: 0x3 -> 0x5  CTRL=0x50  done in 12 us  by korureg[4711] of user 1000";
  const std::string failedLine = "WIDE=0x1  failed: nobody answers  by the agent (drift)";
  Testing::StateDirectory state;
};

TEST_F(LogCommand, PrintsALineForEachRecordInTheOrderOfTime) {
  append("b", write);
  append("a", failed);
  append("b", failed);
  EXPECT_THAT(lines(""),
              testing::ElementsAre("b  " + writeLine, "a  " + failedLine, "b  " + failedLine));
  EXPECT_THAT(lines("b"), testing::ElementsAre("b  " + writeLine, "b  " + failedLine));
  for (const char* name : {"ctrl", "ctrl.mode", "CTRL"}) {
    EXPECT_THAT(lines(std::string("b --field ") + name), testing::ElementsAre("b  " + writeLine));
  }
  EXPECT_THAT(lines("b --field mode"), testing::IsEmpty());
}

TEST_F(LogCommand, PrintsJsonForPrograms) {
  append("a", write);
  append("a", failed);
  std::istringstream out(Testing::run(log("a --json")).out);
  std::string line;
  std::getline(out, line);
  auto json = nlohmann::ordered_json::parse(line);
  for (const char* time : {"time", "wall_ns", "monotonic_ns"}) json.erase(time);
  EXPECT_EQ(json.dump(),
            R"({"chip":"a","sequence":1,"register":"ctrl","field":"mode","was":3,"value":5,)"
            R"("hardware":"CTRL","sent":80,"took_ns":12345,"outcome":"done","why":"request",)"
            R"("by":{"uid":1000,"pid":4711,"process":"korureg"}})");
  std::getline(out, line);
  json = nlohmann::ordered_json::parse(line);
  EXPECT_EQ(json["reason"], "nobody answers");
  EXPECT_EQ(json["errno"], ENXIO);
  EXPECT_FALSE(json.contains("by"));
}

TEST_F(LogCommand, LeavesOutWhatIsOlder) {
  append("a", write);
  for (const char* time :
       {"1s", "10m", "2h", "36500d", "2001-02-03", "2001-02-03T04:05", "2001-02-03T04:05:06"}) {
    EXPECT_EQ(lines(std::string("--since ") + time).size(), 1u) << time;
  }
  EXPECT_EQ(lines("--since 2200-01-01").size(), 0u);
  for (const char* time : {"soon", "10", "-1s", "1w", "36501d", "2001-02-30x", "99999999999999999d",
                           "2001-02-03T04:05:06Z"}) {
    const auto outcome = Testing::run(log(std::string("--since ") + time));
    EXPECT_EQ(outcome.exitCode, 2) << time << outcome.out;
    EXPECT_NE(outcome.err.find("is no time"), std::string::npos) << outcome.err;
  }
}

TEST_F(LogCommand, EscapesStrangeNames) {
  const Board::Actor strange{0, 1, "\x1b[2Jx\n"};
  append("a\x1b[1m", {.actor = &strange,
                      .hasField = true,
                      .reg = "r\n",
                      .field = "\xff",
                      .hasRegister = true,
                      .hardware = "\x1b]0;t\a",
                      .reason = "\r"});
  const std::string out = Testing::run(log("")).out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
  for (const char c : {'\x1b', '\r', '\a', '\xff'}) EXPECT_EQ(out.find(c), std::string::npos);
  EXPECT_NE(out.find("\\x1b[2Jx"), std::string::npos) << out;
}

TEST_F(LogCommand, TellsWhatIsLostAndWhatCannotBeRead) {
  expectFailure(Testing::run(log("")), 1, "there is no history in " + state.path() + "/korud");
  expectFailure(Testing::run(log("a")), 1,
                "cannot open " + path("a") + ": No such file or directory");
  std::ofstream(path("bad")) << std::string(100, 'x');
  std::ofstream(path("short")) << "KoruHist";
  ::mkfifo(path("pipe").c_str(), 0600);
  fs::create_symlink(path("bad"), path("link"));
  append("a", write);
  const auto outcome = Testing::run(log(""));
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1);
  EXPECT_NE(outcome.err.find("bad.history is no history"), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("short.history is "), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("pipe.history is no file"), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("link.history"), std::string::npos) << outcome.err;

  // The second of three could not be written.
  append("a", write);
  append("a", failed);
  std::fstream(path("a"), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(64 + 192 + 8)
      .put('\0');
  EXPECT_THAT(lines("a"), testing::ElementsAre("a  " + writeLine, "a  1 records could not be kept",
                                               "a  " + failedLine));
}

TEST_F(LogCommand, FollowsWhatIsWritten) {
  append("a", write);
  Testing::Process follow(log("-f"));
  const auto next = [&] {
    const std::string line = follow.line();
    return line.substr(line.find("  ") + 2);
  };
  EXPECT_EQ(next(), "a  " + writeLine);
  append("a", failed);
  EXPECT_EQ(next(), "a  " + failedLine);
  append("b", write);
  EXPECT_EQ(next(), "b  " + writeLine);
  fs::rename(path("a"), path("a") + ".damaged");
  append("a", write);
  EXPECT_EQ(next(), "a  " + writeLine);
  follow.signal(SIGTERM);
  follow.wait();
}

}  // namespace
