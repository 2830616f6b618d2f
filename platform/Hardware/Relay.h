#pragma once

// The relay: carries out bus transactions for others, one after the other, on the
// event loop. Whoever wants one takes a request, adds operations and submits it (state 1); when all
// of them are carried out the state becomes 3, and 2 when one failed.
//
// The relay serves its queue in the order of submission, one operation at a time, so that a slow
// bus holds up the loop for no longer than that. It does not keep requests alive: one that nobody
// holds any more, or that is put back to state 0, is not carried out, and the buffer of its read is
// never written. All of it is used on the loop's thread.

#include <boost/intrusive/list.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "Hardware/RelayRequest.h"
#include "Orb/Entity.h"
#include "Orb/EntityType.h"
#include "Orb/EventLoop.h"

namespace Hardware {

class ORB_EXPORT Relay : public Orb::Entity {
 public:
  // The relay of one bus, over the kernel's I2C node at that path. Throws std::system_error that
  // names the node when it cannot be opened.
  Relay(Orb::String name, const Orb::String& node, Orb::EventLoop& loop = Orb::eventLoop());
  ~Relay() override;
  static Orb::Ptr<Relay> RelayIs(const Orb::String& name, const Orb::String& node);

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

  // A request in state 0, without operations. It keeps the relay alive.
  Orb::Ptr<RelayRequest> newRequest();

  // Why no request of a chip's own format can be carried out here (Smbus::Bus::whyNoExchange()).
  std::string whyNoExchange(size_t out, size_t in, bool pec);

  // How many requests wait. Counts them.
  size_t queued() const { return queue_.size(); }
  // What went wrong last, and with which operation; empty as long as nothing has.
  const Orb::String& lastFailure() const { return lastFailure_; }
  // The errno of that; 0 as long as nothing has gone wrong.
  int lastError() const { return lastError_; }

 private:
  friend class RelayRequest;
  using Queue = boost::intrusive::list<RelayRequest, boost::intrusive::base_hook<RelayQueueHook>,
                                       boost::intrusive::constant_time_size<false>>;
  struct Service;

  void enqueue(RelayRequest& request);
  int step(RelayRequest& request);
  void serve();

  const Orb::String name_;
  Queue queue_;
  Orb::String lastFailure_;
  int lastError_ = 0;
  std::unique_ptr<Service> service_;
};

ORB_EXPORT Orb::Ptr<Relay> relayFactory(const Orb::String& name, const Orb::String& node);

}  // namespace Hardware
