#pragma once

// What became of the requests to an SPI device. Kept by Spi::SpiSm, observed by whoever wants to
// know, on the event loop's thread.

#include <cstdint>

#include "Orb/Notifier.h"

namespace Spi {

class ORB_EXPORT Status : public Orb::Notifier<Status> {
 public:
  class Notifiee : public Orb::NotifieeOf<Status> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onDone() {}
    virtual void onError(uint32_t /*id*/) {}
  };
  using Errors = Orb::Collection<uint32_t, Orb::String>;

  explicit Status(const Orb::String& name) : name_(name) {}
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  // How many requests reached the device, and the id of the last one of them.
  uint64_t done() const { return done_; }
  uint32_t lastId() const { return lastId_; }
  // How many did not, and why, by id; of the reasons the latest are kept.
  uint64_t failed() const { return failed_; }
  const Errors& error() const { return error_; }
  // The errno of the failure that was told last.
  int lastError() const { return lastError_; }
  static constexpr size_t mostErrors = 64;

  void doneIs(uint32_t id);
  void errorIs(uint32_t id, const Orb::String& reason, int error = 0);

 private:
  const Orb::String name_;
  uint64_t done_ = 0;
  uint32_t lastId_ = 0;
  uint64_t failed_ = 0;
  int lastError_ = 0;
  Errors error_;
};

}  // namespace Spi
