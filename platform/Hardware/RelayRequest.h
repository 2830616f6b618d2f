#pragma once

// A request to the relay (Hardware/Relay.h), made by Relay::newRequest().

#include <boost/intrusive/list_hook.hpp>
#include <cstdint>
#include <vector>

#include "Orb/Request.h"
#include "Smbus/RelayAddress.h"

namespace Hardware {

class Relay;

// The order of a value's bytes on the bus.
enum class ReadByteSwap : uint8_t { lowByteFirst = 0, highByteFirst = 1 };
enum class WriteByteSwap : uint8_t { lowByteFirst = 0, highByteFirst = 1 };

// Links a request into the relay's queue; one that is destroyed leaves it.
using RelayQueueHook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

class ORB_EXPORT RelayRequest : public Orb::Request, public RelayQueueHook {
 public:
  explicit RelayRequest(Orb::Ptr<Relay> relay);
  ~RelayRequest() override;
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  // Add a 32-bit access at a packed Smbus::RelayAddress. What is read is stored in `data`, before
  // the state tells that the request is done; `data` must live until then or until the request is
  // withdrawn. No `flags` are defined, they have to be 0. Throw std::logic_error for other flags,
  // an unknown width of the offset, and a request that is not in state 0.
  void makeReadOp(uint64_t address, uint32_t& data, ReadByteSwap swap, uint8_t flags);
  void makeWriteOp(uint64_t address, uint32_t value, WriteByteSwap swap, uint8_t flags);

  // 1 hands the request to the relay. Any other state takes it back and drops its operations.
  void stateIs(uint32_t state) override;

 private:
  friend class Relay;
  struct Operation {
    Smbus::RelayAddress address;
    uint32_t* data;  // of a read; null for a write
    uint32_t value;
    bool highByteFirst;
  };

  void add(const Operation& operation, uint8_t flags);

  const Orb::Ptr<Relay> relay_;
  std::vector<Operation> operations_;
  size_t carriedOut_ = 0;
  int tries_ = 0;  // of the operation that is next
};

}  // namespace Hardware
