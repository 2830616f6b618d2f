#include "korureg/Transport.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>

#include "board/devices/TransportKind.h"

namespace korureg {

void addTransportOptions(CLI::App& app, Options& options) {
  for (const Board::KindRow* row : Board::kindRows()) {
    if (!row->help) continue;
    const std::string name = fmt::format("--{}", row->name);
    if (!row->placeName) {
      app.add_flag_callback(
          name, [&options, row] { options.places.emplace_back(row, ""); }, row->help);
      continue;
    }
    app.add_option_function<std::string>(
           name,
           [&options, row](const std::string& place) { options.places.emplace_back(row, place); },
           row->help)
        ->type_name(row->placeName);
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
