#pragma once

// A chip's own format in a mapped window: how far its registers lie apart, how wide an access is,
// and its byte order. A plain value; any thread.

#include <cstdint>
#include <memory>

#include "board/devices/Bytes.h"
#include "board/devices/Format.h"

namespace Board {

struct BOARD_EXPORT WindowFormat : Format {
  unsigned registerBits = 0;  // 8, 16 or 32, or 0: each register has its own width
  unsigned stride = 4;        // bytes that a number of the map stands for: 1, 2, 4 or 8
  ByteOrder valueOrder = ByteOrder::lowFirst;
  uint32_t lastAddress = UINT32_MAX;  // that a register may have

  // Throws FormatError.
  static std::shared_ptr<const WindowFormat> of(const FormatSettings& settings,
                                                uint32_t lastAddress = UINT32_MAX);

  std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const override;
  unsigned valueBits() const override { return registerBits; }
};

}  // namespace Board
