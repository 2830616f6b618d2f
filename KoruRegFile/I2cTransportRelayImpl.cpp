#include "KoruRegFile/I2cTransportRelayImpl.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

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

namespace {

// The relay tells the end of a request at once, so that its last failure is that request's.
AccessOutcome outcomeOf(const Hardware::Relay& relay, RegCallbackStatus status, uint32_t value) {
  if (status == RegCallbackStatus::done) return {.value = value};
  return {.failure = TransportFailure{.reason = std::string(relay.lastFailure()),
                                      .error = relay.lastError()}};
}

}  // namespace

void I2cTransportRelayImpl::regReadWithOutcome(const char* regName, AccessCallback callback) {
  sm_->relayRead(regName, [relay = relay_, callback = std::move(callback)](
                              const char*, RegCallbackStatus status, uint32_t value) {
    callback(outcomeOf(*relay, status, value));
  });
}

void I2cTransportRelayImpl::regWriteWithOutcome(const char* regName, uint32_t value,
                                                AccessCallback callback) {
  sm_->relayWrite(
      regName, value,
      [relay = relay_, value, callback = std::move(callback)](
          const char*, RegCallbackStatus status) { callback(outcomeOf(*relay, status, value)); });
}

}  // namespace KoruRegFile
