// Maps in the forms that others take: what is written is what they read, whatever the names are.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "testing/StateDirectory.h"
#include "tests/system/Korureg.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using Testing::Outcome;

// Names that mean something to what they are written in.
constexpr const char* strangeMap =
    "number,name,type,writeable,width\n"
    "4,<img src=x onerror=alert(1)>,counter,false,16\n"
    "5,*/ #error \"&amp;'%s,const,false,32\n"
    "9,a|b`c`,ctl,true,8\n";
constexpr const char* strangeSystem = R"~([[chip]]
name = "odd"
register_map = "map.csv"
mock = true
read_changes = ["a|b`c`"]
[chip.status."<img src=x onerror=alert(1)>"]
"</td><script>" = { bits = "7:4", description = "*/ ]]> & \\\\ \"</script>" }
[chip.physical."a|b`c`"]
"F [x](y)" = { bits = 3, kind = "pulse", values = { "on|<b>" = 1 } }
W = { bits = 1, kind = "write1clear" }
S = { bits = "7:5" }
[chip.logical.l]
f = { to = "a|b`c`.F [x](y)" }
w = { to = "a|b`c`.W" }
s = { to = "a|b`c`.S", value = 5 }
)~";

class MapExport : public testing::Test {
 protected:
  MapExport() {
    write("map.csv", strangeMap);
    write("board.toml", strangeSystem);
  }
  std::string file(const std::string& name) const { return folder.file(name); }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
  }
  std::string text(const std::string& name) const {
    std::stringstream all;
    all << std::ifstream(file(name)).rdbuf();
    return all.str();
  }
  // The words behind "map", in the folder.
  Outcome map(const std::string& words) const {
    return Testing::run(
        {{"/bin/sh", "-c",
          fmt::format("cd {} && exec {} map {}", file(""), Korureg::program, words)},
         {"ORB_TRACE="}});
  }
  std::string printed(const std::string& words) const {
    const Outcome outcome = map(words);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
    return outcome.out;
  }

  const Testing::StateDirectory folder;
};

TEST_F(MapExport, SvdLeadsBackToTheSameMapAndFields) {
  const std::pair<std::string, std::string> cases[] = {
      {"map.csv", "board.toml"},
      {KORU_EXAMPLES "/maps/ina219.csv", KORU_EXAMPLES "/board.toml"},
      {KORU_EXAMPLES "/maps/mpu6050.csv", ""},
  };
  for (const auto& [csv, system] : cases) {
    SCOPED_TRACE(csv);
    const std::string config = system.empty() ? "" : " --config " + system;
    const std::string first = printed(fmt::format("export --format svd {}{}", csv, config));
    write("there.svd", first);
    printed("import there.svd back.csv --force" +
            std::string(system.empty() ? "" : " --system back.toml"));
    std::stringstream original;
    original << std::ifstream(csv.starts_with('/') ? csv : file(csv)).rdbuf();
    EXPECT_EQ(text("back.csv"), original.str());
    if (system.empty()) continue;
    EXPECT_THAT(text("back.toml"), HasSubstr("\nread_changes = ["));
    EXPECT_EQ(printed("export --format svd back.csv --config back.toml"), first);
  }
}

TEST_F(MapExport, HeaderIsC) {
  write("header.h", printed("export --format header map.csv --config board.toml"));
  write("main.cpp",
        "#include \"header.h\"\n#include \"header.h\"\n"
        "static_assert(ODD_A_B_C_ == 36u && ODD_A_B_C__S_MASK == 0xe0u && ODD_A_B_C__S_SHIFT == 5 "
        "&& ODD_A_B_C__F__X__Y__ON__B_ == 1u);\n");
  const Outcome compiled = Testing::run({{KORU_COMPILER, "-std=c++17", "-Wall", "-Wextra",
                                          "-Werror", "-fsyntax-only", file("main.cpp")}});
  EXPECT_EQ(compiled.err, "");
  EXPECT_EQ(compiled.exitCode, 0);
  write("map.csv", "number,name,type,writeable,width\n0,a b,cfg,true,8\n1,a-b,cfg,true,8\n");
  Korureg::expectFailure(map("export --format header map.csv"), 1,
                         "'a b' and 'a-b' would both be MAP_A_B in C");
}

TEST_F(MapExport, MarkdownIsATable) {
  const std::string text = printed("export map.csv --config board.toml");
  EXPECT_THAT(text, HasSubstr("| 0x0024 | a\\|b\\`c\\` | ctl | read/write | 8 |\n"));
  EXPECT_THAT(
      text, HasSubstr("| \\[3\\] | F \\[x\\]\\(y\\) | read/write | pulse | 1 = on\\|&lt;b&gt; |"));
  EXPECT_THAT(text, HasSubstr("\\#error &quot;&amp;amp;&#39;%s"));
  EXPECT_THAT(text, Not(HasSubstr("<img")));
}

// A page may be opened anywhere: nothing in it comes from a name, and nothing from elsewhere.
TEST_F(MapExport, PageHasNoMarkupButItsOwn) {
  const std::string page = printed("html map.csv --config board.toml");
  EXPECT_THAT(page,
              HasSubstr("<td colspan=\"4\" class=\"field\" title=\"&lt;/td&gt;&lt;script&gt;\">"));
  EXPECT_THAT(page, HasSubstr("<h2>&lt;img src=x onerror=alert(1)&gt;</h2>"));
  EXPECT_THAT(page, HasSubstr("prefers-color-scheme: dark"));
  EXPECT_FALSE(std::regex_search(page, std::regex("<img|<b>|href|url\\(|http:|https:| src=[^x]")));
  const auto count = [&](const std::string& tag) {
    size_t found = 0;
    for (size_t at = 0; (at = page.find(tag, at)) != page.npos; ++at) ++found;
    return found;
  };
  EXPECT_EQ(count("<script>"), 1u);
  EXPECT_EQ(count("</script>"), 1u);
  EXPECT_EQ(count("<section>"), 3u);
  EXPECT_EQ(count("<table"), count("</table>"));
}

TEST_F(MapExport, ControlCharactersComeOutAsText) {
  write("map.csv", "number,name,type,writeable,width\n0,e\033[1m\xff l,cfg,true,8\n");
  for (const char* words : {"export map.csv", "export map.csv --format header",
                            "export map.csv --format svd", "html map.csv"}) {
    SCOPED_TRACE(words);
    const std::string out = printed(words);
    EXPECT_THAT(out, Not(HasSubstr("\033")));
    EXPECT_THAT(out, Not(HasSubstr("\xff")));
  }
}

TEST_F(MapExport, TellsWhatCannotBeExported) {
  Korureg::expectFailure(map("export nowhere.csv"), 1, "nowhere.csv: No such file or directory");
  write("other.csv", "number,name,type,writeable,width\n");
  Korureg::expectFailure(map("html other.csv --config board.toml"), 2,
                         "board.toml describes no chip that can be used and has the map other.csv");
  EXPECT_THAT(map("export map.csv --format pdf").err,
              HasSubstr("the formats are markdown, header and svd"));
}

}  // namespace
