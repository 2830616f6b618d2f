#include "korureg/import/Texts.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace korureg {

namespace {

using Out = std::back_insert_iterator<std::string>;

// A basic string of TOML.
std::string tomlString(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      result += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      result += c;
    }
  }
  return result + '"';
}

bool isStatus(const ImportedField& field) { return !field.access.writes; }

std::string bitsText(const Board::Bits& bits) {
  if (bits.size == 1) return fmt::format("{}", bits.start);
  return fmt::format("\"{}:{}\"", bits.start + bits.size - 1, bits.start);
}

std::string fieldText(const ImportedField& field) {
  std::string text = fmt::format("{} = {{ bits = {}", tomlString(field.name), bitsText(field.bits));
  const Out out(text);
  const Board::Meaning& meaning = field.meaning;
  if (!isStatus(field) && field.kind != Board::FieldKind::stored) {
    fmt::format_to(out, ", kind = \"{}\"", Board::kindName(field.kind));
  }
  if (!meaning.description.empty()) {
    fmt::format_to(out, ", description = {}", tomlString(meaning.description));
  }
  if (!meaning.unit.empty()) fmt::format_to(out, ", unit = {}", tomlString(meaning.unit));
  if (meaning.scale != 1) fmt::format_to(out, ", scale = {}", meaning.scale);
  if (meaning.offset != 0) fmt::format_to(out, ", offset = {}", meaning.offset);
  if (meaning.isSigned) text += ", signed = true";
  if (!meaning.values.empty()) {
    text += ", values = {";
    for (size_t i = 0; i < meaning.values.size(); ++i) {
      const auto& [name, value] = meaning.values[i];
      fmt::format_to(out, "{} {} = {}", i == 0 ? "" : ",", tomlString(name), value);
    }
    text += " }";
  }
  return text + " }\n";
}

// The fields of one sort, a table for each register.
void addFields(std::string& text, const ImportedMap& map, const char* sort, bool ofStatus) {
  for (const ImportedRegister& reg : map.registers) {
    const auto isMeant = [&](const auto& field) { return isStatus(field) == ofStatus; };
    if (std::none_of(reg.fields.begin(), reg.fields.end(), isMeant)) continue;
    fmt::format_to(Out(text), "\n[chip.{}.{}]\n", sort, tomlString(reg.name));
    for (const ImportedField& field : reg.fields) {
      if (!isMeant(field)) continue;
      if (!field.notes.empty()) text += "# " + field.notes + "\n";
      text += fieldText(field);
    }
  }
}

void addLogical(std::string& text, const ImportedMap& map) {
  for (const ImportedRegister& reg : map.registers) {
    bool isFirst = true;
    for (const ImportedField& field : reg.fields) {
      if (isStatus(field)) continue;
      if (isFirst) fmt::format_to(Out(text), "\n[chip.logical.{}]\n", tomlString(reg.name));
      isFirst = false;
      fmt::format_to(Out(text), "{} = {{ to = {}", tomlString(field.name),
                     tomlString(reg.name + "." + field.name));
      if (field.value != 0) fmt::format_to(Out(text), ", value = {:#x}", field.value);
      text += " }\n";
    }
  }
}

// For people: what a system file has no keys for.
void addComments(std::string& text, const ImportedMap& map) {
  for (const std::string& note : map.notes) text += "# " + note + "\n";
  for (const ImportedRegister& reg : map.registers) {
    if (reg.description.empty() && !reg.reset) continue;
    text += "# " + reg.name;
    if (reg.reset) fmt::format_to(Out(text), ", {:#x} after a reset", *reg.reset);
    if (!reg.description.empty()) text += ": " + reg.description;
    text += '\n';
  }
}

}  // namespace

std::string csvText(const ImportedMap& map) {
  std::string text = "number,name,type,writeable,width\n";
  for (const ImportedRegister& reg : map.registers) {
    fmt::format_to(Out(text), "{},{},{},{},{}\n", reg.address, reg.name, reg.type,
                   reg.access.writes, reg.width);
  }
  return text;
}

std::string stubText(const ImportedMap& map, const StubChip& chip) {
  std::string text = "# Made by korureg map import, to be gone through by hand.\n";
  addComments(text, map);
  const Board::Transport& transport = chip.transport;
  fmt::format_to(Out(text), "\n[[chip]]\nname = {}\nregister_map = {}\n{} = {}\n",
                 tomlString(chip.name), tomlString(chip.registerMap), transport.name(),
                 transport.place.empty() ? "true" : tomlString(transport.place));
  std::string changes;
  for (const ImportedRegister& reg : map.registers) {
    if (reg.readChanges && reg.access.reads) changes += "  " + tomlString(reg.name) + ",\n";
  }
  if (!changes.empty()) text += "read_changes = [\n" + changes + "]\n";
  addFields(text, map, "physical", false);
  addLogical(text, map);
  addFields(text, map, "status", true);
  return text;
}

}  // namespace korureg
