#include "KoruRegFile/I2cTransportRelayImplSm.h"

#include <fmt/format.h>

#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

using Hardware::ReadByteSwap;
using Hardware::RelayRequest;
using Hardware::WriteByteSwap;

namespace {

Orb::TraceHandle trace("I2cTransportRelayImplSm");

// The map's addresses are scaled by the block size, the relay counts in 32-bit words.
uint64_t relayAddress(const I2cTransportRequest& access) {
  Smbus::RelayAddress address;
  address.offsetIs(static_cast<uint16_t>(access.regAddress() >> 2));
  address.deviceAddressIs(Smbus::U7(static_cast<uint8_t>(access.devId())));
  address.addrSizeIs(Hardware::SmbusAddrSize::twoBytes);
  return address.value();
}

// Calls back whoever wants to hear of the end, once. The callback is taken out before it is called,
// since it may make the request change again.
void callBack(I2cTransportRequest& access, RegCallbackStatus status) {
  const char* regName = access.regName().c_str();
  if (access.writeCallback()) {
    const RegWriteCallback callback = access.writeCallback();
    access.writeCallbackIs({});
    callback(regName, status);
  } else if (access.readCallback()) {
    const RegReadCallback callback = access.readCallback();
    access.readCallbackIs({});
    const bool isDone = status == RegCallbackStatus::done;
    const uint32_t value = isDone ? access.data() : failedReadValue;
    if (isDone) {
      ORB_TRACE(trace, 5,
                "I2cTransportRelayImplSm::onStatus read with callback success reg:{} value: {}",
                regName, value);
    } else {
      ORB_TRACE(trace, 5, "I2cTransportRelayImplSm::onStatus read with callback fail reg:{}",
                regName);
    }
    callback(regName, status, value);
  }
}

// Whatever happens to the request from now on, nothing is written to the buffer of its operation.
void withdraw(RelayRequest& request) {
  if (request.state() < RelayRequest::failed) request.stateIs(RelayRequest::idle);
}

}  // namespace

const Orb::EntityType& I2cTransportRequest::entityType() {
  using R = I2cTransportRequest;
  static const auto type = Orb::EntityTypeOf<R>("KoruRegFile::I2cTransportRequest")
                               .attribute("request", &R::request)
                               .attribute("devId", &R::devId)
                               .attribute("regName", &R::regName)
                               .attribute("regAddress", &R::regAddress)
                               .attribute("data", &R::data)
                               .operation("dataIs", &R::dataIs, {"data"});
  return type;
}

// Watches the relay's request of one access. Not owned by that request, which it keeps alive.
class I2cTransportRelayImplSm::RequestReactor : public RelayRequest::Notifiee {
 public:
  RequestReactor(I2cTransportRelayImplSm& sm, const RequestKey& request)
      : Notifiee(request), sm_(sm), request_(request) {
    hasNotificationActiveIs(true);
  }
  void onState() override { sm_.onStatus(request_); }

 private:
  I2cTransportRelayImplSm& sm_;
  const RequestKey request_;
};

Orb::Ptr<I2cTransportRelayImplSm> i2cTransportRelayImplSmFactory(
    const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId,
    const Orb::Ptr<const RegFileHelper>& regFileHelper) {
  return Orb::make<I2cTransportRelayImplSm>(relay, devId, regFileHelper);
}

Orb::Ptr<I2cTransportRelayImplSm> I2cTransportRelayImplSm::I2cTransportRelayImplSmIs(
    const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId,
    const Orb::Ptr<const RegFileHelper>& regFileHelper) {
  return i2cTransportRelayImplSmFactory(relay, devId, regFileHelper);
}

const Orb::EntityType& I2cTransportRelayImplSm::entityType() {
  using S = I2cTransportRelayImplSm;
  static const auto type =
      Orb::EntityTypeOf<S>("KoruRegFile::I2cTransportRelayImplSm")
          .attribute("relay", &S::relay)
          .attribute("devId", &S::devId)
          .operation("i2cTransportRequestDelAll", &S::i2cTransportRequestDelAll, {});
  return type;
}

I2cTransportRelayImplSm::I2cTransportRelayImplSm(const Orb::Ptr<Hardware::Relay>& relay,
                                                 uint32_t devId,
                                                 const Orb::Ptr<const RegFileHelper>& regFileHelper)
    : relay_(relay), devId_(devId), regFileHelper_(regFileHelper) {
  if (!relay) throw std::runtime_error("there is no hardware access agent");
}

