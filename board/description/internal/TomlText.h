#pragma once

// The text of a system file, before the TOML library sees it: what that cannot take is refused here
// with its line. Internal to system/; stateless.

#include <string>
#include <string_view>

namespace Board {

// The text of a regular file. Never waits for anybody. Throws FileError, `unread`.
std::string readTomlText(const std::string& path);

// Throws FileError, which says "PATH:LINE: ...", for bytes that no TOML has, for letters outside
// ASCII in keys without quotes, and for keys and values that are nested too deeply.
void checkTomlText(const std::string& path, std::string_view text);

}  // namespace Board
