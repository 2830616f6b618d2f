#pragma once

// What the transports over formats share: they refuse what their format cannot carry, before
// anything is accessed.

#include <memory>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "board/devices/Format.h"

namespace Board {

// Where a transport over a format gets its registers: from the file, or from the model when the
// path is empty.
struct MapSource {
  const char* csvPath = "";
  Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile> model = nullptr;
};

// Throws KoruRegFile::RegisterFileError for a number that, as an address, exceeds 32 bits: it would
// be another register's. Otherwise what reading the map throws.
BOARD_EXPORT void requireNoWraps(const char* csvPath, uint8_t addrBlockSize);

class BOARD_EXPORT FormatTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  ~FormatTransport() override;

 protected:
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;

  // Throws what reading the map and requireNoWraps() throw.
  FormatTransport(const MapSource& map, uint8_t addrBlockSize);

  // The register of that name. Throws std::runtime_error when there is none, and TransportError,
  // ERANGE, when the format cannot carry it, or the value has more bits than the register.
  HardwareRegister registerToRead(const char* regName, const Format& format) const;
  HardwareRegister registerToWrite(const char* regName, uint32_t value, const Format& format) const;

 private:
  HardwareRegister registerToCarry(const char* regName, const Format& format, bool isWritten) const;
};

// The same for those that answer later, from the event loop: what has a callback tells its outcome,
// and what has none is told to nobody (board/devices/PostingTransport.h tells the error flag).
class BOARD_EXPORT QueuedFormatTransport : public FormatTransport {
 public:
  void regReadWithCallback(const char* regName, KoruRegFile::RegReadCallback callback) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            KoruRegFile::RegWriteCallback callback) override;

 protected:
  using FormatTransport::FormatTransport;
};

}  // namespace Board
