// korureg shadow show, check; and where the other shadow commands hang in.

#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Shoal/TableInfo.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/ShadowDiff.h"
#include "korureg/ShadowField.h"

namespace korureg {

namespace {

using KoruRegFile::ShadowFieldKey;
using nlohmann::ordered_json;
using Shoal::TableInfo;

ordered_json tableJson(const Shoal::TablePaths& paths, const TableInfo& info) {
  return {{"path", paths.mountPath}, {"type", info.typeName}, {"generation", info.generation}};
}

void printFieldsJson(ordered_json document, std::optional<pid_t> writer,
                     const std::map<ShadowFieldKey, uint32_t>& fields, const FieldNames& names) {
  document["writer"] = writer ? ordered_json(*writer) : ordered_json();
  document["fields"] = ordered_json::array();
  for (const auto& [field, value] : fields) {
    ordered_json entry = fieldJson(field);
    if (!names.empty()) entry["name"] = nameOf(field, names);
    entry["value"] = value;
    document["fields"].push_back(entry);
  }
  printJson(document);
}

void printFields(std::optional<pid_t> writer, const std::map<ShadowFieldKey, uint32_t>& fields,
                 const FieldNames& names) {
  std::vector<Table::Column> columns = {{"ADDRESS", Table::Align::right},
                                        {"BITS", Table::Align::right},
                                        {"HEX", Table::Align::right},
                                        {"DECIMAL", Table::Align::right}};
  if (!names.empty()) columns.push_back({"FIELD"});
  Table table(columns);
  for (const auto& [field, value] : fields) {
    std::vector<std::string> row = {hex(field.address()), fieldBits(field), fieldHex(field, value),
                                    std::to_string(value)};
    if (!names.empty()) row.push_back(nameOf(field, names));
    table.add(row);
  }
  table.print();
  if (!writer) printLine("detached: the writer is gone, and these are its last contents");
}

int show(const ShadowOptions& shadow, bool json) {
  const Shoal::TablePaths paths = tablePaths(shadow);
  const FieldNames names = fieldNamesAt(shadow.config, paths.mountPath);
  const auto writer = Shoal::tableWriter(paths);
  const TableInfo info = requireTable(paths);
  requireShadowFields(paths, info.typeName);
  std::vector<std::string> problems = problemsOf(info);
  const auto fields = fieldsOf(info, problems);
  if (json) {
    printFieldsJson(tableJson(paths, info), writer, fields, names);
  } else {
    printFields(writer, fields, names);
  }
  for (const std::string& problem : problems) {
    printError(fmt::format("{}: {}", paths.mountPath, problem));
  }
  return problems.empty() ? done : failed;
}

void printCheckJson(const Shoal::TablePaths& paths, const TableInfo& info,
                    const std::vector<std::string>& problems) {
  ordered_json document = tableJson(paths, info);
  document["entries"] = info.entries.size();
  document["slots"] = info.slotCount;
  document["ok"] = problems.empty();
  document["damagedSlots"] = info.damagedSlots;
  document["problems"] = problems;
  printJson(document);
}

int check(const ShadowOptions& shadow, bool json) {
  const Shoal::TablePaths paths = tablePaths(shadow);
  TableInfo info;
  try {
    info = requireTable(paths);
  } catch (const std::exception& e) {
    if (json) printJson({{"path", paths.mountPath}, {"ok", false}, {"problems", {e.what()}}});
    throw;
  }
  const std::vector<std::string> problems = problemsOf(info);
  if (json) {
    printCheckJson(paths, info, problems);
  } else if (problems.empty()) {
    printLine(fmt::format("ok: {} entries in {} slots, generation {}", info.entries.size(),
                          info.slotCount, info.generation));
  } else {
    for (const std::string& problem : problems) {
      printLine(fmt::format("{}: {}", red("damaged"), problem));
    }
  }
  return problems.empty() ? done : failed;
}

using Run = int (*)(const ShadowOptions& shadow, bool json);

struct ShadowCommand {
  const char* name;
  const char* text;
  Run run;
  bool showsFields;
};
constexpr ShadowCommand ofOneTable[] = {
    {"show", "Show the contents of a table.", show, true},
    {"watch", "Show the contents, and then each change, until stopped.", watchShadow, true},
    {"check", "Verify every part of a table's file.", check, false},
};

void addShadowCommand(Command family, const ShadowCommand& described, Options& options) {
  const std::string example =
      fmt::format("korureg shadow {} KoruRegFile/shadowFieldsConfig/chip0", described.name);
  family.command(described.name, described.text, example, [&](Command command) {
    auto shadow = std::make_shared<ShadowOptions>();
    addTableOptions(command, *shadow);
    if (described.showsFields) addConfigOption(command, shadow->config);
    command.runs([shadow, run = described.run, &options] { return run(*shadow, options.json); });
  });
}

}  // namespace

void addShadowCommands(Command app, Options& options) {
  app.family("shadow", "Look at shadow field tables; no agent is needed.",
             "korureg shadow show KoruRegFile/shadowFieldsConfig/chip0", [&](Command family) {
               for (const auto& row : ofOneTable) addShadowCommand(family, row, options);
               addShadowDiffCommand(family, options);
               addShadowBackupCommands(family);
             });
}

}  // namespace korureg
