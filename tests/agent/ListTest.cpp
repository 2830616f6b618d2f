// Lists of any length: they come in pieces, as fast as the client reads, and nobody waits for them.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>

#include "testing/Sanitizers.h"
#include "tests/agent/Korud.h"

namespace {

using Korud::Client;
using Korud::json;

// A chip whose lists have more than a socket and the agent take without somebody's reading.
class Lists : public testing::Test {
 protected:
  static constexpr int registers = Testing::sanitized ? 3000 : 15000;

  Lists() {
    std::string map = "number,name,type,writeable,width\n";
    for (int i = 0; i < registers; ++i) map += fmt::format("{},R{:05},cfg,true,32\n", i, i);
    agent.write("many.csv", map);
  }
  static std::string many() {
    std::string chip = "[[chip]]\nname = \"many\"\nregister_map = \"many.csv\"\nmemory = true\n";
    std::string logical;
    for (int i = 0; i < registers; ++i) {
      chip += fmt::format(
          "[chip.physical.R{:05}]\na = {{ bits = \"3:0\" }}\nb = {{ bits = \"7:4\" }}\n", i);
      logical += fmt::format(
          "[chip.logical.r{:05}]\na = {{ to = \"R{:05}.a\" }}\nb = {{ to = "
          "\"R{:05}.b\", value = 3 }}\n",
          i, i, i);
    }
    return chip + logical;
  }
  Client start() {
    agent.write("board.toml", Korud::chip0 + many());
    return agent.startAndConnect();
  }
  static json list(const char* op, const char* chip = "many") {
    return {{"op", op}, {"chip", chip}};
  }

