#include "board/chips/internal/FieldIndex.h"

#include <cstdint>
#include <functional>

namespace Board {

namespace {

using Names = std::pair<std::string_view, std::string_view>;

Names namesOf(const Field& field) {
  return {field.logicalRegister.view(), field.logicalField.view()};
}
Names namesOf(const StatusField& field) { return {field.reg.view(), field.field.view()}; }

size_t hashOf(const Names& names) {
  const std::hash<std::string_view> hash;
  return hash(names.first) * 31 + hash(names.second);
}

template <class Fields>
void fill(Orb::PositionIndex& index, const Fields& fields) {
  const auto hashAt = [&](uint32_t position) { return hashOf(namesOf(fields[position])); };
  for (uint32_t i = 0; i < fields.size(); ++i) index.insert(hashAt(i), i, hashAt);
}

template <class Fields>
auto find(const Orb::PositionIndex& index, const Fields& fields, const Names& names) {
  const uint32_t found = index.find(
      hashOf(names), [&](uint32_t position) { return namesOf(fields[position]) == names; });
  return found == Orb::PositionIndex::none ? nullptr : &fields[found];
}

}  // namespace

FieldIndex::FieldIndex(const Chip& chip) : chip_(chip) {
  fill(fields_, chip.fields);
  fill(statusFields_, chip.statusFields);
}

const Field* FieldIndex::field(std::string_view reg, std::string_view field) const {
  return find(fields_, chip_.fields, {reg, field});
}

const StatusField* FieldIndex::statusField(std::string_view reg, std::string_view field) const {
  return find(statusFields_, chip_.statusFields, {reg, field});
}

}  // namespace Board
