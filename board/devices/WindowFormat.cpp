#include "board/devices/WindowFormat.h"

#include <fmt/format.h>

namespace Board {

std::shared_ptr<const WindowFormat> WindowFormat::of(const FormatSettings& given,
                                                     uint32_t lastAddress) {
  const SettingsReader settings(given, {"value_bits", "stride", "value_order"});
  const auto format = std::make_shared<WindowFormat>();
  format->registerBits = settings.oneOf("value_bits", {8, 16, 32}, 0);
  format->stride = settings.oneOf("stride", {1, 2, 4, 8}, 4);
  format->valueOrder = settings.word("value_order", {"low-first", "high-first"}) == 0
                           ? ByteOrder::lowFirst
                           : ByteOrder::highFirst;
  format->lastAddress = lastAddress;
  return format;
}

std::optional<std::string> WindowFormat::whyNot(const KoruRegFile::Register& reg) const {
  if (reg.address > lastAddress) {
    return fmt::format("a memory window ends at {:#x}, its address is {:#x}", lastAddress,
                       reg.address);
  }
  if (const auto why = whyNotWidth(reg, registerBits)) return why;
  const unsigned bytes = bytesOf(reg.width);
  if (bytes == 3) return "it has 24 bits, and there are accesses of 8, 16 and 32";
  if (reg.address % bytes != 0) {
    return fmt::format("its address {:#x} is no multiple of its {} bytes", reg.address, bytes);
  }
  return std::nullopt;
}

}  // namespace Board
