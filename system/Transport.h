#pragma once

// How a chip is reached, as written in a system file or on the command line: the kind of transport
// and, as its place, what that kind needs to know. Plain values, usable on any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "KoruRegFile/RegisterFile.h"

namespace System {

enum class TransportKind {
  mock,    // no hardware; all mock chips of a machine share one file of values
  memory,  // a window of registers in memory, or in the file that is the place, relative to the
           // state directory
};

struct Transport {
  TransportKind kind = TransportKind::mock;
  std::string place;
  bool operator==(const Transport&) const = default;

  // "mock", "memory window.bin"
  std::string text() const;
  // What a register's number in the map is multiplied by to give its address.
  uint8_t addrBlockSize() const;
  // Why this transport can never write the register; nothing when it can.
  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const;
};

// The kind of that name.
std::optional<TransportKind> transportKind(std::string_view name);
// All names, as in "mock, memory".
std::string transportKinds();

}  // namespace System
