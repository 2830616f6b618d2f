#pragma once

// One register access in flight through the relay. Made and removed by
// I2cTransportRelayImplSm, which holds it as long as the relay may write to its buffer.

#include <cstdint>

#include "Hardware/RelayRequest.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

class KORU_EXPORT I2cTransportRequest : public Orb::Entity {
 public:
  I2cTransportRequest(const Orb::Ptr<Hardware::RelayRequest>& request, uint32_t devId,
                      const Orb::String& regName, uint16_t regAddress)
      : request_(request), devId_(devId), regName_(regName), regAddress_(regAddress) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  // The relay's request, which is also the key.
  const Orb::Ptr<Hardware::RelayRequest>& request() const { return request_; }
  uint32_t devId() const { return devId_; }
  const Orb::String& regName() const { return regName_; }
  uint16_t regAddress() const { return regAddress_; }
  // The value of a read, once it is done.
  uint32_t data() const { return data_; }
  void dataIs(uint32_t data) { data_ = data; }
  // At most one of them is not empty.
  const RegReadCallback& readCallback() const { return readCallback_; }
  void readCallbackIs(RegReadCallback callback) { readCallback_ = std::move(callback); }
  const RegWriteCallback& writeCallback() const { return writeCallback_; }
  void writeCallbackIs(RegWriteCallback callback) { writeCallback_ = std::move(callback); }

 private:
  friend class I2cTransportRelayImplSm;

  const Orb::Ptr<Hardware::RelayRequest> request_;
  const uint32_t devId_;
  const Orb::String regName_;
  const uint16_t regAddress_;
  uint32_t data_ = 0;
  RegReadCallback readCallback_;
  RegWriteCallback writeCallback_;
};

}  // namespace KoruRegFile
