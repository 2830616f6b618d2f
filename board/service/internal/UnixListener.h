#pragma once

// The agent's sockets, as files: used on the framework's thread.

#include <cstdint>
#include <string>

#include "Orb/Descriptor.h"

namespace Board {

// Listens at the path, with mode 0660 and the group of $KORU_STATE_GROUP; a socket that nobody
// listens at any more gives way. Throws std::runtime_error when somebody does, or it is no socket,
// and std::system_error.
Orb::Descriptor listenAt(const std::string& path);

// Tells a file from another one of that name; 0 when there is none.
uint64_t nodeOf(const std::string& path);

}  // namespace Board
