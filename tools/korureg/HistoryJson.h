#pragma once

// A record of a chip's history, as JSON: what "korureg log --json" prints, and what the page gets.

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "board/chips/History.h"

namespace korureg {

// In local time.
std::string timeOf(const Board::HistoryRecord& record);
// `lost` is how many records are missing before it.
nlohmann::ordered_json historyJson(const std::string& chip, const Board::HistoryRecord& record,
                                   uint64_t lost);

}  // namespace korureg
