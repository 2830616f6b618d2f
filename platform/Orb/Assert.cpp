#include "Orb/Assert.h"

#include <cstdio>
#include <cstdlib>

#include "Orb/Trace.h"

namespace Orb {

void assertionFailed(fmt::string_view message, const char* condition, const char* file,
                     int line) noexcept {
  traceFlush();
  fmt::print(stderr, "assertion failed: {}: {} ({}:{})\n", message, condition, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Orb
