#include "Orb/DescriptorReserve.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>

namespace Orb {

DescriptorReserve DescriptorReserve::now() {
  constexpr size_t most = 64;
  rlimit found = {};
  ::getrlimit(RLIMIT_NOFILE, &found);
  // (A limit may have more bits than a size.)
  const auto limit = static_cast<size_t>(std::min<rlim_t>(found.rlim_cur, SIZE_MAX));
  return {limit, std::min(most, limit / 4)};
}

}  // namespace Orb
