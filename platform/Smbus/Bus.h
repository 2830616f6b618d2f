#pragma once

// One I2C bus, through the kernel's i2c-dev node: the primitive transactions that the relay and
// the transports are made of. Each returns 0 or the errno that it failed with, and is repeated when
// a signal interrupts it. One thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

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
  int lock();  // waits for it
  void unlock();

  // Directs what follows to the device at that address.
  int deviceIs(uint8_t address);

  // I2C block transactions, of at most 32 bytes behind the command. A read that brings fewer bytes
  // than asked for has failed with EPROTO.
  int writeBlock(uint8_t command, std::span<const uint8_t> bytes);
  int readBlock(uint8_t command, std::span<uint8_t> bytes);

  // An empty write, to find out whether the device is there.
  int quickWrite();

  // What the adapter can do, as the kernel's I2C_FUNC bits; 0 when it does not say, and it is
  // asked again then.
  unsigned long functions();

  // One bus transaction of whatever bytes a chip wants: `out`, then, behind a repeated start, `in`.
  // With `pec` a check byte goes with it; one that is wrong ends with EBADMSG. Made with I2C_RDWR
  // where the adapter can do it, otherwise as the SMBus transaction that sends the same bytes;
  // EOPNOTSUPP where there is none (whyNoExchange()), EPROTO when the adapter made less of it.
  struct Exchange {
    std::span<const uint8_t> out;
    std::span<uint8_t> in;
    bool pec = false;
  };
  static constexpr size_t longestExchange = 32;  // bytes each way
  int exchange(const Exchange& exchange);
  // Why the adapter cannot make an exchange of so many bytes; empty when it can.
  std::string whyNoExchange(size_t out, size_t in, bool pec);

 private:
  int exchangeMessages(const Exchange& exchange) const;
  int exchangeSmbus(const Exchange& exchange);

  const Orb::Descriptor node_;
  int device_ = -1;
  bool pec_ = false;  // as the node was told
  std::optional<unsigned long> functions_;
};

}  // namespace Smbus
