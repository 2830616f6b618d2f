#pragma once

// Where an access of the relay goes on an SMBus, packed into 64 bits: the
// register's offset in bits 0 to 15, the device's address in bits 32 to 38, the width of the offset
// in bits 40 to 47. Plain values; any thread.

#include <cstdint>

#include "Orb/Export.h"

namespace Hardware {

// How many bytes a register's offset takes on the bus.
enum class SmbusAddrSize : uint8_t { oneByte = 1, twoBytes = 2 };

}  // namespace Hardware

namespace Smbus {

// A number of 7 bits.
class ORB_EXPORT U7 {
 public:
  U7() = default;
  // Throws Orb::RangeException for a value above 0x7f.
  explicit U7(uint8_t value);
  uint8_t value() const { return value_; }

 private:
  uint8_t value_ = 0;
};

class RelayAddress {
 public:
  RelayAddress() = default;
  explicit RelayAddress(uint64_t packed) : packed_(packed) {}

  uint64_t value() const { return packed_; }

  uint16_t offset() const { return static_cast<uint16_t>(packed_); }
  void offsetIs(uint16_t offset) { put(0, 0xffff, offset); }

  uint8_t deviceAddress() const { return (packed_ >> deviceShift) & 0x7f; }
  void deviceAddressIs(U7 address) { put(deviceShift, 0x7f, address.value()); }

  Hardware::SmbusAddrSize addrSize() const {
    return static_cast<Hardware::SmbusAddrSize>((packed_ >> sizeShift) & 0xff);
  }
  void addrSizeIs(Hardware::SmbusAddrSize size) {
    put(sizeShift, 0xff, static_cast<uint8_t>(size));
  }

 private:
  static constexpr unsigned deviceShift = 32;
  static constexpr unsigned sizeShift = 40;

  void put(unsigned shift, uint64_t mask, uint64_t bits) {
    packed_ = (packed_ & ~(mask << shift)) | bits << shift;
  }

  uint64_t packed_ = 0;
};

}  // namespace Smbus
