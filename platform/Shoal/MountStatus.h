#pragma once

// How a mounted table stands, for whoever reads it.

#include <cstdint>

#include "Orb/Enum.h"

namespace Shoal {

enum class MountStatus : uint8_t {
  unmounted = 0,  // not mounted
  waiting = 1,    // for a table that nobody has made yet: reads as empty
  detached = 2,   // the writer is gone: the last contents are served
  attached = 3,   // the writer is alive, and its changes arrive; or this is the writer
  damaged = 4,    // a part of the table has vanished or cannot be trusted; the rest is served
};

}  // namespace Shoal

template <>
struct Orb::EnumDescription<Shoal::MountStatus> {
  using T = Shoal::MountStatus;
  static constexpr const char* typeName = "Shoal::MountStatus";
  static constexpr EnumName<T> names[] = {{T::unmounted, "unmounted"},
                                          {T::waiting, "waiting"},
                                          {T::detached, "detached"},
                                          {T::attached, "attached"},
                                          {T::damaged, "damaged"}};
};
