#pragma once

// Hashes of values, and the hash that keys a collection. Stateless; usable from any thread.

#include <boost/container_hash/hash.hpp>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string>

#include "Orb/Exception.h"
#include "Orb/Strep.h"
#include "Orb/String.h"

namespace Orb {

// Mixes one more part into a hash.
template <class T>
size_t hashMix(size_t seed, const T& part) {
  boost::hash_combine(seed, part);
  return seed;
}

// A value that can key a collection says so by a hash of its own.
template <class T>
concept SelfHashing = requires(const T& value) {
  { value.hash() } -> std::convertible_to<size_t>;
};

// The hash of a collection key.
template <class K>
struct KeyHash {
  size_t operator()(const K& key) const noexcept { return boost::hash<K>()(key); }
};
// Also of anything that stands for such a key in a look-up, and hashes alike.
template <SelfHashing K>
struct KeyHash<K> {
  template <SelfHashing Q>
  size_t operator()(const Q& key) const noexcept {
    return key.hash();
  }
};
template <>
struct KeyHash<String> : StringHash {};

// The hash of any value, for code that does not know its type; throws UnhashableTypeException for a
// value type without one.
template <class T>
size_t valueHash(const T& value) {
  if constexpr (SelfHashing<T> || std::integral<T> || std::same_as<T, String>) {
    return KeyHash<T>()(value);
  } else {
    throw UnhashableTypeException(std::string(Strep<T>::typeName()) + " has no hash");
  }
}

}  // namespace Orb
