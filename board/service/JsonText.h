#pragma once

// Text that is JSON, or is meant to be, from somebody else; looked at before it is parsed.
// Stateless; any thread.

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "board/Export.h"

namespace Board {

// Nobody who asks the agent, and no answer of it, needs more. Deeper values cost stack wherever
// they are copied or printed.
inline constexpr size_t deepestJson = 32;

// Whether arrays and objects lie within each other more deeply than that.
BOARD_EXPORT bool isTooDeep(std::string_view json);

// An object of plain texts, whole numbers from 0 on, true, false and null, which is what nearly all
// requests are, at a fraction of the cost of the parser. None for anything else, be it JSON or not:
// that is for the parser.
std::optional<nlohmann::ordered_json> plainObject(std::string_view text);
// On one line; bytes that are no UTF-8 are replaced.
std::string jsonText(const nlohmann::ordered_json& json);
// What stands between the quotes of a text.
std::string quotable(const std::string& text);

}  // namespace Board
