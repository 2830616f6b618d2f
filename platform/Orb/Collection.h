#pragma once

// A keyed collection: the values of a multi-valued attribute. Iteration is in insertion order
// (overwriting keeps the place), so that runs are reproducible. Inserting while iterating is fine,
// as is deleting any entry but the one that the iteration is at; entries never move. Used on one
// thread.
//
// Entries lie in chunks that double in size (Orb/Slab.h), are linked in the order of insertion, and
// are found through an index of their positions.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "Orb/Fetch.h"
#include "Orb/Hash.h"
#include "Orb/PositionIndex.h"
#include "Orb/Slab.h"

namespace Orb {

template <class K, class V>
class Collection {
  using Entry = std::pair<const K, V>;
  struct Node {
    Entry entry;
    uint32_t previous;
    uint32_t next;
  };
  static constexpr uint32_t none = PositionIndex::none;

 public:
  using Key = K;
  using Value = V;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    const_iterator() = default;
    const Entry& operator*() const { return (*nodes_)[position_].entry; }
    const Entry* operator->() const { return &**this; }
    const_iterator& operator++() {
      position_ = (*nodes_)[position_].next;
      return *this;
    }
    const_iterator operator++(int) {
      const const_iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.position_ == b.position_;
    }

   private:
    friend class Collection;
    const_iterator(const Slab<Node>& nodes, uint32_t position)
        : nodes_(&nodes), position_(position) {}
    const Slab<Node>* nodes_ = nullptr;
    uint32_t position_ = none;
  };

  Collection() = default;
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;
  ~Collection() {
    while (first_ != none) nodes_.destroy(std::exchange(first_, nodes_[first_].next));
  }

  size_t size() const { return index_.size(); }
  bool empty() const { return index_.size() == 0; }
  const_iterator begin() const { return {nodes_, first_}; }
  const_iterator end() const { return {nodes_, none}; }

  // `key` may be anything that compares with K and hashes alike: a std::string_view for a String.
  template <class Q>
  bool has(const Q& key) const {
    return positionOf(key) != none;
  }
  // The value, or null.
  template <class Q>
  const V* find(const Q& key) const {
    const uint32_t found = positionOf(key);
    return found == none ? nullptr : &nodes_[found].entry.second;
  }
  // Where the key's entry is; end() when it is absent.
  template <class Q>
  const_iterator at(const Q& key) const {
    return {nodes_, positionOf(key)};
  }
  // The value, or the default value of its type when the key is absent.
  template <class Q>
  const V& operator()(const Q& key) const {
    static const V absent{};
    const V* found = find(key);
    return found ? *found : absent;
  }

  // These two ask for the memory that finding the key will touch (Orb/Fetch.h): first fetch(), then
  // fetchEntry(), which needs what the other has asked for. `key` need only hash like K. Returns an
  // entry, most likely the one that will be found, or null; looking at it means waiting for it.
  template <class Q>
  void fetch(const Q& key) const {
    index_.fetch(hashOf(key));
    nodes_.fetch();
  }
  template <class Q>
  const Entry* fetchEntry(const Q& key) const {
    const uint32_t likely = index_.likely(hashOf(key));
    if (likely == none) return nullptr;
    const Node& node = nodes_[likely];
    fetchLine(&node);
    fetchLine(reinterpret_cast<const char*>(&node + 1) - 1);
    return &node.entry;
  }

  // Changes with every insertion and removal. As long as it is the same, what find() gave is valid.
  uint64_t shape() const { return shape_; }
  // The value that find() gave, to be changed in its place.
  V& own(const V& value) { return const_cast<V&>(value); }

  // Inserts or overwrites. A value that is replaced goes last, whatever its destruction sets off.
  void is(const K& key, V value) {
    const uint32_t found = positionOf(key);
    if (found != none) {
      std::swap(nodes_[found].entry.second, value);
      return;
    }
    const uint32_t made = nodes_.create(Entry(key, std::move(value)), last_, none);
    try {
      index_.insert(hashOf(key), made, hashAt());
    } catch (...) {
      nodes_.destroy(made);
      throw;
    }
    (last_ == none ? first_ : nodes_[last_].next) = made;
    last_ = made;
    ++shape_;
  }
  // Removes; returns whether the key was there. `key` may live in the entry that goes.
  template <class Q>
  bool del(const Q& key) {
    const uint32_t gone = positionOf(key);
    if (gone == none) return false;
    index_.erase(hashOf(key), gone, hashAt());
    const Node& node = nodes_[gone];
    (node.previous == none ? first_ : nodes_[node.previous].next) = node.next;
    (node.next == none ? last_ : nodes_[node.next].previous) = node.previous;
    ++shape_;
    nodes_.destroy(gone);
    return true;
  }

 private:
  template <class Q>
  static size_t hashOf(const Q& key) {
    return KeyHash<K>()(key);
  }
  auto hashAt() const {
    return [this](uint32_t position) { return hashOf(nodes_[position].entry.first); };
  }
  template <class Q>
  uint32_t positionOf(const Q& key) const {
    return index_.find(hashOf(key),
                       [&](uint32_t position) { return nodes_[position].entry.first == key; });
  }

  Slab<Node> nodes_;
  uint32_t first_ = none;
  uint32_t last_ = none;
  uint64_t shape_ = 0;
  PositionIndex index_;
};

}  // namespace Orb
