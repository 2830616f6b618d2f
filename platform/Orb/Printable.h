#pragma once

// Texts of unknown origin on their way to a terminal or a log. Usable from any thread.

#include <string>
#include <string_view>

#include "Orb/Export.h"

namespace Orb {

// The text with everything escaped that could drive a terminal or begin a line of its own: control
// characters, those that turn or hide text, and bytes that are no UTF-8, as in "\x1b". Letters of
// any script stay as they are. What has been through it once is not changed again.
ORB_EXPORT std::string printable(std::string_view text);

// How many code points the text has.
ORB_EXPORT size_t codePoints(std::string_view text);

}  // namespace Orb
