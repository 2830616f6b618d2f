#pragma once

// A message for an SPI device: bytes in numbered slots, under an id by which its outcome is told.
// A plain value.

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "HalSpiAccel/Accel.h"
#include "Orb/Exception.h"

namespace Spi {

using HalSpiAccel::CmdData;

class Request {
 public:
  static constexpr size_t mostSlots = HalSpiAccel::Accel::mostBytes;

  Request() = default;
  explicit Request(unsigned id) : id_(id) {}

  unsigned id() const { return id_; }
  // Every slot up to the highest one that was set.
  std::span<const CmdData> cmdData() const { return {slots_.data(), used_}; }
  // Throws Orb::RangeException for a slot above 15.
  void cmdDataIs(uint8_t slot, CmdData cmdData) {
    if (slot >= mostSlots) Orb::throwRangeException("Spi::Request::slot > 15 not allowed");
    slots_[slot] = cmdData;
    used_ = std::max<size_t>(used_, slot + 1u);
  }

 private:
  unsigned id_ = 0;
  size_t used_ = 0;
  std::array<CmdData, mostSlots> slots_{};
};

}  // namespace Spi
