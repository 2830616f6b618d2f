// What the agent does with its chips: at a start, when something is damaged or fails, and when its
// system file changes.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <list>

#include "Shoal/Layout.h"
#include "Shoal/TableInfo.h"
#include "testing/Sanitizers.h"
#include "tests/agent/Korud.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Korud::Client;
using Korud::json;

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  const size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

const std::string chip1 = replaced(replaced(Korud::chip0, "chip0", "chip1"), "window0", "window1");
const std::string config = "KoruRegFile/shadowFieldsConfig/chip0";
const std::string status = "KoruRegFile/shadowFieldsStatus/chip0";

class Chips : public testing::Test {
 protected:
  // Waits for the agent to have seen an edit: a chip of its own appears with it.
  void edit(const std::string& board) {
    const std::string name = "seen" + std::to_string(++edits_);
    agent.write("board.toml", board + "[[chip]]\nname = \"" + name +
                                  "\"\nregister_map = \"map.csv\"\nmemory = true\n");
    agent.waitForState(name, "up");
  }
  // The turn of the loop that answers the second one has seen what happened before.
  static void expectSeen(Client& client) {
    for (int turn = 0; turn < 2; ++turn) client.chip("chip0");
  }
  // Two chips that have been given values; the agent was killed, and then the first chip was reset.
  void leaveBehind() {
    agent.write("board.toml", Korud::chip0 + chip1);
    Client client = agent.startAndConnect();
    for (const char* name : {"chip0", "chip1"}) {
      client.write("ctrl", "mode", 5, name);
      client.write("wide", "all", 77, name);
    }
    agent.stop(SIGKILL);
    std::ofstream(agent.file("window0"), std::ios::binary | std::ios::in).write("\xEE\0\0\0", 4);
  }
  void expectUntouched(Client& client, const char* name) {
    EXPECT_EQ(client.chip(name)["state"], "up");
    EXPECT_EQ(client.chip(name)["rewrites"], 0);
    EXPECT_EQ(client.hardware("CTRL", name), 0x50);
  }

  Korud::Agent agent;
  int edits_ = 0;
};

TEST_F(Chips, ComeUpAsTheyAreToldTo) {
  const struct {
    const char* onStart;
    uint32_t mode;
    uint32_t ctrl;  // the register, which was reset behind the agent's back
  } table[] = {{"trust", 5, 0xEE}, {"rewrite", 5, 0x50}, {"defaults", 3, 0x30}};
  for (const auto& [onStart, mode, ctrl] : table) {
    SCOPED_TRACE(onStart);
    leaveBehind();
    agent.write(
        "board.toml",
        replaced(Korud::chip0, "memory", "on_start = \""s + onStart + "\"\nmemory") + chip1);
    Client client = agent.startAndConnect();
    EXPECT_EQ(client.read("ctrl", "mode"), mode);
    EXPECT_EQ(client.hardware("CTRL"), ctrl);
    expectUntouched(client, "chip1");
    agent.stop(SIGTERM);
  }
}

TEST_F(Chips, SurviveDamagedAndMissingTables) {
  const auto zero = [](const std::string& file, size_t begin, size_t size) {
    std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(begin));
    out << std::string(size, '\0');
  };
  const std::pair<const char*, std::function<void(const std::string&)>> damages[] = {
      {"header", [&](const auto& file) { zero(file, 24, 8); }},
      {"slots", [&](const auto& file) { zero(file, fs::file_size(file) - 64, 64); }},
      {"cut", [&](const auto& file) { fs::resize_file(file, fs::file_size(file) - 16); }},
      {"missing", [](const auto& file) { fs::remove(file); }},
  };
  for (const std::string& table : {config, status}) {
    for (const auto& [name, damage] : damages) {
      SCOPED_TRACE(table + ", " + name);
      leaveBehind();
      fs::remove(agent.file(table + ".damaged"));
      damage(agent.file(table));
      Client client = agent.startAndConnect();
      agent.waitForState("chip0", "up");
      // What is damaged in the configuration is in the status still.
      const bool isMissing = name == "missing"s;
      const uint32_t mode = client.read("ctrl", "mode");
      EXPECT_EQ(mode, isMissing && table == config ? 3 : 5);
      EXPECT_EQ(client.hardware("CTRL"), mode << 4);
      // A status that can be trusted says what the registers hold.
      EXPECT_EQ(client.chip("chip0")["rewrites"], isMissing && table == config ? 0 : 1);
      EXPECT_EQ(fs::exists(agent.file(table + ".damaged")), !isMissing);
      expectUntouched(client, "chip1");
      agent.stop(SIGTERM);
    }
  }
}

