#pragma once

// Registers in memory, through the platform's PCI accessor. A register's address is a byte offset
// into the accessor's window; every access is 32 bits wide. One thread at a time.
//
// A device that has gone away answers with a bus error. Unless the accessor asks for the signal
// itself, the transport guards its accesses: it installs the process's SIGBUS handler, and a bus
// error, as well as an accessor that is not ready, ends in a SigbusException. These settings of the
// process outlive the transport.

#include <cstdint>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "Plat/PciPaxImpl.h"

namespace KoruRegFile {

class KORU_EXPORT PciTransportMethodImpl : public BaseTransportMethodImpl {
 public:
  static constexpr uint8_t addrBlockSize = 4;

  // `pax` has to be a Plat::PciPaxImpl; throws std::runtime_error for anything else.
  PciTransportMethodImpl(const Orb::Ptr<Plat::PaxImpl>& pax, const char* name,
                         const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);

  bool hardwareReady() const { return pciPax_->hardwareReady(); }

  uint32_t regRead(const char* regName) override;
  // Sends the value whole, whatever the register's width.
  void regWrite(const char* regName, uint32_t value) override;
  uint32_t foundRegRead(const Hardware::KoruRegFile::HardwareRegister& reg) override;
  void foundRegWrite(const Hardware::KoruRegFile::HardwareRegister& reg, uint32_t value) override;

 private:
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;

  uint32_t _regRWCommon(bool write, const char* regName, uint32_t value);
  uint32_t access(bool write, const HardwareRegister& reg, uint32_t value);
  void handleNotReady() const;

  const Orb::Ptr<Plat::PciPaxImpl> pciPax_;
  const bool sigbusGuarded_;
};

}  // namespace KoruRegFile