I2cTransportRelayImplSm::~I2cTransportRelayImplSm() {
  reactors_.clear();
  for (const auto& [request, access] : i2cTransportRequest_) {
    try {
      withdraw(*request);
    } catch (const std::exception& e) {
      ORB_TRACE(trace, 0, "an observer of a withdrawn request threw: {}", e.what());
    } catch (...) {
      ORB_TRACE(trace, 0, "an observer of a withdrawn request threw");
    }
  }
}

Orb::Ptr<I2cTransportRequest> I2cTransportRelayImplSm::i2cTransportRequestIs(
    const RequestKey& request, uint32_t devId, const Orb::String& regName, uint16_t regAddress) {
  const auto access = Orb::make<I2cTransportRequest>(request, devId, regName, regAddress);
  const auto keep = Orb::keepAlive(this);
  const Orb::Ptr<I2cTransportRequest> replaced = i2cTransportRequest_(request);
  try {
    if (replaced) {
      reactors_.erase(request.get());
      withdraw(*request);
    }
    reactors_[request.get()] = std::make_unique<RequestReactor>(*this, request);
    collectionIs(i2cTransportRequest_, request, access, &Notifiee::onI2cTransportRequest);
  } catch (...) {
    if (replaced) callBack(*replaced, RegCallbackStatus::failed);
    throw;
  }
  if (replaced) callBack(*replaced, RegCallbackStatus::failed);
  return access;
}

// The key is taken by value, as it may belong to what goes. The record goes last, since its buffer
// may still be written to until the request is withdrawn; and it goes whatever an observer throws.
void I2cTransportRelayImplSm::i2cTransportRequestDel(RequestKey request) {
  const auto keep = Orb::keepAlive(this);
  reactors_.erase(request.get());
  if (!i2cTransportRequest_.has(request)) return;
  try {
    withdraw(*request);
  } catch (...) {
    collectionDel(i2cTransportRequest_, request, &Notifiee::onI2cTransportRequest);
    throw;
  }
  collectionDel(i2cTransportRequest_, request, &Notifiee::onI2cTransportRequest);
}

void I2cTransportRelayImplSm::i2cTransportRequestDelAll() {
  std::vector<RequestKey> keys;
  for (const auto& [request, access] : i2cTransportRequest_) keys.push_back(request);
  const auto keep = Orb::keepAlive(this);
  std::exception_ptr thrown;
  for (const RequestKey& key : keys) {
    try {
      i2cTransportRequestDel(key);
    } catch (...) {
      if (!thrown) thrown = std::current_exception();
    }
  }
  if (thrown) std::rethrow_exception(thrown);
}

Orb::Ptr<I2cTransportRequest> I2cTransportRelayImplSm::newTransportRequest(
    const Orb::String& regName) {
  const auto reg = regFileHelper_->findRegisterByName(regName);
  if (reg.width > reg.maximumWidth) {
    throw std::runtime_error(
        fmt::format("Unexpected width of register {} (got {} bits, expected at most {} bits)",
                    regName, reg.width, reg.maximumWidth));
  }
  return i2cTransportRequestIs(relay_->newRequest(), devId_, regName,
                               static_cast<uint16_t>(reg.address));
}

void I2cTransportRelayImplSm::relayRead(const Orb::String& regName, RegReadCallback callback) {
  const auto access = newTransportRequest(regName);
  access->readCallbackIs(std::move(callback));
  const RequestKey& request = access->request();
  request->stateIs(RelayRequest::idle);
  request->makeReadOp(relayAddress(*access), access->data_, ReadByteSwap::highByteFirst, 0);
  request->stateIs(RelayRequest::submitted);
}

void I2cTransportRelayImplSm::relayWrite(const Orb::String& regName, uint32_t value,
                                         RegWriteCallback callback) {
  const auto access = newTransportRequest(regName);
  access->writeCallbackIs(std::move(callback));
  const RequestKey& request = access->request();
  request->stateIs(RelayRequest::idle);
  request->makeWriteOp(relayAddress(*access), value, WriteByteSwap::highByteFirst, 0);
  request->stateIs(RelayRequest::submitted);
}

void I2cTransportRelayImplSm::onStatus(RequestKey request) {
  if (request->state() < RelayRequest::failed) return;
  // The callback may destroy the transport.
  const auto keep = Orb::keepAlive(this);
  const Orb::Ptr<I2cTransportRequest> access = i2cTransportRequest_(request);
  if (!access) return;
  try {
    callBack(*access, request->state() == RelayRequest::done ? RegCallbackStatus::done
                                                             : RegCallbackStatus::failed);
  } catch (...) {
    i2cTransportRequestDel(request);
    throw;
  }
  i2cTransportRequestDel(request);
}

}  // namespace KoruRegFile
