#pragma once

// The driver of an SPI device: sends messages through the kernel's spidev node that an accessor
// names. One thread.

#include <cstddef>
#include <cstdint>
#include <span>

#include "Orb/Descriptor.h"
#include "Orb/EntityType.h"
#include "Plat/Pax.h"

namespace HalSpiAccel {

// One byte of a message.
struct CmdData {
  uint16_t pauseMicroseconds = 0;  // after the byte
  uint8_t data = 0;

  friend bool operator==(const CmdData&, const CmdData&) = default;
};

class ORB_EXPORT Accel : public Orb::Entity {
 public:
  // Opens the accessor's device. Throws std::runtime_error, that names the device and the reason,
  // when it cannot be opened.
  explicit Accel(const Orb::Ptr<const Plat::Pax>& pax);

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return pax_->name(); }

  const Orb::Ptr<const Plat::Pax>& pax() const { return pax_; }

  static constexpr size_t mostBytes = 16;

  // Sends at most `mostBytes` bytes, under one chip select. Returns 0, or the errno that the
  // message failed with; an interruption by a signal is no failure.
  int message(std::span<const CmdData> bytes) const;

 private:
  const Orb::Ptr<const Plat::Pax> pax_;
  Orb::Descriptor device_;
};

}  // namespace HalSpiAccel
