#pragma once

// Reading a mapped table: find a key, look at a slot, verify all. Every slot that is touched is
// verified. Holds no state of its own beyond where the table lies; internal to Shoal, and on the
// hot path of every look-up.

#include <cstdint>
#include <vector>

#include "Orb/Export.h"
#include "Orb/Fetch.h"
#include "Orb/Spread.h"
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

  constexpr TableView() = default;
  // Of a mapped table, with the identity that was verified.
  TableView(void* begin, const TableIdentity& identity);

  // False for the view of no table, in which nothing may be looked up.
  explicit operator bool() const { return slots_ != nullptr; }
  TableHeader& header() const { return *header_; }
  uint32_t slotCount() const { return mask_ + 1; }
  Slot& slot(uint32_t index) const { return slots_[index]; }
  SlotSequence& slotSequence(uint32_t index) const { return sequences_[index]; }
  std::atomic<uint64_t>& ringEntry(uint64_t sequence) const { return ring_[sequence & ringMask_]; }

  // The slot of the key, or the empty slot where a search for it ends. Throws
  // Brio::CorruptionDetectedException when a slot on the way is damaged.
  Entry find(uint64_t key) const {
    Entry entry;
    return findNear(key, entry) ? entry : findFar(key);
  }

  bool findNear(uint64_t key, Entry& entry) const {
    uint64_t word;
    const bool isFound = findNear(key, entry.index, word);
    entry = {entry.index, wordState(word), key, wordValue(word)};
    return isFound;
  }

  // Finds a key in the first places of its search, where nine in ten are, and gives the slot and
  // its word. False when it takes findFar() to find the key, the end or the damage: an empty slot,
  // too, may look damaged here, since its check leaves the key out.
  bool findNear(uint64_t key, uint32_t& index, uint64_t& word) const {
    const uint32_t first = firstIndex(key);
#pragma GCC unroll 2
    for (uint32_t step = 0; step < nearSteps; ++step) {
      index = placeOf(first, step);
      const Content found = content(index);
      word = found.word;
      if (misses(found, index) != 0) [[unlikely]]
        return false;
      if (found.key == key) [[likely]]
        return true;
    }
    return false;
  }

  Entry findFar(uint64_t key) const;

  // Asks for what a change of the key will most likely touch.
  void fetchToWrite(uint64_t key) const {
    const uint32_t first = firstIndex(key);
    Orb::fetchLineToWrite(&slots_[first]);
    Orb::fetchLineToWrite(&sequences_[first]);
  }
  // The same, for the change after number `sequence`, and for the ring's line that comes next.
  void fetchToWrite(uint64_t key, uint64_t sequence) const {
    fetchToWrite(key);
    Orb::fetchLineToWrite(&ringEntry(sequence + ringFetchAhead));
  }

  // One slot; throws Brio::CorruptionDetectedException when it is damaged.
  Entry at(uint32_t index) const {
    Entry entry;
    if (!read(index, entry)) damagedSlot(index);
    return entry;
  }

  // One slot; false when it is damaged.
  bool read(uint32_t index, Entry& entry) const {
    const Content found = content(index);
    const SlotState state = wordState(found.word);
    entry = {index, state, found.key, wordValue(found.word)};
    return state != SlotState::invalid && misses({checkedKey(entry), found.word}, index) == 0;
  }

  // The indexes of all damaged slots.
  std::vector<uint32_t> damagedSlots() const;

  // The word that says so in a slot of this table.
  uint64_t word(uint64_t key, uint32_t value, SlotState state, uint32_t index) const {
    const uint64_t contents = packContents(value, state);
    const uint64_t check = product(checkedKey({index, state, key, value}), contents, index);
    return contents | check >> checkShift << checkShift;
  }

 private:
  static constexpr uint32_t nearSteps = 2;
  static constexpr uint64_t ringFetchAhead = 16;  // two lines

  // What lies in a slot, sound or not.
  struct Content {
    uint64_t key;
    uint64_t word;
  };
  Content content(uint32_t index) const {
    const Slot& slot = slots_[index];
    const uint64_t word = slot.word.load(std::memory_order_acquire);
    return {slot.key.load(std::memory_order_relaxed), word};
  }

  // An empty slot's check leaves the key out: a key stored just before its writer was killed leaves
  // a sound empty slot behind.
  static uint64_t checkedKey(const Entry& entry) {
    return entry.state == SlotState::empty ? 0 : entry.key;
  }
  // The folded 128-bit product of the key and of value, state and place, each blinded by the file's
  // own random numbers; its upper 30 bits are the check in a word. As good as a hash at telling
  // damage, at a fraction of its time.
  uint64_t product(uint64_t key, uint64_t contents, uint64_t index) const {
    return Orb::foldedProduct(key ^ keySeed_, contents ^ placeSeed_ ^ index << checkShift);
  }
  // The bits of a word's check that are not as they should be.
  uint64_t misses(const Content& found, uint64_t index) const {
    return (product(found.key, wordContents(found.word), index) ^ found.word) >> checkShift;
  }
  // Where the search for a key begins.
  uint32_t firstIndex(uint64_t key) const {
    return static_cast<uint32_t>(Orb::spread(key) >> indexShift_);
  }
  // Where a search that began at `first` is after so many steps: it visits a whole line before it
  // goes on to the next one.
  uint32_t placeOf(uint32_t first, uint32_t step) const {
    const uint32_t inLine = step % lineSlots;
    return ((first + step - inLine) & mask_) ^ inLine;
  }
  [[noreturn]] void damagedSlot(uint32_t index) const;
  [[noreturn]] void noEmptySlot() const;

  TableHeader* header_ = nullptr;
  std::atomic<uint64_t>* ring_ = nullptr;
  SlotSequence* sequences_ = nullptr;
  Slot* slots_ = nullptr;
  uint32_t mask_ = 0;
  unsigned indexShift_ = 0;
  uint64_t ringMask_ = 0;
  uint64_t keySeed_ = 0;
  uint64_t placeSeed_ = 0;
};

}  // namespace Shoal
