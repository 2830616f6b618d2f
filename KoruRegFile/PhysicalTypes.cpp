#include "KoruRegFile/PhysicalTypes.h"

namespace KoruRegFile {

PhysicalField::PhysicalField(PhysicalFieldName name, uint8_t start, uint8_t size)
    : name_(std::move(name)), start_(start), size_(size) {
  if (start > 31) {
    Orb::throwRangeException("KoruRegFile::PhysicalField::start < 0 or > 31 not allowed");
  }
  if (static_cast<uint8_t>(size - 1) > 31) {
    Orb::throwRangeException("KoruRegFile::PhysicalField::size < 1 or > 32 not allowed");
  }
}

PhysicalField PhysicalField::fromAttributes(PhysicalFieldName name, uint8_t start, uint8_t size,
                                            const ShadowFieldKey& key) {
  PhysicalField field(std::move(name), start, size);
  field.keyIs(key);
  return field;
}

}  // namespace KoruRegFile
