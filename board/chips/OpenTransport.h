#pragma once

// Opens the transport that a system file describes, as the agent uses it.

#include <functional>

#include "KoruRegFile/TransportMethod.h"
#include "board/Export.h"
#include "board/description/Description.h"
#include "board/devices/PostingTransport.h"

namespace Board {

// How transports are opened; an agent may have a way of its own. Returns the implementation when it
// posts writes, and null otherwise.
using OpenTransport =
    std::function<PostingTransport*(KoruRegFile::TransportMethod& transport, const Chip& chip)>;

// Gives the method an implementation, in the place of the one that it has. Throws what reading the
// map throws, and what opening the device throws, with a word on what to do about it; the method
// stays as it was then.
BOARD_EXPORT PostingTransport* openTransport(KoruRegFile::TransportMethod& transport,
                                             const Chip& chip);

}  // namespace Board
