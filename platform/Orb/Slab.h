#pragma once

// Memory for many objects of one type: they never move, and a position of four bytes finds each.
// Places of destroyed objects are used again; memory is given back when the slab goes. The owner
// destroys every object. Used on one thread.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Orb/Fetch.h"

namespace Orb {

template <class T>
class Slab {
 public:
  Slab() = default;
  Slab(const Slab&) = delete;
  Slab& operator=(const Slab&) = delete;

  T& operator[](uint32_t position) { return *std::launder(reinterpret_cast<T*>(at(position))); }
  const T& operator[](uint32_t position) const {
    return *std::launder(reinterpret_cast<const T*>(at(position)));
  }

  // Asks for the memory that says where the objects are.
  void fetch() const {
    if (!chunks_.empty()) fetchLine(chunks_.data());
  }

  // Throws std::length_error beyond 2^32 - 2 objects, and what T's constructor throws.
  template <class... Args>
  uint32_t create(Args&&... args) {
    const bool again = free_ != none;
    const uint32_t position = again ? free_ : used_;
    if (!again) makeRoom();
    Place* place = at(position);
    const uint32_t nextFree = again ? place->nextFree : none;
    new (place->object) T{std::forward<Args>(args)...};
    free_ = nextFree;
    if (!again) ++used_;
    return position;
  }
  void destroy(uint32_t position) {
    (*this)[position].~T();
    at(position)->nextFree = free_;
    free_ = position;
  }

 private:
  union Place {
    Place() {}
    uint32_t nextFree;
    alignas(T) std::byte object[sizeof(T)];
  };
  static constexpr uint32_t none = UINT32_MAX;
  static constexpr uint32_t firstChunk = 4;

  // Chunk c has firstChunk << c places.
  Place* at(uint32_t position) const {
    const uint32_t counted = position + firstChunk;
    const auto chunk = static_cast<uint32_t>(std::bit_width(counted / firstChunk)) - 1;
    return &chunks_[chunk][counted - (firstChunk << chunk)];
  }
  void makeRoom() {
    if (used_ > none - firstChunk - 1) throw std::length_error("too many objects in a slab");
    const size_t chunk = static_cast<size_t>(std::bit_width((used_ + firstChunk) / firstChunk)) - 1;
    if (chunk < chunks_.size()) return;
    chunks_.push_back(std::make_unique_for_overwrite<Place[]>(size_t{firstChunk} << chunk));
  }

  std::vector<std::unique_ptr<Place[]>> chunks_;
  uint32_t used_ = 0;  // places that have ever held an object
  uint32_t free_ = none;
};

}  // namespace Orb
