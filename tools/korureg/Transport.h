#pragma once

// How korureg reaches a chip: the transport that the command line names, and accesses that are seen
// through to their end, those that are queued or answered later included.

#include <cstdint>
#include <optional>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "korureg/Command.h"
#include "system/Transport.h"

namespace korureg {

// The one that the options name, or none. Throws UsageError when they name several, or one that
// cannot be.
std::optional<System::Transport> chosenTransport(const Options& options);

// Access a register and serve the event loop until the access is over. Throw what the transport
// throws, and std::runtime_error for a failure that it tells later.
uint32_t readThrough(KoruRegFile::BaseTransportMethodImpl& transport, const char* regName);
void writeThrough(KoruRegFile::BaseTransportMethodImpl& transport, const char* regName,
                  uint32_t value);

}  // namespace korureg
