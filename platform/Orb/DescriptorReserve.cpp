#include "Orb/DescriptorReserve.h"

#include <sys/resource.h>

#include <algorithm>

namespace Orb {

DescriptorReserve DescriptorReserve::now() {
  constexpr size_t most = 64;
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return {limit.rlim_cur, std::min<size_t>(most, limit.rlim_cur / 4)};
}

}  // namespace Orb
