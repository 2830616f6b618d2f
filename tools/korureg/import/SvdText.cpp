#include <fmt/format.h>

#include <iterator>

#include "korureg/Output.h"
#include "korureg/import/Exports.h"

namespace korureg {

namespace {

using Out = std::back_insert_iterator<std::string>;

const char* accessWord(const Access& access) {
  return access.writes ? (access.reads ? "read-write" : "write-only") : "read-only";
}

void addField(std::string& text, const ImportedField& field) {
  fmt::format_to(Out(text), "            <field>\n              <name>{}</name>\n",
                 escapedMarkup(field.name));
  if (!field.meaning.description.empty()) {
    fmt::format_to(Out(text), "              <description>{}</description>\n",
                   escapedMarkup(field.meaning.description));
  }
  fmt::format_to(
      Out(text), "              <bitRange>[{}:{}]</bitRange>\n              <access>{}</access>\n",
      field.bits.start + field.bits.size - 1, field.bits.start, accessWord(field.access));
  if (Board::isSentOnce(field.kind)) {
    const bool clears = field.kind == Board::FieldKind::write1clear;
    fmt::format_to(Out(text), "              <modifiedWriteValues>{}</modifiedWriteValues>\n",
                   clears ? "oneToClear" : "oneToSet");
  }
  if (!field.meaning.values.empty()) {
    text += "              <enumeratedValues>\n";
    for (const auto& [name, value] : field.meaning.values) {
      fmt::format_to(Out(text),
                     "                <enumeratedValue><name>{}</name><value>{}</value>"
                     "</enumeratedValue>\n",
                     escapedMarkup(name), value);
    }
    text += "              </enumeratedValues>\n";
  }
  text += "            </field>\n";
}

void addRegister(std::string& text, const ImportedRegister& reg) {
  uint64_t reset = 0;
  for (const ImportedField& field : reg.fields) {
    reset |= uint64_t{field.value} << field.bits.start;
  }
  fmt::format_to(Out(text),
                 "        <register>\n          <name>{}</name>\n"
                 "          <addressOffset>{:#x}</addressOffset>\n          <size>{}</size>\n"
                 "          <access>{}</access>\n",
                 escapedMarkup(reg.name), reg.address, reg.width, accessWord(reg.access));
  if (!reg.fields.empty()) {
    fmt::format_to(Out(text), "          <resetValue>{:#x}</resetValue>\n", reset);
  }
  if (reg.readChanges) text += "          <readAction>modify</readAction>\n";
  if (!reg.fields.empty()) {
    text += "          <fields>\n";
    for (const ImportedField& field : reg.fields) addField(text, field);
    text += "          </fields>\n";
  }
  text += "        </register>\n";
}

}  // namespace

std::string escapedMarkup(std::string_view text) {
  std::string result;
  for (const char c : printable(text)) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string svdText(const ImportedMap& map) {
  std::string text = fmt::format(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<device schemaVersion=\"1.3\">\n"
      "  <name>{0}</name>\n  <addressUnitBits>8</addressUnitBits>\n  <width>32</width>\n"
      "  <peripherals>\n    <peripheral>\n      <name>{0}</name>\n"
      "      <baseAddress>0</baseAddress>\n      <registers>\n",
      escapedMarkup(map.name));
  for (const ImportedRegister& reg : map.registers) addRegister(text, reg);
  text += "      </registers>\n    </peripheral>\n  </peripherals>\n  <vendorExtensions>\n";
  // (The format has accesses only.)
  for (const ImportedRegister& reg : map.registers) {
    fmt::format_to(Out(text), "    <registerType name=\"{}\" type=\"{}\"/>\n",
                   escapedMarkup(reg.name), escapedMarkup(reg.type));
  }
  return text + "  </vendorExtensions>\n</device>\n";
}

}  // namespace korureg
