#pragma once

// Registers behind an SPI bus, through the platform's SPI accelerator. Write-only: each write is
// queued as a message of three bytes (address, high byte and low byte of the value) and sent later,
// from the event loop; what became of it is seen in the status only. Destroying the transport drops
// what is still queued. Used on the loop's thread.

#include <cstdint>
#include <memory>

#include "HalSpiAccel/Accel.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "Spi/Config.h"
#include "Spi/SpiSm.h"
#include "Spi/Status.h"

namespace KoruRegFile {

class KORU_EXPORT SpiTransportMethodImpl : public BaseTransportMethodImpl {
 public:
  static constexpr uint8_t addrBlockSize = 1;

  // Throws std::runtime_error when the accessor's device cannot be opened.
  SpiTransportMethodImpl(const Orb::Ptr<const Plat::Pax>& pax, const char* name,
                         const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);
  ~SpiTransportMethodImpl() override;

  // Always throws std::runtime_error.
  uint32_t regRead(const char* regName) override;
  // Queues the write under the next id, counted from 0. Throws std::runtime_error for an address
  // above 0xff and for a value above 0xffff; the id is used up all the same.
  void regWrite(const char* regName, uint32_t value) override;

  // The outcome of a write is what the status tells of its request. A full queue is refused with a
  // TransportError, ENOBUFS, before anything is queued.
  void regWriteWithOutcome(const char* regName, uint32_t value, AccessCallback callback) override;

  const Orb::Ptr<Spi::Config>& config() const { return config_; }
  const Orb::Ptr<Spi::Status>& status() const { return status_; }

 private:
  class Outcomes;

  const Orb::Ptr<HalSpiAccel::Accel> accel_;
  const Orb::Ptr<Spi::Config> config_;
  const Orb::Ptr<Spi::Status> status_;
  const Orb::Ptr<Spi::SpiSm> spiSm_;
  uint32_t nextRequestId_ = 0;
  std::unique_ptr<Outcomes> outcomes_;  // once somebody wants to know one
};

}  // namespace KoruRegFile
