// Register maps and system files made of what others have written about their registers.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "testing/MockValueFile.h"
#include "testing/Sanitizers.h"
#include "tests/agent/Korud.h"
#include "tests/system/Descriptions.h"
#include "tests/system/Korureg.h"

namespace {

namespace fs = std::filesystem;
using namespace Descriptions;
using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* header = "number,name,type,writeable,width\n";

class MapImport : public testing::Test {
 protected:
  std::string file(const std::string& name) const { return folder.file(name); }
  std::string text(const std::string& name) const {
    std::stringstream all;
    all << std::ifstream(file(name)).rdbuf();
    return all.str();
  }
  // The words behind "map import", in the folder; with memory enough for any sound file.
  Outcome import(const std::string& words) const {
    const char* const limit = Testing::sanitized ? "" : "ulimit -v 600000 && ";
    return Testing::run({{"/bin/sh", "-c",
                          fmt::format("{}cd {} && exec {} {}", limit, file(""), Korureg::program,
                                      "map import " + words)},
                         {"ORB_TRACE="}});
  }
  Outcome importText(const std::string& source, const std::string& words = "") const {
    std::ofstream(file("source.xml"), std::ios::binary) << source;
    return import("source.xml map.csv --system board.toml --force " + words);
  }
  size_t filesHere() const {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()));
  }

  const Testing::StateDirectory folder;
};

TEST_F(MapImport, MakesMapsOfEachFormat) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"timer.svd", "--block TIMER1 --base 0x2000",
       "0,CTRL,cfg,true,32\n1,STATUS,sts,false,32\n2,EVENTS,ctl,true,16\n"
       "4,CHA_COMPARE,cfg,true,32\n5,CHA_CAPTURE,sts,false,32\n"
       "6,CHB_COMPARE,cfg,true,32\n7,CHB_CAPTURE,sts,false,32\n"
       "8,CHC_COMPARE,cfg,true,32\n9,CHC_CAPTURE,sts,false,32\n"
       "10,CHD_COMPARE,cfg,true,32\n11,CHD_CAPTURE,sts,false,32\n"},
      {"fan.ipxact.xml", "--block-size 1",
       "256,FAN_0_SPEED,cfg,true,32\n260,FAN_0_TACHO,sts,false,32\n"
       "272,FAN_1_SPEED,cfg,true,32\n276,FAN_1_TACHO,sts,false,32\n"},
      {"link.uhal.xml", "",
       "0,id,sts,false,32\n256,link0_ctrl,cfg,true,32\n257,link0_stat,sts,false,32\n"
       "512,link1_ctrl,cfg,true,32\n513,link1_stat,sts,false,32\n"},
  };
  for (const auto& [source, words, map] : cases) {
    SCOPED_TRACE(source);
    const Outcome outcome =
        import(fmt::format(KORU_EXAMPLES "/import/{} map.csv --force {}", source, words));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(text("map.csv"), header + std::string(map));
  }
}

