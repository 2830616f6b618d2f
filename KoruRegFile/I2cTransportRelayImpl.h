#pragma once

// Registers behind an I2C address, through the platform's relay: only the accesses
// with a callback, which return at once and call back from the event loop. Destroying the transport
// withdraws what is in flight; its callbacks are then never called. Used on the loop's thread.

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/I2cTransportRelayImplSm.h"

namespace KoruRegFile {

class KORU_EXPORT I2cTransportRelayImpl : public BaseTransportMethodImpl {
 public:
  static constexpr uint8_t addrBlockSize = 4;

  I2cTransportRelayImpl(const Orb::Ptr<Hardware::Relay>& relay, unsigned devId, const char* name,
                        const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);

  // Always throw std::runtime_error: the relay offers nothing that could be waited for.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

  // Throw std::runtime_error for an unknown register or one wider than its maximum, and
  // Orb::RangeException for a device address above 0x7f. A failed access is told to the callback.
  // The register is accessed without a callback, too.
  void regReadWithCallback(const char* regName, RegReadCallback callback) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            RegWriteCallback callback) override;
  void regReadWithOutcome(const char* regName, AccessCallback callback) override;
  void regWriteWithOutcome(const char* regName, uint32_t value, AccessCallback callback) override;

  const Orb::Ptr<Hardware::Relay>& relay() const { return relay_; }
  const Orb::Ptr<I2cTransportRelayImplSm>& sm() const { return sm_; }

 private:
  const Orb::Ptr<Hardware::Relay> relay_;
  const Orb::Ptr<I2cTransportRelayImplSm> sm_;
};

}  // namespace KoruRegFile