// What was being brought up when the agent was killed, and what somebody else keeps in a window.
TEST_F(Chips, KeepWhatWasSavedBesideDamage) {
  leaveBehind();
  fs::resize_file(agent.file("window0"), 8192);
  agent.write("korud/chip0.saved", "0 4 4 12 CTRL\n4 0 32 6\nend 2\n");
  fs::resize_file(agent.file(config), fs::file_size(agent.file(config)) - 16);
  Client client = agent.startAndConnect();
  EXPECT_EQ(client.read("ctrl", "mode"), 12u);
  EXPECT_EQ(client.read("wide", "all"), 6u);
  EXPECT_EQ(client.hardware("CTRL"), 0xC0);
  EXPECT_EQ(client.hardware("WIDE"), 6);
  EXPECT_EQ(fs::file_size(agent.file("window0")), 8192u);
  EXPECT_FALSE(fs::exists(agent.file("korud/chip0.saved")));
  const json forced = client.ask(
      R"({"op": "hw.write", "chip": "chip0", "register": "CTRL", "value": 3, "force": true})"s);
  EXPECT_EQ(forced["result"]["value"], 3);
  EXPECT_EQ(client.hardware("CTRL"), 3);
}

TEST_F(Chips, AreRewrittenWhenFieldsCameOrWent) {
  leaveBehind();
  const std::string without = replaced(replaced(Korud::chip0, "en = { bits = 0 }\n", ""),
                                       "en = { to = \"CTRL.en\" }\n", "");
  agent.write("board.toml", without);
  Client client = agent.startAndConnect();
  for (const std::string& table : {config, status}) {
    EXPECT_EQ(Shoal::tableInfo(Shoal::TablePaths(table))->entries.size(), 2u);
  }
  EXPECT_EQ(client.hardware("CTRL"), 0x50);
  edit(Korud::chip0);
  EXPECT_EQ(Shoal::tableInfo(Shoal::TablePaths(status))->entries.size(), 3u);
  EXPECT_EQ(client.read("ctrl", "mode"), 5u);
}

TEST_F(Chips, FollowTheFile) {
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
  edit(Korud::chip0);
  EXPECT_EQ(client.chip("chip0")["reason"], "");
  edit(replaced(replaced(chip1, "chip1", "chip2"), "\"map.csv\"", "\"no\""));
  EXPECT_EQ(client.chip("chip2")["state"], "refused");
  EXPECT_EQ(client.chip("chip0")["state"], "gone");
}

TEST_F(Chips, StayWhenTheFileIsBroken) {
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 9);
  for (const char* broken : {"[[chip]\n", "", "[profile.p]\n"}) {
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
}

// Whatever is seen of the file before its writer closes it is not the file.
TEST_F(Chips, StayWhileTheFileIsBeingWritten) {
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
TEST_F(Chips, FollowAnEditThatCouldNotBeReadAtFirst) {
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

// What stands in the way of one chip leaves the rest of an edit alone, and goes.
TEST_F(Chips, ComeUpWhenTheirDirectoryCanBeMade) {
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
TEST_F(Chips, KeepValuesByRegister) {
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

TEST_F(Chips, GetNewTablesWhenTheirsAreRemoved) {
  Client client = agent.startAndConnect();
  for (const bool all : {true, false}) {
    client.write("ctrl", "mode", all ? 9 : 11);
    if (all) fs::remove_all(agent.file("KoruRegFile"));
    if (!all) fs::remove(agent.file(config + ".lock"));
    Korud::until([&] { return fs::exists(agent.file(config + ".lock")); });
    agent.waitForState("chip0", "up");
    client.write("wide", "all", 5);
  }
  agent.stop(SIGKILL);
  agent.start();
  Client again = agent.client();
  EXPECT_EQ(again.read("ctrl", "mode"), 11u);
  EXPECT_EQ(again.read("wide", "all"), 5u);
  EXPECT_EQ(again.hardware("CTRL"), 0xB0);
}

TEST_F(Chips, KeepWhatIsAcknowledgedWithoutDescriptors) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  Client client = agent.startAndConnect();
  const auto descriptors = [&](rlim_t limit) {
    const rlimit limits = {limit, 4096};
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_NOFILE, &limits, nullptr), 0);
  };
  EXPECT_EQ(client.read("ctrl", "mode"), 3u);  // it has its descriptor
  fs::resize_file(agent.file("window0"), 0);
  descriptors(8);
  Client waiting = agent.client();
  client.write("ctrl", "mode", 6);
  EXPECT_TRUE(fs::exists(agent.file("korud/chip0.dirty")));
  for (int turn = 0; turn < 200; ++turn) client.read("ctrl", "mode");
  descriptors(1024);
  EXPECT_EQ(waiting.read("ctrl", "mode"), 6u);
  // Some are kept for the chips.
  descriptors(40);
  std::string refused;
  std::list<Client> clients;
  while (refused.empty()) {
    clients.push_back(agent.client());
    clients.back().send(Korud::request("field.read", "chip0", "ctrl", "mode").dump() + "\n");
    const json answer = json::parse(clients.back().line());
    if (!answer["ok"]) refused = answer["error"]["message"];
  }
  EXPECT_EQ(refused, "the last 10 of 40 descriptors are kept for the chips");
  const std::string traces = agent.stop(SIGKILL).err;
  const size_t told = traces.find("there is no descriptor for a client");
  EXPECT_NE(told, std::string::npos);
  EXPECT_EQ(traces.find("there is no descriptor for a client", told + 1), std::string::npos);
  agent.start();
  EXPECT_EQ(agent.client().hardware("CTRL"), 0x60);
}

TEST_F(Chips, DoNotAcknowledgeWhatARestartMayLose) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  Client client = agent.startAndConnect();
  fs::resize_file(agent.file("window0"), 0);
  fs::rename(agent.file("korud"), agent.file("away"));
  const json write = Korud::request("field.write", "chip0", "ctrl", "mode", 6);
  const json all = {
      {"op", "register.write"}, {"chip", "chip0"}, {"register", "ctrl"}, {"value", 1}};
  for (const json& request : {write, all, Korud::request("field.reset", "chip0", "ctrl", "mode")}) {
    const json answer = client.ask(request);
    EXPECT_EQ(answer["error"]["kind"], "failed") << answer;
    EXPECT_THAT(answer["error"]["message"], testing::HasSubstr("korud/chip0.dirty"));
  }
  fs::rename(agent.file("away"), agent.file("korud"));
  client.result(write);
  EXPECT_TRUE(fs::exists(agent.file("korud/chip0.dirty")));
}

