// The status fields of a chip: bits that are read live, of registers that the logical fields may
// have nothing to do with.

#include <algorithm>
#include <set>
#include <tuple>

#include "board/description/internal/Meanings.h"

namespace Board {

std::vector<StatusField> readStatusFields(ChipReading& reading, const ChipSource& source,
                                          const std::vector<Field>& fields) {
  std::set<Names> taken;
  for (const Field& field : fields) {
    taken.emplace(std::string(field.logicalRegister.view()),
                  std::string(field.logicalField.view()));
  }
  using Placed = std::pair<const KoruRegFile::Register*, StatusField>;
  std::vector<Placed> found;
  forEachField(reading, source.table, "status", [&](const Names& names, const toml::table& table) {
    reading.onlyKeys(table, {"bits"}, meaningKeys);
    const auto bits = readHardwareBits(reading, names, table);
    if (!bits) return;
    const auto* reg = registerWith(reading, source, names, *bits, table);
    if (!reg) return;
    if (const auto why = source.transport.whyNotRead(*reg)) {
      return reading.problem(table, "register '{}' cannot be read: {}", names.first, *why);
    }
    if (taken.contains(names)) {
      return reading.problem(table, "there is a logical field {} already", joined(names));
    }
    found.emplace_back(reg, StatusField{reg->name, names.second, *bits, reg->address,
                                        readMeaning(reading, names, table, bits->size)});
  });
  // (The registers of a map lie behind each other, in its order.)
  std::stable_sort(found.begin(), found.end(), [](const Placed& a, const Placed& b) {
    return std::tie(a.first, a.second.bits.start) < std::tie(b.first, b.second.bits.start);
  });
  std::vector<StatusField> status;
  for (Placed& field : found) status.push_back(std::move(field.second));
  return status;
}

}  // namespace Board
