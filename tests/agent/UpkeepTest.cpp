// What the agent does for a chip beside writing its fields: the order of registers, rewriting,
// reading back, and devices that come and go.

#include "testing/Sanitizers.h"
#include "tests/agent/ChipFields.h"

namespace {

namespace fs = std::filesystem;
using Korud::ChipFields;
using Korud::Client;
using Korud::json;
using Korud::replaced;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// In place of the keys of the first chip.
std::string withKeys(const std::string& keys) {
  return replaced(Korud::fieldsBoard, "read_changes = [\"INTR\"]", keys);
}

TEST_F(ChipFields, AreWrittenInTheOrderThatTheChipAsksFor) {
  const std::string ordered =
      replaced(withKeys("first = [\"LIMIT\"]\nlast = [\"CTRL\", \"MODE\"]"),
               "[chip.physical.LIMIT]", "[chip.physical.LIMIT]\nsettle = \"300ms\"");
  for (const char* transport : {"i2c", "relay"}) {
    SCOPED_TRACE(transport);
    simulator({"--reset"});
    const auto begun = std::chrono::steady_clock::now();
    Client client = start(replaced(ordered, "i2c", transport));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(300));
    const auto inOrder =
        ElementsAre("48w 01 fd", testing::AnyOf("48w 03 02", "48w 06 0c"),
                    testing::AnyOf("48w 03 02", "48w 06 0c"), "48w 00 11", "48w 02 00");
    EXPECT_THAT(traffic(), inOrder);
    // Another restart, when they differ since the status says so.
    client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}});
    EXPECT_THAT(traffic(), inOrder);
    // What follows such a register waits, and nobody else does.
    client.write("ctrl", "limit", 9);
    client.write("ctrl", "en", 0);
    EXPECT_GE(client.chip("chip0")["in_flight"], 1);
    agent.stop(SIGKILL);
    EXPECT_THAT(traffic(), testing::AnyOf(IsEmpty(), ElementsAre("48w 01 09")));
    client = start(replaced(ordered, "i2c", transport));
    EXPECT_THAT(traffic(), Contains("48w 00 10"));
    agent.stop(SIGTERM);
    fs::remove_all(agent.file("KoruRegFile"));
    fs::remove_all(agent.file("korud"));
  }
  // Registers that differ after a restart, but need no rewriting: the values of the file have won.
  start(ordered);
  agent.stop(SIGTERM);
  traffic();
  start(replaced(
      replaced(replaced(ordered, "name = \"chip0\"", "name = \"chip0\"\non_start = \"defaults\""),
               "-1.5", "2.5"),
      "LOW\", value = 12", "LOW\", value = 13"));
  EXPECT_THAT(traffic(), ElementsAre("48w 01 05", "48w 06 0d"));
}

// The write after which the chip is to be left alone fails.
TEST_F(ChipFields, WaitForNoWriteThatFailed) {
  const std::string settling = replaced(Korud::fieldsBoard, "[chip.physical.LIMIT]",
                                        "[chip.physical.LIMIT]\nsettle = \"10ms\"");
  uint32_t limit = 7;
  for (const char* transport : {"i2c", "relay"}) {
    SCOPED_TRACE(transport);
    ++limit;
    Client client = start(replaced(settling, "i2c", transport));
    simulator({"--unplug", "sensor"});
    client.write("ctrl", "limit", limit);
    client.write("ctrl", "mode", limit);
    agent.waitFor("chip0", [](const json& chip) { return chip["attempts"] >= 2; });
    simulator({"--plug", "sensor"});
    agent.waitForState("chip0", "up");
    EXPECT_EQ(client.hardware("LIMIT"), limit);
    EXPECT_EQ(client.hardware("MODE"), limit);
    agent.stop(SIGTERM);
  }
}

