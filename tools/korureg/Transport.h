#pragma once

// How korureg reaches a chip: the transport that the command line names.

#include <optional>

#include "board/devices/Transport.h"
#include "korureg/Command.h"

namespace korureg {

// An option for each kind of transport that a command line offers.
void addTransportOptions(Command tool, Options& options);

// The one that the options name, or none. Throws UsageError when they name several, or one that
// cannot be.
std::optional<Board::Transport> chosenTransport(const Options& options);

}  // namespace korureg
