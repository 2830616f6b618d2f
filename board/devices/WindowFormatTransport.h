#pragma once

// Registers with a format of their own in a mapped file: a BAR of a device, or any other. Used on
// one thread.

#include <cstddef>
#include <functional>
#include <memory>

#include "board/devices/FormatTransport.h"
#include "board/devices/Window.h"
#include "board/devices/WindowFormat.h"

namespace Board {

class BOARD_EXPORT WindowFormatTransport : public FormatTransport {
 public:
  // Gives the window, which has to be of so many bytes to have all registers of the map.
  using OpenWindow = std::function<Window(size_t needed)>;

  // Throws std::runtime_error that names the registers which lie beyond the end of the window, and
  // what opening it and reading the map throw.
  WindowFormatTransport(const OpenWindow& open, std::shared_ptr<const WindowFormat> format,
                        const MapSource& map);
  ~WindowFormatTransport() override;

  // Throw SigbusException when the device behind the window is gone, or the file was cut short, and
  // what FormatTransport refuses.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  size_t needed() const;
  void requireWithin() const;
  volatile std::byte* place(const HardwareRegister& reg) const;

  const std::shared_ptr<const WindowFormat> format_;
  const Window window_;
};

}  // namespace Board
