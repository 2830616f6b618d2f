#pragma once

// Finds positions in an array by the hash of what lies there; the keys themselves stay in the
// array. A slot has four bytes, a position and the part of its hash that the slot's own place does
// not tell already, so that a look-up touches one cache line and then nearly always the right
// object and no other. Used by collections and register maps, which have very many entries and are
// asked at random. One thread may change it, or any number ask.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Orb/Fetch.h"
#include "Orb/Spread.h"

namespace Orb {

class PositionIndex {
 public:
  static constexpr uint32_t none = UINT32_MAX;

  PositionIndex() = default;
  PositionIndex(const PositionIndex&) = delete;
  PositionIndex& operator=(const PositionIndex&) = delete;

  size_t size() const { return size_; }

  // The position of that hash for which `isIt(position)` holds, or none.
  template <class IsIt>
  uint32_t find(size_t hash, const IsIt& isIt) const {
    if (size_ == 0) return none;
    const uint32_t spread = spreadOf(hash);
    for (uint32_t place = homeOf(spread);; place = next(place)) {
      const uint32_t slot = slots_[place];
      if (slot == 0) return none;
      if (isOf(slot, spread) && isIt(positionIn(slot))) return positionIn(slot);
    }
  }

  // The position of that hash, most likely, or none; looks at nothing but the index.
  uint32_t likely(size_t hash) const {
    return find(hash, [](uint32_t) { return true; });
  }
  // Asks for the memory in which a search begins.
  void fetch(size_t hash) const {
    if (size_ != 0) fetchLine(&slots_[homeOf(spreadOf(hash))]);
  }

  // Adds a position that is not there yet. `hashAt(position)` gives the hash of each that is.
  // Positions must be small numbers: the memory grows with the largest. Throws std::bad_alloc, and
  // std::length_error beyond 2^30 of them; nothing has changed then.
  template <class HashAt>
  void insert(size_t hash, uint32_t position, const HashAt& hashAt) {
    while (size_ >= limit() || position >= mask()) grow(hashAt);
    put(spreadOf(hash), position);
    ++size_;
  }

  // Removes a position that is there.
  template <class HashAt>
  void erase(size_t hash, uint32_t position, const HashAt& hashAt) {
    uint32_t gap = homeOf(spreadOf(hash));
    while (positionIn(slots_[gap]) != position) gap = next(gap);
    // What a search would no longer reach beyond the gap moves into it.
    for (uint32_t place = next(gap); slots_[place] != 0; place = next(place)) {
      const uint32_t home = homeOf(spreadOf(hashAt(positionIn(slots_[place]))));
      if (distance(home, place) < distance(gap, place)) continue;
      slots_[std::exchange(gap, place)] = slots_[place];
    }
    slots_[gap] = 0;
    --size_;
  }

 private:
  static constexpr uint32_t fewestBits = 2;
  static constexpr uint32_t mostBits = 31;

  // The upper bits say where a search begins, the others stand in the slot.
  static uint32_t spreadOf(size_t hash) { return static_cast<uint32_t>(spread(hash) >> 32); }
  uint32_t homeOf(uint32_t spread) const { return spread >> (32 - bits_); }
  bool isOf(uint32_t slot, uint32_t spread) const {
    return ((slot ^ spread << bits_) & ~mask()) == 0;
  }
  // An empty slot is 0.
  uint32_t positionIn(uint32_t slot) const { return (slot & mask()) - 1; }
  uint32_t mask() const { return (uint32_t{1} << bits_) - 1; }
  uint32_t next(uint32_t place) const { return (place + 1) & mask(); }
  uint32_t distance(uint32_t from, uint32_t to) const { return (to - from) & mask(); }
  // Full at 13/16.
  size_t limit() const { return slots_ ? (size_t{13} << bits_) / 16 : 0; }

  void put(uint32_t spread, uint32_t position) {
    uint32_t place = homeOf(spread);
    while (slots_[place] != 0) place = next(place);
    slots_[place] = spread << bits_ | (position + 1);
  }
  template <class HashAt>
  void grow(const HashAt& hashAt) {
    const uint32_t bits = slots_ ? bits_ + 1 : fewestBits;
    if (bits > mostBits) throw std::length_error("too many positions in an index");
    const uint32_t before = slots_ ? mask() + 1 : 0;
    const auto old = std::exchange(slots_, std::make_unique<uint32_t[]>(size_t{1} << bits));
    const uint32_t oldMask = mask();
    bits_ = bits;
    for (uint32_t place = 0; place < before; ++place) {
      if (old[place] == 0) continue;
      const uint32_t position = (old[place] & oldMask) - 1;
      put(spreadOf(hashAt(position)), position);
    }
  }

  std::unique_ptr<uint32_t[]> slots_;
  uint32_t bits_ = fewestBits;
  uint32_t size_ = 0;
};

}  // namespace Orb
