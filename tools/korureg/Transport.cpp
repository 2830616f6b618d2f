#include "korureg/Transport.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>

#include "board/devices/TransportKind.h"

namespace korureg {

void addTransportOptions(Command tool, Options& options) {
  for (const Board::KindRow* row : Board::kindRows()) {
    if (!row->help) continue;
    tool.each(
        fmt::format("--{}", row->name), row->placeName, row->help,
        [&options, row](const std::string& place) { options.places.emplace_back(row, place); });
  }
}

std::optional<Board::Transport> chosenTransport(const Options& options) {
  std::optional<Board::Transport> chosen;
  for (const auto& [kind, place] : options.places) {
    const char* name = kind->name;
    if (chosen) {
      throw UsageError(
          fmt::format("the chip is reached one way only: --{} or --{}", chosen->name(), name));
    }
    try {
      chosen = Board::Transport::at(*kind, place);
    } catch (const std::invalid_argument& e) {
      throw UsageError(fmt::format("--{}: {}", name, e.what()));
    }
  }
  return chosen;
}

}  // namespace korureg
