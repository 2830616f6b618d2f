// korureg shadow export and import: what comes back, and what is refused.

#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testing/StateDirectory.h"
#include "tests/Shoal/PeerProcess.h"
#include "tests/system/Korureg.h"

namespace {

using nlohmann::json;
using Peer::Op;
using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* config = "KoruRegFile/shadowFieldsConfig/chip0";
constexpr const char* configType = "KoruRegFile::ShadowFieldsConfig";

class ShadowBackup : public testing::Test {
 protected:
  Outcome run(const std::string& words) const {
    return Testing::run(Korureg::command("shadow " + words + " --state-dir " + state.path()));
  }
  Outcome import(const std::string& text) const {
    std::ofstream(state.file("backup.json")) << text;
    return run("import " + std::string(config) + " " + state.file("backup.json"));
  }
  json fields() const {
    return json::parse(run("--json show " + std::string(config)).out)["fields"];
  }
  Testing::StateDirectory state;
};

// An export with one list of fields.
std::string backup(const std::vector<json>& entries) {
  return json{{"format", "koru-shadow-fields"},
              {"version", 1},
              {"path", config},
              {"type", configType},
              {"fields", entries}}
      .dump();
}
json entry(int64_t address, int64_t start, int64_t size, int64_t value) {
  return {{"address", address}, {"start", start}, {"size", size}, {"value", value}};
}

TEST_F(ShadowBackup, BringsBackWhatWasExportedAndLeavesOtherFields) {
  const auto key = [](uint64_t address, uint64_t start, uint64_t size) {
    return address << 16 | start << 8 | size;
  };
  Peer::Process writer(state, "writer", config, configType);
  writer.ask({Op::put, 0xab, key(0x100, 8, 8)});
  writer.ask({Op::put, 0xffffffff, key(0xffffffff, 0, 32)});
  const std::string exported = run("export " + std::string(config)).out;
  const json before = fields();
  writer.ask({Op::put, 0xcd, key(0x100, 8, 8)});
  writer.ask({Op::put, 1, key(4, 0, 1)});

  const Outcome refused = import(exported);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.err, HasSubstr("process " + std::to_string(writer.pid()) + " writes"));
  EXPECT_NE(fields(), before);

  writer.kill();
  EXPECT_EQ(import(exported).exitCode, 0);
  json after = fields();
  EXPECT_EQ(after[0], entry(4, 0, 1, 1));
  after.erase(0);
  EXPECT_EQ(after, before);

  std::filesystem::remove(state.file(config));
  EXPECT_EQ(import(exported).out, std::string(config) + ": 2 fields imported\n");
  EXPECT_EQ(fields(), before);
}

struct Bad {
  const char* name;
  std::string text;
  const char* why;
};

class BadBackup : public ShadowBackup, public testing::WithParamInterface<Bad> {};

TEST_P(BadBackup, IsRefusedAndChangesNothing) {
  ASSERT_EQ(import(backup({entry(0, 0, 8, 1)})).exitCode, 0);
  const Outcome outcome = import(GetParam().text);
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.err, HasSubstr(GetParam().why));
  EXPECT_EQ(fields(), json::array({entry(0, 0, 8, 1)}));
}

// A sound entry, which is not taken either, and one that is not.
std::string with(const json& bad) { return backup({entry(0, 0, 8, 2), bad}); }
std::string without(const char* key) {
  json all = entry(4, 0, 8, 2);
  all.erase(key);
  return with(all);
}
std::string changed(const char* key, const json& value) {
  json all = json::parse(backup({entry(0, 0, 8, 2)}));
  all[key] = value;
  return all.dump();
}
std::string cut() {
  const std::string all = backup({entry(0, 0, 8, 2), entry(4, 0, 8, 2)});
  return all.substr(0, all.size() - 9);
}

