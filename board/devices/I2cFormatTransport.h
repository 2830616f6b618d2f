#pragma once

// Registers of a chip with a format of its own on an I2C bus, at once. Used on one thread.

#include <string>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "Smbus/Bus.h"
#include "board/devices/FormatTransport.h"
#include "board/devices/I2cFormat.h"

namespace Board {

class BOARD_EXPORT I2cFormatTransport : public FormatTransport {
 public:
  // A register's number in the map is its address.
  static constexpr uint8_t addrBlockSize = 1;

  // The bus at `node`, the chip at `device` (7 bits). What an access does about a bus that is
  // locked by another process or busy is `busy`. Throws std::system_error when the node cannot be
  // opened or the address cannot be taken, and what reading the map throws.
  I2cFormatTransport(const std::string& node, uint8_t device,
                     std::shared_ptr<const I2cFormat> format, const MapSource& map,
                     KoruRegFile::I2cBusy busy = KoruRegFile::I2cBusy::wait);

  // Throw TransportError with what went wrong on the bus: EBADMSG for a wrong check byte,
  // EOPNOTSUPP when the adapter has no such transaction, and what FormatTransport refuses.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  void exchange(const char* what, const char* regName, const Smbus::Bus::Exchange& exchange);
  int tryExchange(const Smbus::Bus::Exchange& exchange);

  const std::string node_;
  const uint8_t device_;
  const std::shared_ptr<const I2cFormat> format_;
  const KoruRegFile::I2cBusy busy_;
  Smbus::Bus bus_;
};

}  // namespace Board
