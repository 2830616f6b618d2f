// korusim: runs programs on a simulated board, and shows and changes the board from outside.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Orb/Errno.h"
#include "Orb/StandardStreams.h"
#include "board/description/SystemFile.h"
#include "simulator/tool/BoardFile.h"
#include "simulator/tool/State.h"

namespace {

namespace fs = std::filesystem;
using Simulator::BoardFile;
using Simulator::Place;
using Simulator::State;

constexpr int done = 0;
constexpr int failed = 1;
constexpr int misused = 2;

struct Options {
  std::string board;
  std::string state;
  bool check = false;
  bool list = false;
  bool reset = false;
  bool ledger = false;
  std::vector<std::string> get, set, unplug, plug;

  bool needsState() const {
    return reset || ledger || !get.empty() || !set.empty() || !unplug.empty() || !plug.empty();
  }
};

uint32_t numberIn(const std::string& text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  const char* const end = text.data() + text.size();
  uint32_t value = 0;
  const auto [stop, error] =
      std::from_chars(text.data() + (isHex ? 2 : 0), end, value, isHex ? 16 : 10);
  if (error == std::errc() && stop == end) return value;
  throw std::invalid_argument(fmt::format("'{}' is no number (write 42 or 0x2a)", text));
}

Place placeIn(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return {text, {}};
  return {text.substr(0, colon), numberIn(text.substr(colon + 1))};
}

void set(State& state, const std::string& text) {
  const size_t equals = text.find('=');
  const Place place = placeIn(text.substr(0, equals));
  if (equals == std::string::npos || !place.address) {
    throw std::invalid_argument(fmt::format("'{}' is not as in temperature:0x00=0x1900", text));
  }
  state.valueIs(place, numberIn(text.substr(equals + 1)));
}

void list(const BoardFile& board) {
  size_t name = 4, place = 5;
  for (const auto& chip : board.chips) {
    name = std::max(name, std::string_view(chip.name).size());
    place = std::max(place, board.placeOf(chip).size());
  }
  fmt::print("{:{}}  {:{}}  HOLDS\n", "CHIP", name, "PLACE", place);
  for (const auto& chip : board.chips) {
    fmt::print("{:{}}  {:{}}  {}\n", chip.name, name, board.placeOf(chip), place,
               chip.memory != 0 ? fmt::format("{} bytes", chip.memory)
                                : fmt::format("{} registers", chip.registers));
  }
}

int check(const std::string& file, const BoardFile& board) {
  fmt::print("{}: {} buses and devices, {} chips, no problems\n", file, board.nodes.size(),
             board.chips.size());
  return done;
}

// The library lies where it is installed, as seen from this program.
std::string preloaded() {
  const fs::path self = fs::read_symlink("/proc/self/exe");
  const fs::path library = (self.parent_path() / KORUSIM_LIBRARY_FROM_BIN).lexically_normal();
  if (!fs::exists(library)) {
    throw std::runtime_error(
        fmt::format("{}: there is no such file; is korusim installed whole?", library.string()));
  }
  if (library.string().find_first_of(": ") != std::string::npos) {
    throw std::runtime_error(fmt::format(
        "{}: no program can load it, since its path has a blank or a ':'", library.string()));
  }
  return library.string();
}

// Becomes the program.
[[noreturn]] void run(const std::string& state, std::span<char*> program) {
  std::string libraries = preloaded();
  const char* const others = std::getenv("LD_PRELOAD");
  if (others && *others) libraries += fmt::format(":{}", others);
  ::setenv("LD_PRELOAD", libraries.c_str(), 1);
  ::setenv("KORUSIM_STATE", state.c_str(), 1);
  ::execvp(program[0], program.data());  // (argv ends with a null pointer)
  Orb::throwErrno("cannot run {}", program[0]);
}

int act(const Options& options, std::span<char*> program) {
  const BoardFile board = Simulator::readBoardFile(options.board);
  for (const auto& problem : board.problems) {
    fmt::print(options.check ? stdout : stderr, "{}\n", problem.message());
  }
  if (!board.problems.empty()) return failed;
  if (options.check) return check(options.board, board);
  if (options.list) list(board);
  if (!options.needsState() && program.empty()) return done;
  const std::string directory = fs::absolute(options.state).lexically_normal().string();
  State state(directory, board, options.reset);
  for (const std::string& chip : options.unplug) state.isPlugged(chip, false);
  for (const std::string& chip : options.plug) state.isPlugged(chip, true);
  for (const std::string& each : options.set) set(state, each);
  for (const std::string& each : options.get) fmt::print("{}\n", state.valueAt(placeIn(each)));
  if (options.ledger) state.printLedger();
  if (!program.empty()) run(directory, program);
  return done;
}

void addOptions(CLI::App& app, Options& options) {
  app.add_option("BOARD", options.board, "what the board has, in TOML")
      ->required()
      ->type_name("FILE");
  app.add_option("--state", options.state,
                 "where the board's state lies; beside the board file, with the\n"
                 "ending .korusim, when not given")
      ->type_name("DIR");
  app.add_flag("--check", options.check, "only say what is wrong with the board file");
  app.add_flag("--list", options.list, "show the chips");
  const auto many = [&](const char* name, std::vector<std::string>& to, const char* what,
                        const char* type) {
    app.add_option(name, to, what)->type_name(type)->allow_extra_args(false);
  };
  app.add_flag("--reset", options.reset, "take the power away, and give it back");
  many("--unplug", options.unplug, "let a chip answer no more", "CHIP");
  many("--plug", options.plug, "let it answer again", "CHIP");
  many("--set", options.set, "change a register from outside", "CHIP:ADDR=VALUE");
  many("--get", options.get, "show a register, or all of a chip", "CHIP[:ADDR]");
  app.add_flag("--ledger", options.ledger, "show what was on the wires");
  app.set_version_flag("--version", "korusim " KORU_VERSION, "show the version");
  app.set_help_flag("-h,--help", "show this help");
  app.footer(
      "What stands behind -- is run on the board, as in\n"
      "  korusim board.toml -- i2cget -y 1 0x48 0 w\n\n"
      "Exit status: that of the program; 0 done, 1 it failed, 2 the command line cannot be used.");
}

}  // namespace

int main(int argc, char** argv) {
  Orb::reserveStandardStreams();
  const std::span<char*> all(argv, static_cast<size_t>(argc));
  const auto dashes = std::find_if(all.begin(), all.end(),
                                   [](const char* each) { return std::string_view(each) == "--"; });
  const auto own = static_cast<int>(dashes - all.begin());
  const auto program =
      dashes == all.end() ? std::span<char*>() : std::span<char*>(dashes + 1, all.end());
  Options options;
  CLI::App app("Runs programs on a simulated board, and shows and changes the board.", "korusim");
  addOptions(app, options);
  try {
    app.parse(own, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? done : misused;
  }
  const bool hasWork = options.check || options.list || options.needsState();
  if (program.empty() && !hasWork) {
    fmt::print(stderr,
               "korusim: there is nothing to do; name a program behind --, or see --help\n");
    return misused;
  }
  if (options.state.empty())
    options.state = fs::path(options.board).replace_extension(".korusim").string();
  try {
    return act(options, program);
  } catch (const std::invalid_argument& e) {
    fmt::print(stderr, "korusim: {}\n", e.what());
    return misused;
  } catch (const std::exception& e) {
    fmt::print(stderr, "korusim: {}\n", e.what());
    return failed;
  }
}
