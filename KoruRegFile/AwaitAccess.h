#pragma once

// Accesses that are seen through to their end, those included that a transport queues or answers
// later: for tools, and for agents outside the event loop. Used on the loop's thread.

#include "KoruRegFile/TransportMethod.h"

namespace KoruRegFile {

// Access a register and serve the event loop until it is known how that ended. Throw
// std::runtime_error when there is no implementation, and std::logic_error when the loop is being
// served already.
KORU_EXPORT AccessOutcome awaitRead(TransportMethod& transport, const Orb::String& regName);
KORU_EXPORT AccessOutcome awaitWrite(TransportMethod& transport, const Orb::String& regName,
                                     uint32_t value);

}  // namespace KoruRegFile
