#include "Shoal/TableView.h"

#include <fmt/format.h>

#include <bit>

#include "Brio/CorruptionDetectedException.h"

namespace Shoal {

TableView::TableView(void* begin, const TableIdentity& identity) {
  auto* bytes = static_cast<std::byte*>(begin);
  header_ = reinterpret_cast<TableHeader*>(bytes);
  ring_ = reinterpret_cast<std::atomic<uint64_t>*>(bytes + tableHeaderSize);
  sequences_ = reinterpret_cast<SlotSequence*>(bytes + sequencesOffset(identity.ringCount));
  slots_ = reinterpret_cast<Slot*>(bytes + slotsOffset(identity.ringCount, identity.slotCount));
  mask_ = identity.slotCount - 1;
  indexShift_ = 64 - static_cast<unsigned>(std::countr_zero(identity.slotCount));
  ringMask_ = identity.ringCount - 1;
  keySeed_ = identity.uuid[0];
  placeSeed_ = identity.uuid[1];
}

TableView::Entry TableView::findFar(uint64_t key) const {
  const uint32_t first = firstIndex(key);
  for (uint32_t step = 0; step <= mask_; ++step) {
    const Entry entry = at(placeOf(first, step));
    if (entry.state == SlotState::empty || entry.key == key) return entry;
  }
  noEmptySlot();
}

std::vector<uint32_t> TableView::damagedSlots() const {
  std::vector<uint32_t> damaged;
  Entry entry;
  for (uint32_t index = 0; index <= mask_; ++index) {
    if (!read(index, entry)) damaged.push_back(index);
  }
  return damaged;
}

void TableView::damagedSlot(uint32_t index) const {
  throw Brio::CorruptionDetectedException(
      fmt::format("slot {} of {} holds something that was never stored", index, mask_ + 1));
}

void TableView::noEmptySlot() const {
  throw Brio::CorruptionDetectedException(
      fmt::format("a search has passed all {} slots without an end", mask_ + 1));
}

}  // namespace Shoal
