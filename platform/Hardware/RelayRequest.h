#pragma once

// A request to the relay (Hardware/Relay.h), made by Relay::newRequest().

#include <array>
#include <boost/intrusive/list_hook.hpp>
#include <cstdint>
#include <span>
#include <variant>
#include <vector>

#include "Orb/Request.h"
#include "Smbus/Bus.h"
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

  // Adds one bus transaction of the chip's own format (Smbus::Bus::exchange()). `out` is copied;
  // `in` is filled as `data` above. Throws std::logic_error for more than
  // Smbus::Bus::longestExchange bytes each way, and a request that is not in state 0.
  void makeExchangeOp(Smbus::U7 device, const Smbus::Bus::Exchange& exchange);

  // The errno that the request failed with, once it is in state 2.
  int error() const { return error_; }

  // 1 hands the request to the relay. Any other state takes it back and drops its operations.
  void stateIs(uint32_t state) override;

 private:
  friend class Relay;
  struct RegisterAccess {
    Smbus::RelayAddress address;
    uint32_t* data;  // of a read; null for a write
    uint32_t value;
    bool highByteFirst;
  };
  struct Exchange {
    uint8_t device;
    bool pec;
    uint8_t outSize;
    std::array<uint8_t, Smbus::Bus::longestExchange> out;
    std::span<uint8_t> in;
  };
  using Operation = std::variant<RegisterAccess, Exchange>;

  void add(const RegisterAccess& access, uint8_t flags);
  void requireIdle() const;

  const Orb::Ptr<Relay> relay_;
  std::vector<Operation> operations_;
  size_t carriedOut_ = 0;
  int tries_ = 0;  // of the operation that is next
  int error_ = 0;
};

}  // namespace Hardware
