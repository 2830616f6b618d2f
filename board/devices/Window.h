#pragma once

// Memory that registers are mapped into: a BAR of a device, or a file. Usable on any thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "board/Export.h"

namespace Board {

struct Window {
  volatile std::byte* begin = nullptr;
  size_t size = 0;
  std::shared_ptr<const void> owner;  // of the mapping
};

// The size of a window that ends there. Throws std::system_error, EFBIG, for more than this machine
// can map.
BOARD_EXPORT size_t sizeOfWindow(uint64_t end);

// The window that is the file at `path`, as long as it is; `name` is how messages call it. Throws
// std::system_error and std::runtime_error when it cannot be mapped.
BOARD_EXPORT Window deviceWindow(const std::string& name, const std::string& path);

// A window of `size` bytes in the file at `path`, which is made, or lengthened, if need be, and
// never made shorter; an empty path stands for memory of this process. Throws std::system_error.
BOARD_EXPORT Window fileWindow(const std::string& path, size_t size);

}  // namespace Board
