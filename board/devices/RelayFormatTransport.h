#pragma once

// Registers of a chip with a format of its own on an I2C bus, through the relay's queue: only the
// accesses that answer later, from the event loop. Destroying the transport withdraws what is in
// flight; its callbacks are then never called. Used on the loop's thread.

#include <map>
#include <memory>
#include <string>

#include "Hardware/Relay.h"
#include "board/devices/FormatTransport.h"
#include "board/devices/I2cFormat.h"

namespace Board {

class BOARD_EXPORT RelayFormatTransport : public QueuedFormatTransport {
 public:
  // A register's number in the map is its address.
  static constexpr uint8_t addrBlockSize = 1;

  // The relay of the bus, the chip at `device` (7 bits). Throws what reading the map throws, and
  // Orb::RangeException for a device address above 0x7f.
  RelayFormatTransport(const Orb::Ptr<Hardware::Relay>& relay, uint8_t device,
                       std::shared_ptr<const I2cFormat> format, const MapSource& map);
  ~RelayFormatTransport() override;

  // Always throw std::runtime_error: the relay offers nothing that could be waited for.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

  // Throw what FormatTransport refuses; a failed access is told to the callback.
  void regReadWithOutcome(const char* regName, KoruRegFile::AccessCallback callback) override;
  void regWriteWithOutcome(const char* regName, uint32_t value,
                           KoruRegFile::AccessCallback callback) override;

 private:
  class Access;

  void submit(std::unique_ptr<Access> access);

  const Orb::Ptr<Hardware::Relay> relay_;
  const Smbus::U7 device_;
  const std::shared_ptr<const I2cFormat> format_;
  std::map<const Access*, std::unique_ptr<Access>> accesses_;  // in flight
};

}  // namespace Board
