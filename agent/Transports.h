#pragma once

// Makes the transport that a system file describes.

#include "KoruRegFile/TransportMethod.h"
#include "system/Description.h"

namespace Agent {

// Carries the chip's name. Throws what reading the map and opening the device throw.
Orb::Ptr<KoruRegFile::TransportMethod> makeTransport(const System::Chip& chip);

}  // namespace Agent
