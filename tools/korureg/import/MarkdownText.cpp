#include <fmt/format.h>

#include <iterator>

#include "korureg/Output.h"
#include "korureg/import/Exports.h"

namespace korureg {

namespace {

using Out = std::back_insert_iterator<std::string>;

// As it is, in a cell of a table as well: any mark of punctuation may have a backslash before it.
// (Of a backslash before a tag, not everybody thinks the same.)
std::string plain(std::string_view text) {
  std::string marked;
  for (const char c : inOneLine(text)) {
    const std::string_view marks = "\\`*_{}[]()#+-.!|~$";
    if (marks.find(c) != marks.npos) marked += '\\';
    marked += c;
  }
  return escapedMarkup(marked);
}

std::string valuesText(const Board::Meaning& meaning) {
  std::string text = plain(meaning.description);
  for (const auto& [name, value] : meaning.values) {
    fmt::format_to(Out(text), "{}{} = {}", text.empty() ? "" : "; ", value, plain(name));
  }
  if (!meaning.isScaled()) return text;
  return fmt::format("{}{}{}", text, text.empty() ? "" : "; ", plain(scaleText(meaning)));
}

void addFields(std::string& text, const ImportedRegister& reg) {
  if (reg.fields.empty()) return;
  fmt::format_to(Out(text),
                 "\n## {}\n\n| Bits | Field | Access | Kind | Meaning |\n|---|---|---|---|---|\n",
                 plain(reg.name));
  for (const ImportedField& field : reg.fields) {
    fmt::format_to(Out(text), "| {} | {} | {} | {} | {} |\n", plain(rangeText(field.bits)),
                   plain(field.name), accessText(field.access),
                   field.access.writes ? Board::kindName(field.kind) : "",
                   valuesText(field.meaning));
  }
}

}  // namespace

std::string accessText(const Access& access) {
  return access.writes ? (access.reads ? "read/write" : "write only") : "read only";
}

std::string scaleText(const Board::Meaning& meaning) {
  if (!meaning.isScaled()) return "";
  std::string text = meaning.isSigned ? "signed, raw" : "raw";
  if (meaning.scale != 1) fmt::format_to(Out(text), " × {}", meaning.scale);
  if (meaning.offset != 0) fmt::format_to(Out(text), " + {}", meaning.offset);
  return meaning.unit.empty() ? text : fmt::format("{} {}", text, meaning.unit);
}

std::string rangeText(const Board::Bits& bits) {
  if (bits.size == 1) return fmt::format("[{}]", bits.start);
  return fmt::format("[{}:{}]", bits.start + bits.size - 1, bits.start);
}

std::string markdownText(const ImportedMap& map) {
  std::string text =
      fmt::format("# {}\n\n| Address | Register | Type | Access | Width |\n|---|---|---|---|---|\n",
                  plain(map.name));
  for (const ImportedRegister& reg : map.registers) {
    fmt::format_to(Out(text), "| {:#06x} | {} | {} | {} | {} |\n", reg.address, plain(reg.name),
                   plain(reg.type), accessText(reg.access), reg.width);
  }
  for (const ImportedRegister& reg : map.registers) addFields(text, reg);
  return text;
}

}  // namespace korureg
