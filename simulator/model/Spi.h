#pragma once

// Transactions on a simulated SPI device: from one chip select to its end, a byte back for each
// byte out. Under the board's lock.

#include <cstdint>
#include <span>
#include <string>

#include "simulator/model/I2c.h"
#include "simulator/model/Image.h"
#include "simulator/model/Store.h"

namespace Simulator {

// A chip in the course of a transaction. One that is addressed in a mode it does not have neither
// understands nor answers.
class SpiChip {
 public:
  SpiChip(Image& image, size_t chip, uint32_t mode);

  uint8_t exchange(uint8_t out);
  void end();

  // The address that bytes on their way to the chip name; 0 as long as they are too few.
  static uint32_t addressIn(const ChipRow& row, std::span<const uint8_t> bytes);
  static Direction directionOf(const ChipRow& row, std::span<const uint8_t> bytes);

 private:
  void understand();
  uint8_t answer(uint8_t out);

  Store store_;
  const bool isDeaf_;
  uint8_t head_[8] = {};  // command and address
  unsigned headed_ = 0;
  unsigned dummies_ = 0;
  Direction direction_ = Direction::any;  // `any`: it understands nothing
  uint32_t address_ = 0;
  unsigned at_ = 0;  // bytes of the value
  unsigned answered_ = 0;
  uint32_t value_ = 0;
  uint32_t next_ = 0, nextBytes_ = 0;
};

// A transaction: what goes out is replaced by what comes back. Appends " > 12 be < ff ff".
Outcome exchange(Image& image, size_t node, std::span<uint8_t> bytes, std::string& line);

}  // namespace Simulator
