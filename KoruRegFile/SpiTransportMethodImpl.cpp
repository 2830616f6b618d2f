#include "KoruRegFile/SpiTransportMethodImpl.h"

#include <fmt/format.h>

#include <stdexcept>

namespace KoruRegFile {

namespace {

constexpr uint32_t highestAddress = 0xff;
constexpr uint32_t highestValue = 0xffff;

Spi::CmdData cmdData(uint32_t byte) { return {0, static_cast<uint8_t>(byte)}; }

}  // namespace

SpiTransportMethodImpl::SpiTransportMethodImpl(
    const Orb::Ptr<const Plat::Pax>& pax, const char* name,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(name, addrBlockSize, regFile),
      accel_(Orb::make<HalSpiAccel::Accel>(pax)),
      config_(Orb::make<Spi::Config>(pax->name())),
      status_(Orb::make<Spi::Status>(pax->name())),
      spiSm_(Spi::SpiSm::SpiSmIs(accel_, config_, status_)) {}

uint32_t SpiTransportMethodImpl::regRead(const char*) {
  throw std::runtime_error("SPI read not implemented!");
}

void SpiTransportMethodImpl::regWrite(const char* regName, uint32_t value) {
  const auto reg = regFileHelper()->findRegisterByName(regName);
  Spi::Request request(nextRequestId_++);
  if (reg.address > highestAddress) {
    throw std::runtime_error(fmt::format("SPI address {} longer than 8 bits", reg.address));
  }
  if (value > highestValue) {
    throw std::runtime_error(fmt::format("SPI value {} longer than 16 bits", value));
  }
  request.cmdDataIs(0, cmdData(reg.address));
  request.cmdDataIs(1, cmdData(value >> 8));
  request.cmdDataIs(2, cmdData(value));
  config_->requestEnq(request);
}

}  // namespace KoruRegFile
