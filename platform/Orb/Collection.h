#pragma once

// A keyed collection: the values of a multi-valued attribute. Iteration is in insertion order
// (overwriting keeps the place), so that runs are reproducible. Inserting while iterating is fine,
// as is deleting any entry but the one that the iteration is at. Used on one thread.

#include <boost/unordered/unordered_flat_set.hpp>
#include <list>
#include <utility>

#include "Orb/Hash.h"

namespace Orb {

template <class K, class V>
class Collection {
  using Entry = std::pair<const K, V>;
  using Entries = std::list<Entry>;
  using Place = typename Entries::iterator;

 public:
  using Key = K;
  using Value = V;
  using const_iterator = typename Entries::const_iterator;

  Collection() = default;
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  // `key` may be anything that compares with K and hashes alike: a std::string_view for a String.
  template <class Q>
  bool has(const Q& key) const {
    return places_.contains(key);
  }
  // The value, or null.
  template <class Q>
  const V* find(const Q& key) const {
    const auto found = places_.find(key);
    return found == places_.end() ? nullptr : &(*found)->second;
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
      std::swap((*found)->second, value);
      return;
    }
    entries_.emplace_back(key, std::move(value));
    try {
      places_.insert(std::prev(entries_.end()));
    } catch (...) {
      entries_.pop_back();
      throw;
    }
  }
  // Removes; returns whether the key was there. `key` may live in the entry that goes.
  template <class Q>
  bool del(const Q& key) {
    const auto found = places_.find(key);
    if (found == places_.end()) return false;
    const Place place = *found;
    places_.erase(found);
    entries_.erase(place);
    return true;
  }

 private:
  template <class Q>
  static const Q& keyOf(const Q& key) {
    return key;
  }
  static const K& keyOf(const Place& place) { return place->first; }
  struct Hash {
    using is_transparent = void;
    template <class Q>
    size_t operator()(const Q& key) const {
      return KeyHash<K>()(keyOf(key));
    }
  };
  struct Equal {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& a, const B& b) const {
      return keyOf(a) == keyOf(b);
    }
  };

  Entries entries_;
  boost::unordered_flat_set<Place, Hash, Equal> places_;
};

}  // namespace Orb