// What the formats can say of a register or a field, and what the two files have of it.
TEST_F(MapImport, HoldsWhatIsSaid) {
  struct Case {
    std::string source;
    std::string map;  // its lines without the header
    std::string system;
  };
  const std::string bit0 = "<bitOffset>0</bitOffset><bitWidth>1</bitWidth>";
  const Case cases[] = {
      {svdField("<bitRange>[7:4]</bitRange><description> two\n lines \"x\" </description>"),
       "0,R,cfg,true,32\n", "\"F\" = { bits = \"7:4\", description = \"two lines \\\"x\\\"\" }\n"},
      {svdField(bit0 + "<access>write-only</access>"), "0,R,ctl,true,32\n", "kind = \"volatile\""},
      {svdField(bit0 + "<modifiedWriteValues>oneToSet</modifiedWriteValues>"), "0,R,ctl,true,32\n",
       "kind = \"pulse\""},
      {svdField(bit0 + "<readAction>clear</readAction>"), "0,R,cfg,true,32\n",
       "read_changes = [\n  \"R\",\n]\n"},
      {svdRegister("<resetValue>0xF0</resetValue><resetMask>0x30</resetMask><fields><field>"
                   "<name>F</name><bitRange>[7:4]</bitRange></field></fields>"),
       "0,R,cfg,true,32\n", "\"F\" = { to = \"R.F\", value = 0x3 }\n"},
      {svdRegister("<modifiedWriteValues>oneToToggle</modifiedWriteValues>"), "0,R,ctl,true,32\n",
       "[[chip]]"},
      {svdRegister("<resetValue>1</resetValue><fields><field><name>F</name>" + bit0 +
                   "<modifiedWriteValues>oneToClear</modifiedWriteValues></field></fields>"),
       "0,R,ctl,true,32\n", "\"F\" = { to = \"R.F\" }\n"},
      {"<device><name>c</name><peripherals><peripheral><name>P</name><baseAddress>0</baseAddress>"
       "<registers><register><name>A</name><addressOffset>0</addressOffset></register>"
       "<register><name>B</name><addressOffset>4</addressOffset></register></registers>"
       "</peripheral><peripheral derivedFrom='P'><name>Q</name><baseAddress>16</baseAddress>"
       "<registers><register><name>A</name><size>8</size><addressOffset>0</addressOffset>"
       "</register></registers></peripheral></peripherals></device>",
       "0,P_A,cfg,true,32\n1,P_B,cfg,true,32\n4,Q_A,cfg,true,8\n5,Q_B,cfg,true,32\n",
       "name = \"c\"\n"},
      {svd("<register><name>A</name><size>16</size><addressOffset>8</addressOffset><fields><field>"
           "<name>F</name><lsb>1</lsb><msb>2</msb></field></fields></register>"
           "<register derivedFrom=\"A\"><name>B</name><addressOffset>12</addressOffset></register>"
           "<register derivedFrom=\"P.B\"><name>C%s</name><dim>2</dim><dimIndex>3,x</dimIndex>"
           "<dimIncrement>4</dimIncrement><addressOffset>16</addressOffset></register>"),
       "2,A,cfg,true,16\n3,B,cfg,true,16\n4,C3,cfg,true,16\n5,Cx,cfg,true,16\n",
       "[chip.physical.\"Cx\"]\n\"F\" = { bits = \"2:1\" }\n"},
      {ipxact("<register><name>R</name><dim>2</dim><dim>2</dim><addressOffset>4</addressOffset>"
              "<size>32</size><reset><value>0x80</value></reset><field><name>F</name><bitOffset>7"
              "</bitOffset><bitWidth>1</bitWidth><volatile>true</volatile></field></register>"),
       "5,R_0_0,ctl,true,32\n6,R_0_1,ctl,true,32\n7,R_1_0,ctl,true,32\n8,R_1_1,ctl,true,32\n",
       "\"F\" = { to = \"R_1_1.F\", value = 0x1 }\n"},
      {"<node><node id='A' address='2' mask='0xf'/><node id='B' address='2' mask='0xf0'/></node>",
       "2,A,cfg,true,32\n", "\"B\" = { bits = \"7:4\" }\n"},
  };
  for (const auto& [source, map, system] : cases) {
    SCOPED_TRACE(source);
    const Outcome outcome = importText(source);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(text("map.csv"), header + map);
    EXPECT_THAT(text("board.toml"), HasSubstr(system));
  }
}

