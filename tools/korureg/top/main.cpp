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

constexpr milliseconds frame(200);    // between two looks at what has changed, at least
constexpr int leisure = 20;           // a look that takes long is not to be had so often
constexpr milliseconds second(1000);  // between two looks at what changes by itself

// When the board has to be looked at next; nothing when something has to happen first.
std::optional<milliseconds> patience(const top::Board& board, const top::View& view,
                                     std::optional<milliseconds> untilDue) {
  if (!board.isConnected()) return second;
  if (board.isFlooded()) return milliseconds(0);
  if (view.isFrozen()) return std::nullopt;
  if (untilDue) return untilDue;
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
  Clock::time_point next;  // look
  while (!view.isOver()) {
    const auto now = Clock::now();
    // (An agent hangs up on those who do not listen; a frozen view does.)
    bool isStale = board.hear(now);
    if (isStale && now >= next && !view.isFrozen()) {
      board.refresh();
      const auto ended = Clock::now();
      next = ended + std::max<Clock::duration>(board.isConnected() ? frame : second,
                                               leisure * (ended - now));
      // What came while it was asked lies here, where nothing tells of it any more.
      isStale = board.isConnected() && board.hear(ended);
    }
    if (std::string message = board.takeMessage(); !message.empty()) view.say(std::move(message));
    screen.show(view.lines(screen.rows(), screen.columns(), now), view.isTyping());
    const auto untilDue = std::max(std::chrono::ceil<milliseconds>(next - now), milliseconds(0));
    await(board, patience(board, view, isStale ? std::optional(untilDue) : std::nullopt));
    while (const auto key = screen.key()) view.press(*key);
  }
  return done;
}

}  // namespace

}  // namespace korureg

int main(int argc, char** argv) {
  return korureg::runTool(argc, argv, {.top = korureg::watchBoard, .web = nullptr});
}
