#pragma once

// The key and the value of an entry of the shadow field tables. Plain values (see Orb/Value.h) that
// allocate nothing; usable on any thread.

#include <cstdint>

#include "KoruRegFile/Export.h"
#include "Orb/Exception.h"
#include "Orb/Hash.h"
#include "Orb/Value.h"

namespace KoruRegFile {

// Where a field lies: the register's address, the first bit (0..31) and the number of bits (1..32).
class KORU_EXPORT ShadowFieldKey : public Orb::OrderedValue<ShadowFieldKey> {
 public:
  ShadowFieldKey() = default;
  // Throws Orb::RangeException.
  ShadowFieldKey(uint32_t address, uint8_t start, uint8_t size)
      : address_(address), start_(start), size_(size) {
    if (start > 31) {
      Orb::throwRangeException("KoruRegFile::ShadowFieldKey::start < 0 or > 31 not allowed");
    }
    if (static_cast<uint8_t>(size - 1) > 31) {
      Orb::throwRangeException("KoruRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
    }
  }

  static constexpr auto description() {
    using T = ShadowFieldKey;
    return Orb::describe("KoruRegFile::ShadowFieldKey", Orb::named("address", &T::address_),
                         Orb::named("start", &T::start_), Orb::named("size", &T::size_));
  }

  uint32_t address() const { return address_; }
  uint8_t start() const { return start_; }
  uint8_t size() const { return size_; }
  size_t hash(size_t seed = 0) const {
    return Orb::hashMix(Orb::hashMix(Orb::hashMix(seed, address_), start_), size_);
  }

 private:
  uint32_t address_ = 0;
  uint8_t start_ = 0;
  uint8_t size_ = 1;
};

// A field's value, under the key that says where it lies.
class KORU_EXPORT ShadowFieldValue : public Orb::Value<ShadowFieldValue> {
 public:
  ShadowFieldValue() = default;
  ShadowFieldValue(const ShadowFieldKey& key, uint32_t value) : key_(key), value_(value) {}

  static constexpr auto description() {
    using T = ShadowFieldValue;
    return Orb::describe("KoruRegFile::ShadowFieldValue", Orb::named("key", &T::key_),
                         Orb::named("value", &T::value_));
  }

  const ShadowFieldKey& key() const { return key_; }
  uint32_t value() const { return value_; }

 private:
  ShadowFieldKey key_;
  uint32_t value_ = 0;
};

}  // namespace KoruRegFile
