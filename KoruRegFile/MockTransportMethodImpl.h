#pragma once

// The transport without hardware: register values live in memory, are seeded from a file and
// written back to it after every access, so that agents can run on a machine without the chips.
//
// The file has the header line "Address, Value" and a line "<address>,<value>" in decimal for every
// register accessed so far. All mock transports of a machine share it; it is opened without
// following a symbolic link, so that a link planted there cannot redirect the write of a privileged
// agent.

#include <cstdint>
#include <map>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"

namespace KoruRegFile {

class KORU_EXPORT MockTransportMethodImpl : public BaseTransportMethodImpl {
 public:
  static constexpr const char* valueFilePath = "/tmp/MockKoruDebugReg.csv";
  static constexpr uint8_t addrBlockSize = 4;

  // Starts without values when there is no value file. Throws std::invalid_argument or
  // std::out_of_range for a value file whose numbers cannot be read.
  MockTransportMethodImpl(const char* csvPath,
                          const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);

  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  // Returns the value read or written. A register never accessed before reads as 0.
  uint32_t _regRWCommon(bool isWrite, const char* regName, uint32_t value);
  void seed();
  void save() const;

  std::map<uint32_t, uint32_t> valueByAddress_;
};

}  // namespace KoruRegFile
