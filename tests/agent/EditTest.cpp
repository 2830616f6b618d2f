// What the agent does when its system file or a register map changes, and while it is being
// written.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "board/chips/BoardWatch.h"
#include "board/chips/internal/WriteWatch.h"
#include "testing/Expect.h"
#include "tests/agent/Chips.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Korud::chip1;
using Korud::Chips;
using Korud::Client;
using Korud::json;
using Korud::replaced;

using EditedChips = Chips;

TEST_F(EditedChips, FollowTheFile) {
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 9);
  edit(Korud::chip0 + chip1);
  EXPECT_EQ(client.hardware("CTRL", "chip1"), 0x30);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);  // of the first start: it was left alone
  edit(chip1);
  EXPECT_EQ(client.chip("chip0")["state"], "gone");
  edit(chip1 + Korud::chip0);
  EXPECT_EQ(client.read("ctrl", "mode"), 9u);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 0);
  // Replaced, since it is described otherwise; the value stays.
  edit(replaced(Korud::chip0, "value = 3", "value = 4"));
  EXPECT_EQ(client.result(Korud::request("field.reset", "chip0", "ctrl", "mode"))["value"], 4);
  // A description that cannot be used, of a chip that runs and of one that does not.
  edit(replaced(Korud::chip0, "CTRL.mode", "CTRL.none") + replaced(chip1, "\"map.csv\"", "\"no\""));
  const json kept = client.chip("chip0");
  EXPECT_EQ(kept["state"], "up");
  EXPECT_THAT(kept["reason"], testing::HasSubstr("stands for CTRL.none"));
  EXPECT_EQ(client.chip("chip1")["state"], "refused");
  // Described as it was before.
  edit(replaced(Korud::chip0, "value = 3", "value = 4"));
  EXPECT_EQ(client.chip("chip0")["reason"], "");
  // Nobody knows which chip that is.
  edit(replaced(Korud::chip0, "name", "nam"));
  EXPECT_EQ(client.chip("chip0")["state"], "up");
  edit(replaced(replaced(chip1, "chip1", "chip2"), "\"map.csv\"", "\"no\""));
  EXPECT_EQ(client.chip("chip2")["state"], "refused");
  EXPECT_EQ(client.chip("chip0")["state"], "gone");
}

TEST_F(EditedChips, StayWhenTheFileIsBroken) {
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 9);
  for (const std::string& broken :
       {"[[chip]\n"s, ""s, "[profile.p]\n"s, replaced(Korud::chip0, "[[chip]]", "[chip]"),
        replaced(Korud::chip0, "name", "nam")}) {
    agent.write("board.toml", broken);
    expectSeen(client);
    EXPECT_EQ(client.read("ctrl", "mode"), 9u);
  }
  edit(Korud::chip0);
  EXPECT_EQ(client.read("ctrl", "mode"), 9u);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
  agent.write("board.toml", "chip = []\n");
  Korud::until([&] { return client.result({{"op", "chip.list"}}).empty(); });
  const std::string traces = agent.stop(SIGTERM).err;
  EXPECT_THAT(traces, testing::HasSubstr("there are no chips in it any more (chip = [] says so); "
                                         "the chips stay as they are"));
  EXPECT_THAT(traces, testing::HasSubstr("chips are written as [[chip]]; the chips stay"));
}

// Whatever is seen of the file before its writer closes it is not the file.
TEST_F(EditedChips, StayWhileTheFileIsBeingWritten) {
  agent.write("board.toml", Korud::chip0 + chip1);
  Client client = agent.startAndConnect();
  const std::string whole = Korud::chip0 + replaced(chip1, "value = 3", "value = 4");
  const size_t half = Korud::chip0.size();
  for (const bool isNew : {false, true}) {
    if (isNew) fs::remove(agent.file("board.toml"));
    std::ofstream out(agent.file("board.toml"));
    for (const size_t end : {size_t{0}, half, whole.size()}) {
      out.seekp(0);
      out << whole.substr(0, end) << std::flush;
      expectSeen(client);
      agent.signal(SIGHUP);
      expectSeen(client);
      for (const char* name : {"chip0", "chip1"}) {
        EXPECT_EQ(client.chip(name)["state"], "up") << end;
        EXPECT_EQ(client.chip(name)["rewrites"], isNew && name == "chip1"s ? 0 : 1) << end;
      }
    }
    // It may stay open for ever.
    if (!isNew) out.close();
    const json reset = Korud::request("field.reset", "chip1", "ctrl", "mode");
    Korud::until([&] { return client.ask(reset)["result"]["value"] == 4; });
  }
}

