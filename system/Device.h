#pragma once

// Opens the hardware behind a transport, and says what to do when that, or an access, fails. Used
// on the framework's thread.

#include <exception>
#include <string>

#include "KoruRegFile/TransportDescriptor.h"
#include "system/Transport.h"

namespace System {

// Opens what the transport is made over; `name` is what its objects are called in messages. Not for
// a memory window, which is no hardware. Throws std::runtime_error.
Orb::Ptr<KoruRegFile::BaseTransportDescriptor> openDevice(const Transport& transport,
                                                          const std::string& name);

// The exception's text, and what to do about it.
std::string explained(const Transport& transport, const std::exception& e);

}  // namespace System
