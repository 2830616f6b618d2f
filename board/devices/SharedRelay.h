#pragma once

// One relay for each bus, whichever chips and formats share it: one queue, in which everybody has a
// turn. Used on the loop's thread.

#include <string>

#include "Hardware/Relay.h"
#include "board/Export.h"

namespace Board {

// The relay of the bus at `node`, which lives as long as somebody holds it; another one when the
// node has become another, as that of a device that went and came back. Throws std::system_error
// when it cannot be opened.
BOARD_EXPORT Orb::Ptr<Hardware::Relay> sharedRelay(const std::string& node);

}  // namespace Board
