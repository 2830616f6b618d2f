#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/RegisterFileCheck.h"

namespace {

using namespace KoruRegFile;
using ::testing::ElementsAre;

const std::string header = "number,name,type,writeable,width\n";

const std::string digits = ": a decimal number up to 4294967295 is needed";
const std::string words = ": write reserved, const, cfg, sts, counter or ctl";

// "E3:1 text" for an error in line 3, column 1.
std::string shown(const RegisterFileProblem& problem) {
  return fmt::format("{}{}:{} {}",
                     problem.severity == RegisterFileProblem::Severity::error ? 'E' : 'W',
                     problem.line, problem.column, problem.text);
}

std::vector<std::string> shown(const std::vector<RegisterFileProblem>& problems) {
  std::vector<std::string> result;
  for (const auto& problem : problems) result.push_back(shown(problem));
  return result;
}

std::vector<std::string> check(const std::string& text) {
  std::istringstream in(text);
  return shown(checkRegisterFile(in, 4));
}

TEST(RegisterFileCheck, ListsEveryProblem) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"0,a,const,false,32\r\n1,b,ctl,true,0\n2,c,reserved,true,8", {}},
      {"1,a,cfg,no,8\n2,b,cfg,,8",
       {"W2:9 Neither true nor false: 'no' makes the register writeable",
        "W3:9 Neither true nor false: '' makes the register writeable"}},
      {"x,a,ctl,true,32\n1,b,ctl,true,33\n2,c,ctl,true,3x",
       {"E2:1 Invalid address token 'x'" + digits,
        "E3:14 Unsupported register width '33', at most 32",
        "E4:14 Invalid width token '3x'" + digits}},
      {"0x0A,a,ctl,true,0b1000",
       {"E2:1 Invalid address token '0x0A': numbers are decimal, write 10",
        "E2:17 Invalid width token '0b1000': numbers are decimal, write 8"}},
      {"-1,,CTL,true,",
       {"E2:1 Invalid address token '-1'" + digits, "W2:4 Empty name",
        "W2:5 Unknown register type 'CTL'" + words, "W2:14 Incomplete line: 4 of 5 fields"}},
      {std::string("1,a\0b,ctl,true,8", 16),
       {"W2:3 NUL byte in the name 'a\\x00b': no access by name reaches the register"}},
      {"1,\u00e4\x1b,ctl,true,8\n2,\u00e4\x1b,ctl,true,8",
       {"W3:3 Duplicate name '\u00e4\\x1b', first in line 2"}},
      {"1,a,ctl,true,8,x,y", {"W2:16 Extraneous field(s) from 'x' on"}},
      {"1,a,ctl,true,8\n\n2,b,ctl,true,8\n\n",
       {"W3:1 Incomplete line: 0 of 5 fields", "W5:1 Incomplete line: 0 of 5 fields"}},
      {"\n0,a,ctl,true,8",
       {"W2:1 Incomplete line: 0 of 5 fields", "W3:1 Duplicate address 0, first in line 2 as ''"}},
      {"1,a,ctl,true,8\n2,a,ctl,true,8\n1,b,ctl,true,8\n2,c,ctl,true,8",
       {"W3:3 Duplicate name 'a', first in line 2",
        "W4:1 Duplicate address 4, first in line 2 as 'a'",
        "W5:1 Duplicate address 8, first in line 3 as 'a'"}},
      {"bad,a,ctl,true,8\n2,a,ctl,true,8\n2",
       {"E2:1 Invalid address token 'bad'" + digits, "W3:3 Duplicate name 'a', first in line 2",
        "W4:2 Incomplete line: 1 of 5 fields", "W4:1 Duplicate address 8, first in line 3 as 'a'"}},
      {"0,a,ctl,true,8\n1073741824,b,ctl,true,8",
       {"W3:1 Address wraps around: '1073741824' times the block size 4 exceeds 32 bits",
        "W3:1 Duplicate address 0, first in line 2 as 'a'"}},
      {std::string("1,a,\x1b[2J\0\xc3,true,8", 17),
       {"W2:5 Unknown register type '\\x1b[2J\\x00\\xc3'" + words}},
      {"1,a," + std::string(100000, 'q') + ",true,8",
       {"W2:5 Unknown register type '" + std::string(40, 'q') + "'... (100000 bytes)" + words}}};
  for (const auto& [records, problems] : cases) EXPECT_EQ(check(header + records), problems);
}

TEST(RegisterFileCheck, GoesOnBehindAWrongHeader) {
  EXPECT_THAT(check("Number,Name\nx,a,ctl,true,8\n"),
              ElementsAre("E1:1 Wrong CSV header 'Number,Name', expected "
                          "'number,name,type,writeable,width'",
                          "E2:1 Invalid address token 'x'" + digits));
  EXPECT_THAT(check(""), ElementsAre("E1:1 Wrong CSV header: the file is empty"));
}