// Nothing happens in the directory when it can be read at last.
TEST_F(EditedChips, FollowAnEditThatCouldNotBeReadAtFirst) {
  Client client = agent.startAndConnect();
  const auto edit = [&](const char* name, const std::string& text) {
    fs::create_symlink(std::string("later/") + name, agent.file("link"));
    fs::rename(agent.file("link"), agent.file(name));
    expectSeen(client);
    fs::create_directory(agent.file("later"));
    expectSeen(client);
    agent.write(std::string("later/") + name, text);
  };
  edit("board.toml", Korud::chip0 + replaced(chip1, "map.csv", "map1.csv"));
  agent.waitForState("chip1", "refused");
  fs::remove_all(agent.file("later/board.toml"));
  fs::rename(agent.file("later"), agent.file("other"));
  agent.write("board.toml", Korud::chip0 + replaced(chip1, "map.csv", "map1.csv"));
  edit("map1.csv", Korud::registerMap);
  agent.waitForState("chip1", "up");
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
}

// A map that changed between being read for the first time and having its stamp taken, and again
// within what the clock of its file system tells apart.
TEST(FirstEdit, IsSeenThoughTheStampIsTheSame) {
  const Testing::StateDirectory state;
  const std::string map = state.file("map.csv");
  std::ofstream(map) << Korud::registerMap;
  std::ofstream(state.file("board.toml")) << Korud::chip0;
  Board::BoardKeeper agent({.stateDirectory = state.path()});
  Board::BoardWatch board(agent, state.file("board.toml"));
  board.load();
  struct stat stamped;
  ASSERT_EQ(::stat(map.c_str(), &stamped), 0);
  for (const char* name : {"CTRX", "CTRL", "CTRX"}) {
    SCOPED_TRACE(name);
    std::ofstream(map) << replaced(Korud::registerMap, "CTRL", name);
    const timespec times[] = {stamped.st_atim, stamped.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, map.c_str(), times, 0), 0);
    const bool isWrong = std::string_view(name) == "CTRX";
    Testing::waitFor([&] { return agent.health("chip0").reason.empty() != isWrong; });
  }
}

// Written in place, put in place, or with another directory in the place of its own.
TEST_F(EditedChips, FollowAMapInAnotherDirectory) {
  const auto map = [](const char* reg) { return replaced(Korud::registerMap, "STATUS", reg); };
  fs::create_directories(agent.file("maps/deep"));
  std::ofstream(agent.file("maps/deep/map.csv")) << map("ONE");
  agent.write("board.toml", replaced(Korud::chip0, "\"map.csv\"", "\"maps/deep/map.csv\""));
  Client client = agent.startAndConnect();
  const auto awaitRegister = [&](const char* reg) {
    Korud::until([&] { return client.ask(Korud::request("hw.read", "chip0", reg))["ok"] == true; });
  };
  awaitRegister("ONE");
  std::ofstream(agent.file("maps/deep/map.csv")) << map("TWO");
  awaitRegister("TWO");
  agent.write("maps/deep/map.csv", map("THREE"));
  awaitRegister("THREE");
  fs::create_directory(agent.file("maps/other"));
  std::ofstream(agent.file("maps/other/map.csv")) << map("FOUR");
  fs::rename(agent.file("maps/deep"), agent.file("maps/gone"));
  fs::rename(agent.file("maps/other"), agent.file("maps/deep"));
  awaitRegister("FOUR");
  std::ofstream(agent.file("maps/deep/map.csv")) << map("FIVE");
  awaitRegister("FIVE");
  // A link in its place, which is then pointed elsewhere.
  fs::create_directory(agent.file("maps/new"));
  std::ofstream(agent.file("maps/new/map.csv")) << map("SIX");
  fs::rename(agent.file("maps/deep"), agent.file("maps/old"));
  fs::create_directory_symlink("old", agent.file("maps/deep"));
  awaitRegister("FIVE");
  fs::create_directory_symlink("new", agent.file("maps/next"));
  fs::rename(agent.file("maps/next"), agent.file("maps/deep"));
  awaitRegister("SIX");
  std::ofstream(agent.file("maps/new/map.csv")) << map("SEVEN");
  awaitRegister("SEVEN");
}

