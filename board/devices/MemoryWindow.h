#pragma once

// A transport of the agent's own: registers in memory, or in a file, where they outlive the agent
// and can be looked at from outside. Register values lie at four times the register's address, in
// the byte order of the machine; the file is as long as the last register needs, and sparse.

#include <string>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "board/Export.h"
#include "board/devices/Window.h"

namespace Board {

class BOARD_EXPORT MemoryWindow : public KoruRegFile::BaseTransportMethodImpl {
 public:
  static constexpr uint8_t addrBlockSize = 4;

  // An empty path stands for memory of this process. Throws std::system_error when the file cannot
  // be used, and what reading the map throws.
  MemoryWindow(const char* csvPath, const std::string& filePath);
  ~MemoryWindow() override;

  // A window that was cut short under it throws SigbusException.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  volatile uint32_t* place(const char* regName) const;

  const Window window_;
};

}  // namespace Board
