#pragma once

// Reading a mapped table: find a key, look at a slot, verify all. Every slot that is touched is
// verified. Holds no state of its own beyond where the table lies; internal to Shoal, and on the
// hot path of every look-up.

#include <cstdint>
#include <vector>

#include "Orb/Export.h"
#include "Shoal/Layout.h"

namespace Shoal {

class ORB_EXPORT TableView {
 public:
  struct Entry {
    uint32_t index;
    SlotState state;
    uint64_t key;
    uint32_t value;
  };

  TableView() = default;
  // `begin` is a mapped table whose identity has been verified.
  explicit TableView(void* begin);

  TableHeader& header() const { return *header_; }
  uint32_t slotCount() const { return mask_ + 1; }
  Slot& slot(uint32_t index) const { return slots_[index]; }
  std::atomic<uint64_t>& ringEntry(uint64_t sequence) const { return ring_[sequence & ringMask_]; }

  // The slot of the key, or the empty slot where a search for it ends. Throws
  // Brio::CorruptionDetectedException when a slot on the way is damaged.
  Entry find(uint64_t key) const {
    uint32_t index = firstIndex(key);
    for (uint32_t passed = 0; passed <= mask_; ++passed) {
      const Entry entry = at(index);
      if (entry.state == SlotState::empty || entry.key == key) return entry;
      index = (index + 1) & mask_;
    }
    noEmptySlot();
  }

  // One slot; throws Brio::CorruptionDetectedException when it is damaged.
  Entry at(uint32_t index) const {
    Entry entry;
    if (!read(index, entry)) damagedSlot(index);
    return entry;
  }

  // One slot; false when it is damaged.
  bool read(uint32_t index, Entry& entry) const {
    const Slot& slot = slots_[index];
    const uint64_t word = slot.word.load(std::memory_order_acquire);
    const SlotState state = wordState(word);
    const uint64_t key = slot.key.load(std::memory_order_relaxed);
    entry = {index, state, key, wordValue(word)};
    return state != SlotState::invalid &&
           wordCheck(word) == check(key, wordValue(word), state, index);
  }

  // The indexes of all damaged slots.
  std::vector<uint32_t> damagedSlots() const;

  uint64_t word(uint64_t key, uint32_t value, SlotState state, uint32_t index) const {
    return packWord(value, state, check(key, value, state, index));
  }

 private:
  static constexpr uint64_t goldenRatio = 0x9E3779B97F4A7C15;

  // 30 bits of the folded 128-bit product of the key and of value, state and place, each blinded by
  // the file's own random numbers: as good as a hash at telling damage, at a fraction of its time.
  // An empty slot's check leaves the key out: a key stored just before its writer was killed leaves
  // a sound empty slot behind.
  uint32_t check(uint64_t key, uint32_t value, SlotState state, uint32_t index) const {
    const uint64_t what = (state == SlotState::empty ? 0 : key) ^ keySeed_;
    const uint64_t how = packWord(value, state, 0) ^ (placeSeed_ + index * goldenRatio);
    return static_cast<uint32_t>(foldedProduct(what, how) >> 34);
  }
  uint32_t firstIndex(uint64_t key) const {
    return static_cast<uint32_t>(foldedProduct(key ^ goldenRatio, 0xD6E8FEB86659FD93)) & mask_;
  }
  static uint64_t foldedProduct(uint64_t a, uint64_t b) {
    const auto product = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
  }
  [[noreturn]] void damagedSlot(uint32_t index) const;
  [[noreturn]] void noEmptySlot() const;

  TableHeader* header_ = nullptr;
  std::atomic<uint64_t>* ring_ = nullptr;
  Slot* slots_ = nullptr;
  uint32_t mask_ = 0;
  uint64_t ringMask_ = 0;
  uint64_t keySeed_ = 0;
  uint64_t placeSeed_ = 0;
};

}  // namespace Shoal
