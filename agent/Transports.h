#pragma once

// Opens the transport that a system file describes, as the agent uses it.

#include <functional>

#include "KoruRegFile/TransportMethod.h"
#include "agent/PostingTransport.h"
#include "system/Description.h"

namespace Agent {

// How transports are opened; an agent may have a way of its own. Returns the implementation when it
// posts writes, and null otherwise.
using OpenTransport = std::function<PostingTransport*(KoruRegFile::TransportMethod& transport,
                                                      const System::Chip& chip)>;

// Gives the method an implementation, in the place of the one that it has. Throws what reading the
// map throws, and what opening the device throws, with a word on what to do about it; the method
// stays as it was then.
PostingTransport* openTransport(KoruRegFile::TransportMethod& transport, const System::Chip& chip);

}  // namespace Agent
