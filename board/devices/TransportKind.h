#pragma once

// What there is to know about a kind of transport: a row for each, from which system files, command
// lines, checks and advice take it. A new kind is one file with its row, and a line in the table of
// TransportKind.cpp. Used on the framework's thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "board/Export.h"
#include "board/devices/FormatTransport.h"
#include "board/devices/Transport.h"

namespace Board {

// What a transport of the library's own carries of a register: beyond these limits it refuses, or
// silently accesses something else.
struct Reach {
  const char* what;  // "words on an I2C bus have addresses up to"
  uint32_t lastAddress;
  const char* carrier;  // "a word"
  unsigned width;
  // What a register that can be written has at least: a narrower one would take a neighbour with
  // it. And what would carry one.
  unsigned leastWritten = 0;
  const char* carriesLess = nullptr;
  const char* whyNotRead = nullptr;  // null when it reads, too
};

// What a transport is opened with.
struct Opening {
  std::string name;         // what its objects are called in messages
  std::string registerMap;  // the path of the map; empty: `registers`
  Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile> registers = nullptr;
  // What an access does about a bus that is busy, for the kinds that could wait.
  KoruRegFile::I2cBusy busy = KoruRegFile::I2cBusy::wait;

  MapSource map() const { return {registerMap.c_str(), registers}; }
};

// A short way to write settings.
struct Form {
  const char* name;      // "byte"
  const char* settings;  // "address_bits=8,value_bits=8"
  const char* help;
};

struct KindRow {
  // Whether a plain write of the kind is over when it returns, also on a busy bus.
  enum class Writes { atOnce, waitForBus, endLater };

  const char* name;       // the key in a system file, and the option on a command line
  const char* placeName;  // what the option takes; null for a kind without a place
  const char* help;       // of the option; null for a kind that a command line does not offer
  bool needsPlace;
  Writes writes;
  std::span<const Form> forms;
  // What a register's number in the map is multiplied by.
  uint8_t (*addrBlockSize)(const Transport& transport);
  // Takes the place, without forms and settings, apart. Throws std::invalid_argument that says how
  // to write it.
  void (*readPlace)(Transport& transport, std::string_view place);
  // Makes the format of the transport, if it is to have one. Throws FormatError.
  void (*readFormat)(Transport& transport, const FormatSettings& settings);
  // Of a transport without a format; why a register cannot be accessed beside that.
  std::optional<Reach> (*reach)(const Transport& transport);
  // What to do about that errno; empty when there is nothing to say.
  std::string (*advice)(const Transport& transport, int error);
  // Throws what reading the map and opening the device throw.
  std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> (*open)(const Transport& transport,
                                                                const Opening& opening);
  // Whether all registers are gone when the agent ends; null for never.
  bool (*forgets)(const Transport& transport) = nullptr;
  // Whether the transport's file is looked for beside the system file, as register maps are.
  bool isBesideFile = false;
};

BOARD_EXPORT std::span<const KindRow* const> kindRows();
// The kind of that name; null when there is none.
BOARD_EXPORT const KindRow* transportKind(std::string_view name);
// All names, as in "mock, memory".
BOARD_EXPORT std::string transportKinds();

// Those that somebody knows by name.
BOARD_EXPORT extern const KindRow mockKind;
BOARD_EXPORT extern const KindRow memoryKind;
BOARD_EXPORT extern const KindRow i2cKind;
BOARD_EXPORT extern const KindRow relayKind;
BOARD_EXPORT extern const KindRow pciKind;
BOARD_EXPORT extern const KindRow spiKind;
BOARD_EXPORT extern const KindRow replayKind;

// Opens what the transport is made over.
BOARD_EXPORT std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> openDevice(
    const Transport& transport, const Opening& opening);

// The failure in words, and what to do about it.
BOARD_EXPORT std::string explained(const Transport& transport,
                                   const KoruRegFile::TransportFailure& failure);

// "byte, word"
std::string formNames(const KindRow& kind);

// For rows: refuses what is left behind a place, in which no comma can be. Throws
// std::invalid_argument.
void requireNoRest(std::string_view place);
// For rows: a kind that carries registers in one way only.
void readNoFormat(Transport& transport, const FormatSettings& settings);

}  // namespace Board
