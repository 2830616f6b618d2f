#pragma once

// The last descriptors of a process are kept for its own work: whoever accepts connections asks
// here whether there are enough left for one more. Usable on any thread.

#include <cstddef>

#include "Orb/Export.h"

namespace Orb {

struct ORB_EXPORT DescriptorReserve {
  size_t limit;  // of the process's descriptors
  size_t kept;   // of those, for its own work: 64, or a quarter

  static DescriptorReserve now();
  // Whether `descriptor`, just given out, and `more` besides reach into it. (They are given out
  // from the lowest one on.)
  bool isReachedBy(int descriptor, size_t more = 0) const {
    return static_cast<size_t>(descriptor) + 1 + more >= limit - kept;
  }
};

}  // namespace Orb
