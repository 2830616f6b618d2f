#include "Hardware/RelayRequest.h"

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

void RelayRequest::add(const Operation& operation, uint8_t flags) {
  if (state() != idle) throw std::logic_error("operations are added to idle requests only");
  if (flags != 0) throw std::logic_error("an operation has flags, of which none is defined");
  const SmbusAddrSize size = operation.address.addrSize();
  if (size != SmbusAddrSize::oneByte && size != SmbusAddrSize::twoBytes) {
    throw std::logic_error("an SMBus address has an unknown size");
  }
  operations_.push_back(operation);
}

void RelayRequest::stateIs(uint32_t newState) {
  if (newState != submitted) {
    unlink();
    operations_.clear();
    carriedOut_ = 0;
    tries_ = 0;
  } else if (!is_linked()) {
    relay_->enqueue(*this);
  }
  Request::stateIs(newState);
}

}  // namespace Hardware
