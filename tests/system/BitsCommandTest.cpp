// A register's bits as a ruler, and times, as people see them.

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <tuple>

#include "testing/MockValueFile.h"
#include "testing/StateDirectory.h"
#include "tests/agent/Korud.h"
#include "tests/system/Korureg.h"

namespace {

using nlohmann::json;
using Testing::Outcome;

constexpr const char* maps =
    "number,name,type,writeable,width\n"
    "0,WIDE,cfg,true,24\n1,WORD,cfg,true,16\n2,BYTE,cfg,true,8\n3,NIBBLE,sts,false,4\n";
constexpr const char* board = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = true
[chip.physical.WIDE]
across = { bits = "17:12" }
[chip.physical.WORD]
RST = { bits = 15 }
BRNG = { bits = 13 }
PG = { bits = "12:11" }
"e\u001b[1ml" = { bits = "2:0" }
[chip.status.WORD]
over = { bits = "13:11" }
[chip.logical.all]
a = { to = "WIDE.across", bits = "25:20" }
b = { to = "WORD.RST", bits = 9 }
c = { to = "WORD.BRNG", bits = 10 }
d = { to = "WORD.PG", bits = "12:11" }
e = { to = "WORD.e\u001b[1ml", bits = "16:14" }
)";

TEST(Bits, AreDrawnAsARuler) {
  const Korud::Agent folder(board);
  folder.write("map.csv", maps);
  const auto run = [&](const std::string& words) {
    return Testing::run(Korureg::command("map show " + folder.file("map.csv ") + words));
  };
  const std::string config = " --config " + folder.file("board.toml");
  const std::pair<std::string, const char*> table[] = {
      {"--bits NIBBLE",
       "    3        2        1        0\n"
       "+--------+--------+--------+--------+\n"
       "|        |        |        |        |\n"
       "+--------+--------+--------+--------+\n"},
      {"--bits BYTE" + config,
       "    7        6        5        4        3        2        1        0\n"
       "+--------+--------+--------+--------+--------+--------+--------+--------+\n"
       "|        |        |        |        |        |        |        |        |\n"
       "+--------+--------+--------+--------+--------+--------+--------+--------+\n"},
      {"--bits WORD" + config,
       " 15  14  13  12  11  10   9   8   7   6   5   4   3   2   1   0\n"
       "+---+---+---+-------+-------------------------------+-----------+\n"
       "|RST|   |*1 |  PG   |                               | e\\x1b[1ml |\n"
       "+---+---+---+-------+-------------------------------+-----------+\n"
       "|       |   over    |                                           |\n"
       "+-------+-----------+-------------------------------------------+\n"
       "*1 = BRNG [13]\n"},
      {"--bits WIDE" + config,
       " 23  22  21  20  19  18  17  16\n"
       "+-----------------------+-------+\n"
       "|                       |across |\n"
       "+-----------------------+-------+\n"
       " 15  14  13  12  11  10   9   8   7   6   5   4   3   2   1   0\n"
       "+---------------+-----------------------------------------------+\n"
       "|    across     |                                               |\n"
       "+---------------+-----------------------------------------------+\n"},
      {"--json --bits WIDE" + config,
       "{\n  \"name\": \"WIDE\",\n  \"width\": 24,\n  \"fields\": [\n    {\n"
       "      \"name\": \"across\",\n      \"bits\": [\n        17,\n        12\n      ]\n    }\n"
       "  ]\n}\n"},
  };
  for (const auto& [words, out] : table) EXPECT_EQ(run(words).out, out) << words;
  const std::tuple<std::string, int, std::string> refusals[] = {
      {"--bits NIBLE", 2,
       folder.file("map.csv") + " has no register 'NIBLE'; did you mean "
                                "'NIBBLE'?"},
      {"--bits WORD[3:0]", 2, "--bits takes the name of a whole register"},
      {config, 2, "--config names the fields that --bits shows"},
      {"--bits WORD --config /nonexistent", 1, "/nonexistent: there is no such file"},
  };
  for (const auto& [words, exitCode, why] : refusals) {
    Korureg::expectFailure(run(words), exitCode, why);
  }
  folder.write("other.csv", maps);
  Korureg::expectFailure(
      Testing::run(Korureg::command("map show --bits WORD " + folder.file("other.csv") + config)),
      2,
      folder.file("board.toml") + " describes no chip that can be used and has the map " +
          folder.file("other.csv"));
}

TEST(Times, HaveTheZone) {
  const Testing::MockValueFile values;
  const Korud::Agent folder;
  for (const auto& [zone, ending] :
       {std::pair("XXX-5:30", "\\+05:30"), std::pair("XXX3:30", "-03:30"),
        std::pair("UTC0", "\\+00:00")}) {
    const Outcome outcome = Testing::run(Korureg::command(
        "--map " + folder.file("map.csv") + " --mock --json watch CTRL --count 0b1",
        {std::string("TZ=") + zone}));
    const std::string time = json::parse(outcome.out)["time"];
    const std::string shape = "[0-9]{4}(-[0-9]{2}){2}T([0-9]{2}:){2}[0-9]{2}[.][0-9]{3}";
    EXPECT_THAT(time, testing::MatchesRegex(shape + ending));
  }
}

}  // namespace