INSTANTIATE_TEST_SUITE_P(
    Shadow, BadBackup,
    testing::Values(
        Bad{"Empty", "", "is no JSON"}, Bad{"CutShort", cut(), "is the file whole?"},
        Bad{"NoText", std::string("\0\xff\x80", 3), "is no JSON"},
        Bad{"TooDeep", std::string(100000, '['), "is too deep"},
        Bad{"TooDeepInside", with(json::parse(std::string(40, '[') + std::string(40, ']'))),
            "is too deep"},
        Bad{"List", "[]", "was not written by"},
        Bad{"OtherFormat", changed("format", 1), "was not written by"},
        Bad{"OtherVersion", changed("version", 2), "version that is not known"},
        Bad{"OtherType", changed("type", "KoruRegFile::ShadowFieldsStatus"), "no configuration"},
        Bad{"NoFields", changed("fields", {{"a", 1}}), "no list of fields"},
        Bad{"NoObject", with(7), "entry 1 is no object: 7"},
        Bad{"NoAddress", without("address"), "has no 'address'"},
        Bad{"NoValue", without("value"), "has no 'value'"},
        Bad{"NegativeAddress", with(entry(-1, 0, 8, 0)), "'address' is no number from 0"},
        Bad{"HugeAddress", with(entry(1LL << 32, 0, 8, 0)), "'address' is no number"},
        Bad{"Fraction", with({{"address", 4}, {"start", 0}, {"size", 8}, {"value", 1.5}}),
            "'value' is no number"},
        Bad{"Text", with({{"address", "4"}, {"start", 0}, {"size", 8}, {"value", 1}}),
            "'address' is no number"},
        Bad{"NoBits", with(entry(4, 0, 0, 0)), "'size' is no number from 1 to 32"},
        Bad{"BeyondTheRegister", with(entry(4, 31, 2, 0)), "'size' is no number from 1 to 1"},
        Bad{"TooWide", with(entry(4, 0, 8, 256)), "'value' is no number from 0 to 255"},
        Bad{"Twice", with(entry(0, 0, 8, 3)), "entry 1 was there before"},
        Bad{"MoreKeys", with({{"address", 4}, {"start", 0}, {"size", 8}, {"value", 1}, {"x", 1}}),
            "key that nobody knows"}),
    [](const auto& bad) { return bad.param.name; });

TEST_F(ShadowBackup, NamesEachEntryThatIsRefused) {
  const Outcome outcome = import(backup({entry(0, 0, 33, 0), entry(4, 0, 8, 1), 5}));
  EXPECT_THAT(outcome.err, HasSubstr("entry 0 'size'"));
  EXPECT_THAT(outcome.err, HasSubstr("entry 2 is no object"));
  EXPECT_THAT(outcome.err, HasSubstr("2 of 3 entries are refused; nothing was imported"));
}

TEST_F(ShadowBackup, TakesOnlyFieldsOfTheChipWhereItIsDescribed) {
  std::ofstream(state.file("map.csv")) << "number,name,type,writeable,width\n0,CTRL,cfg,true,32\n";
  std::ofstream(state.file("board.toml"))
      << "[[chip]]\nname = \"chip0\"\nregister_map = \"map.csv\"\nmemory = true\n"
         "[chip.physical.CTRL]\nmode = { bits = \"7:4\" }\n"
         "[chip.logical.c]\nmode = { to = \"CTRL.mode\" }\n";
  std::ofstream(state.file("b.json")) << backup({entry(0, 4, 4, 9), entry(0, 0, 4, 1)});
  const std::string words = "import " + std::string(config) + " " + state.file("b.json");
  const Outcome outcome = run(words + " --config " + state.file("board.toml"));
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.err, HasSubstr("entry 1 is no field of the chip"));
}

// Values that an agent saved while it brought the chip up win over any table.
TEST_F(ShadowBackup, DoesNotImportWhatWouldBeOverruled) {
  std::filesystem::create_directory(state.file("korud"));
  std::ofstream(state.file("korud/chip0.saved")) << "";
  EXPECT_THAT(import(backup({entry(0, 0, 8, 1)})).err, HasSubstr("start korud once"));
}

}  // namespace
