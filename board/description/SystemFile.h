#pragma once

// Reads system files; docs/Agent.md describes them. What is wrong with a chip leaves the others
// alone: it is told with its line, and the chip is left out.

#include <stdexcept>
#include <string>

#include "board/Export.h"
#include "board/description/Description.h"

namespace Board {

// The file cannot be read, or is no TOML; what() says where.
class BOARD_EXPORT FileError : public std::runtime_error {
 public:
  explicit FileError(const std::string& what, bool unread = false)
      : std::runtime_error(what), unread_(unread) {}
  ~FileError() override;
  // Nobody knows what is in it; that may be different a moment later.
  bool unread() const { return unread_; }

 private:
  bool unread_;
};

// Paths in the file are relative to its directory. Reads the register maps too. Never waits for
// anybody. Throws FileError.
BOARD_EXPORT Description readFile(const std::string& path);
// The same in two steps: the text of a file, and what it says.
BOARD_EXPORT std::string textOfFile(const std::string& path);
BOARD_EXPORT Description readText(const std::string& text, const std::string& path);

// What tells a file from itself after a change, without reading it: different for one that was
// written or replaced, as far as the clock of the file system tells two moments apart, which may
// stand still for some milliseconds. Empty for a file that is not there.
BOARD_EXPORT std::string fileStamp(const std::string& path);
// What tells the contents of a file from others. Empty for what cannot be read, or is no file.
BOARD_EXPORT std::string contentStamp(const std::string& path);

// Why a chip cannot have that name, which becomes a part of paths; empty when it can.
BOARD_EXPORT std::string whyNoChipName(const std::string& name);

}  // namespace Board