// However a directory gets there that was not when it was to be watched.
TEST(WriteWatch, HearsOfADirectoryThatAppears) {
  const Testing::StateDirectory state;
  fs::create_directory(state.file("other"));
  bool heard = false;
  Board::WriteWatch watch([&] { heard = true; });
  watch.directoriesAre({state.file("a/b")});
  const auto expectHeard = [&] {
    Testing::waitFor([&] { return heard; });
    std::ofstream file(state.file("a/b/file"));
    EXPECT_TRUE(watch.isBeingWritten(state.file("a/b/file")));
    file.close();
    EXPECT_FALSE(watch.isBeingWritten(state.file("a/b/file")));
    fs::remove_all(state.file("a/b"));
    Testing::settle();
    heard = false;
  };
  fs::create_directories(state.file("a/b"));
  expectHeard();
  fs::rename(state.file("other"), state.file("a/b"));
  expectHeard();
  fs::create_directory(state.file("elsewhere"));
  fs::create_directory_symlink("../elsewhere", state.file("a/b"));
  expectHeard();
}

// It is also looked at with each event; that does not put off the next attempt.
TEST(FirstEdit, IsTriedAgainSoonHoweverOftenItFailed) {
  const Testing::StateDirectory state;
  fs::create_directory(state.file("later"));
  std::ofstream(state.file("board.toml")) << replaced(Korud::chip0, "map.csv", "later/map.csv");
  Board::BoardKeeper agent({.stateDirectory = state.path()});
  Board::BoardWatch board(agent, state.file("board.toml"));
  for (int times = 0; times < 12; ++times) board.load();
  std::ofstream(state.file("later/map.csv")) << Korud::registerMap;
  Testing::waitFor([&] { return agent.health("chip0").state == Board::ChipState::up; });
}

// What stands in the way of one chip leaves the rest of an edit alone, and goes.
TEST_F(EditedChips, ComeUpWhenTheirDirectoryCanBeMade) {
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 9);
  fs::rename(agent.file("korud"), agent.file("away"));
  agent.write("korud", "");
  agent.write("board.toml", replaced(Korud::chip0, "value = 3", "value = 4") + chip1 +
                                replaced(chip1, "\"map.csv\"", "\"no\""));
  for (const char* name : {"chip0", "chip1"}) {
    EXPECT_THAT(agent.waitForState(name, "failed")["reason"], testing::HasSubstr("/korud"));
  }
  fs::remove(agent.file("korud"));
  for (const char* name : {"chip0", "chip1"}) agent.waitForState(name, "up");
  EXPECT_EQ(client.read("ctrl", "mode"), 9u);
}

// The numbers of registers are exchanged in the map, while the agent runs and while it does not.
TEST_F(EditedChips, KeepValuesByRegister) {
  const std::string header = "number,name,type,writeable,width\n";
  const auto mapIs = [&](const char* first, const char* second) {
    agent.write("map.csv",
                fmt::format("{}0,{},cfg,true,32\n1,{},cfg,true,32\n", header, first, second));
  };
  std::string board = "[[chip]]\nname = \"chip0\"\nregister_map = \"map.csv\"\nmemory = \"w\"\n";
  for (const char* reg : {"P", "Q"}) {
    board += fmt::format(
        "physical.{0}.f.bits = \"31:0\"\n"
        "logical.{0}.f = {{ to = \"{0}.f\", value = 7 }}\n",
        reg);
  }
  agent.write("board.toml", board);
  mapIs("P", "Q");
  Client client = agent.startAndConnect();
  client.write("P", "f", 1);
  client.write("Q", "f", 2);
  const auto expectKept = [&](Client& now, uint32_t p, uint32_t q) {
    EXPECT_EQ(now.read("P", "f"), p);
    EXPECT_EQ(now.hardware("P"), p);
    EXPECT_EQ(now.read("Q", "f"), q);
    EXPECT_EQ(now.hardware("Q"), q);
  };
  mapIs("Q", "P");
  Korud::until([&] { return client.hardware("Q") == 2 && client.chip("chip0")["state"] == "up"; });
  expectKept(client, 1, 2);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
  const std::string live = agent.stop(SIGKILL).err;
  EXPECT_THAT(live,
              testing::HasSubstr("address 0x0 was register 'P' and is 'Q' now; field Q.f takes "
                                 "its value along"));
  mapIs("P", "Q");
  Client again = agent.startAndConnect();
  expectKept(again, 1, 2);
  agent.stop(SIGTERM);
  // Another register in the place of one that has gone.
  agent.write("board.toml",
              replaced(replaced(board, "physical.P", "physical.R"), "\"P.f", "\"R.f"));
  mapIs("R", "Q");
  Client last = agent.startAndConnect();
  EXPECT_EQ(last.read("P", "f"), 7u);
  EXPECT_EQ(last.hardware("R"), 7);
  EXPECT_EQ(last.read("Q", "f"), 2u);
  EXPECT_THAT(agent.stop(SIGTERM).err, testing::HasSubstr("begins with the file's value"));
}

}  // namespace
