// Fields as chips have them, on simulated buses: the exact transactions that each of them takes,
// and those that nobody asked for.

#include "tests/agent/ChipFields.h"

const char* const Korud::korusimProgram = KORUSIM_PROGRAM;

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

TEST_F(ChipFields, AreShownAndTakenAsDataSheetsHaveThem) {
  Client client = start();
  EXPECT_THAT(traffic(), testing::UnorderedElementsAre("48w 02 00", "48w 00 11", "48w 01 fd",
                                                       "48w 03 02", "48w 06 0c"));
  const json temperature = client.result(field("field.read", "VALUE", "TEMPERATURE"));
  EXPECT_EQ(temperature, json::parse(R"({"value": 400, "live": true, "text": "25.0 °C",
                                         "number": 25.0})"));
  EXPECT_THAT(traffic(), ElementsAre("48w 05 48r 19 00"));
  simulator({"--set", "sensor:5=0xfff0"});
  // One read for all fields of a register.
  const json value = client.result(Korud::request("register.read", "chip0", "VALUE"));
  EXPECT_EQ(value["texts"], json::parse(R"({"TEMPERATURE": "-0.0625 °C"})"));
  EXPECT_EQ(value["fields"], json::parse(R"({"TEMPERATURE": 4095, "SIGN": 1})"));
  EXPECT_THAT(traffic(), ElementsAre("48w 05 48r ff f0"));
  // Configured fields are answered from what was written.
  EXPECT_EQ(client.result(field("field.read", "ctrl", "gain"))["name"], "x2");
  EXPECT_EQ(client.result(field("field.read", "ctrl", "limit"))["text"], "-1.5 °C");
  EXPECT_THAT(traffic(), IsEmpty());
  json live = field("field.read", "ctrl", "limit");
  live["live"] = true;
  EXPECT_EQ(client.result(live)["number"], -1.5);
  EXPECT_THAT(traffic(), ElementsAre("48w 01 48r fd"));

  struct Row {
    const char* name;
    json key;
    const char* written;  // or what is wrong
  };
  const Row table[] = {
      {"gain", {{"text", "x8"}}, "48w 00 31"},
      {"gain", {{"value", "x1"}}, "48w 00 01"},
      {"gain", {{"value", 2}}, "48w 00 21"},
      {"gain", {{"text", "x3"}}, "x8"},
      {"gain", {{"value", "x3"}}, "'x3'"},
      {"gain", {{"value", 1}, {"text", "x2"}}, "either"},
      {"gain", json::object(), "missing"},
      {"gain", {{"text", 1}}, "string"},
      {"limit", {{"text", "20.5"}}, "48w 01 29"},
      {"limit", {{"text", "-64 °C"}}, "48w 01 80"},
      {"limit", {{"text", "64 °C"}}, "63.5"},
      {"limit", {{"text", "0.3"}}, "0.5"},
      {"limit", {{"value", 256}}, "8 bits"},
  };
  for (const auto& [reg, name, why] : {std::tuple("VALUE", "SIGN", "never written"),
                                       {"VALUE", "SIGM", "status register 'VALUE' of chip"},
                                       {"VALEU", "SIGN", "no logical register 'VALEU'"}}) {
    json request = field("field.write", reg, name);
    request["value"] = 1;
    EXPECT_THAT(client.ask(request)["error"]["message"], HasSubstr(why));
  }
  for (const Row& row : table) {
    json request = field("field.write", "ctrl", row.name);
    request.update(row.key);
    SCOPED_TRACE(request.dump());
    const json answer = client.ask(request);
    if (std::string_view(row.written).starts_with("48w")) {
      EXPECT_TRUE(answer["ok"]) << answer;
      EXPECT_THAT(traffic(), ElementsAre(row.written));
    } else {
      EXPECT_THAT(answer["error"]["message"], HasSubstr(row.written));
      EXPECT_THAT(traffic(), IsEmpty());
    }
  }
}

TEST_F(ChipFields, ThatAreSentOnceAreNeverHeld) {
  Client client = start();
  Client events = listener(agent);
  traffic();
  client.write("ctrl", "reset", 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 91"));
  const json told = event(events, "field");
  EXPECT_EQ(told["pulse"], true);
  EXPECT_EQ(told["field"], "reset");
  EXPECT_EQ(client.read("ctrl", "reset"), 0u);
  client.write("ctrl", "reset", 0);  // nothing to send
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 10"));
  client.result(field("field.reset", "ctrl", "reset"));
  EXPECT_THAT(traffic(), IsEmpty());

  // Cleared by a 1 that goes out once, and read live.
  simulator({"--set", "sensor:3=0x52"});
  EXPECT_EQ(client.result(field("field.read", "irq", "flags"))["value"], 5);
  client.write("irq", "flags", 4);
  client.write("irq", "mask", 3);
  EXPECT_THAT(traffic(), ElementsAre("48w 03 48r 52", "48w 03 42", "48w 03 03"));

  client.write("ctrl", "reset", 1);
  agent.stop(SIGKILL);
  traffic();
  client = start();
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 1);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 11"));

  // With other fields of its register, and at a chip that does not answer.
  client.result(together({{{"register", "ctrl"}, {"field", "gain"}, {"value", 0}},
                          {{"register", "ctrl"}, {"field", "reset"}, {"value", 1}}}));
  EXPECT_THAT(traffic(), ElementsAre("48w 00 81"));
  simulator({"--unplug", "sensor"});
  const json failed = client.ask(Korud::request("field.write", "chip0", "ctrl", "reset", 1));
  EXPECT_THAT(failed["error"]["message"], HasSubstr("nothing acknowledges"));
  EXPECT_EQ(client.chip("chip0")["failed_writes"], 1);
  simulator({"--plug", "sensor"});
  agent.waitForState("chip0", "up");
  EXPECT_THAT(traffic(), Not(Contains("48w 00 81")));
}

