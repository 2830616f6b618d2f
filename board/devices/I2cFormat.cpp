#include "board/devices/I2cFormat.h"

#include <fmt/format.h>

namespace Board {

namespace {

ByteOrder orderOf(const SettingsReader& settings, std::string_view key) {
  return settings.word(key, {"high-first", "low-first"}) == 0 ? ByteOrder::highFirst
                                                              : ByteOrder::lowFirst;
}

}  // namespace

std::shared_ptr<const I2cFormat> I2cFormat::of(const FormatSettings& given) {
  const SettingsReader settings(given, {"address_bits", "value_bits", "address_order",
                                        "value_order", "address_flags", "pec"});
  const auto format = std::make_shared<I2cFormat>();
  format->addressBits = settings.oneOf("address_bits", {0, 8, 16, 24, 32}, 8);
  format->registerBits = settings.oneOf("value_bits", {8, 16, 24, 32}, 0);
  format->addressOrder = orderOf(settings, "address_order");
  format->valueOrder = orderOf(settings, "value_order");
  format->addressFlags = settings.number("address_flags", 0, maskOf(format->addressBits), 0);
  format->pec = settings.flag("pec");
  return format;
}

std::optional<std::string> I2cFormat::whyNot(const KoruRegFile::Register& reg) const {
  if (reg.address > maskOf(addressBits)) {
    return fmt::format("its address {:#x} has more than the {} bits of the format", reg.address,
                       addressBits);
  }
  if ((reg.address & addressFlags) != 0) {
    return fmt::format("its address {:#x} has bits of the address_flags {:#x}", reg.address,
                       addressFlags);
  }
  return whyNotWidth(reg, registerBits);
}

I2cFormat::Message I2cFormat::readMessage(uint32_t address, unsigned width) const {
  Message message{};
  message.size = static_cast<uint8_t>(addressBits / 8);
  message.awaited = static_cast<uint8_t>(bytesOf(width));
  putNumber({message.bytes.data(), message.size}, address | addressFlags, addressOrder);
  return message;
}

I2cFormat::Message I2cFormat::writeMessage(uint32_t address, unsigned width, uint32_t value) const {
  Message message = readMessage(address, width);
  putNumber({message.bytes.data() + message.size, message.awaited}, value, valueOrder);
  message.size = static_cast<uint8_t>(message.size + message.awaited);
  message.awaited = 0;
  return message;
}

uint32_t I2cFormat::valueOf(std::span<const uint8_t> bytes, unsigned width) const {
  return numberOf(bytes, valueOrder) & maskOf(width);
}

}  // namespace Board