TEST(RegisterFileCheck, CountsWhatItDoesNotList) {
  std::string text = header;
  for (size_t i = 0; i < maxRegisterFileProblems; ++i)
    text += fmt::format("{},r{},?,true,8\n", i, i);
  EXPECT_EQ(check(text).size(), maxRegisterFileProblems);
  text += "5000,x,?,true,8\n5001,y,?,true,8\n";
  EXPECT_EQ(check(text).size(), maxRegisterFileProblems + 1);
  EXPECT_EQ(check(text).back(), "W1002:0 2 more problems from here on, 0 of them errors");
  EXPECT_EQ(check(text + "z,z,ctl,true,8\n").back(),
            "E1002:0 3 more problems from here on, 1 of them errors");
}

TEST(RegisterFileCheck, ReportsAFileThatCannotBeReadAndRefusesNonsense) {
  EXPECT_THAT(shown(checkRegisterFile("/nonexistent/map.csv", 4)),
              ElementsAre("E0:0 Error opening CSV file /nonexistent/map.csv"));
  EXPECT_THAT(
      shown(checkRegisterFile("/proc/self/mem", 4)),
      ElementsAre(::testing::StartsWith("E0:0 Error reading CSV file /proc/self/mem after")));
  EXPECT_THROW(checkRegisterFile("/nonexistent/map.csv", 0), std::invalid_argument);
  EXPECT_THROW(checkRegisterFile(static_cast<const char*>(nullptr), 4), std::logic_error);
}

TEST(ExampleMaps, AreSound) {
  size_t maps = 0;
  for (const auto& entry : std::filesystem::directory_iterator(KORU_EXAMPLE_MAPS)) {
    if (entry.path().extension() != ".csv") continue;
    ++maps;
    EXPECT_THAT(shown(checkRegisterFile(entry.path().c_str(), 1)), ::testing::IsEmpty())
        << entry.path();
  }
  EXPECT_GE(maps, 2u);
}

// --- Damaged maps --------------------------------------------------------------------------------

// Damages a sound map at a few places: bytes changed, cut out, doubled, or taken from what a parser
// might stumble over.
std::string damaged(std::string text, std::mt19937& random) {
  static const std::string pieces[] = {",", "\n",  "\r\n", "-",     "4294967295",        "33",
                                       " ", ",,,", "\n\n", "false", std::string(1, '\0')};
  const auto below = [&](size_t limit) { return random() % limit; };
  for (size_t count = below(6); count > 0; --count) {
    const size_t at = below(text.size() + 1);
    const size_t length = below(std::min<size_t>(text.size() - at, 30) + 1);
    const std::string inserted[] = {text.substr(at, length),
                                    std::string(1, static_cast<char>(below(256))),
                                    pieces[below(std::size(pieces))]};
    if (const size_t kind = below(4); kind < std::size(inserted)) {
      text.insert(at, inserted[kind]);
    } else {
      text.erase(at, length);
    }
  }
  return text;
}

// A map is either refused at the first error that the check lists, or every register of it is
// found.
void expectSound(const std::string& text) {
  std::istringstream forCheck(text);
  std::istringstream forMap(text);
  const auto problems = checkRegisterFile(forCheck, 4);
  const auto firstError = std::find_if(problems.begin(), problems.end(), [](const auto& problem) {
    return problem.severity == RegisterFileProblem::Severity::error;
  });
  try {
    const RegisterFile map(forMap, 4);
    EXPECT_EQ(firstError, problems.end()) << shown(*firstError);
    for (const Register& reg : map.registers()) {
      EXPECT_EQ(&map.findRegisterByName(reg.name), &reg);
      EXPECT_TRUE(map.hasRegName(map.regNameAtAddr(reg.address)));
      EXPECT_LE(reg.width, 32u);
    }
    const auto lineEnds = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    const size_t records = lineEnds - (text.back() == '\n' ? 1 : 0);
    const bool isComplete = map.registers().size() == records;
    EXPECT_TRUE(isComplete || !problems.empty()) << "registers were dropped without a warning";
  } catch (const RegisterFileError& error) {
    ASSERT_NE(firstError, problems.end()) << error.what();
    EXPECT_EQ(error.line(), firstError->line);
    EXPECT_EQ(error.column(), firstError->column);
  }
}

TEST(DamagedMaps, AreRefusedOrReadButNeverHalf) {
  std::string sound = header;
  for (int i = 0; i < 12; ++i) sound += fmt::format("{},r{},cfg,{},{}\n", i, i, i % 2 == 0, 8 + i);
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  for (int round = 0; round < 5000 && !HasFailure(); ++round) {
    const std::string text = damaged(sound, random);
    SCOPED_TRACE(fmt::format("seed {}, round {}, map:\n{}", seed, round, text));
    expectSound(text);
  }
}

}  // namespace
