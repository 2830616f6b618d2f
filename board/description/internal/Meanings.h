#pragma once

// What a system file says that the bits of a field stand for. Internal to description/; stateless.

#include <string>
#include <string_view>

#include "board/description/internal/FieldTables.h"

namespace Board {

inline constexpr std::string_view meaningKeys[] = {"description", "unit",   "scale",
                                                   "offset",      "signed", "values"};

// From the keys of a field of that many bits; those that are not there are as in `inherited`. Null
// when there are none at all.
SharedMeaning readMeaning(ChipReading& reading, const Names& names, const toml::table& field,
                          unsigned size, const SharedMeaning& inherited = {});

}  // namespace Board
