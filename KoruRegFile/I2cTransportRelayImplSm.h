#pragma once

// The bookkeeping of a transport through the relay: keeps a record of every access
// in flight, watches the relay's request of each and calls back when it has finished. Owned by its
// transport; used on the event loop's thread.
//
// A callback may start accesses, destroy the transport, or throw: its record is removed in any
// case, and it is called at most once.

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "Hardware/Relay.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/I2cTransportRequest.h"
#include "KoruRegFile/RegisterFileHelper.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

class KORU_EXPORT I2cTransportRelayImplSm : public Orb::Notifier<I2cTransportRelayImplSm> {
 public:
  using RequestKey = Orb::Ptr<Hardware::RelayRequest>;
  class Notifiee : public Orb::NotifieeOf<I2cTransportRelayImplSm> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onI2cTransportRequest(const RequestKey& /*request*/) {}
  };
  using Requests = Orb::Collection<RequestKey, Orb::Ptr<I2cTransportRequest>>;

  // Of `devId` the low byte counts; accesses throw when that is above 0x7f. Throws
  // std::runtime_error without a relay.
  I2cTransportRelayImplSm(const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId,
                          const Orb::Ptr<const RegFileHelper>& regFileHelper);
  // Withdraws what is in flight; nobody is called back.
  ~I2cTransportRelayImplSm() override;
  static Orb::Ptr<I2cTransportRelayImplSm> I2cTransportRelayImplSmIs(
      const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId,
      const Orb::Ptr<const RegFileHelper>& regFileHelper);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<Hardware::Relay>& relay() const { return relay_; }
  uint32_t devId() const { return devId_; }

  // The accesses in flight, in the order of their beginning.
  const Requests& i2cTransportRequest() const { return i2cTransportRequest_; }
  // A request in flight is withdrawn first, and the callback that it had is told of a failure.
  Orb::Ptr<I2cTransportRequest> i2cTransportRequestIs(const RequestKey& request, uint32_t devId,
                                                      const Orb::String& regName,
                                                      uint16_t regAddress);
  // Withdraws the request from the relay unless it has finished; its callback is not called.
  void i2cTransportRequestDel(RequestKey request);
  void i2cTransportRequestDelAll();

  // A new access of that register, without an operation. Throws std::runtime_error for an unknown
  // register and for one wider than its maximum.
  Orb::Ptr<I2cTransportRequest> newTransportRequest(const Orb::String& regName);

  // Begin an access; they throw what newTransportRequest() throws, and Orb::RangeException for a
  // device address above 0x7f.
  void relayRead(const Orb::String& regName, RegReadCallback callback);
  void relayWrite(const Orb::String& regName, uint32_t value, RegWriteCallback callback);

 private:
  class RequestReactor;

  void onStatus(RequestKey request);

  const Orb::Ptr<Hardware::Relay> relay_;
  const uint32_t devId_;
  const Orb::Ptr<const RegFileHelper> regFileHelper_;
  Requests i2cTransportRequest_;
  std::unordered_map<const Hardware::RelayRequest*, std::unique_ptr<RequestReactor>> reactors_;
};

KORU_EXPORT Orb::Ptr<I2cTransportRelayImplSm> i2cTransportRelayImplSmFactory(
    const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId,
    const Orb::Ptr<const RegFileHelper>& regFileHelper);

}  // namespace KoruRegFile
