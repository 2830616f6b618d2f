#include "Hardware/RelayRequest.h"

#include <algorithm>
#include <stdexcept>

#include "Hardware/Relay.h"

namespace Hardware {

RelayRequest::RelayRequest(Orb::Ptr<Relay> relay) : relay_(std::move(relay)) {}

RelayRequest::~RelayRequest() = default;

const Orb::EntityType& RelayRequest::entityType() {
  static const auto type =
      Orb::EntityTypeOf<RelayRequest>("Hardware::RelayRequest").extends(Orb::Request::entityType());
  return type;
}

void RelayRequest::makeReadOp(uint64_t address, uint32_t& data, ReadByteSwap swap, uint8_t flags) {
  add({Smbus::RelayAddress(address), &data, 0, swap == ReadByteSwap::highByteFirst}, flags);
}

void RelayRequest::makeWriteOp(uint64_t address, uint32_t value, WriteByteSwap swap,
                               uint8_t flags) {
  add({Smbus::RelayAddress(address), nullptr, value, swap == WriteByteSwap::highByteFirst}, flags);
}

void RelayRequest::makeExchangeOp(Smbus::U7 device, const Smbus::Bus::Exchange& exchange) {
  requireIdle();
  if (std::max(exchange.out.size(), exchange.in.size()) > Smbus::Bus::longestExchange) {
    throw std::logic_error("an exchange is too long");
  }
  Exchange kept{
      device.value(), exchange.pec, static_cast<uint8_t>(exchange.out.size()), {}, exchange.in};
  std::copy(exchange.out.begin(), exchange.out.end(), kept.out.begin());
  operations_.emplace_back(kept);
}

void RelayRequest::requireIdle() const {
  if (state() != idle) throw std::logic_error("operations are added to idle requests only");
}

void RelayRequest::add(const RegisterAccess& access, uint8_t flags) {
  requireIdle();
  if (flags != 0) throw std::logic_error("an operation has flags, of which none is defined");
  const SmbusAddrSize size = access.address.addrSize();
  if (size != SmbusAddrSize::oneByte && size != SmbusAddrSize::twoBytes) {
    throw std::logic_error("an SMBus address has an unknown size");
  }
  operations_.emplace_back(access);
}

void RelayRequest::stateIs(uint32_t newState) {
  if (newState != submitted) {
    unlink();
    operations_.clear();
    carriedOut_ = 0;
    tries_ = 0;
    if (newState == idle) error_ = 0;
  } else if (!is_linked()) {
    relay_->enqueue(*this);
  }
  Request::stateIs(newState);
}

}  // namespace Hardware
