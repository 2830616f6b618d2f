#pragma once

// The agent's own files in the state directory: whatever lies there already is looked at before it
// is used, by descriptor. Others may have put a link, a pipe or a file of theirs in the place.

#include <string>

#include "Orb/Descriptor.h"
#include "board/Export.h"

namespace Board {

// Makes the state directory if need be, with mode 0750 and the group of $KORU_STATE_GROUP, and
// returns its path without links, so that it is the same however it was spelled. Throws
// std::runtime_error for one that others may write, and std::system_error.
BOARD_EXPORT std::string prepareStateDirectory(const std::string& path);

// Makes a directory in it, unless it is there. Throws the same.
void makeOwnDirectory(const std::string& path);

// Opens a file as open(2) does, with flags that change nothing in it, and refuses whatever is no
// regular file of this process's user with a single name. Never waits. No descriptor when there is
// none and none is to be made. Throws std::runtime_error and std::system_error.
Orb::Descriptor openOwn(const std::string& path, int flags);

// Its whole text.
std::string readAll(const Orb::Descriptor& file, const std::string& path);
void writeAll(const Orb::Descriptor& file, const std::string& text, const std::string& path);

// Puts a file with that text in the place of what is there, or leaves that as it is and throws.
void replaceFile(const std::string& path, const std::string& text);
// Fine when it is gone already.
void removeFile(const std::string& path);

}  // namespace Board
