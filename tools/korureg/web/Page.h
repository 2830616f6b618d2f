#pragma once

// The page, as one document.

#include <string>

namespace korureg::web {

// Its scripts and styles bear the word, without which a browser takes none.
std::string pageText(const std::string& nonce);

}  // namespace korureg::web
