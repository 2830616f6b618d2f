#include "KoruRegFile/I2cTransportRelayImpl.h"

#include <fmt/format.h>

#include <stdexcept>

namespace KoruRegFile {

I2cTransportRelayImpl::I2cTransportRelayImpl(
    const Orb::Ptr<Hardware::Relay>& relay, unsigned devId, const char* name,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(name, addrBlockSize, regFile),
      relay_(relay),
      sm_(I2cTransportRelayImplSm::I2cTransportRelayImplSmIs(relay, devId, regFileHelper())) {}

uint32_t I2cTransportRelayImpl::regRead(const char* regName) {
  throw std::runtime_error(fmt::format("regRead({}) not supported", regName));
}

void I2cTransportRelayImpl::regWrite(const char* regName, uint32_t value) {
  throw std::runtime_error(fmt::format("regWrite({}, {}) not supported", regName, value));
}

void I2cTransportRelayImpl::regReadWithCallback(const char* regName, RegReadCallback callback) {
  sm_->relayRead(regName, std::move(callback));
}

void I2cTransportRelayImpl::regWriteWithCallback(const char* regName, uint32_t value,
                                                 RegWriteCallback callback) {
  sm_->relayWrite(regName, value, std::move(callback));
}

}  // namespace KoruRegFile
