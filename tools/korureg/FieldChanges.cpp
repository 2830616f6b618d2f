#include "korureg/FieldChanges.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "korureg/AgentAnswer.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

std::string valueAt(const ordered_json& entry, const char* key, const char* text, bool raw) {
  if (const std::string spoken = raw ? "" : textAt(entry, text); !spoken.empty()) return spoken;
  const auto value = numberAt(entry, key);
  return value ? hex(*value) : "-";
}

bool changes(const ordered_json& entry, const char* from, const char* to) {
  return numberAt(entry, from) != numberAt(entry, to);
}

}  // namespace

bool changesAnything(const ordered_json& answer) {
  const ordered_json fields = listAt(answer, "fields");
  const ordered_json registers = listAt(answer, "registers");
  return std::any_of(fields.begin(), fields.end(),
                     [](const auto& field) { return changes(field, "was", "value"); }) ||
         std::any_of(registers.begin(), registers.end(),
                     [](const auto& reg) { return changes(reg, "from", "to"); });
}

void printChanges(const std::vector<std::pair<std::string, ordered_json>>& chips, bool raw) {
  Table table({{"CHIP"}, {"WHAT"}, {"FROM"}, {"TO"}});
  bool isEmpty = true;
  for (const auto& [chip, answer] : chips) {
    for (const auto& field : listAt(answer, "fields")) {
      if (!changes(field, "was", "value")) continue;
      table.add({chip, textAt(field, "register") + '.' + textAt(field, "field"),
                 valueAt(field, "was", "was_text", raw), valueAt(field, "value", "text", raw)});
      isEmpty = false;
    }
    for (const auto& reg : listAt(answer, "registers")) {
      if (!changes(reg, "from", "to")) continue;
      table.add({chip, textAt(reg, "name"), valueAt(reg, "from", "", true),
                 valueAt(reg, "to", "", true)});
      isEmpty = false;
    }
  }
  isEmpty ? printLine("nothing changes") : table.print();
}

}  // namespace korureg