// What has not been written when the chip is described otherwise is not written any more.
TEST_F(ChipFields, EndWithTheirChip) {
  const std::string settling = replaced(Korud::fieldsBoard, "[chip.physical.LIMIT]",
                                        "[chip.physical.LIMIT]\nsettle = \"1s\"");
  Client client = start(settling);
  client.write("ctrl", "limit", 7);
  Client waiting = agent.client();
  waiting.send(Korud::request("field.write", "chip0", "ctrl", "reset", 1).dump() + "\n");
  Korud::until([&] { return client.chip("chip0")["in_flight"] == 1; });
  agent.write("board.toml", replaced(settling, "settle = \"1s\"", "settle = \"1ms\""));
  const json answer = json::parse(waiting.line());
  EXPECT_THAT(answer["error"]["message"], HasSubstr("the transport was closed"));
  Korud::until([&] { return client.chip("chip0")["state"] == "up"; });
  client.write("ctrl", "en", 0);
  Korud::until([&] { return client.hardware("CTRL") == 0x10; });
  const auto ends = std::chrono::steady_clock::now() + std::chrono::milliseconds(1200);
  Korud::until([&] { return std::chrono::steady_clock::now() > ends; });
  EXPECT_THAT(traffic(), Not(Contains("48w 00 91")));
}

TEST_F(ChipFields, AreRewrittenWhenAsked) {
  Client client = start();
  traffic();
  simulator({"--set", "sensor:0=0"});
  simulator({"--set", "sensor:1=0"});
  json some = {{"op", "chip.rewrite"}, {"chip", "chip0"}, {"registers", {"LIMIT"}}};
  some["registers"] = {"LIMIT", "LIMIT"};
  EXPECT_EQ(client.result(some)["written"], 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 01 fd"));
  EXPECT_EQ(client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}})["written"], 5);
  EXPECT_THAT(traffic(), testing::SizeIs(5));
  for (const char* reg : {"INTR", "GONE"}) {
    some["registers"] = {"LIMIT", reg};
    EXPECT_THAT(client.ask(some)["error"]["message"], HasSubstr(reg));
  }
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "limit", 1);
  client.write("irq", "mask", 1);
  traffic();
  client.result({{"op", "chip.defaults"}, {"chip", "chip0"}});
  EXPECT_THAT(traffic(), ElementsAre("48w 01 fd", "48w 03 02"));
  simulator({"--unplug", "sensor"});
  EXPECT_THAT(client.ask({{"op", "chip.rewrite"}, {"chip", "chip0"}})["error"]["message"],
              HasSubstr("could not be written"));
}

TEST_F(ChipFields, ThatDriftAreFoundAndWrittenAgain) {
  agent.write("map.csv", Korud::fieldsMap + std::string("6,ALSO_COUNT,cfg,true,8\n"));
  Client client = start(withKeys("verify_every = \"100ms\"\nread_changes = [\"ALSO_COUNT\"]"));
  Client events = listener(agent);
  traffic();
  simulator({"--set", "sensor:3=0xf2"});  // flags
  simulator({"--set", "sensor:1=0x55"});
  const json told = event(events, "drift");
  EXPECT_EQ(told["register"], "LIMIT");
  EXPECT_EQ(told["found"], 0x55);
  Korud::until([&] { return client.hardware("LIMIT") == 0xfd; });
  EXPECT_EQ(client.chip("chip0")["drifted"], 1);
  EXPECT_EQ(client.chip("chip0")["rewrites"], 1);
  std::vector<std::string> seen;
  Korud::until([&] {
    for (std::string& line : traffic()) seen.push_back(std::move(line));
    return seen.size() > 30;
  });
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "48w 01 fd"), 1);
  EXPECT_THAT(seen, Not(Contains(testing::StartsWith("48w 06"))));  // nobody asked
  EXPECT_THAT(seen, Contains("48w 03 48r f2"));
}

