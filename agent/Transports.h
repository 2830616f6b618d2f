#pragma once

// Opens the transport that a system file describes.

#include <functional>

#include "KoruRegFile/TransportMethod.h"
#include "system/Description.h"

namespace Agent {

// How transports are opened; an agent may have a way of its own.
using OpenTransport =
    std::function<void(KoruRegFile::TransportMethod& transport, const System::Chip& chip)>;

// Gives the method an implementation, in the place of the one that it has. Throws what reading the
// map throws, and what opening the device throws, with a word on what to do about it; the method
// stays as it was then.
void openTransport(KoruRegFile::TransportMethod& transport, const System::Chip& chip);

}  // namespace Agent
