#pragma once

// The device files of a simulated board as programs see them: what ioctl(), read() and write() on
// one of them do to the image. All return what the call returns, or a negative errno, and append to
// the line what was on the wire. Under the board's lock.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "simulator/model/Image.h"

namespace Simulator {

// What the kernel keeps for each opened I2C device file; it fits the offset of one.
struct I2cOpen {
  uint32_t address = 0;
  bool usesPec = false;

  static I2cOpen of(int64_t offset);
  int64_t offset() const;
};

bool isI2cRequest(unsigned long request);
bool isSpiRequest(unsigned long request);

long i2cControl(Image& image, size_t node, I2cOpen& open, unsigned long request, void* argument,
                std::string& line);
long i2cRead(Image& image, size_t node, const I2cOpen& open, std::span<uint8_t> bytes,
             std::string& line);
long i2cWrite(Image& image, size_t node, const I2cOpen& open, std::span<const uint8_t> bytes,
              std::string& line);

long spiControl(Image& image, size_t node, unsigned long request, void* argument,
                std::string& line);
long spiRead(Image& image, size_t node, std::span<uint8_t> bytes, std::string& line);
long spiWrite(Image& image, size_t node, std::span<const uint8_t> bytes, std::string& line);

}  // namespace Simulator
