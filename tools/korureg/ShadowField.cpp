#include "korureg/ShadowField.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EntityType.h"
#include "korureg/Command.h"
#include "korureg/Output.h"

namespace korureg {

using KoruRegFile::ShadowFieldKey;
using Shoal::TableInfo;

Shoal::TablePaths tablePaths(const ShadowOptions& shadow) {
  Shoal::stateDirectoryIs(shadow.stateDirectory);
  try {
    return Shoal::TablePaths(shadow.path);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

void requireShadowFields(const Shoal::TablePaths& paths, const std::string& typeName) {
  if (typeName == KoruRegFile::ShadowFieldsConfig::entityType().name()) return;
  if (typeName == KoruRegFile::ShadowFieldsStatus::entityType().name()) return;
  throw Failure(
      fmt::format("{} is a table of type '{}', not of shadow fields", paths.mountPath, typeName));
}

ShadowFieldKey unpackField(uint64_t key) {
  if (const auto field = KoruRegFile::unpackShadowFieldKey(key)) return *field;
  throw Failure(fmt::format("{:#x} is no key of a shadow field", key));
}

std::string fieldHex(const ShadowFieldKey& field, uint32_t value) {
  return hex(value, field.size());
}

std::string fieldBits(const ShadowFieldKey& field) {
  return fmt::format("[{}:{}]", field.start() + field.size() - 1, field.start());
}

nlohmann::ordered_json fieldJson(const ShadowFieldKey& field) {
  return {{"address", field.address()}, {"start", field.start()}, {"size", field.size()}};
}

TableInfo requireTable(const Shoal::TablePaths& paths) {
  if (auto info = Shoal::tableInfo(paths)) return *std::move(info);
  throw Failure(fmt::format("there is no table {} ({})", paths.mountPath, paths.table));
}

std::vector<std::string> problemsOf(const TableInfo& info) {
  std::vector<std::string> problems;
  for (const uint32_t index : info.damagedSlots) {
    problems.push_back(fmt::format("slot {} holds something that was never stored", index));
  }
  for (const uint32_t index : info.strayedSlots) {
    problems.push_back(fmt::format("slot {} holds an entry that no search finds there", index));
  }
  if (info.isWronglySuperseded) {
    problems.emplace_back("the header says that another file has taken the table's place");
  }
  if (info.isCutShort) problems.emplace_back("a part of the file has vanished");
  return problems;
}

// What can be shown, in order; what cannot is added to the problems.
std::map<ShadowFieldKey, uint32_t> fieldsOf(const TableInfo& info,
                                            std::vector<std::string>& problems) {
  std::map<ShadowFieldKey, uint32_t> fields;
  for (const auto& [key, value] : info.entries) {
    try {
      fields.emplace(unpackField(key), value);
    } catch (const Failure& e) {
      problems.emplace_back(e.what());
    }
  }
  return fields;
}

void addTableOptions(Command command, ShadowOptions& shadow) {
  command.operand("PATH", shadow.path, "the table's mount path");
  command.option(
      "--state-dir", "DIR", shadow.stateDirectory, "where the tables lie",
      [](const std::string& text) { return std::string(text.empty() ? "is empty" : ""); });
}

}  // namespace korureg
