// What manual pages, help texts and documents show is typed in on a simulated board. A command that
// is new there has to work on it, too, or has to be told what it needs.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "testing/MockValueFile.h"
#include "tests/agent/Korud.h"
#include "tests/simulator/Korusim.h"

namespace {

namespace fs = std::filesystem;
using Testing::Outcome;

// Commands that are typed in one after the other, and where they stand.
struct Example {
  std::string source;
  std::vector<std::string> commands;
};
using Examples = std::vector<Example>;

const char* const board = R"(
[[chip]]
name = "sensor"
i2c = "/dev/i2c-1:0x48"
value_bits = 16
registers = [{ at = 0, count = 4 }]
[[chip]]
name = "port"
i2c = "/dev/i2c-1:0x20"
registers = [{ at = 0, count = 16 }]
)";

const char* const map =
    "number,name,type,writeable,width\n"
    "0,status,sts,false,16\n1,control,cfg,true,16\n2,mode,cfg,true,8\n"
    "3,ticks,counter,false,16\n4,fifo_lo,cfg,true,8\n5,fifo_hi,cfg,true,8\n";

// What only blocks have that show no commands: a synopsis, and a drawing.
const char* const noCommands[] = {" [--", "your agent"};

// Those that go on until they are interrupted.
bool isWatch(const std::string& command) {
  return command.find(" watch ") != std::string::npos || command.starts_with("korureg web");
}
// Those that need a terminal, where they are ended by a key.
bool isScreen(const std::string& command) { return command.starts_with("korureg top"); }
bool isAgent(const std::string& command) {
  return std::regex_search(command, std::regex("\\bkorud (?!.*--check)"));
}

// The command that a line shows: in a manual page, in a help text, in a comment or in a document.
std::string commandIn(const std::string& line) {
  std::smatch found;
  const std::regex pattern("(?:\\.Dl |[# ]*|\\$ )((?:korureg|korud|korusim) (?!\\\\-).*)");
  return std::regex_match(line, found, pattern) ? found.str(1) : "";
}

Examples inLines(const std::string& source, std::istream&& text) {
  Examples examples;
  for (const std::string& line : Korud::linesOf(std::move(text))) {
    const std::string command = commandIn(line);
    if (!command.empty()) examples.push_back({source, {command}});
  }
  return examples;
}

// Each fenced block is one example, but for those without commands, and for those that tests of
// their own compare with what is printed.
Examples inDocument(const std::string& source, std::istream&& text) {
  Examples examples;
  bool isBlock = false;
  bool isOther = false;
  Example block;
  for (const std::string& line : Korud::linesOf(std::move(text))) {
    if (line.starts_with("```")) {
      if (isBlock && !isOther && !block.commands.empty()) examples.push_back(block);
      isOther = line == "```console";
      isBlock = !isBlock;
      block = {source, {}};
    } else if (isBlock) {
      for (const char* each : noCommands) isOther = isOther || line.find(each) != std::string::npos;
      const std::string command = line.starts_with("$ ") ? line.substr(2) : commandIn(line);
      if (!command.empty()) block.commands.push_back(command);
    }
  }
  return examples;
}

// In the help of a program, and of all its commands.
void addHelp(const std::string& words, const std::vector<std::string>& argv, Examples& examples) {
  std::vector<std::string> asking = argv;
  asking.push_back("--help");
  const std::string help = Testing::run({asking}).out;
  const Examples found = inLines(words + " --help", std::istringstream(help));
  EXPECT_FALSE(found.empty()) << words << " --help shows no example";
  examples.insert(examples.end(), found.begin(), found.end());
  const std::regex pattern("\n  ([a-z]+)  ");
  for (std::sregex_iterator each(help.begin(), help.end(), pattern), end; each != end; ++each) {
    std::vector<std::string> next = argv;
    next.push_back(each->str(1));
    addHelp(words + " " + each->str(1), next, examples);
  }
}

