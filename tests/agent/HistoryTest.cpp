// What the agent remembers of what was written, and what lies in the place of that.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "board/agent/Agent.h"
#include "board/chips/History.h"
#include "board/chips/internal/ChipHistory.h"
#include "board/chips/internal/HistoryFile.h"
#include "board/description/ChipBuilder.h"
#include "tests/agent/Chips.h"

namespace {

using Board::HistoryRecord;
using Board::WrittenFor;
using Korud::Agent;
using Korud::Client;
using Korud::json;
using Korud::request;
namespace fs = std::filesystem;

std::vector<HistoryRecord> historyOf(const Agent& agent, const std::string& chip = "chip0") {
  return Board::HistoryReader(Board::historyPath(agent.file(""), chip)).after(0);
}

// "ctrl.mode 3>5 CTRL=0x50 done request me", as far as there is something to say.
std::string textOf(const HistoryRecord& record) {
  std::string text;
  if (record.hasField) {
    text += fmt::format("{}.{} {:x}>{:x} ", record.reg, record.field, record.was, record.value);
  }
  if (record.hasRegister) text += fmt::format("{}={:x} ", record.hardware, record.sent);
  const bool isMine = record.hasActor && record.actor.pid == ::getpid() &&
                      record.actor.uid == ::geteuid() && !record.actor.process.empty();
  return text + Board::textOf(record.end) + ' ' + Board::textOf(record.why) +
         (isMine            ? " me"
          : record.hasActor ? " somebody"
                            : "");
}

std::vector<std::string> textsOf(const std::vector<HistoryRecord>& records, uint64_t after = 0) {
  std::vector<std::string> texts;
  for (const HistoryRecord& record : records) {
    if (record.sequence > after) texts.push_back(textOf(record));
  }
  return texts;
}

class History : public Korud::Chips {
 protected:
  std::string path() const { return Board::historyPath(agent.file(""), "chip0"); }
  void prepare() const {
    fs::create_directory(agent.file("korud"));
    fs::permissions(agent.file("korud"), fs::perms(0750));
  }
};

TEST_F(History, TellsWhoWroteWhatAndWhatBecameOfIt) {
  agent.write("board.toml",
              Korud::replaced(Korud::chip0, "en = { bits = 0 }",
                              "en = { bits = 0 }\ngo = { bits = 1, kind = \"pulse\" }") +
                  "[chip.logical.pulse]\ngo = { to = \"CTRL.go\" }\n");
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 5);
  client.write("ctrl", "mode", 5);
  client.result({{"op", "fields.write"},
                 {"chip", "chip0"},
                 {"fields",
                  {{{"register", "ctrl"}, {"field", "en"}, {"value", 1}},
                   {{"register", "ctrl"}, {"field", "mode"}, {"value", 7}},
                   {{"register", "wide"}, {"field", "all"}, {"value", 9}}}}});
  json forced = request("hw.write", "chip0", "WIDE", nullptr, 0xAB);
  forced["force"] = true;
  client.result(forced);
  client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}});
  client.write("pulse", "go", 1);
  EXPECT_THAT(
      textsOf(historyOf(agent)),
      testing::ElementsAre(
          "CTRL=30 done bring-up", "WIDE=0 done bring-up", "ctrl.mode 3>5 CTRL=50 done request me",
          "ctrl.mode 5>5 none request me", "ctrl.en 0>1 CTRL=71 done request me",
          "ctrl.mode 5>7 CTRL=71 done request me", "wide.all 0>9 WIDE=9 done request me",
          "WIDE=ab done request me", "CTRL=71 done rewrite me", "WIDE=9 done rewrite me",
          "pulse.go 0>1 CTRL=73 done request me"));
}

TEST_F(History, TellsWhatAnAgentOfOnesOwnDoes) {
  agent.write("map.csv", Korud::registerMap);
  Board::Agent own({.stateDirectory = agent.file("")});
  own.chipsAre({Board::ChipBuilder("chip0", agent.file("map.csv"), "memory", "window0")
                    .field({.name = "wide.all", .bits = "WIDE[31:0]"})
                    .chip()});
  own.chip("chip0")->fieldWrite("wide", "all", 4);
  own.keeper().rewrite("chip0");
  EXPECT_THAT(textsOf(historyOf(agent)),
              testing::ElementsAre("WIDE=0 done bring-up", "wide.all 0>4 WIDE=4 done program",
                                   "WIDE=4 done rewrite"));
}

