#pragma once

// The queue of requests to an SPI device, filled by a transport and emptied by Spi::SpiSm, on the
// event loop's thread. It holds `capacity` requests; one that comes while it is full is refused,
// which the status tells.

#include <boost/circular_buffer.hpp>
#include <cstdint>

#include "Orb/Notifier.h"
#include "Spi/Request.h"

namespace Spi {

class ORB_EXPORT Config : public Orb::Notifier<Config> {
 public:
  class Notifiee : public Orb::NotifieeOf<Config> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onRequest() {}
    virtual void onRefusedRequest(unsigned /*id*/) {}
  };

  static constexpr size_t capacity = 1024;

  explicit Config(const Orb::String& name) : name_(name) {}
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  // How many wait.
  size_t requests() const { return queue_.size(); }

  // Queues a copy, and neither waits nor fails.
  void requestEnq(const Request& request);

  // The next one to be served; there has to be one.
  const Request& requestFront() const { return queue_.front(); }
  void requestDeq() { queue_.pop_front(); }

 private:
  const Orb::String name_;
  boost::circular_buffer<Request> queue_{capacity};
};

}  // namespace Spi