  Korud::Agent agent;
};

TEST_F(Lists, ComeWholeWhateverTheirLength) {
  Client client = start();
  const std::pair<const char*, size_t> table[] = {{"field.list", 2 * registers},
                                                  {"register.list", registers},
                                                  {"chip.registers", registers},
                                                  {"hw.list", registers}};
  for (const auto& [op, size] : table) {
    SCOPED_TRACE(op);
    const json all = client.result(list(op));
    ASSERT_EQ(all.size(), size);
    // The same list in pages of thirds, and none behind the last one.
    json pages = json::array();
    json request = list(op);
    request["limit"] = size / 3;
    for (int page = 0; page < 3; ++page) {
      const json answer = client.ask(request);
      EXPECT_EQ(answer.contains("next"), page < 2);
      if (page < 2) request["from"] = answer["next"];
      pages.insert(pages.end(), answer["result"].begin(), answer["result"].end());
    }
    EXPECT_TRUE(pages == all);
  }
}

TEST_F(Lists, HaveTheKeysThatTheyHad) {
  agent.start();
  Client client = agent.client();
  client.write("ctrl", "en", 1);
  const std::pair<json, json> table[] = {
      {list("register.list", "chip0"),
       {{{"name", "ctrl"}, {"kind", "logical"}, {"fields", 2}, {"value", 0x31}},
        {{"name", "wide"}, {"kind", "logical"}, {"fields", 1}, {"value", 0}}}},
      {{{"op", "field.list"}, {"chip", "chip0"}, {"register", "ctrl"}, {"from", 1}},
       {{{"register", "ctrl"},
         {"field", "mode"},
         {"kind", "stored"},
         {"bits", {7, 4}},
         {"hw_register", "CTRL"},
         {"hw_field", "mode"},
         {"hw_bits", {7, 4}},
         {"default", 3},
         {"wanted", 3},
         {"written", 3}}}},
      {{{"op", "field.list"}, {"chip", "chip0"}, {"from", 3}}, json::array()},
      {{{"op", "hw.list"}, {"chip", "chip0"}, {"from", 2}},
       {{{"name", "STATUS"},
         {"address", 8},
         {"width", 32},
         {"type", "sts"},
         {"writeable", false},
         {"readable", true},
         {"configured", false}}}},
  };
  for (const auto& [request, expected] : table) EXPECT_EQ(client.result(request), expected);
  for (const char* op : {"chip.list", "stats", "entity.list"}) {
    const json all = client.result({{"op", op}});
    EXPECT_EQ(client.ask(json{{"op", op}, {"limit", all.size()}}).count("next"), 0u) << op;
  }
  for (const json& limit : {json(0), json(-1), json("x")}) {
    EXPECT_EQ(client.ask(json{{"op", "chip.list"}, {"limit", limit}})["error"]["kind"], "badValue");
  }
}

TEST_F(Lists, OfChipsGoOnAtTheNameWhateverHappenedToIt) {
  const auto chip = [](const char* name) {
    return fmt::format("[[chip]]\nname = \"{}\"\nregister_map = \"map.csv\"\nmemory = true\n",
                       name);
  };
  agent.write("board.toml", chip("a") + chip("b") + "[[chip]]\nname = \"c\"\n" + chip("d"));
  Client client = agent.startAndConnect();
  json first = client.ask(json{{"op", "chip.list"}, {"limit", 1}});
  EXPECT_EQ(first["next"], "b");
  agent.write("board.toml", chip("a") + "[[chip]]\nname = \"c\"\n" + chip("d") + chip("e"));
  agent.waitForState("e", "up");
  first = client.ask(json{{"op", "chip.list"}, {"from", "b"}, {"limit", 2}});
  EXPECT_EQ(first["result"][0]["name"], "c");
  EXPECT_EQ(first["result"][1]["name"], "d");
  EXPECT_EQ(first["next"], "e");
}

TEST_F(Lists, AreAttributesOfEntitiesAsWell) {
  Client client = start();
  const json chip = {{"op", "entity.get"}, {"type", "KoruRegFile::LogicalChip"}, {"name", "many"}};
  const json all = client.result(chip);
  EXPECT_EQ(all["physicalFieldCount"], std::to_string(2 * registers));
  EXPECT_GT(all["logicalField"].get<std::string>().size(), 100u * registers);
  EXPECT_THAT(all["logicalField"].get<std::string>(),
              testing::AllOf(testing::StartsWith("{Value("), testing::EndsWith("3})}")));
  client.send(chip.dump() + "\n");
  Client other = agent.client();
  other.write("ctrl", "mode", 1);
  agent.write("board.toml", Korud::chip0);
  Korud::until([&] { return other.ask(chip)["error"]["kind"] == "noSuchEntity"; });
  EXPECT_EQ(json::parse(client.line())["error"],
            json({{"kind", "failed"}, {"message", "the entity has gone"}}));
}

// A client that asks and does not read: it gets everything in the end, and takes little memory.
TEST_F(Lists, AreMadeAsFastAsTheyAreRead) {
  Client slow = start();
  Client other = agent.client();
  other.write("ctrl", "mode", 1);
  const long before = agent.status("VmRSS");
  constexpr int lists = 5;
  for (int i = 0; i < lists; ++i) slow.send(list("field.list").dump() + "\n");
  slow.send(Korud::request("field.read", "chip0", "ctrl", "mode").dump() + "\n");
  for (uint32_t i = 0; i < 1000; ++i) other.write("ctrl", "mode", i % 16);
  other.write("ctrl", "mode", 9);
  if (!Testing::sanitized) {
    EXPECT_LT(agent.status("VmRSS") - before, 2000);
  }
  for (int i = 0; i < lists; ++i) {
    EXPECT_EQ(json::parse(slow.line())["result"].size(), 2u * registers);
  }
  EXPECT_EQ(json::parse(slow.line())["result"]["value"], 9);
}

TEST_F(Lists, KeepEventsBehindThem) {
  Client client = start();
  client.ask(json({{"op", "subscribe"}, {"chip", "chip0"}}));
  Client other = agent.client();
  client.send(list("field.list").dump() + "\n");
  other.write("ctrl", "mode", 7);
  EXPECT_EQ(json::parse(client.line())["result"].size(), 2u * registers);
  EXPECT_EQ(json::parse(client.line())["event"], "field");
}

TEST_F(Lists, HoldUpNobody) {
  Client other = start();
  const auto cpuTime = [&] {
    double nanoseconds = 0;
    std::ifstream("/proc/" + std::to_string(agent.pid()) + "/schedstat") >> nanoseconds;
    return nanoseconds;
  };
  double begun = cpuTime();
  other.result(list("field.list"));
  const double ofOneList = cpuTime() - begun;
  begun = cpuTime();
  std::vector<Client> busy;
  for (int i = 0; i < 3; ++i) busy.push_back(agent.client());
  for (Client& client : busy) client.send(list("field.list").dump() + "\n");
  other.write("ctrl", "mode", 1);
  EXPECT_LT(cpuTime() - begun, ofOneList);
}

TEST_F(Lists, EndWhenTheirChipGoes) {
  Client slow = start();
  Client other = agent.client();
  slow.send(list("field.list").dump() + "\n");
  other.write("ctrl", "mode", 1);
  agent.write("board.toml", Korud::chip0);
  Korud::until([&] { return other.ask(list("field.list"))["error"]["kind"] == "noSuchChip"; });
  const json cut = json::parse(slow.line());
  EXPECT_EQ(cut["ok"], false);
  EXPECT_EQ(cut["error"]["kind"], "notUp");
  EXPECT_LT(cut["result"].size(), 2u * registers);
  EXPECT_GT(cut["result"].size(), 0u);
  // So does a list whose reader goes.
  agent.write("board.toml", Korud::chip0 + many());
  agent.waitForState("many", "up");
  {
    Client gone = agent.client();
    gone.send(list("field.list").dump() + "\n");
    other.write("ctrl", "mode", 2);
  }
  other.write("ctrl", "mode", 3);
  EXPECT_EQ(slow.result(list("hw.list")).size(), 1u * registers);
}

}  // namespace
