#include <cstdio>

#include "board/chips/BoardKeeper.h"
#include "board/devices/I2cFormat.h"
#include "board/devices/TransportKind.h"

// An agent of one's own links all of the library: its chips, and a format.
int main() {
  const auto format = Board::I2cFormat::of({{"address_bits", "16"}});
  const Board::BoardKeeper keeper({.stateDirectory = "."});
  if (format->addressBits == 16 && keeper.chipNames().empty()) {
    std::puts(Board::transportKinds().c_str());
  }
}
