#pragma once

// What there is at a place, for somebody who looks at a board. Nothing is written to any chip,
// beyond what is named below. Used on one thread.

#include <cstdint>
#include <string>
#include <vector>

#include "board/Export.h"
#include "board/devices/TransportKind.h"

namespace Board {

struct ProbeReport {
  struct Fact {
    std::string what;  // "adapter", "messages"
    std::string value;
  };
  // Of an I2C bus.
  struct Device {
    uint8_t address;
    bool answers;
    std::string driver;   // of the kernel, that has the address; it was not asked then
    std::string trouble;  // why it is not known whether it answers
  };
  // How a form fares with the adapter.
  struct Fit {
    const Form* form;
    std::string whyNot;  // empty when accesses of that form can be made
  };

  std::vector<Fact> facts;
  std::vector<Device> devices;
  std::vector<Fit> fits;
};

// Looks at an I2C bus: what its adapter can do, who answers at `address`, or at each address from
// 0x08 to 0x77 when that is negative, and which forms the adapter could carry. Devices are asked as
// i2cdetect does: by an empty write, and where EEPROMs may be, or where the adapter can do nothing
// else, by reading a byte; each time under the bus's lock. Throws std::system_error when the node
// cannot be opened.
BOARD_EXPORT ProbeReport probeI2c(const std::string& node, int address);

// Looks at an SPI device's settings, without sending anything. Throws std::system_error.
BOARD_EXPORT ProbeReport probeSpi(const std::string& node);

// Looks at how long the window is that a file, as of a BAR, can be mapped to. Throws
// std::system_error and std::runtime_error.
BOARD_EXPORT ProbeReport probeWindow(const std::string& path);

}  // namespace Board
