#pragma once

// How a system file's tables of fields are written, whatever the fields are: a table for each
// register, in it one for each field. Internal to description/; stateless.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "KoruRegFile/RegisterFile.h"
#include "board/description/internal/Reading.h"

namespace Board {

using Names = std::pair<std::string, std::string>;  // register, field

// "REGISTER.FIELD"
std::string joined(const Names& names);

// "[7:4]"
std::string bitsText(const Bits& bits);

// "7:4", or a single bit as a number, below `limit`. Nothing, and a problem, for anything else.
std::optional<Bits> readBits(ChipReading& reading, const toml::node& node, unsigned limit);

// The same of the field's key `bits`, of a hardware register.
std::optional<Bits> readHardwareBits(ChipReading& reading, const Names& names,
                                     const toml::table& field);

// The register of the map, which has those bits; null, and a problem, when there is none.
const KoruRegFile::Register* registerWith(ChipReading& reading, const ChipSource& source,
                                          const Names& names, const Bits& bits,
                                          const toml::node& node);

// The key `settle` of a register is no field, unless it is a table.
inline bool isSettle(std::string_view key, const toml::node& node) {
  return key == "settle" && !node.is_table();
}

// Calls use(names, table) for each field of the table `key`, which holds a table for each register.
template <class Use>
void forEachField(ChipReading& reading, const toml::table& chip, std::string_view key, Use use) {
  const toml::table* registers = reading.table(chip, key);
  if (!registers) return;
  for (const auto& [registerName, node] : *registers) {
    const toml::table* fields = reading.table(*registers, registerName.str());
    if (!fields) continue;
    for (const auto& [fieldName, field] : *fields) {
      const Names names(registerName.str(), fieldName.str());
      if (key == "physical" && isSettle(names.second, field)) continue;
      if (names.first.empty() || names.second.empty()) {
        reading.problem(field, "a register and a field need a name");
      } else if (const auto* table = field.as_table()) {
        use(names, *table);
      } else {
        reading.problem(field, "{}.{} has to be a table, as in {{ bits = \"7:4\" }}", key,
                        joined(names));
      }
    }
  }
}

}  // namespace Board
