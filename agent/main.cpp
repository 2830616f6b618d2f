// korud: keeps the chips of a board as its system file describes them.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include "Orb/EventLoop.h"
#include "Orb/LoopTask.h"
#include "Orb/StandardStreams.h"
#include "Orb/Trace.h"
#include "agent/ServiceManager.h"
#include "board/agent/Agent.h"
#include "board/agent/Signals.h"
#include "board/description/SystemFile.h"

namespace {

struct Options {
  std::string config = "/etc/koru/korud.toml";
  std::string stateDirectory;
  std::string socket;
  std::string metrics;
  uint64_t history = Board::usualHistory;
  bool check = false;
};

// Says what is wrong with the file, and touches nothing.
int check(const std::string& file) {
  const Board::Description board = Board::readFile(file);
  for (const Board::Problem& problem : board.problems) {
    fmt::print("{}\n", problem.message());
  }
  if (!board.problems.empty()) return 1;
  size_t fields = 0;
  for (const Board::Chip& chip : board.chips) fields += chip.fields.size();
  fmt::print("{}: {} chips, {} fields, no problems\n", file, board.chips.size(), fields);
  return 0;
}

// The line of status for the service manager, "5 chips: 4 up, 1 failed", which is as old as the
// last turn of the loop at most.
class Status : public Board::BoardKeeper::Observer {
 public:
  Status(Board::BoardKeeper& keeper, Agent::ServiceManager& manager)
      : keeper_(keeper), task_(Orb::eventLoop(), [this, &manager] { manager.statusIs(text()); }) {
    for (const std::string& chip : keeper.chipNames()) chipChanged(chip);
    keeper_.observe(*this);
    task_.schedule();
  }
  ~Status() override { keeper_.forget(*this); }
  void chipChanged(const std::string& chip) override {
    if (const auto known = states_.extract(chip)) --counts_[known.mapped()];
    if (keeper_.hasChip(chip)) ++counts_[states_[chip] = keeper_.health(chip).state];
    task_.schedule();
  }

 private:
  std::string text() const {
    std::string text = fmt::format("{} chips", states_.size());
    const char* separator = ": ";
    for (const auto& [state, count] : counts_) {
      if (count == 0) continue;
      text += fmt::format("{}{} {}", separator, count, Board::stateName(state));
      separator = ", ";
    }
    return text;
  }

  Board::BoardKeeper& keeper_;
  std::map<std::string, Board::ChipState> states_;
  std::map<Board::ChipState, size_t> counts_;
  Orb::LoopTask task_;
};

int serve(const Options& options) {
  Board::Agent agent({.stateDirectory = options.stateDirectory, .history = options.history});
  Agent::ServiceManager manager;
  const Board::Signals signals([&] {
    manager.reloading();
    agent.reload();
    manager.ready();
  });
  try {
    agent.follow(options.config);
  } catch (const Board::FileError&) {
    return 1;  // it was told when it was read
  }
  agent.serve(options.socket);
  if (!options.metrics.empty()) agent.serveMetrics(options.metrics);
  const Status status(agent.keeper(), manager);
  manager.ready();
  Orb::eventLoop().run();
  manager.stopping();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Orb::reserveStandardStreams();
  Options options;
  CLI::App app("Keeps the chips of a board as its system file describes them.", "korud");
  app.set_version_flag("--version", KORU_VERSION);
  app.add_option("--config", options.config, "The system file")
      ->type_name("FILE")
      ->capture_default_str();
  app.add_option("--state-dir", options.stateDirectory,
                 "Where the shadow tables lie; $KORU_STATE_DIR, /run/koru for root, or\n"
                 "$XDG_RUNTIME_DIR/koru when not given")
      ->type_name("DIR");
  app.add_option("--socket", options.socket, "Where clients connect; korud.sock in DIR by default")
      ->type_name("PATH");
  app.add_option("--metrics", options.metrics,
                 "Where figures may be read over HTTP: the path of a socket, 127.0.0.1:PORT or\n"
                 "[::1]:PORT; nowhere by default")
      ->type_name("PLACE");
  app.add_option("--history", options.history,
                 "How many records of what was written are kept of a chip; 0 for none")
      ->type_name("N")
      ->check(CLI::Range(uint64_t{0}, Board::longestHistory))
      ->capture_default_str();
  app.add_flag("--check", options.check, "Only say what is wrong with the system file");
  app.footer("Example:\n  korud --config examples/board.toml --state-dir /tmp/board");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  try {
    return options.check ? check(options.config) : serve(options);
  } catch (const std::exception& e) {
    fmt::print(stderr, "{}korud: {}\n", Orb::journalPriority(0), e.what());
    return 1;
  }
}
