#pragma once

// How a chip is reached, as written in a system file or on the command line: the kind of transport
// and, as its place, what that kind needs to know. Plain values, usable on any thread.
//
//   PLACE[,FORM][,KEY=VALUE]...    /dev/i2c-1:0x50,byte    /dev/i2c-1:0x48,value_bits=16,pec=true
//
// A form is short for settings of the format that the chip has its registers in.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "board/Export.h"
#include "board/devices/Format.h"

namespace Board {

struct KindRow;

struct BOARD_EXPORT Transport {
  const KindRow* kind;  // one of those in TransportKind.h, never null; the mock unless said
  std::string place;    // as written
  std::string device;   // the file behind the place, for hardware; otherwise empty
  // Of a memory window, relative to the state directory; empty for none. Or of a recording.
  std::string file;
  std::string recordedChip;  // in that recording; empty for the one of the same name
  uint32_t address = 0;      // of a chip on an I2C bus
  bool words = false;        // the library's own word transactions
  // Null for what the library's own transports carry.
  std::shared_ptr<const Format> format;

  Transport();
  // Throws std::invalid_argument, that says how to write it, for a place that cannot be one of that
  // kind; FormatError when a setting is what is wrong.
  static Transport at(const KindRow& kind, const std::string& place);

  // The place tells the format, too.
  bool operator==(const Transport& other) const {
    return kind == other.kind && place == other.place && device == other.device;
  }

  // "mock"
  const char* name() const;
  // "mock", "memory window.bin"
  std::string text() const;
  // What a register's number in the map is multiplied by to give its address.
  uint8_t addrBlockSize() const;
  // Why this transport can never access the register as it is; nothing when it can.
  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const;
  // The same for a read of it.
  std::optional<std::string> whyNotRead(const KoruRegFile::Register& reg) const;
};

}  // namespace Board
