#pragma once

// A chip's own format on an I2C bus: a register's address in so many bytes, then its value, both in
// either byte order. One bus transaction an access. A plain value; any thread.
//
//   write   S device+W | address bytes | value bytes | P
//   read    S device+W | address bytes | S device+R | value bytes | P

#include <array>
#include <cstdint>
#include <memory>
#include <span>

#include "board/devices/Bytes.h"
#include "board/devices/Format.h"

namespace Board {

struct BOARD_EXPORT I2cFormat : Format {
  unsigned addressBits = 8;   // 0, 8, 16, 24 or 32; with 0 there is one register, of address 0
  unsigned registerBits = 0;  // 8, 16, 24 or 32, or 0: each register has its own width
  ByteOrder addressOrder = ByteOrder::highFirst;
  ByteOrder valueOrder = ByteOrder::highFirst;
  uint32_t addressFlags = 0;  // set in every address: a command bit, or one for auto-increment
  bool pec = false;           // every transaction has the check byte of SMBus

  // Throws FormatError.
  static std::shared_ptr<const I2cFormat> of(const FormatSettings& settings);

  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const override;
  unsigned valueBits() const override { return registerBits; }

  // What goes over the bus for a register of that address and width.
  struct Message {
    std::array<uint8_t, 8> bytes;
    uint8_t size;     // of what is sent
    uint8_t awaited;  // how many bytes come back
    std::span<const uint8_t> out() const { return {bytes.data(), size}; }
  };
  Message readMessage(uint32_t address, unsigned width) const;
  Message writeMessage(uint32_t address, unsigned width, uint32_t value) const;
  // Of the bytes that came back.
  uint32_t valueOf(std::span<const uint8_t> bytes, unsigned width) const;
};

}  // namespace Board
