#pragma once

// How a chip does, for whoever asks the agent. Plain values.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Orb/String.h"
#include "board/Export.h"

namespace Board {

enum class ChipState {
  up,         // everything that was asked for has been written
  rewriting,  // up, but its registers are being written anew
  failed,     // it could not be brought up; tried again
  refused,    // its description cannot be used
};

struct Health {
  ChipState state = ChipState::failed;
  std::string reason;        // of failed and refused; what is wrong with a newer description
  size_t attempts = 0;       // to bring it up, or to rewrite it, that failed in a row
  size_t failedWrites = 0;   // how often the error flag went up
  size_t rewrites = 0;       // passes over all registers
  size_t pendingWrites = 0;  // of the pass that goes on
  size_t drifted = 0;        // registers that were found changed, and written again
  size_t resets = 0;         // found by its canary
  size_t inFlight = 0;       // writes that the transport has taken, and has not carried out yet
  size_t differing = 0;      // fields that are to hold something else than was written
  size_t tableReaders = 0;   // other processes that read the chip's tables
};

// A register that did not hold what was written.
struct Drift {
  Orb::String reg;
  uint32_t address;
  uint32_t written;
  uint32_t found;
};

// "up", ...
BOARD_EXPORT const char* stateName(ChipState state);

}  // namespace Board
