#pragma once

// How the board does, in figures, in the text format of OpenMetrics (docs/Metrics.md). Used on the
// framework's thread.

#include <cstddef>
#include <string>

#include "board/chips/BoardKeeper.h"

namespace Board {

std::string metrics(const BoardKeeper& keeper, size_t clients);

}  // namespace Board
