#include "simulator/model/I2c.h"

#include <cerrno>
#include <optional>

#include "simulator/model/Ledger.h"

namespace Simulator {

uint8_t pecOf(uint8_t before, uint8_t byte) {
  unsigned check = before ^ byte;
  for (int bit = 0; bit < 8; ++bit) check = check << 1 ^ ((check & 0x80) != 0 ? 0x107u : 0u);
  return static_cast<uint8_t>(check);
}

void I2cChip::start(bool isRead) {
  endPhase();
  isReading_ = isRead;
  addressed_ = 0;
  address_ = 0;
  check_ = pecOf(check_, static_cast<uint8_t>(store_.row().address << 1 | (isRead ? 1 : 0)));
  // Without addresses, each phase begins with the first register.
  if (store_.row().addressBytes == 0) store_.state().pointer = 0;
}

bool I2cChip::take(uint8_t byte) {
  const ChipRow& row = store_.row();
  const bool isRight = byte == check_;
  check_ = pecOf(check_, byte);
  if (addressed_ < row.addressBytes) {
    address_ |= uint32_t{byte} << shiftOf(addressed_, row.addressBytes, row.addressLowFirst != 0);
    if (++addressed_ == row.addressBytes) store_.state().pointer = address_;
    return true;
  }
  return isWhole_ || isOver_ ? takeCheck(isRight) : takeValue(byte);
}

bool I2cChip::takeValue(uint8_t byte) {
  const ChipRow& row = store_.row();
  uint32_t& pointer = store_.state().pointer;
  const unsigned bytes = store_.bytesAt(pointer);
  value_ |= uint32_t{byte} << shiftOf(at_, bytes, row.valueLowFirst != 0);
  if (++at_ < bytes) return true;
  at_ = 0;
  isWhole_ = true;
  if (row.pec == 0) endPhase();
  return true;
}

// One value a transaction, and perhaps its check byte; a wrong one keeps the value out.
bool I2cChip::takeCheck(bool isRight) {
  if (isOver_) return false;
  isOver_ = true;
  if (!isRight) isWhole_ = false;
  return isRight;
}

uint8_t I2cChip::give() {
  const uint8_t byte = next();
  check_ = pecOf(check_, byte);
  return byte;
}

uint8_t I2cChip::next() {
  const ChipRow& row = store_.row();
  uint32_t& pointer = store_.state().pointer;
  if (isOver_) return 0xff;
  if (isWhole_) {  // the value has gone, and its check byte is next
    isOver_ = true;
    isWhole_ = false;
    return check_;
  }
  const unsigned bytes = store_.bytesAt(pointer);
  if (at_ == 0) value_ = store_.read(pointer);
  const auto byte = static_cast<uint8_t>(value_ >> shiftOf(at_, bytes, row.valueLowFirst != 0));
  if (++at_ < bytes) return byte;
  at_ = 0;
  value_ = 0;
  pointer = store_.after(pointer);
  isWhole_ = row.pec != 0;
  return byte;
}

// Takes over a value that was written whole; what is incomplete is dropped.
void I2cChip::endPhase() {
  uint32_t& pointer = store_.state().pointer;
  if (isWhole_ && !isReading_) {
    store_.write(pointer, value_);
    pointer = store_.after(pointer);
  }
  value_ = 0;
  at_ = 0;
  isWhole_ = false;
  isOver_ = false;
}

void I2cChip::stop() { endPhase(); }

namespace {

// The register that the messages from the first one on are about, for faults.
uint32_t registerOf(const ChipRow& row, const ChipState& state, std::span<const Message> messages) {
  const Message& first = messages.front();
  if (first.isRead || row.addressBytes == 0 || first.bytes.size() < row.addressBytes) {
    return row.addressBytes == 0 ? 0 : state.pointer;
  }
  uint32_t address = 0;
  for (unsigned i = 0; i < row.addressBytes; ++i) {
    address |= uint32_t{first.bytes[i]} << shiftOf(i, row.addressBytes, row.addressLowFirst != 0);
  }
  return address;
}

// A fault that is scripted for one of the messages' chips. Each chip counts the transaction once.
Outcome scriptedFault(Image& image, size_t node, std::span<const Message> messages) {
  for (size_t i = 0; i < messages.size(); ++i) {
    const unsigned address = messages[i].address;
    if (i > 0 && messages[i - 1].address == address) continue;
    const int chip = image.chipAt(node, address);
    if (chip < 0 || image.chipStates[static_cast<size_t>(chip)].unplugged != 0) continue;
    bool reads = false;
    for (size_t j = i; j < messages.size() && messages[j].address == address; ++j) {
      reads = reads || messages[j].isRead;
    }
    const ChipRow& row = image.chips[static_cast<size_t>(chip)];
    const uint32_t reg =
        registerOf(row, image.chipStates[static_cast<size_t>(chip)], messages.subspan(i));
    const FaultRow* fault = faultOf(image, row, reg, reads ? Direction::read : Direction::write);
    if (fault) return {static_cast<int>(fault->error), fault->error == 0};
  }
  return {};
}

// The bytes of one message; those read were not there before.
int exchange(I2cChip& chip, const Message& message, std::string& line) {
  chip.start(message.isRead);
  for (uint8_t& byte : message.bytes) {
    const bool isTaken = message.isRead || chip.take(byte);
    if (message.isRead) byte = chip.give();
    appendByte(line, byte);
    if (!isTaken) return EIO;
  }
  return 0;
}

}  // namespace

Outcome transfer(Image& image, size_t node, std::span<const Message> messages, std::string& line) {
  Outcome outcome = scriptedFault(image, node, messages);
  std::optional<I2cChip> chip;
  int current = -1;
  for (const Message& message : messages) {
    appendAddress(line, message.address, message.isRead);
    if (outcome.error != 0) continue;
    const int wanted = image.chipAt(node, message.address);
    if (wanted != current && chip) chip->stop();
    if (wanted < 0 || image.chipStates[static_cast<size_t>(wanted)].unplugged != 0) {
      chip.reset();
      outcome.error = ENXIO;
      break;
    }
    if (wanted != current) chip.emplace(image, static_cast<size_t>(wanted));
    current = wanted;
    outcome.error = exchange(*chip, message, line);
    if (outcome.error != 0) break;
  }
  if (chip) chip->stop();
  appendFailure(line, outcome.error, outcome.isShort);
  return outcome;
}

}  // namespace Simulator