TEST_F(History, GoesOnAfterARestartAndAKillAndWithAnotherLength) {
  agent.options = {"--history", "4"};
  Client client = agent.startAndConnect();
  for (uint32_t value = 1; value <= 6; ++value) client.write("wide", "all", value);
  EXPECT_THAT(textsOf(historyOf(agent)),
              testing::ElementsAre(
                  "wide.all 2>3 WIDE=3 done request me", "wide.all 3>4 WIDE=4 done request me",
                  "wide.all 4>5 WIDE=5 done request me", "wide.all 5>6 WIDE=6 done request me"));
  for (const char* length : {"3", "5"}) {
    agent.stop(SIGKILL);
    agent.options = {"--history", length};
    Client again = agent.startAndConnect();
    again.write("wide", "all", 100 + static_cast<uint32_t>(*length));
  }
  EXPECT_THAT(textsOf(historyOf(agent)),
              testing::ElementsAre("wide.all 4>5 WIDE=5 done request me",
                                   "wide.all 5>6 WIDE=6 done request me",
                                   "wide.all 6>97 WIDE=97 done request me",
                                   "wide.all 97>99 WIDE=99 done request me"));
  agent.stop(SIGKILL);
  agent.options = {"--history", "0"};
  agent.startAndConnect().write("wide", "all", 0);
  EXPECT_EQ(historyOf(agent).size(), 4u);
}

TEST_F(History, LosesNoWriteThatWasAcknowledgedWhenTheAgentIsKilled) {
  for (const size_t acknowledged : {1u, 40u, 200u}) {
    Client client = agent.startAndConnect();
    const size_t before = fs::exists(path()) ? historyOf(agent).size() : 0;
    std::string all;
    for (uint32_t value = 1; value <= 400; ++value) {
      all += request("field.write", "chip0", "wide", "all", 1000 * acknowledged + value).dump();
      all += '\n';
    }
    client.send(all);
    for (size_t i = 0; i < acknowledged; ++i) client.line();
    agent.stop(SIGKILL);
    const auto records = historyOf(agent);
    std::vector<uint32_t> values;
    for (size_t i = before; i < records.size(); ++i) {
      if (records[i].hasField) values.push_back(records[i].value);
    }
    ASSERT_GE(values.size(), acknowledged);
    for (size_t i = 0; i < values.size(); ++i) ASSERT_EQ(values[i], 1000 * acknowledged + i + 1);
  }
}

// --- What lies in its place

struct Planted {
  const char* name;
  std::function<void(const std::string& path)> plant;
};

void spoil(const std::string& path, size_t place, const std::string& bytes) {
  Board::HistoryFile(path, 10).append({.hasRegister = true, .hardware = "OLD"});
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
      .seekp(static_cast<std::streamoff>(place))
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class HostileHistory : public testing::TestWithParam<Planted> {};

TEST_P(HostileHistory, HoldsUpNoChipAndIsSetAside) {
  Agent agent;
  agent.options = {"--history", "10"};
  const std::string path = Board::historyPath(agent.file(""), "chip0");
  fs::create_directory(agent.file("korud"));
  fs::permissions(agent.file("korud"), fs::perms(0750));
  GetParam().plant(path);
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 5);
  EXPECT_EQ(client.hardware("CTRL"), 0x50u);
  EXPECT_THAT(textsOf(historyOf(agent)),
              testing::ElementsAre("CTRL=30 done bring-up", "WIDE=0 done bring-up",
                                   "ctrl.mode 3>5 CTRL=50 done request me"));
  EXPECT_TRUE(fs::symlink_status(path + ".damaged").type() != fs::file_type::not_found);
  const std::string said = agent.stop(SIGTERM).err;
  const size_t at = said.find("set aside, and the history begins anew");
  EXPECT_NE(at, std::string::npos) << said;
  EXPECT_EQ(said.find("history", said.find('\n', at)), std::string::npos) << said;
}

