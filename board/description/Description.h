#pragma once

// What a system file says about a board: its chips, how each of them is reached, and the fields
// that make its logical registers. Plain values, made by readFile() (SystemFile.h); used by the
// agent and by the tools that work without one.

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KoruRegFile/ShadowFieldTypes.h"
#include "Orb/String.h"
#include "Ore/Central.h"
#include "board/Export.h"
#include "board/description/Meaning.h"
#include "board/devices/Transport.h"

namespace Board {

// Bits of a register: the first one and how many.
struct Bits {
  uint8_t start = 0;
  uint8_t size = 1;
  bool operator==(const Bits&) const = default;
};

// What the hardware does with a field beside keeping it.
enum class FieldKind {
  stored,       // nothing
  pulse,        // clears it by itself: it is sent once, and 0 from then on
  write1clear,  // sets it by itself, and clears it when a 1 is written: sent like a pulse
  changing,     // changes it: what it holds says nothing about what was written
};

// Whether the field is never held: it is sent once, and 0 from then on.
constexpr bool isSentOnce(FieldKind kind) {
  return kind == FieldKind::pulse || kind == FieldKind::write1clear;
}

// "stored", "pulse", "write1clear", "volatile", as in system files.
BOARD_EXPORT const char* kindName(FieldKind kind);

// A logical field and the physical field that it stands for.
struct Field {
  Orb::String logicalRegister;
  Orb::String logicalField;
  Bits logical;
  uint32_t value = 0;  // before anybody has written one
  Orb::String physicalRegister;
  Orb::String physicalField;
  Bits physical;
  uint32_t address = 0;  // of the physical register
  FieldKind kind = FieldKind::stored;
  SharedMeaning meaning;

  // Of the field's entries in the shadow tables.
  KoruRegFile::ShadowFieldKey key() const { return {address, physical.start, physical.size}; }
  bool operator==(const Field&) const = default;
};

// Bits of a hardware register that are read live, and never written.
struct StatusField {
  Orb::String reg;
  Orb::String field;
  Bits bits;
  uint32_t address = 0;
  SharedMeaning meaning;
  bool operator==(const StatusField&) const = default;
};

// In which order the registers of a chip are written when it is brought up or rewritten. Hardware
// registers, by name.
struct WriteOrder {
  std::vector<std::string> first;  // before all others
  std::vector<std::string> last;
  // How long the chip is left alone after a write of the register.
  std::map<std::string, std::chrono::milliseconds> settle;
  bool operator==(const WriteOrder&) const = default;
};

// A register that holds its reset value only when the chip was reset behind the agent's back.
struct Canary {
  std::string reg;
  uint32_t address = 0;
  uint32_t reset = 0;
  std::chrono::milliseconds every{1000};
  bool operator==(const Canary&) const = default;
};

// What is read of a chip without anybody's asking.
struct Upkeep {
  std::chrono::milliseconds verifyEvery{0};  // 0: never
  std::optional<Canary> canary;
  bool operator==(const Upkeep&) const = default;
};

// Which values count when the agent has come up.
enum class OnStart {
  trust,     // those last written; registers that hold them already are left alone
  rewrite,   // those last written; every register is written, since the chip was reset
  defaults,  // the file's
};

struct Chip {
  std::string name;
  Ore::Central::DeviceId devId;
  std::string profile;
  std::string registerMap;  // the path of the map
  std::string mapStamp;     // tells the map from what it is after a change
  OnStart onStart = OnStart::trust;
  Transport transport;
  std::vector<Field> fields;
  std::vector<StatusField> statusFields;  // by register, in the order of the map
  std::set<std::string> readChanges;      // registers whose reading changes the chip
  WriteOrder order;
  Upkeep upkeep;
  bool operator==(const Chip&) const = default;
};

struct Profile {
  std::string name;
  uint32_t major = 0;
  uint32_t minor = 0;
  bool operator==(const Profile&) const = default;
};

// Something in the file that cannot be used.
struct Problem {
  std::string chip;   // empty when it is no chip's
  size_t line = 0;    // from 1
  std::string place;  // "FILE:LINE"; empty for what was described in code
  std::string text;
  // "board.toml:12: chip 'power0': there is no register 'X' in the map"
  BOARD_EXPORT std::string message() const;
};

struct Description {
  std::vector<std::string> files;  // that were read
  std::vector<Chip> chips;         // those without a problem, in the order of the file
  std::vector<Profile> profiles;
  std::vector<Problem> problems;
  bool namesChips = false;   // the file has a chip with a name, or says that there are none
  bool hasNameless = false;  // there is a chip that nobody can tell the name of
  bool isUnread = false;     // a register map could not be read; it may be a moment later
};

}  // namespace Board
