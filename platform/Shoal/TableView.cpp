#include "Shoal/TableView.h"

#include <fmt/format.h>

#include "Brio/CorruptionDetectedException.h"

namespace Shoal {

TableView::TableView(void* begin) {
  auto* bytes = static_cast<std::byte*>(begin);
  header_ = reinterpret_cast<TableHeader*>(bytes);
  const TableIdentity& identity = header_->identity;
  ring_ = reinterpret_cast<std::atomic<uint64_t>*>(bytes + tableHeaderSize);
  slots_ = reinterpret_cast<Slot*>(bytes + tableHeaderSize + identity.ringCount * sizeof(uint64_t));
  mask_ = identity.slotCount - 1;
  ringMask_ = identity.ringCount - 1;
  keySeed_ = identity.uuid[0];
  placeSeed_ = identity.uuid[1];
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
