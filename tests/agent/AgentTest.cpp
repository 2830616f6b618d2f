// What the agent does with its chips: at a start, and when something is damaged or fails.

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
#include "tests/agent/Chips.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Korud::chip1;
using Korud::Chips;
using Korud::Client;
using Korud::config;
using Korud::json;
using Korud::replaced;
using Korud::status;

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

// An agent notes the values where any version finds them when it ends.
TEST_F(Chips, KeepTheirValuesWhenTheirTablesAreOfAnotherVersion) {
  for (const auto& tables : {std::vector{config}, {status}, {config, status}}) {
    leaveBehind();
    agent.start();
    agent.stop(SIGTERM);
    for (const std::string& table : tables) {
      fs::remove(agent.file(table + ".damaged"));
      std::fstream out(agent.file(table), std::ios::binary | std::ios::in | std::ios::out);
      out.seekp(offsetof(Shoal::TableIdentity, version)).put('\x7f');
    }
    Client client = agent.startAndConnect();
    agent.waitForState("chip0", "up");
    EXPECT_EQ(client.read("ctrl", "mode"), 5u);
    EXPECT_EQ(client.read("wide", "all"), 77u);
    EXPECT_EQ(client.hardware("CTRL"), 0x50);
    for (const std::string& table : tables) {
      EXPECT_TRUE(fs::exists(agent.file(table + ".damaged"))) << table;
    }
    expectUntouched(client, "chip1");
    agent.stop(SIGTERM);
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

TEST_F(Chips, GetNewTablesWhenTheirsAreRemoved) {
  Client client = agent.startAndConnect();
  for (const bool all : {true, false}) {
    client.write("ctrl", "mode", all ? 9 : 11);
    // (The agent, which goes on meanwhile, may be quicker with one of them.)
    std::error_code error;
    if (all) Korud::until([&] { return fs::remove_all(agent.file("KoruRegFile"), error), !error; });
    if (!all) fs::remove(agent.file(config + ".lock"));
    Korud::until([&] { return fs::exists(agent.file(config + ".lock")); });
    agent.waitForState("chip0", "up");
    EXPECT_EQ(client.read("ctrl", "mode"), all ? 9u : 11u);
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
  if (Testing::sanitized) GTEST_SKIP() << "the sanitizer needs descriptors to look at objects";
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
    try {
      clients.back().send(Korud::request("field.read", "chip0", "ctrl", "mode").dump() + "\n");
    } catch (const std::runtime_error&) {
      // Refused, and hung up on, before it could send.
    }
    const json answer = json::parse(clients.back().line());
    if (!answer["ok"]) refused = answer["error"]["message"];
  }
  EXPECT_EQ(refused, "the last 10 of 40 descriptors are kept for the chips");
  // Each client may take another one, for what it has not read yet. (A test may hand on others.)
  size_t most = clients.size();
  for (const auto& open : fs::directory_iterator(fmt::format("/proc/{}/fd", agent.pid()))) {
    if (std::stoi(open.path().filename()) < 40) ++most;
  }
  EXPECT_LE(most, 31u);
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
    EXPECT_THAT(answer["error"]["message"], testing::HasSubstr("korud/chip0."));
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

TEST_F(Chips, ThatCannotBeReachedAreTriedAgain) {
  agent.write("board.toml", replaced(Korud::chip0, "window0", "later/window0") + chip1);
  Client client = agent.startAndConnect();
  const json failed = agent.waitForState("chip0", "failed");
  EXPECT_THAT(failed["reason"], testing::HasSubstr("later/window0: No such file or directory"));
  EXPECT_EQ(client.chip("chip1")["state"], "up");
  EXPECT_EQ(client.ask(Korud::request("hw.read", "chip0", "CTRL"))["error"]["kind"], "notUp");
  // Kept until there is a register to write it to.
  client.write("ctrl", "mode", 8);
  agent.stop(SIGKILL);
  agent.start();
  fs::create_directory(agent.file("later"));
  agent.waitForState("chip0", "up");
  EXPECT_EQ(agent.client().hardware("CTRL"), 0x80);
}

}  // namespace
