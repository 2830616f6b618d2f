#pragma once

// How a chip is reached, as written in a system file or on the command line: the kind of transport
// and, as its place, what that kind needs to know. Plain values, usable on any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "board/Export.h"

namespace Board {

enum class TransportKind {
  mock,    // no hardware; all mock chips of a machine share one file of values
  memory,  // a window of registers in memory, or in the file that is the place, relative to the
           // state directory
  i2c,     // a chip on a bus, "/dev/i2c-1:0x50"; ",word" behind it for words rather than blocks
  relay,   // the same in blocks, through the relay
  pci,     // "0000:03:00.0/2", a device and its BAR, 0 when left out; or a file that can be mapped
  spi,     // "/dev/spidev0.0"
};

struct BOARD_EXPORT Transport {
  TransportKind kind = TransportKind::mock;
  std::string place;     // as written
  std::string device;    // the file behind the place, for hardware; otherwise empty
  uint32_t address = 0;  // of a chip on an I2C bus
  bool words = false;    // word transactions
  bool operator==(const Transport&) const = default;

  // Throws std::invalid_argument, that says how to write it, for a place that cannot be one of that
  // kind.
  static Transport at(TransportKind kind, const std::string& place);

  // "mock"
  const char* name() const;
  // "mock", "memory window.bin"
  std::string text() const;
  // What a register's number in the map is multiplied by to give its address.
  uint8_t addrBlockSize() const;
  // Why this transport can never access the register as it is; nothing when it can.
  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const;
};

// The kind of that name.
BOARD_EXPORT std::optional<TransportKind> transportKind(std::string_view name);
// All names, as in "mock, memory".
BOARD_EXPORT std::string transportKinds();
// Whether a chip cannot be reached that way without saying where.
BOARD_EXPORT bool needsPlace(TransportKind kind);

}  // namespace Board