INSTANTIATE_TEST_SUITE_P(
    History, HostileHistory,
    testing::Values(
        Planted{"Link", [](const std::string& path) { fs::create_symlink("/etc/passwd", path); }},
        Planted{"LinkToNothing", [](const std::string& path) { fs::create_symlink("none", path); }},
        Planted{"Pipe", [](const std::string& path) { ::mkfifo(path.c_str(), 0600); }},
        Planted{"Directory", [](const std::string& path) { fs::create_directory(path); }},
        Planted{"OtherName",
                [](const std::string& path) {
                  std::ofstream(path + ".other") << "mine";
                  fs::create_hard_link(path + ".other", path);
                }},
        Planted{"Empty", [](const std::string& path) { std::ofstream{path}; }},
        Planted{"Garbage",
                [](const std::string& path) { std::ofstream(path) << std::string(5000, 'x'); }},
        Planted{"OtherOwner",
                [](const std::string& path) {
                  std::ofstream{path};
                  if (::chown(path.c_str(), 12345, 12345) != 0) fs::create_directory(path + "x");
                }},
        Planted{"Cut",
                [](const std::string& path) {
                  spoil(path, 0, "K");
                  fs::resize_file(path, 40);
                }},
        Planted{"OtherOrder", [](const std::string& path) { spoil(path, 8, "\1\2\3\4"); }},
        Planted{"OtherVersion", [](const std::string& path) { spoil(path, 12, "\2"); }},
        Planted{"HugeCapacity",
                [](const std::string& path) { spoil(path, 24, "\xff\xff\xff\xff\xff\xff"); }}),
    [](const auto& planted) { return planted.param.name; });

// A directory that cannot be set aside, since one with something in it has taken that name.
TEST_F(History, IsLeftOutWhereItCannotBeKept) {
  fs::create_directories(path() + ".damaged/full");
  fs::create_directory(path());
  fs::permissions(agent.file("korud"), fs::perms(0750));
  Client client = agent.startAndConnect();
  for (uint32_t value = 1; value <= 3; ++value) client.write("wide", "all", value);
  EXPECT_EQ(client.hardware("WIDE"), 3u);
  const std::string said = agent.stop(SIGTERM).err;
  EXPECT_EQ(Korud::linesOf(std::istringstream(said)).size(), 2u) << said;
}

// As on a disk that is full.
TEST_F(History, GoesWithoutRecordsWhereThereIsNoRoom) {
  constexpr size_t room = 512 * 1024;
  agent.wrapper = {"/bin/sh", "-c", "ulimit -f 1024; exec \"$@\"", "sh"};
  Client client = agent.startAndConnect();
  constexpr size_t writes = 3000;
  for (uint32_t value = 1; value <= writes; ++value) client.write("wide", "all", value);
  EXPECT_EQ(client.hardware("WIDE"), writes);
  const auto records = historyOf(agent);
  EXPECT_EQ(records.size(), (room - 64) / 192);
  EXPECT_EQ(textOf(records.back()), fmt::format("wide.all {0:x}>{1:x} WIDE={1:x} done request me",
                                                records.back().value - 1, records.back().value));
  const std::string said = agent.stop(SIGTERM).err;
  EXPECT_EQ(said.find("is not kept"), said.rfind("is not kept")) << said;
  EXPECT_NE(said.find("is not kept"), std::string::npos) << said;
}

// --- The file itself

Board::HistoryEntry numbered(uint32_t number) {
  return {.hasField = true, .reg = "r", .field = "f", .was = number, .value = ~number};
}

TEST_F(History, LeavesOutARecordThatIsOnlyHalfThere) {
  prepare();
  for (uint32_t number = 1; number <= 3; ++number) {
    Board::HistoryFile(path(), 10).append(numbered(number));
  }
  const auto values = [&] {
    std::vector<uint32_t> all;
    for (const auto& record : Board::HistoryReader(path()).after(0)) all.push_back(record.was);
    return all;
  };
  EXPECT_THAT(values(), testing::ElementsAre(1, 2, 3));
  for (const size_t size : {size_t{64 + 3 * 192 - 1}, size_t{64 + 2 * 192 + 1}}) {
    fs::resize_file(path(), size);
    EXPECT_THAT(values(), testing::ElementsAre(1, 2));
  }
  fs::resize_file(path(), 64 + 3 * 192);
  EXPECT_THAT(values(), testing::ElementsAre(1, 2));
  Board::HistoryFile(path(), 10).append(numbered(4));
  EXPECT_THAT(values(), testing::ElementsAre(1, 2, 4));
}

TEST_F(History, TakesRecordsThatComeTogetherRoundItsEnd) {
  prepare();
  Board::HistoryFile file(path(), 10);
  uint32_t number = 0;
  for (const uint32_t last : {3u, 12u, 47u}) {
    while (number < last) file.hold(numbered(++number));
    file.flush();
    const auto records = Board::HistoryReader(path()).after(0);
    ASSERT_EQ(records.size(), std::min(last, 10u));
    EXPECT_EQ(records.back().was, last);
    EXPECT_EQ(fs::file_size(path()), 64 + 192 * records.size());
  }
  // The next writer goes on behind the newest one, wherever that is.
  Board::HistoryFile(path(), 10).append(numbered(48));
  EXPECT_EQ(Board::HistoryReader(path()).after(46).size(), 2u);
}

