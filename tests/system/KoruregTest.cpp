// The command line as its users meet it: what it prints and how it ends.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <boost/regex.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "testing/MockValueFile.h"
#include "testing/TempFile.h"
#include "tests/system/Korureg.h"

const char* const Korureg::program = KORUREG_PROGRAM;

namespace {

using nlohmann::json;
using Testing::Outcome;

constexpr const char* mapText =
    "number,name,type,writeable,width\n"
    "16,control,ctl,true,32\n"
    "17,mode,cfg,true,8\n"
    "18,status,sts,false,16\n"
    "19,odd[7:4],cfg,true,8\n"
    "20,e\033[1ml,cfg,true,4\n";

class CommandLine : public ::testing::Test {
 protected:
  static Outcome run(const std::string& words) { return Testing::run(Korureg::command(words)); }
  // With the map and the mock.
  Testing::Command mocked(const std::string& words) const {
    return Korureg::command(withMap("--map MAP --mock " + words));
  }
  // Puts the path of the map where "MAP" stands.
  std::string withMap(const std::string& text) const {
    return boost::regex_replace(text, boost::regex("MAP"), map_.path());
  }

  const Testing::MockValueFile values_;
  const Testing::TempFile map_{mapText};
};

TEST_F(CommandLine, PrintsTables) {
  const std::pair<const char*, const char*> cases[] = {
      {"map check MAP", "MAP: ok\n"},
      {"map show MAP --block-size 1",
       "ADDRESS  REGISTER   TYPE  ACCESS      WIDTH\n"
       "   0x10  control    ctl   read/write     32\n"
       "   0x11  mode       cfg   read/write      8\n"
       "   0x12  status     sts   read only      16\n"
       "   0x13  odd[7:4]   cfg   read/write      8\n"
       "   0x14  e\\x1b[1ml  cfg   read/write      4\n"},
      {"list --match st*",
       "ADDRESS  REGISTER  TYPE  ACCESS     WIDTH\n"
       "   0x48  status    sts   read only     16\n"},
      {"write control=0x12 mode=0b11 mode[7:4]=10 odd[7:4]=16",
       "REGISTER   ADDRESS         HEX  DECIMAL                                     BITS\n"
       "control       0x40  0x00000012       18  0000 0000 0000 0000 0000 0000 0001 0010\n"
       "mode          0x44        0x03        3                                0000 0011\n"
       "mode[7:4]     0x44         0xa       10                                     1010\n"
       "odd[7:4]      0x4c        0x10       16                                0001 0000\n"},
      {"read mode mode[1] odd[7:4][7:4]",
       "REGISTER       ADDRESS   HEX  DECIMAL       BITS\n"
       "mode              0x44  0xa3      163  1010 0011\n"
       "mode[1]           0x44   0x1        1          1\n"
       "odd[7:4][7:4]     0x4c   0x1        1       0001\n"},
      {"write --force status=1 mode=256",
       "REGISTER  ADDRESS     HEX  DECIMAL                 BITS\n"
       "status       0x48  0x0001        1  0000 0000 0000 0001\n"
       "mode         0x44   0x100      256          1 0000 0000\n"},
      {"wait control[7:4] 0b1=1 --timeout 0",
       "REGISTER      ADDRESS  HEX  DECIMAL  BITS\n"
       "control[7:4]     0x40  0x1        1  0001\n"},
      {"dump --match [cm]*",
       "REGISTER  ADDRESS         HEX  DECIMAL                                     BITS\n"
       "control      0x40  0x00000012       18  0000 0000 0000 0000 0000 0000 0001 0010\n"
       "mode         0x44       0x100      256                              1 0000 0000\n"},
  };
  for (const auto& [words, out] : cases) {
    SCOPED_TRACE(words);
    const Outcome outcome = Testing::run(mocked(words));
    EXPECT_EQ(outcome.out, withMap(out));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
  }
  EXPECT_EQ(values_.content(), "Address, Value\n64,18\n68,256\n72,1\n76,16\n");
}

// What stands in brackets is a name, and not a list. Without a transport, the map's numbers stand
// for nothing else.
TEST_F(CommandLine, TakesNamesAsTheyAre) {
  const Testing::TempFile map(
      "number,name,type,writeable,width\n1,[a],cfg,true,8\n2,a,cfg,true,8\n"
      "3,Gr\u00f6\u00dfe,cfg,true,8\n");
  const auto ask = [&](const std::string& words) {
    return run(fmt::format("--map {} {}", map.path(), words)).out;
  };
  EXPECT_EQ(ask("--mock write [a]=5 a=6 Gr\u00f6\u00dfe=7"),
            "REGISTER  ADDRESS   HEX  DECIMAL       BITS\n"
            "[a]          0x04  0x05        5  0000 0101\n"
            "a            0x08  0x06        6  0000 0110\n"
            "Gr\u00f6\u00dfe        0x0c  0x07        7  0000 0111\n");
  EXPECT_THAT(ask("--mock read [a]"), testing::HasSubstr("[a]          0x04  0x05"));
  EXPECT_EQ(ask("list --match a"),
            "NUMBER  REGISTER  TYPE  ACCESS      WIDTH\n"
            "     2  a         cfg   read/write      8\n");
  EXPECT_THAT(ask("list --block-size 2"), testing::HasSubstr("0x04  a "));
  EXPECT_THAT(ask("--spi /dev/spidev0.0 list"), testing::HasSubstr("0x02  a "));
  Korureg::expectFailure(
      run(fmt::format("--spi /dev/x map show {} --block-size 8", map.path())), 2,
      "--block-size and --spi exclude each other: the transport has a block size of its own, 1");
}

TEST_F(CommandLine, PrintsJson) {
  values_.contentIs("Address, Value\n64,4294967295\n80,5\n");
  const std::pair<std::string, std::string> cases[] = {
      {"list --match mode",
       R"([{"name":"mode","address":68,"type":"cfg","writeable":true,"width":8}])"},
      {"read control[31:8] e\033[1ml",
       R"([{"name":"control[31:8]","address":64,"width":24,"value":16777215,"hex":"0xffffff"},)"
       R"({"name":"e\u001b[1ml","address":80,"width":4,"value":5,"hex":"0x5"}])"},
      {"map check MAP /nonexistent",
       R"([{"file":"MAP","problems":[]},{"file":"/nonexistent","problems":[{"line":0,"column":0,)"
       R"("severity":"error","text":"No such file or directory"}]}])"},
  };
  for (const auto& [words, expected] : cases) {
    EXPECT_EQ(json::parse(Testing::run(mocked("--json " + words)).out),
              json::parse(withMap(expected)));
  }
}

TEST_F(CommandLine, NamesTheFaultsOfAMapAndCountsThoseThatItDoesNotList) {
  std::string map = "number,name,type,writeable,width\n1,typo,cgf,true,8\n";
  for (int i = 0; i < 1100; ++i) map += fmt::format("x,r{},cfg,true,8\n", i);
  for (int i = 2; i < 51; ++i) map += fmt::format("{0},s{0},odd,true,8\n", i);
  const Testing::TempFile file(map);
  const Outcome outcome = run(std::string("map check ") + file.path());
  EXPECT_THAT(outcome.out,
              testing::StartsWith(fmt::format("{0}:2:8: warning: Unknown register type 'cgf': "
                                              "write reserved, const, cfg, sts, counter or ctl\n"
                                              "{0}:3:1: error: Invalid address token 'x': a "
                                              "decimal number up to 4294967295 is needed\n",
                                              file.path())));
  EXPECT_THAT(outcome.out, testing::EndsWith(": 1100 errors, 50 warnings\n"));
  EXPECT_EQ(outcome.exitCode, 1);
}

// Where there are registers to be named, a good one comes first, which must not be touched either.
TEST_F(CommandLine, RefusesBeforeItTouchesAnything) {
  const std::pair<const char*, const char*> cases[] = {
      {"read mode cotrol", "MAP has no register 'cotrol'; did you mean 'control'?"},
      {"read mode mode[8]", "mode[8]: the register has 8 bits only"},
      {"read mode mode[3:4]", "'mode[3:4]' names its bits upside down, write [4:3]"},
      {"read mode \033]\xff", "MAP has no register '\\x1b]\\xff'"},
      {"write mode=1 control", "'control' is no assignment (write NAME=VALUE)"},
      {"write mode=1 control=-1", "control: '-1' is no number (write 42, 0x2a or 0b101010)"},
      {"write mode=1 mode=256",
       "0x100 does not fit the 8 bits of mode (--force writes it all the same)"},
      {"write mode=1 mode[3:0]=16 --force", "0x10 does not fit the 4 bits of mode[3:0]"},
      {"write mode=1 status[3:0]=1", "status[3:0] is read only (--force writes it all the same)"},
      {"wait mode 1", "'1' is no condition (write MASK=VALUE)"},
      {"wait mode 1=2", "1=2 can never hold: the value has bits that the mask hides"},
      {"wait mode 0x100=0x100", "0x100=0x100 can never hold: mode has 8 bits only"},
      {"wait mode 1=0 --timeout nan",
       "--timeout: 'nan' is no number of seconds up to 1000000 (korureg wait --help tells more)"},
      {"wait mode 1=0 1=1", "'1=1' is one argument too many (korureg wait --help tells more)"},
      {"watch mode --count -1",
       "--count: '-1' is no whole number from 0 to 18446744073709551615 "
       "(korureg watch --help tells more)"},
      {"read mode --jsn", "there is no option '--jsn' (korureg read --help tells more)"},
      {"read mode --map MAP", "--map is given twice (korureg read --help tells more)"},
      {"raed mode", "there is no command 'raed'; did you mean 'read'? (korureg --help tells more)"},
      {"read", "NAME is required (korureg read --help tells more)"},
      {"", "a command is required (korureg --help tells more)"},
      {"map check MAP --block-size 256",
       "--block-size: '256' is no whole number from 1 to 255 "
       "(korureg map check --help tells more)"},
  };
  for (const auto& [words, message] : cases) {
    SCOPED_TRACE(words);
    const Outcome outcome = Testing::run(mocked(words));
    Korureg::expectFailure(outcome, 2, withMap(message));
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(values_.exists());
  }
}

TEST_F(CommandLine, SaysWhyAChipCannotBeUsed) {
  const std::tuple<int, std::string, const char*> cases[] = {
      {2, "list", "name the chip's register map with --map FILE"},
      {2, "--map MAP dump", "say how the chip is reached, for instance with --mock"},
      {1, "--map /nonexistent list", "/nonexistent: No such file or directory"},
      {1, "--map / --mock dump", "/: Is a directory"},
      {1, "map show /dev/null", "/dev/null: Neither a file nor a pipe"},
      {1, "map show " KORUREG_MANUAL, KORUREG_MANUAL ":1:1: Encountered wrong CSV header!"},
  };
  for (const auto& [exitCode, words, message] : cases) {
    const Outcome outcome = run(withMap(words));
    Korureg::expectFailure(outcome, exitCode, message);
    EXPECT_EQ(outcome.out, "");
  }
  values_.contentIs("Address, Value\n64,x\n");
  Korureg::expectFailure(Testing::run(mocked("read mode")), 1,
                         "/tmp/MockKoruDebugReg.csv:2: '64,x' is no address and value");
}

TEST_F(CommandLine, TellsAFailedAccessAndStops) {
  std::filesystem::create_directory(KoruRegFile::MockTransportMethodImpl::valueFilePath);
  const std::string failure =
      "cannot write 0x1 to mode over mock: /tmp/MockKoruDebugReg.csv: Is a directory";
  const Outcome outcome = Testing::run(mocked("--json write mode=1 control=1"));
  Korureg::expectFailure(outcome, 1,
                         failure + "\nkorureg: not written after this: 1 of 2 assignments");
  const json written = json::parse(outcome.out);
  ASSERT_EQ(written.size(), 1u);
  EXPECT_EQ(written[0]["value"], nullptr);
  EXPECT_EQ(written[0]["error"], failure);
}

// An interval that is longer than the time allowed does not prolong it.
TEST_F(CommandLine, WaitsInVain) {
  Korureg::expectFailure(Testing::run(mocked("wait mode 0x3=2 --timeout 0.01 --interval 1000")), 1,
                         "mode still is 0x00 after 0.01 s, not 0x3=2");
}

TEST_F(CommandLine, WatchesUntilInterruptedOrForNobody) {
  Testing::Process watch(mocked("watch control mode[0] --interval 1000"));
  EXPECT_EQ(Korureg::nextLine(watch), "control  0x00000000");
  EXPECT_EQ(Korureg::nextLine(watch), "mode[0]  0x0");
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait().signal, SIGINT);
  Testing::Process unread(mocked("watch control --interval 1000"));
  unread.line();
  unread.stopReading();
  Korureg::expectFailure(unread.wait(), 1, "nobody reads standard output");
}

// The mock's values are a file that others change, too.
TEST_F(CommandLine, SeesAndKeepsWhatOthersWriteToTheMock) {
  Testing::Process watch(mocked("watch mode --interval 0.001"));
  EXPECT_EQ(Korureg::nextLine(watch), "mode  0x00");
  Testing::Process wait(mocked("wait mode 0x3=2 --timeout 20 --interval 0.001"));
  for (const char* mode : {"1", "2"}) {
    EXPECT_EQ(Testing::run(mocked(fmt::format("write control=7 mode={}", mode))).exitCode, 0);
    EXPECT_THAT(Korureg::nextLine(watch), testing::EndsWith(fmt::format("-> 0x0{}", mode)));
  }
  EXPECT_EQ(wait.wait().exitCode, 0);
  watch.signal(SIGTERM);
  watch.wait();
  EXPECT_EQ(values_.content(), "Address, Value\n64,7\n68,2\n");
}

TEST_F(CommandLine, FailsWhenItsOutputIsLost) {
  for (const char* words : {"dump", "watch mode", "--help", "--version", "map check MAP"}) {
    SCOPED_TRACE(words);
    Testing::Command full = mocked(words);
    full.outputPath = "/dev/full";
    Korureg::expectFailure(Testing::run(full), 1, "cannot write to standard output");
  }
}

// The words of `text` that the pattern's group matches.
std::set<std::string> matches(const std::string& text, const char* pattern) {
  const boost::regex regex(pattern);
  std::set<std::string> found;
  for (boost::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
    found.insert((*it)[1]);
  }
  return found;
}

TEST_F(CommandLine, ManualAndHelpKnowTheSameCommandsAndOptions) {
  std::stringstream manual;
  manual << std::ifstream(KORUREG_MANUAL).rdbuf();
  std::string help = run("--help").out;
  const auto commandPattern = "\n  ([a-z]+)  ";
  const std::set<std::string> commands = matches(help, commandPattern);
  ASSERT_THAT(commands, ::testing::IsSupersetOf({"map", "read", "watch", "shadow"}));
  for (const std::string& name : commands) {
    const std::string own = run(name + " --help").out;
    help += own;
    std::set<std::string> paths;
    for (const std::string& part : matches(own, commandPattern)) {
      const auto path = paths.insert(fmt::format("{} {}", name, part)).first;
      help += run(*path + " --help").out;
    }
    if (paths.empty()) paths.insert(name);
    for (const std::string& p : paths) {
      EXPECT_THAT(manual.str(), ::testing::HasSubstr("\n.It Cm " + p + " "));
    }
  }
  // An option's own line, not those that mention it.
  EXPECT_EQ(matches(help, "\n  (?:-[a-z],)?--([a-z0-9-]+) "),
            matches(manual.str(), "\n\\.It Fl (?:[a-z] , )?-([a-z][a-z0-9-]*)"));
}

}  // namespace