Examples inTree() {
  std::vector<fs::path> files = {TREE "/README.md"};
  for (const char* folder : {"/man", "/docs", "/examples"}) {
    const fs::recursive_directory_iterator each(TREE + std::string(folder));
    std::copy(begin(each), end(each), std::back_inserter(files));
  }
  Examples examples;
  for (const fs::path& file : files) {
    const std::string source = fs::relative(file, TREE);
    const std::string kind = file.extension();
    const bool isPage = kind == ".1" || kind == ".5" || kind == ".7" || kind == ".8";
    Examples found;
    if (kind == ".md") found = inDocument(source, std::ifstream(file));
    if (isPage || kind == ".toml") found = inLines(source, std::ifstream(file));
    EXPECT_TRUE(!isPage || !found.empty()) << source << " shows no example";
    examples.insert(examples.end(), found.begin(), found.end());
  }
  return examples;
}

class ShownExamples : public testing::Test {
 protected:
  ShownExamples() {
    fs::copy(TREE "/examples", folder.file("examples"), fs::copy_options::recursive);
    fs::copy(TREE "/examples/maps", agent.file("maps"));
    std::stringstream text;
    text << std::ifstream(TREE "/examples/board.toml").rdbuf() << Korud::chip0;
    agent.write("board.toml", text.str());
    agent.start();
    folder.write("chips.toml", board);
    folder.write("chip.csv", map);
    fs::remove(folder.file("board.toml"));
    for (const auto& each : fs::directory_iterator(TREE "/examples/simulator")) {
      fs::copy(each, folder.file(each.path().filename()));
    }
  }

  // Types a command in: on the board of its directory, if it does not name one itself.
  Testing::Command typed(const Example& example, std::string command) const {
    const auto replace = [&](const std::string& what, const std::string& by) {
      command = std::regex_replace(command, std::regex(what), by);
    };
    replace("/tmp/board", folder.file("place"));
    replace("/etc/koru/korud.toml", agent.file("board.toml"));
    replace(" &$", "");
    const bool isBoard = example.source == "examples/boards/README.md";
    const std::string place = folder.file(isBoard ? "examples/boards/tmp102" : "");
    const std::string on = command.starts_with("korusim") ? "" : "korusim chips.toml -- ";
    const std::string bin = fs::path(Korusim::program).parent_path();
    const std::string state = isAgent(command) ? folder.file("place") : agent.file("");
    const std::string line = isScreen(command)
                                 ? "printf qq | script -qec '" + on + command + "' /dev/null"
                                 : "exec " + on + command;
    return {{"/bin/sh", "-c", "cd " + place + " && " + line},
            {"TERM=xterm", "PATH=" + bin + ":/usr/sbin:/usr/bin:/bin", "KORU_STATE_DIR=" + state,
             "ORB_TRACE=", "ASAN_OPTIONS=verify_asan_link_order=0"}};
  }
  Outcome ask(const std::string& words) const { return Testing::run(typed({}, words)); }

  static void end(Testing::Process& process) {
    process.signal(SIGINT);
    const Outcome outcome = process.wait();
    EXPECT_TRUE(outcome.exitCode == 0 || outcome.signal == SIGINT) << outcome.err;
  }
  void type(const Example& example, const std::string& command) {
    if (isAgent(command)) {
      started = std::make_unique<Testing::Process>(typed(example, command));
      Korud::until([&] { return ask("korureg chip list --state-dir /tmp/board").exitCode == 0; });
    } else if (isWatch(command)) {
      Testing::Process watch(typed(example, command));
      watch.line();
      end(watch);
    } else {
      const Outcome outcome = Testing::run(typed(example, command));
      EXPECT_EQ(outcome.exitCode, 0) << outcome.out << outcome.err;
    }
  }
  void type(const Example& example) {
    for (const std::string& command : example.commands) {
      SCOPED_TRACE(example.source + ": " + command);
      try {
        type(example, command);
      } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
      }
    }
    if (started) end(*started);
    started.reset();
  }

  const Testing::MockValueFile values;
  const Korusim::Board folder{""};
  Korud::Agent agent;
  std::unique_ptr<Testing::Process> started;  // the agent of an example
};

TEST_F(ShownExamples, Work) {
  if (!fs::exists("/usr/sbin/i2cget")) GTEST_SKIP() << "there are no i2c-tools";
  Examples examples = inTree();
  for (const std::string program : {KORUREG_PROGRAM, KORUD_PROGRAM, KORUSIM_PROGRAM}) {
    addHelp(fs::path(program).filename(), {program}, examples);
  }
  // What waits for a bit finds it.
  ask("korureg --map chip.csv --mock write --force status=1");
  for (const Example& example : examples) type(example);
}

}  // namespace
