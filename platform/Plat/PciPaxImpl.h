#pragma once

// Registers in a memory window: a BAR of a PCI device, mapped from its resourceN file in sysfs, or
// any other file that can be mapped. Every access is a single 32-bit load or store.
//
// Made by the embedding agent, shared with the transports that use it; one thread at a time.

#include <cstddef>
#include <cstdint>

#include "Orb/Notifier.h"
#include "Plat/Pax.h"

namespace Plat {

// Settings for all accessors of the process. Any thread.
class ORB_EXPORT PaxImplGlobalControl {
 public:
  // Whether making an accessor installs the SIGBUS handler that guarded accesses need; initially
  // so. Whoever switches it off calls Keel::GenericSigbusHandler::initialize().
  static void sigbusHandlerAutoInstallIs(bool on);
  static bool sigbusHandlerAutoInstall();
};

class ORB_EXPORT PciPaxImpl : public Orb::Notifier<PciPaxImpl, PaxImpl> {
 public:
  class Notifiee : public Orb::NotifieeOf<PciPaxImpl> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onHardwareReady() {}
  };

  // Maps the whole of the file at `path`; addresses count from its beginning. Throws
  // std::runtime_error that names the file and the reason when it cannot be mapped.
  PciPaxImpl(Orb::String name, const Orb::String& path);
  ~PciPaxImpl() override;
  static Orb::Ptr<PciPaxImpl> PciPaxImplIs(const Orb::String& name, const Orb::String& path);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  // In bytes; 0 for an accessor without a window of its own.
  size_t windowSize() const { return size_; }
  // Where it is mapped, as long as the accessor lives; null for one without a window.
  volatile std::byte* window() const { return window_; }

  // Whether the device can be accessed; initially so. Set by whoever watches the device.
  bool hardwareReady() const { return hardwareReady_(); }
  void hardwareReadyIs(bool ready) {
    attributeIs(hardwareReady_, ready, &Notifiee::onHardwareReady);
  }

  // The SIGBUS mode: whether a bus error is to reach the process as the signal that it is, for an
  // agent that handles it, rather than as an exception. Transports look at it when they are made.
  bool sigbusRaised() const { return sigbusRaised_; }
  void sigbusRaisedIs(bool raised) { sigbusRaised_ = raised; }

  // Throw std::runtime_error for an address that is no multiple of 4 or lies beyond the window;
  // nothing is accessed then.
  virtual void read32(uint32_t address, uint32_t& value) const;
  virtual void write32(uint32_t address, uint32_t value) const;
  // Likewise; a bus error ends in Keel::GenericSigbusHandler::SigbusException, with `value` as it
  // was.
  virtual void guardedRead32(uint32_t address, uint32_t& value) const;
  virtual void guardedWrite32(uint32_t address, uint32_t value) const;

 protected:
  // An accessor without a window, whose accesses a subclass makes.
  explicit PciPaxImpl(Orb::String name) : Notifier(std::move(name)) {}

 private:
  void map(int fd, const Orb::String& path);
  volatile uint32_t* at(uint32_t address) const;

  void* mapping_ = nullptr;
  size_t mappingSize_ = 0;
  volatile std::byte* window_ = nullptr;
  size_t size_ = 0;
  Orb::Attribute<bool> hardwareReady_{true};
  bool sigbusRaised_ = false;
};

ORB_EXPORT Orb::Ptr<PciPaxImpl> pciPaxImplFactory(const Orb::String& name, const Orb::String& path);

}  // namespace Plat
