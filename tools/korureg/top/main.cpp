// korureg-top: what "korureg top" becomes, with the same command line.

#include <poll.h>

#include <algorithm>
#include <optional>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/Tool.h"
#include "korureg/top/Board.h"
#include "korureg/top/Screen.h"
#include "korureg/top/View.h"

namespace korureg {

namespace {

using Clock = top::Board::Clock;
using std::chrono::milliseconds;

constexpr milliseconds frame(200);    // between two looks at what has changed
constexpr milliseconds second(1000);  // between two looks at what changes by itself

// When the board has to be looked at next; nothing when something has to happen first.
std::optional<milliseconds> patience(const top::Board& board, const top::View& view, bool isStale) {
  if (!board.isConnected()) return second;
  if (view.isFrozen()) return std::nullopt;
  if (isStale) return frame;
  return board.isFading() ? std::optional(second) : std::nullopt;
}

void await(const top::Board& board, std::optional<milliseconds> limit) {
  pollfd wanted[] = {{top::Screen::descriptor(), POLLIN, 0}, {board.descriptor(), POLLIN, 0}};
  ::poll(wanted, board.isConnected() ? 2 : 1, limit ? static_cast<int>(limit->count()) : -1);
}

int watchBoard(const TopArguments& arguments) {
  top::Board board([&] {
    return arguments.tables ? top::tableSource(arguments.agent.stateDirectory, arguments.config)
                            : top::agentSource(arguments.agent);
  });
  top::Screen screen;
  top::View view(board);
  if (!arguments.chip.empty()) {
    if (!board.chip(arguments.chip)) throw UsageError("there is no chip '" + arguments.chip + "'");
    board.open(arguments.chip);
  }
  bool isStale = false;
  Clock::time_point looked;
  while (!view.isOver()) {
    const auto now = Clock::now();
    // (An agent hangs up on those who do not listen; a frozen view does.)
    isStale = board.hear(now);
    const bool isDue = now - looked >= (board.isConnected() ? frame : second);
    if (isStale && isDue && !view.isFrozen()) {
      board.refresh();
      looked = now;
      isStale = !board.isConnected();
    }
    if (std::string message = board.takeMessage(); !message.empty()) view.say(std::move(message));
    screen.show(view.lines(screen.rows(), screen.columns(), now), view.isTyping());
    await(board, patience(board, view, isStale));
    while (const auto key = screen.key()) view.press(*key);
  }
  return done;
}

}  // namespace

}  // namespace korureg

int main(int argc, char** argv) { return korureg::runTool(argc, argv, korureg::watchBoard); }