// The tables of an agent that knew no pulses may hold one.
TEST_F(ChipFields, ThatBecomeAPulseAreLetGo) {
  std::string before = replaced(Korud::fieldsBoard, ", kind = \"pulse\"", "");
  Client client = start(before);
  client.write("ctrl", "reset", 1);
  agent.stop(SIGKILL);
  traffic();
  client = start();
  EXPECT_THAT(traffic(), IsEmpty());
  client.write("ctrl", "en", 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 00 10"));
}

TEST_F(ChipFields, AreWrittenTogetherOrNotAtAll) {
  Client client = start();
  traffic();
  const auto item = [](const char* name, const json& value) {
    return json{{"register", "ctrl"}, {"field", name}, {"value", value}};
  };
  const json plan = {item("limit", 4), item("en", 0), item("gain", 1), item("gain", "x8"),
                     item("mode", 7)};
  json dry = together(plan);
  dry["dry_run"] = true;
  const json expected = client.result(dry);
  EXPECT_THAT(traffic(), IsEmpty());
  EXPECT_EQ(expected["registers"], json::parse(R"([{"name": "MODE", "from": 0, "to": 7},
                            {"name": "CTRL", "from": 17, "to": 48},
                            {"name": "LIMIT", "from": 253, "to": 4}])"));
  EXPECT_EQ(expected["fields"][2],
            json::parse(R"({"register": "ctrl", "field": "gain", "value": 3, "was": 1,
                            "text": "x8", "name": "x8", "was_text": "x2"})"));
  EXPECT_EQ(client.result(together(plan)), expected);
  EXPECT_THAT(traffic(), ElementsAre("48w 02 07", "48w 00 30", "48w 01 04"));
  EXPECT_EQ(client.read("ctrl", "gain"), 3u);
  client.result(together(plan));  // It holds already.
  client.result(together({item("limit", 5), item("en", 1), item("mode", 1)}, "given"));
  EXPECT_THAT(traffic(), ElementsAre("48w 01 05", "48w 00 31", "48w 02 01"));
  // A whole logical register, which lies in three.
  json whole = Korud::request("register.write", "chip0", "ctrl");
  whole["value"] = uint64_t{0x206000020};
  client.result(whole);
  EXPECT_THAT(traffic(), ElementsAre("48w 02 02", "48w 00 20", "48w 01 06"));

  // One that cannot be, and none is written.
  const std::pair<json, const char*> refusals[] = {
      {together({item("en", 0), item("gain", 4)}), "2 bits"},
      {together({item("en", 0), item("gone", 4)}), "no field 'gone'"},
      {together({item("en", 0), item("gain", "x7")}), "x7"},
      {together({item("en", 0), json(7)}), "object"},
      {together(json::array()), "list"},
      {together(json::object()), "list"},
      {together(json::array({item("en", 0)}), "any"), "order"},
  };
  for (const auto& [request, why] : refusals) {
    SCOPED_TRACE(request.dump());
    EXPECT_THAT(client.ask(request)["error"]["message"], HasSubstr(why));
  }
  fs::create_directory(agent.file("korud/chip0.together"));
  EXPECT_EQ(client.ask(together({item("en", 1), item("gain", 0)}))["ok"], false);
  EXPECT_THAT(traffic(), IsEmpty());
  EXPECT_EQ(client.read("ctrl", "en"), 0u);
  fs::remove(agent.file("korud/chip0.together"));
  client.result(together({item("en", 1), item("gain", 0)}));
  EXPECT_THAT(traffic(), ElementsAre("48w 00 01"));
}

TEST_F(ChipFields, AreReadNoMoreOftenThanAsked) {
  Client client = start();
  traffic();
  for (const char* op : {"field.list", "register.list", "hw.list", "chip.registers", "chip.show"}) {
    const json answer = client.result({{"op", op}, {"chip", "chip0"}});
    EXPECT_FALSE(answer.empty()) << op;
  }
  EXPECT_THAT(traffic(), IsEmpty());
  const auto marked = [](const json& list) {
    std::vector<std::string> names;
    for (const json& entry : list) {
      if (entry.value("read_changes", false)) names.push_back(entry.value("name", "CAUSE"));
    }
    return names;
  };
  EXPECT_THAT(marked(client.result({{"op", "hw.list"}, {"chip", "chip0"}})), ElementsAre("INTR"));
  EXPECT_THAT(marked(client.result({{"op", "field.list"}, {"chip", "chip0"}})),
              ElementsAre("CAUSE"));
  simulator({"--set", "sensor:4=0x03"});
  EXPECT_EQ(client.result(field("field.read", "INTR", "CAUSE"))["value"], 3);
  EXPECT_EQ(client.result(field("field.read", "INTR", "CAUSE"))["value"], 0);
  EXPECT_THAT(traffic(), ElementsAre("48w 04 48r 03", "48w 04 48r 00"));
}

}  // namespace
