#pragma once

// How the chips of a board are kept. Plain values.

#include <chrono>
#include <cstdint>
#include <string>

#include "board/chips/History.h"
#include "board/chips/OpenTransport.h"

namespace Board {

// Between attempts: the first one, and the longest.
struct Delays {
  std::chrono::milliseconds first{100};
  std::chrono::milliseconds longest{30000};
};

struct Options {
  std::string stateDirectory;  // as prepareStateDirectory() (StateFiles.h) returns it
  Delays delays = {};
  OpenTransport openTransport = Board::openTransport;
  uint64_t history = usualHistory;  // records of a chip; 0 for none
};

}  // namespace Board
