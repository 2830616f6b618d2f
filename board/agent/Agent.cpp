#include "board/agent/Agent.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Orb/EventLoop.h"
#include "Shoal/StatePath.h"
#include "board/agent/Signals.h"
#include "board/chips/StateFiles.h"
#include "board/description/SystemFile.h"

namespace Board {

namespace {

// A shell's limit is for programs that use select().
void raiseDescriptorLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// The locks of files do not keep a process from itself.
bool hasAgent = false;

std::string takenDirectory(const std::string& wanted) {
  if (hasAgent) {
    throw std::runtime_error(
        fmt::format("this process has an agent already, in {}", Shoal::stateDirectory()));
  }
  raiseDescriptorLimit();
  Shoal::stateDirectoryIs(wanted);
  const std::string directory = prepareStateDirectory(Shoal::stateDirectory());
  Shoal::stateDirectoryIs(directory);
  return directory;
}

}  // namespace

Agent::Agent(AgentOptions options)
    : longestSettling_(options.longestSettling),
      stateDirectory_(takenDirectory(options.stateDirectory)),
      lock_(stateDirectory_),
      keeper_({.stateDirectory = stateDirectory_,
               .delays = options.delays,
               .openTransport = std::move(options.openTransport),
               .history = std::min(options.history, longestHistory)}) {
  hasAgent = true;
}

Agent::~Agent() {
  hasAgent = false;
  server_.reset();
  // From inside of the loop nothing can be waited for; the chips are marked as long as they are not
  // done.
  if (!Orb::eventLoop().isServing()) keeper_.settle(longestSettling_);
}

void Agent::follow(const std::string& systemFile) {
  auto board = std::make_unique<BoardWatch>(keeper_, systemFile);
  board->load();
  if (!board->failure().empty()) throw FileError(board->failure());
  board_ = std::move(board);
}

void Agent::chipsAre(std::vector<Chip> chips) {
  std::set<std::string_view> names;
  for (const Chip& chip : chips) {
    if (names.insert(chip.name).second) continue;
    throw std::invalid_argument(fmt::format("there are two chips '{}'", chip.name));
  }
  board_.reset();
  Description board;
  board.chips = std::move(chips);
  keeper_.boardIs(board);
}

void Agent::reload() {
  if (board_) board_->load();
}

void Agent::serve(const std::string& socket) {
  server_.reset();
  server_ =
      std::make_unique<Server>(keeper_, socket.empty() ? stateDirectory_ + "/korud.sock" : socket);
}

void Agent::serveMetrics(const std::string& place) {
  if (!server_) throw std::logic_error("an agent that serves nobody has no figures to show");
  server_->scrapeAt(place);
}

void Agent::run() {
  const Signals signals([this] { reload(); });
  Orb::eventLoop().run();
}

Orb::Ptr<KoruRegFile::LogicalChip> Agent::chip(const std::string& name) const {
  if (auto chip = keeper_.logicalChip(name)) return chip;
  if (!keeper_.hasChip(name)) throw std::runtime_error(fmt::format("there is no chip '{}'", name));
  throw std::runtime_error(
      fmt::format("chip '{}' cannot be used: {}", name, keeper_.health(name).reason));
}

}  // namespace Board
