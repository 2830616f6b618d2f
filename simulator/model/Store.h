#pragma once

// What a chip holds, by address: its registers with their habits, or its memory. An address that
// nothing stands behind reads as all ones, as a bus does that nobody drives, and takes no value.
// Under the board's lock.

#include <cstdint>

#include "simulator/model/Image.h"

namespace Simulator {

class Store {
 public:
  Store(Image& image, size_t chip)
      : image_(image), row_(image.chips[chip]), state_(image.chipStates[chip]) {}

  const ChipRow& row() const { return row_; }
  ChipState& state() const { return state_; }

  // The index of the register in the image, -1 for none. Flags in the address do not count.
  int registerAt(uint32_t address) const;
  bool hasMemoryAt(uint32_t address) const { return (address & row_.addressMask) < row_.memory; }
  unsigned bytesAt(uint32_t address) const;

  // As the chip's bus does it, with everything that follows.
  uint32_t read(uint32_t address);
  void write(uint32_t address, uint32_t value);
  // From outside: nothing follows. The address has a register, or memory.
  uint32_t look(uint32_t address) const;
  void put(uint32_t address, uint32_t value);

  // Where a transfer goes on behind that address.
  uint32_t after(uint32_t address) const;

 private:
  uint8_t& memoryAt(uint32_t address) const;

  Image& image_;
  const ChipRow& row_;
  ChipState& state_;
};

// A value on its way over a bus, byte by byte: which bits the byte number `index` of `bytes` has.
inline unsigned shiftOf(unsigned index, unsigned bytes, bool lowFirst) {
  return 8 * (lowFirst ? index : bytes - 1 - index);
}

// Whether a fault of the chip comes with this transaction, which is counted. The fault's row, or
// null.
const FaultRow* faultOf(Image& image, const ChipRow& chip, uint32_t reg, Direction direction);

}  // namespace Simulator
