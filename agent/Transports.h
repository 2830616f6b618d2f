#pragma once

// Makes the transport that a system file describes.

#include <functional>

#include "KoruRegFile/TransportMethod.h"
#include "system/Description.h"

namespace Agent {

// How transports are made; an agent may have a way of its own.
using MakeTransport = std::function<Orb::Ptr<KoruRegFile::TransportMethod>(const System::Chip&)>;

// Carries the chip's name. Throws what reading the map throws, and what opening the device throws,
// with a word on what to do about it.
Orb::Ptr<KoruRegFile::TransportMethod> makeTransport(const System::Chip& chip);

}  // namespace Agent
