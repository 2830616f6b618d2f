#pragma once

// One device on an SPI bus, through the kernel's spidev node. One thread.

#include <cstdint>
#include <span>
#include <string>

#include "Orb/Descriptor.h"

namespace Board {

class SpiDevice {
 public:
  // Sets what every message has, and leaves the rest of the mode as the system has it; a speed of 0
  // is the device's own. Throws std::system_error that names the node, when it cannot be opened or
  // set up.
  SpiDevice(const std::string& node, unsigned mode, bool lowBitFirst, uint32_t speed);

  // Sends `out` under one chip select; what comes meanwhile goes into `in`, which is as long. 0, or
  // the errno: EPROTO when less was transferred.
  int message(std::span<const uint8_t> out, std::span<uint8_t> in) const;

 private:
  const Orb::Descriptor node_;
  const uint32_t speed_;
};

}  // namespace Board
