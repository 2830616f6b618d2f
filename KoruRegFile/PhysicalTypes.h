#pragma once

// Names of hardware registers and of the fields in them, and where such a field lies. Plain values,
// see Orb/Value.h.

#include <cstdint>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/FieldNames.h"
#include "KoruRegFile/ShadowFieldTypes.h"

namespace KoruRegFile {

class KORU_EXPORT PhysicalRegisterName : public RegisterName<PhysicalRegisterName> {
 public:
  static constexpr const char* typeName = "KoruRegFile::PhysicalRegisterName";
  PhysicalRegisterName() = default;
  PhysicalRegisterName(Orb::String chipName, Orb::String name)
      : RegisterName(std::move(chipName), std::move(name)) {}
};

class KORU_EXPORT PhysicalFieldName : public FieldName<PhysicalFieldName, PhysicalRegisterName> {
 public:
  static constexpr const char* typeName = "KoruRegFile::PhysicalFieldName";
  PhysicalFieldName() = default;
  PhysicalFieldName(PhysicalRegisterName regName, Orb::String name)
      : FieldName(std::move(regName), std::move(name)) {}
};

// A field of a 32-bit hardware register: its first bit (0..31), its number of bits (1..32), and the
// key of its entries in the shadow tables, which its owner sets.
class KORU_EXPORT PhysicalField : public Orb::Value<PhysicalField> {
 public:
  PhysicalField() = default;
  // Throws Orb::RangeException.
  PhysicalField(PhysicalFieldName name, uint8_t start, uint8_t size);

  static constexpr auto description() {
    using T = PhysicalField;
    return Orb::describe("KoruRegFile::PhysicalField", Orb::named("name", &T::name_),
                         Orb::named("start", &T::start_), Orb::named("size", &T::size_),
                         Orb::named("key", &T::key_));
  }
  static PhysicalField fromAttributes(PhysicalFieldName name, uint8_t start, uint8_t size,
                                      const ShadowFieldKey& key);

  const PhysicalFieldName& name() const { return name_; }
  uint8_t start() const { return start_; }
  uint8_t size() const { return size_; }
  const ShadowFieldKey& key() const { return key_; }
  void keyIs(const ShadowFieldKey& key) { key_ = key; }

 private:
  PhysicalFieldName name_;
  uint8_t start_ = 0;
  uint8_t size_ = 1;
  ShadowFieldKey key_;
};

}  // namespace KoruRegFile
