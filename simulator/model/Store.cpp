#include "simulator/model/Store.h"

#include <algorithm>

namespace Simulator {

int Store::registerAt(uint32_t address) const {
  const auto rows = image_.registers.subspan(row_.firstRegister, row_.registers);
  const uint32_t wanted = address & row_.addressMask;
  const auto found =
      std::lower_bound(rows.begin(), rows.end(), wanted,
                       [](const RegisterRow& each, uint32_t at) { return each.at < at; });
  if (found == rows.end() || found->at != wanted) return -1;
  return static_cast<int>(found - rows.begin()) + static_cast<int>(row_.firstRegister);
}

unsigned Store::bytesAt(uint32_t address) const {
  if (row_.memory != 0) return 1;
  const int index = registerAt(address);
  return index < 0 ? row_.valueBytes : image_.registers[static_cast<size_t>(index)].bytes;
}

// Memory goes round.
uint8_t& Store::memoryAt(uint32_t address) const {
  return image_.memory[row_.memoryAt + (address & row_.addressMask) % row_.memory];
}

uint32_t Store::look(uint32_t address) const {
  if (row_.memory != 0) return memoryAt(address);
  const int index = registerAt(address);
  return index < 0 ? ~uint32_t{0} : image_.values[static_cast<size_t>(index)];
}

void Store::put(uint32_t address, uint32_t value) {
  if (row_.memory != 0) {
    memoryAt(address) = static_cast<uint8_t>(value);
    return;
  }
  const int index = registerAt(address);
  if (index >= 0) image_.values[static_cast<size_t>(index)] = value;
}

uint32_t Store::read(uint32_t address) {
  const uint32_t value = look(address);
  const int index = row_.memory != 0 ? -1 : registerAt(address);
  if (index < 0) return value;
  const RegisterRow& reg = image_.registers[static_cast<size_t>(index)];
  image_.values[static_cast<size_t>(index)] &= ~reg.readToClear;
  return reg.access == Access::writeOnly ? 0 : value;
}

void Store::write(uint32_t address, uint32_t value) {
  if (row_.memory != 0) return put(address, value);
  const int index = registerAt(address);
  if (index < 0) return;
  const RegisterRow& reg = image_.registers[static_cast<size_t>(index)];
  if (reg.access == Access::readOnly) return;
  const uint32_t old = image_.values[static_cast<size_t>(index)];
  const uint32_t kept = old & reg.writeOneToClear & ~value;
  put(address, (((value & ~reg.writeOneToClear) | kept) & reg.mask) & ~reg.clears);
}

uint32_t Store::after(uint32_t address) const {
  const uint32_t flags = address & ~row_.addressMask;
  if (row_.increment == Increment::never) return address;
  if (row_.increment == Increment::flagged &&
      (flags & row_.incrementFlags) != row_.incrementFlags) {
    return address;
  }
  return flags | ((address + row_.addressStep) & row_.addressMask);
}

const FaultRow* faultOf(Image& image, const ChipRow& chip, uint32_t reg, Direction direction) {
  const FaultRow* due = nullptr;
  for (uint32_t i = chip.firstFault; i < chip.firstFault + chip.faults; ++i) {
    const FaultRow& fault = image.faults[i];
    if (fault.hasRegister && fault.reg != (reg & chip.addressMask)) continue;
    if (fault.direction != Direction::any && fault.direction != direction) continue;
    const uint32_t number = ++image.faultCounts[i];
    const bool isDue =
        number >= fault.from && (fault.count == 0 || number - fault.from < fault.count);
    if (isDue && due == nullptr) due = &fault;
  }
  return due;
}

}  // namespace Simulator