TEST_F(Chips, ComeUpInLargeNumbers) {
  std::string board;
  constexpr int count = 60;
  for (int i = 0; i < count; ++i) {
    board += replaced(replaced(Korud::chip0, "chip0", fmt::format("c{}", i)), "window0",
                      fmt::format("w{}", i));
  }
  agent.write("board.toml", board);
  rlimit before = {};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit low = {128, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  Client client = agent.startAndConnect();
  ::setrlimit(RLIMIT_NOFILE, &before);
  for (int i = 0; i < count; ++i) EXPECT_EQ(client.chip(fmt::format("c{}", i))["state"], "up") << i;
}

TEST_F(Chips, AreRewrittenUntilTheHardwareIsBack) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  Client client = agent.startAndConnect();
  const std::string window = agent.file("window0");
  fs::resize_file(window, 0);
  client.write("ctrl", "mode", 6);
  client.write("wide", "all", 8);
  const json down = agent.waitForState("chip0", "rewriting");
  EXPECT_THAT(down["reason"], testing::HasSubstr("register"));
  EXPECT_TRUE(fs::exists(agent.file("korud/chip0.dirty")));
  // Killed meanwhile: the mark is there.
  agent.stop(SIGKILL);
  fs::resize_file(window, 0);
  agent.start();
  agent.waitForState("chip0", "up");
  Client again = agent.client();
  EXPECT_EQ(again.hardware("CTRL"), 0x60);
  EXPECT_EQ(again.hardware("WIDE"), 8);
  // And while it runs.
  fs::resize_file(window, 0);
  again.write("ctrl", "mode", 7);
  agent.waitForState("chip0", "rewriting");
  fs::resize_file(window, 4096);
  agent.waitForState("chip0", "up");
  EXPECT_EQ(again.hardware("CTRL"), 0x70);
  EXPECT_EQ(again.hardware("WIDE"), 8);
  EXPECT_FALSE(fs::exists(agent.file("korud/chip0.dirty")));
}

TEST_F(Chips, ThatCannotBeReachedAreTriedAgain) {
  agent.write("board.toml", replaced(Korud::chip0, "window0", "later/window0") + chip1);
  Client client = agent.startAndConnect();
  const json failed = agent.waitForState("chip0", "failed");
  EXPECT_THAT(failed["reason"], testing::HasSubstr("later/window0: No such file or directory"));
  EXPECT_EQ(client.chip("chip1")["state"], "up");
  EXPECT_EQ(client.ask(Korud::request("hw.read", "chip0", "CTRL"))["error"]["kind"], "notUp");
  // Kept until there is a register to write it to.
  client.write("ctrl", "mode", 8);
  fs::create_directory(agent.file("later"));
  agent.waitForState("chip0", "up");
  EXPECT_EQ(client.hardware("CTRL"), 0x80);
}

}  // namespace
