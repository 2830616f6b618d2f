#pragma once

// One SMBus, through the kernel's i2c-dev node: the primitive transactions that the hardware access
// relay is made of. Each returns 0 or the errno that it failed with, and is repeated when a signal
// interrupts it. One thread.

#include <cstdint>
#include <span>

#include "Orb/Descriptor.h"
#include "Orb/Export.h"
#include "Orb/String.h"

namespace Smbus {

class ORB_EXPORT Bus {
 public:
  // Throws std::system_error that names the node when it cannot be opened.
  explicit Bus(const Orb::String& node);

  // The exclusive lock by which processes that share the bus keep out of each other's transactions;
  // EWOULDBLOCK when somebody else has it.
  int tryLock();
  void unlock();

  // Directs what follows to the device at that address.
  int deviceIs(uint8_t address);

  // I2C block transactions, of at most 32 bytes behind the command. A read that brings fewer bytes
  // than asked for has failed with EPROTO.
  int writeBlock(uint8_t command, std::span<const uint8_t> bytes);
  int readBlock(uint8_t command, std::span<uint8_t> bytes);

 private:
  const Orb::Descriptor node_;
  int device_ = -1;
};

}  // namespace Smbus
