#pragma once

// For the first line of a program's main(); before any thread is started.

#include "Orb/Export.h"

namespace Orb {

// A file that is opened later must not become a standard stream which the caller has closed: traces
// would be written into it. What was closed stays as useless as it was.
ORB_EXPORT void reserveStandardStreams();

}  // namespace Orb
