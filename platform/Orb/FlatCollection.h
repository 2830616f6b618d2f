#pragma once

// A keyed collection of small values, for attributes with very many of them: keys and values lie in
// one array, nothing is allocated for an entry. The price, beside Orb::Collection: entries come in
// no particular order, and inserting or deleting one moves others, so nothing may be changed while
// iterating or holding what find() returned. Used on one thread.

#include <boost/unordered/unordered_flat_map.hpp>
#include <utility>

#include "Orb/Hash.h"

namespace Orb {

template <class K, class V>
class FlatCollection {
 public:
  using Key = K;
  using Value = V;

  FlatCollection() = default;
  FlatCollection(const FlatCollection&) = delete;
  FlatCollection& operator=(const FlatCollection&) = delete;

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

  bool has(const K& key) const { return entries_.contains(key); }
  // The value, or null.
  const V* find(const K& key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : &found->second;
  }
  // Where the key's entry is; end() when it is absent.
  auto at(const K& key) const { return entries_.find(key); }
  // The value, or the default value of its type when the key is absent.
  V operator()(const K& key) const {
    const V* found = find(key);
    return found ? *found : V{};
  }

  // Has the processor look up the key ahead, while it waits for other memory (Orb/Fetch.h).
  void fetch(const K& key) const {
    const V* found = find(key);
    asm volatile("" : : "r"(found));
  }

  // Room for so many entries, so that they need not be moved about while they come.
  void reserve(size_t entries) { entries_.reserve(entries); }
  // Inserts or overwrites.
  void is(const K& key, V value) { entries_.insert_or_assign(key, std::move(value)); }
  // Removes; returns whether the key was there.
  bool del(const K& key) { return entries_.erase(key) > 0; }

 private:
  boost::unordered_flat_map<K, V, KeyHash<K>> entries_;
};

}  // namespace Orb
