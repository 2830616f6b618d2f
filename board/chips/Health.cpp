#include "board/chips/Health.h"

namespace Board {

const char* stateName(ChipState state) {
  constexpr const char* names[] = {"up", "rewriting", "failed", "refused"};
  return names[static_cast<size_t>(state)];
}

}  // namespace Board
