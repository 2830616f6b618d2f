#pragma once

// A keyed collection: the values of a multi-valued attribute. Iteration is in insertion order
// (overwriting keeps the place), so that runs are reproducible. Inserting while iterating is fine,
// as is deleting any entry but the one that the iteration is at; entries never move. Used on one
// thread.
//
// Entries lie in chunks that double in size (Orb/Slab.h), are linked in the order of insertion, and
// are found through a flat set of their 4-byte positions.

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "Orb/Hash.h"
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
  struct Place {
    uint32_t position;
  };
  static constexpr uint32_t none = UINT32_MAX;

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

  size_t size() const { return places_.size(); }
  bool empty() const { return places_.empty(); }
  const_iterator begin() const { return {nodes_, first_}; }
  const_iterator end() const { return {nodes_, none}; }

  // `key` may be anything that compares with K and hashes alike: a std::string_view for a String.
  template <class Q>
  bool has(const Q& key) const {
    return places_.contains(key);
  }
  // The value, or null.
  template <class Q>
  const V* find(const Q& key) const {
    const auto found = places_.find(key);
    return found == places_.end() ? nullptr : &nodes_[found->position].entry.second;
  }
  // The value, or the default value of its type when the key is absent.
  template <class Q>
  const V& operator()(const Q& key) const {
    static const V absent{};
    const V* found = find(key);
    return found ? *found : absent;
  }

  // Inserts or overwrites. A value that is replaced goes last, whatever its destruction sets off.
  void is(const K& key, V value) {
    const auto found = places_.find(key);
    if (found != places_.end()) {
      std::swap(nodes_[found->position].entry.second, value);
      return;
    }
    const uint32_t made = nodes_.create(Entry(key, std::move(value)), last_, none);
    try {
      places_.insert(Place{made});
    } catch (...) {
      nodes_.destroy(made);
      throw;
    }
    (last_ == none ? first_ : nodes_[last_].next) = made;
    last_ = made;
  }
  // Removes; returns whether the key was there. `key` may live in the entry that goes.
  template <class Q>
  bool del(const Q& key) {
    const auto found = places_.find(key);
    if (found == places_.end()) return false;
    const uint32_t gone = found->position;
    places_.erase(found);
    const Node& node = nodes_[gone];
    (node.previous == none ? first_ : nodes_[node.previous].next) = node.next;
    (node.next == none ? last_ : nodes_[node.next].previous) = node.previous;
    nodes_.destroy(gone);
    return true;
  }

 private:
  struct Hash {
    using is_transparent = void;
    const Slab<Node>* nodes;
    size_t operator()(Place place) const {
      return KeyHash<K>()((*nodes)[place.position].entry.first);
    }
    template <class Q>
    size_t operator()(const Q& key) const {
      return KeyHash<K>()(key);
    }
  };
  struct Equal {
    using is_transparent = void;
    const Slab<Node>* nodes;
    bool operator()(Place a, Place b) const { return a.position == b.position; }
    template <class Q>
    bool operator()(Place a, const Q& b) const {
      return (*nodes)[a.position].entry.first == b;
    }
    template <class Q>
    bool operator()(const Q& a, Place b) const {
      return (*this)(b, a);
    }
  };

  Slab<Node> nodes_;
  uint32_t first_ = none;
  uint32_t last_ = none;
  boost::unordered_flat_set<Place, Hash, Equal> places_{0, Hash{&nodes_}, Equal{&nodes_}};
};

}  // namespace Orb