// A record in a place of another, or of another file, is none.
TEST_F(History, TakesNoRecordThatBelongsElsewhere) {
  prepare();
  const std::string other = agent.file("korud/other.history");
  for (const auto& each : {path(), other}) {
    Board::HistoryFile file(each, 10);
    for (uint32_t number = 1; number <= 2; ++number) file.append(numbered(number));
  }
  std::string slot(192, '\0');
  const auto moved = [&](const std::string& from, const std::string& to) {
    std::ifstream(from, std::ios::binary).seekg(64).read(slot.data(), 192);
    std::fstream(to, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(64 + 192)
        .write(slot.data(), 192);
    return Board::HistoryReader(to).after(0).size();
  };
  EXPECT_EQ(moved(path(), path()), 1u);
  EXPECT_EQ(moved(path(), other), 1u);
}

TEST_F(History, CutsNamesThatHaveNoRoom) {
  prepare();
  const std::string longName(300, 'n');
  const std::string shortName(20, 's');
  Board::HistoryFile file(path(), 10);
  const Board::Actor actor{7, 8, "a name of sixteen and more"};
  file.append({.actor = &actor,
               .hasField = true,
               .reg = longName,
               .field = longName,
               .hasRegister = true,
               .hardware = longName,
               .reason = longName});
  file.append({.hasRegister = true, .hardware = shortName, .reason = longName});
  const auto records = Board::HistoryReader(path()).after(0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(records[0].isCut);
  EXPECT_EQ(records[0].actor.process, "a name of sixtee");
  EXPECT_EQ(records[0].reg.size(), 30u);
  EXPECT_EQ(records[0].field.size(), 37u);
  EXPECT_EQ(records[0].hardware.size(), 37u);
  EXPECT_EQ(records[1].hardware, shortName);
  EXPECT_EQ(records[1].reason, std::string(84, 'n'));
}

// No field is told of a register that is written when the chip is brought up.
TEST_F(History, WaitsForNoFieldWhenAChipIsBroughtUp) {
  prepare();
  const auto history =
      std::make_shared<Board::ChipHistory>(path(), 10, std::make_shared<Board::Acting>());
  const Board::ChipHistory::Because because(*history, WrittenFor::bringUp);
  history->accessEnded({.reg = "A", .isWrite = true, .value = 1, .failure = nullptr, .took = {}});
  EXPECT_THAT(textsOf(historyOf(agent)), testing::ElementsAre("A=1 done bring-up"));
}

// An access may end when its chip has been taken down, and described otherwise.
TEST_F(History, IsOfOneChipAtATime) {
  prepare();
  const auto acting = std::make_shared<Board::Acting>();
  const auto first = std::make_shared<Board::ChipHistory>(path(), 10, acting);
  const auto begun = first->accessBegins("A", true, 1, [](const auto&) {});
  first->accessBegins("B", true, 2, [](const auto&) {})({.value = 2});
  first->close();
  const auto second = std::make_shared<Board::ChipHistory>(path(), 10, acting);
  second->accessBegins("C", true, 3, [](const auto&) {})({.value = 3});
  begun({.value = 1});
  EXPECT_THAT(textsOf(historyOf(agent)),
              testing::ElementsAre("B=2 done program", "C=3 done program"));
}

TEST_F(History, IsReadWhileItsRingIsWritten) {
  prepare();
  constexpr uint64_t capacity = 64;
  Board::HistoryFile file(path(), capacity);
  for (uint32_t number = 1; number <= capacity; ++number) file.append(numbered(number));
  std::atomic<bool> isOver = false;
  std::thread writer([&] {
    for (uint32_t number = capacity + 1; number <= 100'000; ++number) file.append(numbered(number));
    isOver = true;
  });
  uint64_t last = 0;
  const Board::HistoryReader reader(path());
  while (!isOver) {
    const auto records = reader.after(0);
    ASSERT_FALSE(records.empty());
    ASSERT_LE(records.size(), capacity);
    ASSERT_GE(records.back().sequence, last);
    last = records.back().sequence;
    for (size_t i = 0; i < records.size(); ++i) {
      ASSERT_TRUE(i == 0 || records[i - 1].sequence < records[i].sequence);
      ASSERT_EQ(records[i].was, records[i].sequence);
      ASSERT_EQ(records[i].value, ~records[i].was);
    }
  }
  writer.join();
  EXPECT_EQ(reader.after(0).size(), capacity);
  EXPECT_EQ(reader.after(99'990).size(), 10u);
}

}  // namespace
