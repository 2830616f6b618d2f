#include "korureg/AgentFields.h"

#include <fmt/format.h>

#include <algorithm>

#include "korureg/AgentAnswer.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using KoruRegFile::BitRange;
using nlohmann::ordered_json;

constexpr uint64_t highestLogicalBit = 63;
constexpr uint64_t highestBit = 31;

// [high, low], if it is there.
std::optional<BitRange> bitsAt(const ordered_json& entry, const char* key, uint64_t highest) {
  const auto found = entry.find(key);
  if (found == entry.end()) return std::nullopt;
  const auto bits = found->get<std::vector<uint64_t>>();
  if (bits.size() != 2 || bits[0] > highest || bits[1] > bits[0]) {
    throw Failure(AgentClient::senseless);
  }
  return BitRange{static_cast<uint8_t>(bits[0]), static_cast<uint8_t>(bits[1])};
}

std::optional<uint32_t> valueAt(const ordered_json& entry, const char* key) {
  const auto value = numberAt(entry, key);
  if (value && *value > UINT32_MAX) throw Failure(AgentClient::senseless);
  return value ? std::optional(static_cast<uint32_t>(*value)) : std::nullopt;
}

Board::Meaning meaningOf(const ordered_json& entry) {
  Board::Meaning meaning;
  meaning.description = textAt(entry, "description");
  meaning.unit = textAt(entry, "unit");
  meaning.scale = entry.value("scale", 1.0);
  meaning.offset = entry.value("offset", 0.0);
  meaning.isSigned = flagAt(entry, "signed");
  const ordered_json values = entry.value("values", ordered_json::object());
  if (!values.is_object()) throw Failure(AgentClient::senseless);
  for (const auto& [name, value] : values.items()) {
    meaning.values.push_back({name, value.get<uint32_t>()});
  }
  std::sort(meaning.values.begin(), meaning.values.end(),
            [](const auto& a, const auto& b) { return a.value < b.value; });
  return meaning;
}

AgentField fieldOf(const ordered_json& entry) {
  AgentField field;
  field.reg = textAt(entry, "register");
  field.field = textAt(entry, "field");
  field.kind = textAt(entry, "kind");
  field.bits = bitsAt(entry, "bits", highestLogicalBit);
  field.hardwareRegister = textAt(entry, "hw_register");
  field.hardwareField = textAt(entry, "hw_field");
  if (field.hardwareField.empty()) field.hardwareField = field.field;
  field.hardwareBits = bitsAt(entry, "hw_bits", highestBit).value_or(BitRange{});
  field.wanted = valueAt(entry, "wanted");
  field.written = valueAt(entry, "written");
  field.meaning = meaningOf(entry);
  field.readChanges = flagAt(entry, "read_changes");
  return field;
}

}  // namespace

std::string AgentField::shown(uint32_t value, bool raw) const {
  const unsigned size = hardwareBits.width();
  return raw || !meaning.isSpoken() ? hex(value, size) : meaning.textOf(value, size);
}

std::string AgentField::shown(const std::optional<uint32_t>& value, bool raw) const {
  return value ? shown(*value, raw) : "-";
}

std::vector<AgentField> fieldsOf(AgentClient& client, const std::string& chip,
                                 const std::string& reg) {
  ordered_json request = {{"op", "field.list"}, {"chip", chip}};
  if (!reg.empty()) request["register"] = reg;
  std::vector<AgentField> fields;
  for (const auto& entry : listIn(client.ask(request))) fields.push_back(fieldOf(entry));
  return fields;
}

ordered_json LiveFields::ask(const char* op, const std::string& reg, const char* field) {
  ordered_json request = {{"op", op}, {"chip", chip_}, {"register", reg}};
  if (field) request["field"] = field;
  try {
    return client_.ask(request);
  } catch (const Refusal& e) {
    printError(e.what());
    anyFailed_ = true;
    return ordered_json::object();
  }
}

std::optional<uint32_t> LiveFields::value(const AgentField& field) {
  const auto [place, isNew] = fields_.try_emplace(field.reg);
  if (isNew) {
    const ordered_json answer = ask("register.read", field.reg, nullptr);
    place->second = answer.value("fields", ordered_json());
  }
  if (place->second.is_null()) return std::nullopt;
  if (const auto value = valueAt(place->second, field.field.c_str())) return value;
  // A logical register has the same name.
  return valueAt(ask("field.read", field.reg, field.field.c_str()), "value");
}

std::string bitsText(const BitRange& bits) {
  return bits.high == bits.low ? fmt::format("[{}]", bits.high)
                               : fmt::format("[{}:{}]", bits.high, bits.low);
}

std::string valueText(const ordered_json& answer, const Shown& how) {
  for (const char* key : {"name", how.alone ? "number" : "text"}) {
    if (how.raw) break;
    if (const std::string text = cellAt(answer, key); !text.empty()) return text;
  }
  return hex(valueIn(answer));
}

}  // namespace korureg