// Whatever is left out, the line is told, and the rest is there.
TEST_F(MapImport, TellsWhatCannotBeHeld) {
  const std::string bit0 = "<bitOffset>0</bitOffset><bitWidth>1</bitWidth>";
  const auto value = [&](const std::string& elements) {
    return svdField(bit0 + "<enumeratedValues><enumeratedValue>" + elements +
                    "</enumeratedValue></enumeratedValues>");
  };
  const auto beside = [](const std::string& registers) {
    return svd(registers + "<register><name>R</name><addressOffset>64</addressOffset></register>");
  };
  const std::pair<std::string, std::string> cases[] = {
      {svdField("<bitRange>[32:30]</bitRange>"), "field 'F' has no bits within its register's 32"},
      {svdField("<bitOffset>4294967295</bitOffset><bitWidth>2</bitWidth>"), "has no bits within"},
      {svdField("<bitRange>[3:7]</bitRange>"), "has no bits within"},
      {svdField(bit0 + "<modifiedWriteValues>zeroToClear</modifiedWriteValues>"),
       "field 'F': zeroToClear cannot be held"},
      {svdField(bit0 + "<writeConstraint/>"), "writeConstraint of a field is not held"},
      {svdField(bit0 + "<access>read-writeOnce</access>"), "a field is written only once"},
      {svdRegister("<alternateGroup>other</alternateGroup>"),
       "alternateGroup of a register is not"},
      {ipxact("<register><name>R</name><addressOffset>0</addressOffset><field><name>F</name>" +
              bit0 + "<resets><reset><value>1</value></reset><reset/></resets></field></register>"),
       "field 'F': only the first of its resets is held"},
      {value("<name>1.5</name><value>1</value>"), "has no name, or one that could be a number"},
      {value("<name>many</name><value>#1x</value>"), "is no single number"},
      {value("<name>many</name><value>2</value>"), "has too many bits"},
      {value("<name>rest</name><isDefault>true</isDefault>"), "all other values is not held"},
      {beside("<register><name>a,b</name><addressOffset>0</addressOffset></register>"),
       "register 'a,b' is left out: a name must not have a comma"},
      {beside("<register><addressOffset>0</addressOffset></register>"), "it has no name"},
      {beside("<register><name>W</name><size>64</size><addressOffset>0</addressOffset></register>"),
       "it has 64 bits, and a map holds 1 to 32"},
      {beside("<register><name>W</name><addressOffset>2</addressOffset></register>"),
       "its address 0x2 is not a multiple of 4"},
      {beside("<register><name>W</name><addressOffset>0x400000000</addressOffset></register>"),
       "exceeds 32 bits"},
      {beside("<register><name>W</name><addressOffset>64</addressOffset></register>"),
       "its address is that of 'W'"},
      {svdRegister("<fields><field><name>F</name><bitRange>[3:0]</bitRange></field>"
                   "<field><name>G</name><bitRange>[4:3]</bitRange></field></fields>"),
       "field 'G' of 'R' shares bits with another one: it is read only"},
      {svd("<register><name>A</name><addressOffset>0</addressOffset><fields><field><name>B.C</name>"
           "<bitRange>[3:0]</bitRange></field></fields></register><register><name>A.B</name>"
           "<addressOffset>4</addressOffset><fields><field><name>C</name><bitRange>[3:0]</bitRange>"
           "</field></fields></register>"),
       "field 'C' of 'A.B' is left out: its register and it have the name of another one"},
      {ipxact("<register><name>R</name><addressOffset>2</addressOffset><parameters/></register>"),
       "its address 0x12 is not a multiple of 4"},
      {"<node>\n<node id='R' address='0'/><node id='M' address='8' mode='block' size='64'/></node>",
       "'M' is a block of 64 words"},
      {"<node>\n<node id='R'><node id='F' mask='0x5'/></node></node>",
       "the mask 0x5 is not one run of bits within 32"},
  };
  for (const auto& [source, remark] : cases) {
    SCOPED_TRACE(source);
    const Outcome outcome = importText(source);
    EXPECT_THAT(outcome.err, HasSubstr(remark));
    EXPECT_THAT(outcome.err, HasSubstr("korureg: source.xml:2: "));
    const bool isAlone = outcome.err.find("no register that a map could hold") != std::string::npos;
    EXPECT_EQ(outcome.exitCode, isAlone ? 1 : 3) << outcome.err;
  }
}

std::string nested(size_t depth) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) text += "<node id='x'>";
  return text;
}

