#include "korureg/import/MapReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <unordered_map>

#include "KoruRegFile/RegisterFile.h"
#include "board/description/SystemFile.h"
#include "korureg/Command.h"
#include "korureg/MapPlace.h"

namespace korureg {

namespace {

using ByName = std::unordered_map<std::string, ImportedRegister*>;

void addField(const ByName& registers, const Orb::String& reg, ImportedField field,
              const Board::SharedMeaning& meaning) {
  const auto found = registers.find(std::string(std::string_view(reg)));
  if (found == registers.end()) return;
  if (meaning) field.meaning = *meaning.get();
  found->second->fields.push_back(std::move(field));
}

void addFields(const Board::Chip& chip, ImportedMap& map) {
  ByName registers;
  for (ImportedRegister& reg : map.registers) registers.emplace(reg.name, &reg);
  for (const Board::Field& each : chip.fields) {
    ImportedField field;
    field.name = std::string_view(each.physicalField);
    field.bits = each.physical;
    field.kind = each.kind;
    field.value = each.value;
    addField(registers, each.physicalRegister, std::move(field), each.meaning);
  }
  for (const Board::StatusField& each : chip.statusFields) {
    ImportedField field;
    field.name = std::string_view(each.field);
    field.bits = each.bits;
    field.access.writes = false;
    addField(registers, each.reg, std::move(field), each.meaning);
  }
  for (ImportedRegister& reg : map.registers) {
    reg.readChanges = chip.readChanges.contains(reg.name);
    std::stable_sort(reg.fields.begin(), reg.fields.end(),
                     [](const auto& a, const auto& b) { return a.bits.start > b.bits.start; });
  }
}

}  // namespace

Board::Chip chipWithMap(const std::string& system, const std::string& map) {
  const Board::Description board = Board::readFile(system);
  std::error_code error;
  for (const Board::Chip& chip : board.chips) {
    if (std::filesystem::equivalent(chip.registerMap, map, error)) return chip;
  }
  throw UsageError(
      fmt::format("{} describes no chip that can be used and has the map {}", system, map));
}

ImportedMap readOwn(const std::string& map, const std::string& system, unsigned step) {
  std::optional<Board::Chip> chip;
  if (!system.empty()) chip = chipWithMap(system, map);
  if (chip) step = chip->transport.addrBlockSize();
  ImportedMap read;
  read.name = chip ? chip->name : std::filesystem::path(map).stem().string();
  try {
    const KoruRegFile::RegisterFile file(map.c_str(), static_cast<uint8_t>(step));
    for (const KoruRegFile::Register& each : file.registers()) {
      ImportedRegister reg;
      reg.name = std::string_view(each.name);
      reg.address = each.address;
      reg.width = each.width;
      reg.access.writes = each.writeable;
      reg.type = KoruRegFile::Register::regTypeToString(each.type);
      read.registers.push_back(std::move(reg));
    }
  } catch (const KoruRegFile::RegisterFileError& e) {
    const std::string why = whyUnreadable(map);
    throw Failure(
        fmt::format("{}: {}", mapPlace(map, e.line(), e.column()), why.empty() ? e.what() : why));
  }
  if (chip) addFields(*chip, read);
  return read;
}

}  // namespace korureg
