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
#include "board/devices/Transport.h"

namespace Board {

// What a kind carries of a register: beyond these limits a transport refuses, or silently accesses
// something else.
struct Reach {
  const char* what;  // "words on an I2C bus have addresses up to"
  uint32_t lastAddress;
  const char* carrier;  // "a word"
  unsigned width;
};

// What a transport is opened with.
struct Opening {
  std::string name;         // what its objects are called in messages
  std::string registerMap;  // the path of the map
  // What an access does about a bus that is busy, for the kinds that could wait.
  KoruRegFile::I2cBusy busy = KoruRegFile::I2cBusy::wait;
};

struct KindRow {
  // Whether a plain write of the kind is over when it returns, also on a busy bus.
  enum class Writes { atOnce, waitForBus, endLater };

  TransportKind kind;
  const char* name;       // the key in a system file, and the option on a command line
  const char* placeName;  // what the option takes; null for a kind without a place
  const char* help;       // of the option; null for a kind that a command line does not offer
  bool needsPlace;
  uint8_t addrBlockSize;  // what a register's number in the map is multiplied by
  Writes writes;
  // Takes the place apart. Throws std::invalid_argument that says how to write it.
  void (*readPlace)(Transport& transport);
  std::optional<Reach> (*reach)(const Transport& transport);
  // What to do about that errno; empty when there is nothing to say.
  std::string (*advice)(const Transport& transport, int error);
  // Throws what reading the map and opening the device throw.
  std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> (*open)(const Transport& transport,
                                                                const Opening& opening);
};

BOARD_EXPORT std::span<const KindRow* const> kindRows();
BOARD_EXPORT const KindRow& kindRow(TransportKind kind);

extern const KindRow mockKind;
extern const KindRow memoryKind;
extern const KindRow i2cKind;
extern const KindRow relayKind;
extern const KindRow pciKind;
extern const KindRow spiKind;

// Opens what the transport is made over.
BOARD_EXPORT std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> openDevice(
    const Transport& transport, const Opening& opening);

// The failure in words, and what to do about it.
BOARD_EXPORT std::string explained(const Transport& transport,
                                   const KoruRegFile::TransportFailure& failure);

}  // namespace Board
