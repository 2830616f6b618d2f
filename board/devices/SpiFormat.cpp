#include "board/devices/SpiFormat.h"

#include <fmt/format.h>

namespace Board {

namespace {

constexpr uint32_t highestSpeed = 500'000'000;

// Puts numbers behind each other, bit by bit.
class BitWriter {
 public:
  explicit BitWriter(std::span<uint8_t> bytes) : bytes_(bytes) {}
  void put(uint32_t number, unsigned bits) {
    while (bits-- > 0) {
      if ((number >> bits & 1) != 0) {
        bytes_[at_ / 8] = static_cast<uint8_t>(bytes_[at_ / 8] | 0x80 >> at_ % 8);
      }
      ++at_;
    }
  }

 private:
  const std::span<uint8_t> bytes_;
  size_t at_ = 0;
};

// The same bytes from the other end.
uint32_t reversed(uint32_t value, unsigned bytes) {
  uint8_t raw[4];
  putNumber({raw, bytes}, value, ByteOrder::lowFirst);
  return numberOf({raw, bytes}, ByteOrder::highFirst);
}

void requireWholeBytes(const SpiFormat& format) {
  const unsigned bits = format.commandBits + format.addressBits + format.registerBits;
  if (bits % 8 != 0) {
    throw FormatError(format.registerBits != 0 ? "value_bits" : "address_bits",
                      fmt::format("has to fill whole bytes together with the other parts of a "
                                  "message, which has {} bits{}",
                                  bits, format.registerBits != 0 ? "" : " before the value"));
  }
  if (format.dummyBits % 8 != 0) throw FormatError("dummy_bits", "has to be whole bytes");
  if (format.valueOrder == ByteOrder::lowFirst && format.registerBits % 8 != 0) {
    throw FormatError("value_order", "has to be high-first for values that are no whole bytes");
  }
}

}  // namespace

std::shared_ptr<const SpiFormat> SpiFormat::of(const FormatSettings& given) {
  const SettingsReader settings(
      given, {"mode", "lsb_first", "speed", "command_bits", "read_command", "write_command",
              "address_bits", "dummy_bits", "value_bits", "value_order", "answer"});
  const auto format = std::make_shared<SpiFormat>();
  format->mode = settings.number("mode", 0, 3, 0);
  format->lowBitFirst = settings.flag("lsb_first");
  format->speed = settings.number("speed", 1, highestSpeed, 0);
  format->commandBits = settings.number("command_bits", 0, 16, 0);
  const uint32_t highest = maskOf(format->commandBits);
  if (settings.has("read_command")) {
    format->readCommand = settings.number("read_command", 0, highest, 0);
  }
  format->writeCommand = settings.number("write_command", 0, highest, 0);
  format->addressBits = settings.number("address_bits", 0, 32, 8);
  format->dummyBits = settings.number("dummy_bits", 0, 32, 0);
  format->registerBits = settings.number("value_bits", 1, 32, 0);
  format->valueOrder = settings.word("value_order", {"high-first", "low-first"}) == 0
                           ? ByteOrder::highFirst
                           : ByteOrder::lowFirst;
  format->answer = settings.word("answer", {"same", "next"}) == 0 ? Answer::same : Answer::next;
  requireWholeBytes(*format);
  return format;
}

std::optional<std::string> SpiFormat::whyNot(const KoruRegFile::Register& reg) const {
  if (reg.address > maskOf(addressBits)) {
    return fmt::format("its address {:#x} has more than the {} bits of the format", reg.address,
                       addressBits);
  }
  if (reg.writeable && readCommand && *readCommand == writeCommand) {
    return "its writes are the same messages as its reads: say write_command";
  }
  return whyNotWidth(reg, registerBits);
}

std::optional<std::string> SpiFormat::whyNotRead() const {
  if (readCommand) return std::nullopt;
  return "the chip takes writes only, as its format has no read_command";
}

SpiFormat::Message SpiFormat::message(uint32_t command, uint32_t address, bool isRead,
                                      unsigned width, uint32_t value) const {
  Message message{};
  const unsigned valueSize = sentBits(width);
  message.size = static_cast<uint8_t>(
      bytesOf(commandBits + addressBits + (isRead ? dummyBits : 0) + valueSize));
  BitWriter bits({message.bytes.data(), message.size});
  bits.put(command, commandBits);
  bits.put(address, addressBits);
  if (isRead) bits.put(0, dummyBits);
  bits.put(valueOrder == ByteOrder::highFirst ? value : reversed(value, valueSize / 8), valueSize);
  return message;
}

SpiFormat::Message SpiFormat::readMessage(uint32_t address, unsigned width) const {
  return message(*readCommand, address, true, width, 0);
}

SpiFormat::Message SpiFormat::writeMessage(uint32_t address, unsigned width, uint32_t value) const {
  return message(writeCommand, address, false, width, value);
}

uint32_t SpiFormat::valueOf(std::span<const uint8_t> bytes, unsigned width) const {
  return numberOf(bytes.last(bytesOf(sentBits(width))), valueOrder) & maskOf(width);
}

}  // namespace Board
