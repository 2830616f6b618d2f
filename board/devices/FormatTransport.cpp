#include "board/devices/FormatTransport.h"

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "board/devices/Bytes.h"
#include "board/devices/internal/Callbacks.h"

namespace Board {

using namespace KoruRegFile;

void requireNoWraps(const char* csvPath, uint8_t addrBlockSize) {
  if (addrBlockSize == 1) return;
  std::error_code error;
  if (!std::filesystem::is_regular_file(csvPath, error)) return;  // a pipe is read once only
  const RegisterFile numbers(csvPath, 1);
  for (const Register& reg : numbers.registers()) {
    if (reg.address <= UINT32_MAX / addrBlockSize) continue;
    throw RegisterFileError(fmt::format("the address of {} exceeds 32 bits: {} times the stride {}",
                                        reg.name, reg.address, addrBlockSize));
  }
}

FormatTransport::FormatTransport(const MapSource& map, uint8_t addrBlockSize)
    : BaseTransportMethodImpl(map.csvPath, addrBlockSize, map.model) {
  requireNoWraps(map.csvPath, addrBlockSize);
}
FormatTransport::~FormatTransport() = default;

FormatTransport::HardwareRegister FormatTransport::registerToCarry(const char* regName,
                                                                   const Format& format,
                                                                   bool isWritten) const {
  auto reg = regFileHelper()->findRegisterByName(regName);
  Register asked;
  asked.address = reg.address;
  asked.width = reg.width;
  asked.writeable = isWritten;
  if (const auto why = format.whyNot(asked)) {
    throw TransportError(fmt::format("register {} cannot be carried: {}", regName, *why), ERANGE);
  }
  return reg;
}

FormatTransport::HardwareRegister FormatTransport::registerToRead(const char* regName,
                                                                  const Format& format) const {
  return registerToCarry(regName, format, false);
}

FormatTransport::HardwareRegister FormatTransport::registerToWrite(const char* regName,
                                                                   uint32_t value,
                                                                   const Format& format) const {
  auto reg = registerToCarry(regName, format, true);
  if (value > maskOf(reg.width)) {
    throw TransportError(
        fmt::format("{:#x} has more than the {} bits of register {}", value, reg.width, regName),
        ERANGE);
  }
  return reg;
}

void QueuedFormatTransport::regReadWithCallback(const char* regName, RegReadCallback callback) {
  if (callback) regReadWithOutcome(regName, outcomeOf(regName, std::move(callback)));
}

void QueuedFormatTransport::regWriteWithCallback(const char* regName, uint32_t value,
                                                 RegWriteCallback callback) {
  regWriteWithOutcome(regName, value,
                      callback ? outcomeOf(regName, std::move(callback)) : AccessCallback());
}

}  // namespace Board
