#pragma once

// A request that somebody else carries out. Its state is a number that observers can watch:
// 0 idle, 1 submitted, 2 failed, 3 done; a server may use further ones above 3 for its own ways of
// failing. Created by a server of requests, which derives from it; used on the framework's thread.

#include "Orb/Notifier.h"

namespace Orb {

class ORB_EXPORT Request : public Notifier<Request> {
 public:
  class Notifiee : public NotifieeOf<Request> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onState() {}
  };

  static constexpr uint32_t idle = 0;
  static constexpr uint32_t submitted = 1;
  static constexpr uint32_t failed = 2;
  static constexpr uint32_t done = 3;

  static const EntityType& entityType();
  const EntityType& fwkType() const override { return entityType(); }

  uint32_t state() const { return state_(); }
  virtual void stateIs(uint32_t state) { attributeIs(state_, state, &Notifiee::onState); }

 private:
  Attribute<uint32_t> state_{idle};
};

}  // namespace Orb
