#pragma once

// What the registers of a chip are to hold. Used on the framework's thread.

#include <cstdint>
#include <utility>
#include <vector>

#include "KoruRegFile/ShadowSms.h"
#include "board/Export.h"

namespace Board {

// The registers that have fields, by address, and their values, in the order of their addresses.
// (The reactor keeps them in no order of its own.)
BOARD_EXPORT std::vector<std::pair<uint32_t, uint32_t>> wantedRegisters(
    const KoruRegFile::ShadowFieldsSm& shadowSm);

}  // namespace Board
