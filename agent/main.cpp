// korud: keeps the chips of a board as its system file describes them.

#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "Orb/LoopTask.h"
#include "Orb/StandardStreams.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "agent/ServiceManager.h"
#include "board/chips/BoardKeeper.h"
#include "board/chips/BoardWatch.h"
#include "board/chips/InstanceLock.h"
#include "board/chips/StateFiles.h"
#include "board/description/SystemFile.h"
#include "board/service/Server.h"

namespace {

struct Options {
  std::string config = "/etc/koru/korud.toml";
  std::string stateDirectory;
  std::string socket;
  bool check = false;
};

// How long writes in flight are waited for in the end.
constexpr std::chrono::seconds longestSettling{1};

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

// Signals as events of the loop.
class Signals {
 public:
  explicit Signals(std::function<void()> reload) {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&set, signal);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    fd_ = Orb::Descriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    watch_ = Orb::eventLoop().readable(fd_.get(), [this, reload = std::move(reload)] {
      signalfd_siginfo info;
      while (::read(fd_.get(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo != SIGHUP) return Orb::eventLoop().stop();
        reload();
      }
    });
  }

 private:
  Orb::Descriptor fd_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

// "5 chips: 4 up, 1 failed"
std::string summaryOf(const Board::BoardKeeper& keeper) {
  constexpr Board::ChipState states[] = {Board::ChipState::up, Board::ChipState::rewriting,
                                         Board::ChipState::failed, Board::ChipState::refused};
  size_t counts[std::size(states)] = {};
  const auto chips = keeper.chipNames();
  for (const std::string& chip : chips) ++counts[static_cast<size_t>(keeper.health(chip).state)];
  std::string summary = fmt::format("{} chips", chips.size());
  const char* separator = ": ";
  for (const Board::ChipState state : states) {
    const size_t count = counts[static_cast<size_t>(state)];
    if (count == 0) continue;
    summary += fmt::format("{}{} {}", separator, count, Board::stateName(state));
    separator = ", ";
  }
  return summary;
}

// The socket, and the line of status for the service manager, which is as old as the last turn of
// the loop at most.
class Service : public Board::Server {
 public:
  Service(Board::BoardKeeper& keeper, const std::string& socket, Agent::ServiceManager& manager)
      : Server(keeper, socket),
        status_(Orb::eventLoop(), [&keeper, &manager] { manager.statusIs(summaryOf(keeper)); }) {
    status_.schedule();
  }
  void chipChanged(const std::string& chip) override {
    Server::chipChanged(chip);
    status_.schedule();
  }

 private:
  Orb::LoopTask status_;
};

// A chip takes several descriptors, and a shell's limit is for programs that use select().
void raiseDescriptorLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int serve(const Options& options) {
  raiseDescriptorLimit();
  Shoal::stateDirectoryIs(options.stateDirectory);
  const std::string state = Board::prepareStateDirectory(Shoal::stateDirectory());
  Shoal::stateDirectoryIs(state);
  const Board::InstanceLock lock(state);
  Board::BoardKeeper agent({.stateDirectory = state});
  Board::BoardWatch board(agent, options.config);
  Agent::ServiceManager manager;
  const Signals signals([&board, &manager] {
    manager.reloading();
    board.load();
    manager.ready();
  });
  board.load();
  if (!board.failure().empty()) return 1;
  const std::string socket = options.socket.empty() ? state + "/korud.sock" : options.socket;
  {
    const Service service(agent, socket, manager);
    manager.ready();
    Orb::eventLoop().run();
    manager.stopping();
  }
  agent.settle(longestSettling);
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
