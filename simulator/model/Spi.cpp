#include "simulator/model/Spi.h"

#include <algorithm>
#include <cerrno>

#include "simulator/model/Ledger.h"

namespace Simulator {

namespace {

constexpr uint32_t anyMode = 4;
constexpr uint8_t silence = 0xff;

uint32_t wordOf(std::span<const uint8_t> bytes, bool lowFirst) {
  uint32_t word = 0;
  const auto count = static_cast<unsigned>(bytes.size());
  for (unsigned i = 0; i < count; ++i) word |= uint32_t{bytes[i]} << shiftOf(i, count, lowFirst);
  return word;
}

unsigned headBytes(const ChipRow& row) { return row.commandBytes + row.addressBytes; }

}  // namespace

SpiChip::SpiChip(Image& image, size_t chip, uint32_t mode)
    : store_(image, chip),
      isDeaf_(store_.row().mode != anyMode && store_.row().mode != (mode & 3)) {
  if (isDeaf_) return;
  next_ = store_.state().next;
  nextBytes_ = store_.state().nextBytes;
  store_.state().nextBytes = 0;
  if (headBytes(store_.row()) == 0) understand();
}

uint32_t SpiChip::addressIn(const ChipRow& row, std::span<const uint8_t> bytes) {
  if (bytes.size() < headBytes(row)) return 0;
  return wordOf(bytes.subspan(row.commandBytes, row.addressBytes), row.addressLowFirst != 0);
}

// The command stands in bytes of its own, or in the flags of the address.
Direction SpiChip::directionOf(const ChipRow& row, std::span<const uint8_t> bytes) {
  if (bytes.size() < headBytes(row)) return Direction::any;
  const uint32_t command = row.commandBytes > 0 ? wordOf(bytes.first(row.commandBytes), false)
                                                : addressIn(row, bytes) & ~row.addressMask;
  if (row.hasRead && command == row.readCommand) return Direction::read;
  if (!row.hasWrite || command == row.writeCommand) return Direction::write;
  return Direction::any;
}

void SpiChip::understand() {
  const std::span<const uint8_t> head(head_, headBytes(store_.row()));
  direction_ = directionOf(store_.row(), head);
  address_ = addressIn(store_.row(), head);
}

uint8_t SpiChip::exchange(uint8_t out) {
  if (isDeaf_) return silence;
  const ChipRow& row = store_.row();
  if (headed_ < headBytes(row)) {
    head_[headed_] = out;
    if (++headed_ == headBytes(row)) understand();
    return silence;
  }
  if (direction_ == Direction::read && dummies_ < row.dummyBytes) {
    ++dummies_;
    return silence;
  }
  return answer(out);
}

uint8_t SpiChip::answer(uint8_t out) {
  const ChipRow& row = store_.row();
  uint8_t in = silence;
  if (answered_ < nextBytes_) {
    in = static_cast<uint8_t>(next_ >> shiftOf(answered_++, nextBytes_, row.valueLowFirst != 0));
  }
  if (direction_ == Direction::any) return in;
  const bool isRead = direction_ == Direction::read;
  if (isRead && row.answer == Answer::next) return in;
  const unsigned bytes = store_.bytesAt(address_);
  const unsigned shift = shiftOf(at_, bytes, row.valueLowFirst != 0);
  if (isRead && at_ == 0) value_ = store_.read(address_);
  if (isRead) in = static_cast<uint8_t>(value_ >> shift);
  if (!isRead) value_ |= uint32_t{out} << shift;
  if (++at_ < bytes) return in;
  if (!isRead) store_.write(address_, value_);
  at_ = 0;
  value_ = 0;
  address_ = store_.after(address_);
  return in;
}

void SpiChip::end() {
  if (isDeaf_ || direction_ != Direction::read || store_.row().answer != Answer::next) return;
  store_.state().next = store_.read(address_);
  store_.state().nextBytes = store_.bytesAt(address_);
}

Outcome exchange(Image& image, size_t node, std::span<uint8_t> bytes, std::string& line) {
  Outcome outcome;
  line += " >";
  for (const uint8_t byte : bytes) appendByte(line, byte);
  const int found = image.chipAt(node, 0);
  const auto index = static_cast<size_t>(std::max(found, 0));
  if (found >= 0 && image.chipStates[index].unplugged == 0) {
    const ChipRow& row = image.chips[index];
    const FaultRow* fault =
        faultOf(image, row, SpiChip::addressIn(row, bytes), SpiChip::directionOf(row, bytes));
    if (fault) outcome = {static_cast<int>(fault->error), fault->error == 0};
    if (outcome.error == 0) {
      SpiChip chip(image, index, image.nodeStates[node].mode);
      for (uint8_t& byte : bytes) byte = chip.exchange(byte);
      chip.end();
    }
  } else {
    std::ranges::fill(bytes, silence);  // nobody drives the line, and nobody knows
  }
  if (outcome.error == 0) {
    line += " <";
    for (const uint8_t byte : bytes) appendByte(line, byte);
  }
  appendFailure(line, outcome.error, outcome.isShort);
  return outcome;
}

}  // namespace Simulator
