#include "board/chips/FieldIndex.h"

#include <cstdint>
#include <functional>

namespace Board {

namespace {

using Names = std::pair<std::string_view, std::string_view>;

std::string_view registerOf(const Field& field) { return field.logicalRegister.view(); }
std::string_view registerOf(const StatusField& field) { return field.reg.view(); }

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

template <class Fields>
void RegisterIndex::fill(const Fields& fields) {
  const std::hash<std::string_view> hash;
  const auto hashAt = [&](uint32_t i) { return hash(registerOf(fields[firsts_[i]])); };
  std::vector<uint32_t> lasts;  // of each register, so far
  next_.assign(fields.size(), none);
  for (uint32_t position = 0; position < fields.size(); ++position) {
    const std::string_view reg = registerOf(fields[position]);
    const uint32_t found =
        index_.find(hash(reg), [&](uint32_t i) { return registerOf(fields[firsts_[i]]) == reg; });
    if (found != none) {
      next_[lasts[found]] = position;
      lasts[found] = position;
      continue;
    }
    firsts_.push_back(position);
    lasts.push_back(position);
    index_.insert(hash(reg), static_cast<uint32_t>(firsts_.size() - 1), hashAt);
  }
}

template <class Fields>
uint32_t RegisterIndex::find(const Fields& fields, std::string_view reg) const {
  const uint32_t found = index_.find(std::hash<std::string_view>()(reg), [&](uint32_t i) {
    return registerOf(fields[firsts_[i]]) == reg;
  });
  return found == none ? none : firsts_[found];
}

FieldIndex::FieldIndex(const Chip& chip) : chip_(chip) {
  fill(fields_, chip.fields);
  fill(statusFields_, chip.statusFields);
  registers_.fill(chip.fields);
  statusRegisters_.fill(chip.statusFields);
}

const Field* FieldIndex::field(std::string_view reg, std::string_view field) const {
  return find(fields_, chip_.fields, {reg, field});
}

const StatusField* FieldIndex::statusField(std::string_view reg, std::string_view field) const {
  return find(statusFields_, chip_.statusFields, {reg, field});
}

uint32_t FieldIndex::firstOf(std::string_view reg) const {
  return registers_.find(chip_.fields, reg);
}

uint32_t FieldIndex::firstStatusOf(std::string_view reg) const {
  return statusRegisters_.find(chip_.statusFields, reg);
}

}  // namespace Board
