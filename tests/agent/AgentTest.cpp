// What the agent does with its chips: at a start, when something is damaged or fails, and when its
// system file changes.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

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
      // What cannot be saved of the configuration is the file's again.
      const uint32_t mode = client.read("ctrl", "mode");
      EXPECT_TRUE(mode == 5 || (table == config && mode == 3)) << mode;
      EXPECT_EQ(client.hardware("CTRL"), mode << 4);
      // A status that can be trusted says what the registers hold.
      const bool isMissing = name == "missing"s;
      EXPECT_EQ(client.chip("chip0")["rewrites"], isMissing && table == config ? 0 : 1);
      EXPECT_EQ(fs::exists(agent.file(table + ".damaged")), !isMissing);
      expectUntouched(client, "chip1");
      agent.stop(SIGTERM);
    }
  }
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
  edit(replaced(replaced(chip1, "chip1", "chip2"), "\"map.csv\"", "\"no\""));
  EXPECT_EQ(client.chip("chip2")["state"], "refused");
  EXPECT_EQ(client.chip("chip0")["state"], "gone");
}

TEST_F(Chips, StayWhenTheFileIsBroken) {
  Client client = agent.startAndConnect();
  client.write("ctrl", "mode", 9);
  agent.write("board.toml", "[[chip]\n");
  // The turn of the loop that answers the second one has seen the file.
  for (int turn = 0; turn < 2; ++turn) EXPECT_EQ(client.read("ctrl", "mode"), 9u);
  edit(Korud::chip0);
  EXPECT_EQ(client.read("ctrl", "mode"), 9u);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
  EXPECT_THAT(agent.stop(SIGTERM).err, testing::HasSubstr("; the chips stay as they are"));
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