// An error with its line, nothing written, and no more memory than a sound file takes.
TEST_F(MapImport, RefusesHostileFiles) {
  std::string laughs = "<!DOCTYPE device [\n<!ENTITY a \"ha\">\n";
  for (char c = 'b'; c < 'l'; ++c) {
    laughs += fmt::format("<!ENTITY {} \"&{};&{};&{};&{};\">\n", c, c - 1, c - 1, c - 1, c - 1);
  }
  const auto array = [](const std::string& dim, const std::string& inside) {
    return "<cluster><dim>" + dim + "</dim><dimIncrement>0</dimIncrement><name>C%s</name>" +
           inside + "</cluster>";
  };
  const std::string reg = "<register><name>R</name></register>";
  const std::pair<std::string, std::string> cases[] = {
      {laughs + "]><device>&k;</device>", "source.xml:2: declares an entity"},
      {"<!DOCTYPE device SYSTEM \"/etc/passwd\"><device/>", "source.xml:1: the device has no"},
      {svd("<register derivedFrom=\"B\"><name>A</name></register>"
           "<register derivedFrom=\"A\"><name>B</name></register>"),
       "source.xml:2: 'A' is derived in a circle"},
      {svd("<register derivedFrom=\"A\"><name>A</name></register>"),
       "source.xml:2: derived from 'A', which is not there"},
      {svdRegister("\n<size>16bit</size>"), "source.xml:3: size: '16bit' is no number"},
      {svdRegister("\n<resetValue>0x10000000000000000</resetValue>"), "source.xml:3: resetValue"},
      {svdRegister("\n<access>sometimes</access>"), "source.xml:3: no access: 'sometimes'"},
      {svd(array("4294967296", reg)), "source.xml:2: a dim of 4294967296 is more than 65536"},
      {svd(array("65536", array("65536", reg))), "source.xml:2: from here on there is too much"},
      {svd(array("65536", array("65536", array("65536", "")))), "have no end here"},
      {svd(array("3", "<dimIndex>a,b</dimIndex>" + reg)), "dimIndex 'a,b' does not have 3 words"},
      {ipxact("<register><name>R</name><dim>65536</dim><dim>65536</dim></register>"),
       "source.xml:2: a dim of 65536 is too much"},
      {"<node>\n<node id='A' address='0xffffffffffffffff'><node id='B' address='1'/></node></node>",
       "source.xml:2: the address is out of range"},
      {"<node>\n<node id='A' module='file://source.xml'/></node>",
       "source.xml:2: module 'file://source.xml' has itself"},
      {nested(100'000), "source.xml:1: more than 64 elements in each other"},
      {"<html/>", "source.xml:1: 'html' begins no CMSIS-SVD"},
      {svdRegister("<description>" + std::string(70'000, 'x') + "</description>"),
       "source.xml:2: has a text of more than 64 KiB"},
      {"", "source.xml:1: no element found"},
      {"<device>\n\xff</device>", "source.xml:2: not well-formed"},
  };
  for (const auto& [source, why] : cases) {
    SCOPED_TRACE(source.substr(0, 200));
    const Outcome outcome = importText(source);
    EXPECT_THAT(outcome.err, HasSubstr(why));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(filesHere(), 1u);
  }
}

TEST_F(MapImport, TakesRegularFilesAlone) {
  ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0600), 0);
  const std::pair<const char*, const char*> cases[] = {
      {"pipe", "pipe: is no regular file"},
      {"/", "/: is no regular file"},
      {"/dev/null", "/dev/null: is no regular file"},
      {"nowhere", "nowhere: No such file or directory"},
  };
  for (const auto& [source, why] : cases) {
    Korureg::expectFailure(import(source + std::string(" map.csv")), 1, why);
  }
}

TEST_F(MapImport, RefusesAFileThatIsCutAnywhere) {
  std::stringstream whole;
  whole << std::ifstream(KORU_EXAMPLES "/import/timer.svd").rdbuf();
  const size_t end = whole.str().find("</device>");
  ASSERT_NE(end, std::string::npos);
  for (size_t size = 0; size <= end; size += 173) {
    SCOPED_TRACE(size);
    const Outcome outcome = importText(whole.str().substr(0, size));
    EXPECT_THAT(outcome.err, testing::StartsWith("korureg: source.xml:"));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(filesHere(), 1u);
  }
}

TEST_F(MapImport, HoldsLargeDescriptions) {
  const Outcome outcome = importText(largeSvd(10));
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "map.csv: 2000 registers\nboard.toml: 8000 fields\n");
  // (0x9000 + 7 * 0x100 + 0x10 + 4 * 0x20 + 4 * 4, in words)
  EXPECT_THAT(text("map.csv"), HasSubstr("\n9704,P9_OUTER7_INNER_4_R4,cfg,true,32\n"));
}

TEST_F(MapImport, ReplacesNothingUnasked) {
  const std::string words = KORU_EXAMPLES "/import/timer.svd map.csv --system board.toml";
  std::ofstream(file("board.toml")) << "mine";
  Korureg::expectFailure(import(words), 1, "board.toml is there already; --force replaces it");
  EXPECT_EQ(text("board.toml"), "mine");
  EXPECT_EQ(filesHere(), 1u);
  EXPECT_EQ(import(words + " --force").exitCode, 0);
  EXPECT_EQ(filesHere(), 2u);
  Korureg::expectFailure(import(words), 1, "map.csv is there already; --force replaces it");
  Korureg::expectFailure(import(KORU_EXAMPLES "/import/timer.svd x --system x"), 2,
                         "map and system file are one file");
}

// The numbers are what the way to the chip makes addresses of; its limits are told beforehand.
TEST_F(MapImport, CountsAsTheWayToTheChipDoes) {
  const std::string source =
      svd("<register><name>A</name><addressOffset>8</addressOffset><fields><field><name>F</name>"
          "<bitRange>[3:0]</bitRange></field></fields></register>");
  const std::tuple<const char*, const char*, const char*, int> cases[] = {
      {"--pci window,stride=8", "\n1,A,", "pci = \"window,stride=8\"\n", 0},
      {"--i2c /dev/i2c-1:0x48,address_bits=16", "\n8,A,", "i2c = \"/dev/i2c-1:0x48,", 0},
      {"--mock", "\n2,A,", "mock = true\n", 0},
      {"--i2c /dev/i2c-1:0x48,byte", "\n8,A,", "register_map = \"map.csv\"\n", 3},
  };
  for (const auto& [words, number, transport, exitCode] : cases) {
    SCOPED_TRACE(words);
    const Outcome outcome = importText(source, words);
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.err;
    EXPECT_THAT(text("map.csv"), HasSubstr(number));
    EXPECT_THAT(text("board.toml"), HasSubstr(transport));
  }
}

// From a vendor's description to a field that is read and written by the names in it.
TEST_F(MapImport, TheAgentTakesWhatIsMade) {
  const Testing::MockValueFile values;
  Korud::Agent agent("");
  const Outcome made = import(
      fmt::format(KORU_EXAMPLES
                  "/import/timer.svd {0} --system {1} --name timers --block TIMER0 --base 0x1000 "
                  "--force",
                  agent.file("map.csv"), agent.file("board.toml")));
  ASSERT_EQ(made.exitCode, 0) << made.err;
  Testing::Command check = agent.command();
  check.argv.push_back("--check");
  const Outcome checked = Testing::run(check);
  EXPECT_THAT(checked.out + checked.err, HasSubstr("no problems"));
  agent.start();
  const auto ask = [&](const std::string& words) {
    return Testing::run(Korureg::command(words, {"KORU_STATE_DIR=" + agent.file("")})).out;
  };
  EXPECT_EQ(ask("field read timers CTRL.PRESCALER --value"), "by 2\n");
  EXPECT_THAT(ask("field list timers EVENTS"), HasSubstr("Channel 3 has come to its value"));
  agent.stop(SIGTERM);
  const Outcome read =
      Testing::run(Korureg::command("--map " + agent.file("map.csv") + " --mock read CTRL[5:4]"));
  EXPECT_EQ(read.exitCode, 0) << read.err;
}

}  // namespace
