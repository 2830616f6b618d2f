#pragma once

// The state directory of a board from outside of the programs that run on it: made, powered, looked
// into and changed. Throws std::runtime_error, which says what could not be done and why.

#include <cstdint>
#include <optional>
#include <string>

#include "simulator/tool/BoardFile.h"

namespace Simulator {

// A chip, or a place in it: "temperature:0x01".
struct Place {
  std::string chip;
  std::optional<uint32_t> address;
};

class State {
 public:
  // Makes the directory, and powers the board up unless it is the one that runs there. `reset`
  // takes the power away first. Memory that keeps its bytes without power keeps them.
  State(std::string directory, const BoardFile& board, bool reset);

  // "0x1900"; without an address a line for each register. Bad places are std::invalid_argument.
  std::string valueAt(const Place& place) const;
  void valueIs(const Place& place, uint32_t value);
  void isPlugged(const std::string& chip, bool plugged);

  // Writes the ledger to standard output.
  void printLedger() const;

 private:
  const std::string directory_;
};

}  // namespace Simulator
