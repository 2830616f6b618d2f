// korureg shadow export, import: a table of shadow fields as a JSON text, and back.

#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EntityType.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/StatePath.h"
#include "board/service/JsonText.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/ShadowDiff.h"
#include "korureg/ShadowField.h"

namespace korureg {

namespace {

using KoruRegFile::ShadowFieldKey;
using nlohmann::json;
using nlohmann::ordered_json;

using Fields = std::map<ShadowFieldKey, uint32_t>;

constexpr const char* format = "koru-shadow-fields";
constexpr int formatVersion = 1;
constexpr size_t longestText = size_t{64} << 20;

int exportTable(const ShadowOptions& shadow) {
  const Shoal::TablePaths paths = tablePaths(shadow);
  const Shoal::TableInfo info = requireTable(paths);
  requireShadowFields(paths, info.typeName);
  std::vector<std::string> problems = problemsOf(info);
  ordered_json document = {{"format", format},
                           {"version", formatVersion},
                           {"path", paths.mountPath},
                           {"type", info.typeName}};
  document["fields"] = ordered_json::array();
  for (const auto& [field, value] : fieldsOf(info, problems)) {
    ordered_json entry = fieldJson(field);
    entry["value"] = value;
    document["fields"].push_back(entry);
  }
  printJson(document);
  for (const std::string& problem : problems) {
    printError(fmt::format("{}: {}", paths.mountPath, problem));
  }
  return problems.empty() ? done : failed;
}

// The whole text, of standard input for "-".
std::string readText(const std::string& file) {
  std::ifstream opened;
  if (file != "-") {
    opened.open(file);
    if (!opened || std::filesystem::is_directory(file)) {
      throw Failure(fmt::format("cannot read {}", file));
    }
  }
  std::istream& in = file == "-" ? std::cin : opened;
  std::string text;
  char piece[1 << 16];
  while (in.read(piece, sizeof piece), in.gcount() > 0) {
    text.append(piece, static_cast<size_t>(in.gcount()));
    if (text.size() > longestText) throw Failure(fmt::format("{} is too long", file));
  }
  return text;
}

json readDocument(const std::string& file) {
  const std::string text = readText(file);
  if (Board::isTooDeep(text)) throw Failure(fmt::format("{} is too deep", file));
  json document = json::parse(text, nullptr, false);
  if (document.is_discarded()) {
    throw Failure(fmt::format("{} is no JSON; is the file whole?", file));
  }
  const auto has = [&](const char* key, const json& value) {
    return document.is_object() && document.contains(key) && document[key] == value;
  };
  if (!has("format", format)) {
    throw Failure(fmt::format("{} was not written by 'korureg shadow export'", file));
  }
  if (!has("version", formatVersion)) {
    throw Failure(fmt::format("{} is of a version that is not known here", file));
  }
  if (!has("type", KoruRegFile::ShadowFieldsConfig::entityType().name())) {
    throw Failure(fmt::format(
        "{} is no configuration; what was written to a chip is for its agent to say", file));
  }
  if (!document.contains("fields") || !document["fields"].is_array()) {
    throw Failure(fmt::format("{} has no list of fields", file));
  }
  return document;
}

// A whole number of the entry, of at most that size.
uint32_t numberAt(const json& entry, const char* key, uint32_t least, uint32_t most) {
  const auto found = entry.find(key);
  if (found == entry.end()) throw Failure(fmt::format("has no '{}'", key));
  if (!found->is_number_unsigned() || *found < least || *found > most) {
    throw Failure(fmt::format("'{}' is no number from {} to {}", key, least, most));
  }
  return found->get<uint32_t>();
}

// Throws Failure with what is wrong with the entry.
std::pair<ShadowFieldKey, uint32_t> fieldOf(const json& entry) {
  if (!entry.is_object()) throw Failure("is no object");
  constexpr uint32_t all = std::numeric_limits<uint32_t>::max();
  const uint32_t address = numberAt(entry, "address", 0, all);
  const uint32_t start = numberAt(entry, "start", 0, 31);
  const uint32_t size = numberAt(entry, "size", 1, 32 - start);
  const uint32_t value = numberAt(entry, "value", 0, all >> (32 - size));
  if (entry.size() != 4) throw Failure("has a key that nobody knows");
  return {ShadowFieldKey(address, static_cast<uint8_t>(start), static_cast<uint8_t>(size)), value};
}

// All entries, or none: each that cannot be used is named first. Names that are not empty are those
// of all fields that the chip has.
Fields requireFields(const std::string& file, const json& document, const FieldNames& names) {
  Fields fields;
  size_t refused = 0, index = 0;
  for (const json& entry : document["fields"]) {
    try {
      const auto [key, value] = fieldOf(entry);
      if (!names.empty() && nameOf(key, names).empty()) throw Failure("is no field of the chip");
      if (!fields.emplace(key, value).second) throw Failure("was there before");
    } catch (const Failure& e) {
      ++refused;
      printError(fmt::format("{}: entry {} {}: {}", file, index, e.what(), entry.dump()));
    }
    ++index;
  }
  if (refused != 0) {
    throw Failure(
        fmt::format("{} of {} entries are refused; nothing was imported", refused, index));
  }
  return fields;
}

// An agent that was killed while it brought the chip up has its values there, and they win.
void requireNoSavedValues(const Shoal::TablePaths& paths) {
  const std::string chip = paths.mountPath.substr(paths.mountPath.rfind('/') + 1);
  const std::string saved = fmt::format("{}/korud/{}.saved", Shoal::stateDirectory(), chip);
  if (!std::filesystem::exists(saved)) return;
  throw Failure(fmt::format("{} has values that win over the table's: start korud once", saved));
}

int importTable(const ShadowOptions& shadow, const std::string& file) {
  const Shoal::TablePaths paths = tablePaths(shadow);
  const Fields fields =
      requireFields(file, readDocument(file), fieldNamesAt(shadow.config, paths.mountPath));
  if (const auto writer = Shoal::tableWriter(paths)) {
    throw Failure(fmt::format("process {} writes {}: end it first, or write through it", *writer,
                              paths.mountPath));
  }
  requireNoSavedValues(paths);
  // Whatever is there stays, but for the fields that the file has.
  std::set<uint64_t> keys;
  if (const auto info = Shoal::tableInfo(paths)) {
    if (info->isDamaged()) throw Failure(fmt::format("{} is damaged", paths.mountPath));
    for (const auto& entry : info->entries) keys.insert(entry.key);
  }
  for (const auto& [key, value] : fields) keys.insert(packShadowFieldKey(key));
  Shoal::ShoalMap table({});
  table.mountAsWriter(paths.mountPath, KoruRegFile::ShadowFieldsConfig::entityType().name(),
                      static_cast<uint32_t>(keys.size()));
  for (const auto& [key, value] : fields) table.put(packShadowFieldKey(key), value);
  printLine(fmt::format("{}: {} fields imported", paths.mountPath, fields.size()));
  return done;
}

}  // namespace

void addShadowBackupCommands(Command family) {
  family.command("export", "Print the contents of a table, for import.",
                 "korureg shadow export KoruRegFile/shadowFieldsConfig/chip0 > chip0.json",
                 [](Command command) {
                   auto shadow = std::make_shared<ShadowOptions>();
                   addTableOptions(command, *shadow);
                   command.runs([shadow] { return exportTable(*shadow); });
                 });
  family.command("import", "Put what was exported into a table that nobody writes.",
                 "korureg shadow import KoruRegFile/shadowFieldsConfig/chip0 chip0.json "
                 "--state-dir /tmp/board",
                 [](Command command) {
                   auto target = std::make_shared<ShadowOptions>();
                   auto file = std::make_shared<std::string>();
                   addTableOptions(command, *target);
                   command.operand("FILE", *file, "what was exported; - for standard input");
                   command.option("--config", "FILE", target->config,
                                  "the system file: refuse what is no field of it");
                   command.runs([target, file] { return importTable(*target, *file); });
                 });
}

}  // namespace korureg
