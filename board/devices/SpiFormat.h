#pragma once

// A chip's own format on an SPI bus: one message an access, under one chip select, most significant
// bit first; its parts stand bit by bit behind each other and fill whole bytes together.
//
//   | command | address | dummy (reads) | value |
//
// While a value is read the chip sends it in the place of the value, or in that of the next message
// (answer = next). A plain value; any thread.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "board/devices/Bytes.h"
#include "board/devices/Format.h"

namespace Board {

struct BOARD_EXPORT SpiFormat : Format {
  enum class Answer { same, next };

  unsigned mode = 0;                    // 0 to 3, of the bus
  bool lowBitFirst = false;             // of each byte on the wire
  uint32_t speed = 0;                   // in Hz; 0 is the device's own
  unsigned commandBits = 0;             // 0 to 16
  std::optional<uint32_t> readCommand;  // none: the chip cannot be read
  uint32_t writeCommand = 0;            // that of reads, too: the chip cannot be written
  unsigned addressBits = 8;             // 0 to 32
  unsigned dummyBits = 0;               // 0 to 32, before a value that is read
  unsigned registerBits = 0;  // 1 to 32, or 0: each register has its own width, in whole bytes
  ByteOrder valueOrder = ByteOrder::highFirst;
  Answer answer = Answer::same;

  static constexpr size_t longestMessage = 16;  // bytes

  // Throws FormatError.
  static std::shared_ptr<const SpiFormat> of(const FormatSettings& settings);

  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const override;
  std::optional<std::string> whyNotRead() const override;
  unsigned valueBits() const override { return registerBits; }

  struct Message {
    std::array<uint8_t, longestMessage> bytes;
    uint8_t size;
    std::span<const uint8_t> out() const { return {bytes.data(), size}; }
  };
  // The chip can be read.
  Message readMessage(uint32_t address, unsigned width) const;
  Message writeMessage(uint32_t address, unsigned width, uint32_t value) const;
  // Of the bytes that came back while a read message was sent: the value stands in their end.
  uint32_t valueOf(std::span<const uint8_t> bytes, unsigned width) const;

 private:
  unsigned sentBits(unsigned width) const {
    return registerBits != 0 ? registerBits : 8 * bytesOf(width);
  }
  Message message(uint32_t command, uint32_t address, bool isRead, unsigned width,
                  uint32_t value) const;
};

}  // namespace Board