TEST_F(ChipFields, BetrayAChipThatWasReset) {
  Client client =
      start(withKeys("canary = { register = \"CTRL\", reset = 0x00, every = \"100ms\" }"));
  Client events = listener(agent);
  client.write("ctrl", "limit", 9);
  traffic();
  simulator({"--reset"});
  EXPECT_THAT(event(events, "reset")["reason"], HasSubstr("CTRL"));
  agent.waitForState("chip0", "up");
  Korud::until([&] { return client.hardware("LIMIT") == 9; });
  EXPECT_EQ(client.chip("chip0")["resets"], 1);
  // Where it may hold that value nothing follows from it.
  client.write("ctrl", "en", 0);
  client.write("ctrl", "gain", 0);
  traffic();
  std::vector<std::string> seen;
  Korud::until([&] {
    for (std::string& line : traffic()) seen.push_back(std::move(line));
    return seen.size() > 3;
  });
  EXPECT_THAT(seen, testing::Each("48w 00 48r 00"));
}

TEST_F(ChipFields, BetrayAResetWhateverTheHardwareCounts) {
  Client client =
      start(withKeys("canary = { register = \"COUNT\", reset = 0x00, every = \"100ms\" }"));
  simulator({"--set", "sensor:6=0x50"});
  agent.waitFor("chip0", [](const json& c) { return c["resets"] == 1 && c["state"] == "up"; });
  EXPECT_EQ(client.hardware("COUNT"), 0x0cu);
}

// A device's file that is another one by now.
TEST(ChipNode, IsUsedAndWrittenWhenItComesBack) {
  Korud::Agent agent;
  fs::create_directory(agent.file("bar"));
  const auto plug = [&] {
    std::ofstream(agent.file("bar.new")) << std::string(64, '\0');
    fs::rename(agent.file("bar.new"), agent.file("bar/window"));
  };
  agent.write("board.toml", replaced(Korud::chip0, "memory = \"window0\"", "pci = \"bar/window\""));
  Client client = agent.startAndConnect();
  agent.waitForState("chip0", "failed");
  plug();
  agent.waitForState("chip0", "up");
  client.write("ctrl", "mode", 9);
  plug();
  agent.waitFor("chip0",
                [](const json& chip) { return chip["state"] == "up" && chip["rewrites"] == 2; });
  std::ifstream window(agent.file("bar/window"), std::ios::binary);
  EXPECT_EQ(window.get(), 0x90);
}

// The window goes and comes back while the chip settles.
TEST(ChipInMemory, WaitsForNoWriteThatEndsInABusError) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  Korud::Agent agent(
      replaced(Korud::chip0, "[chip.physical.CTRL]", "[chip.physical.CTRL]\nsettle = \"10ms\""));
  Client client = agent.startAndConnect();
  fs::resize_file(agent.file("window0"), 0);
  client.write("ctrl", "mode", 9);
  client.write("wide", "all", 7);
  agent.waitFor("chip0", [](const json& chip) { return chip["attempts"] >= 2; });
  fs::resize_file(agent.file("window0"), 4096);
  agent.waitForState("chip0", "up");
  Korud::until([&] { return client.hardware("WIDE") == 7; });
  EXPECT_EQ(client.hardware("CTRL"), 0x90u);
}

TEST(ChipInMemory, SettlesAsOthersDo) {
  Korud::Agent agent(
      replaced(Korud::chip0, "[chip.physical.CTRL]", "[chip.physical.CTRL]\nsettle = \"300ms\""));
  Client client = agent.startAndConnect();
  const auto isQuiet = [&] { return client.chip("chip0")["in_flight"] == 0; };
  Korud::until(isQuiet);
  client.write("ctrl", "mode", 9);
  client.write("wide", "all", 7);
  EXPECT_EQ(client.chip("chip0")["in_flight"], 1);
  Korud::until(isQuiet);
  EXPECT_EQ(client.hardware("WIDE"), 7u);
}

TEST(ChipInMemory, IsWrittenAtEveryStart) {
  Korud::Agent agent(replaced(Korud::chip0, "\"window0\"", "true"));
  agent.startAndConnect().write("ctrl", "mode", 9);
  agent.stop(SIGTERM);
  Client client = agent.startAndConnect();
  EXPECT_EQ(client.hardware("CTRL"), 0x90u);
  EXPECT_EQ(client.chip("chip0")["state"], "up");
}

}  // namespace
