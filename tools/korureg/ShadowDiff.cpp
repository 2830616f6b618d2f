// korureg shadow diff: what the fields of a chip are to hold, and what was written.

#include "korureg/ShadowDiff.h"

#include <fmt/format.h>

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <thread>

#include "KoruRegFile/SystemStatus.h"
#include "Shoal/TableInfo.h"
#include "board/description/SystemFile.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/ShadowField.h"

namespace korureg {

namespace {

using KoruRegFile::ShadowFieldKey;
using nlohmann::ordered_json;
using Values = std::map<ShadowFieldKey, uint32_t>;

struct DiffOptions {
  ShadowOptions shadow;
  std::string chip;
};

// The contents of one of the chip's tables. Throws Failure when there is none, or it is damaged.
Values valuesOf(ShadowOptions shadow, const std::string& path) {
  shadow.path = path;
  const Shoal::TablePaths paths = tablePaths(shadow);
  const auto info = Shoal::tableInfo(paths);
  if (!info) throw Failure(fmt::format("there is no table {} ({})", paths.mountPath, paths.table));
  requireShadowFields(paths, info->typeName);
  if (info->isDamaged()) {
    throw Failure(fmt::format("{} is damaged; korureg shadow check tells more", paths.mountPath));
  }
  Values values;
  for (const auto& [key, value] : info->entries) values[unpackField(key)] = value;
  return values;
}

std::string valueText(const ShadowFieldKey& key, const Values& values) {
  const auto found = values.find(key);
  return found == values.end() ? "-" : fieldHex(key, found->second);
}

ordered_json valueJson(const ShadowFieldKey& key, const Values& values) {
  const auto found = values.find(key);
  return found == values.end() ? ordered_json() : ordered_json(found->second);
}

// Both tables of a chip.
struct Tables {
  Values wanted;
  Values written;

  // The fields in which they differ, with what each of them holds.
  auto differences() const {
    std::map<ShadowFieldKey, std::pair<ordered_json, ordered_json>> found;
    for (const Values* values : {&wanted, &written}) {
      for (const auto& [key, value] : *values) {
        std::pair held(valueJson(key, wanted), valueJson(key, written));
        if (held.first != held.second) found.emplace(key, std::move(held));
      }
    }
    return found;
  }
};

Tables lookAt(const DiffOptions& options) {
  const std::string config =
      fmt::format("{}/{}", KoruRegFile::MountConstants::shadowFieldsConfigPathPrefix, options.chip);
  const std::string status = fmt::format("KoruRegFile/shadowFieldsStatus/{}", options.chip);
  return {valuesOf(options.shadow, config), valuesOf(options.shadow, status)};
}

constexpr int mostLooks = 10;
// The writer may stand between its two stores for as long as others have the processor.
constexpr std::chrono::milliseconds betweenLooks{5};

// The tables are read one after the other, and somebody may write a field meanwhile. What differs
// in the same way in every look is a difference.
Tables stableTables(const DiffOptions& options, std::set<ShadowFieldKey>& differing) {
  Tables tables = lookAt(options);
  auto stable = tables.differences();
  for (int look = 1; look < mostLooks && !stable.empty(); ++look) {
    std::this_thread::sleep_for(betweenLooks);
    tables = lookAt(options);
    const auto now = tables.differences();
    std::erase_if(stable, [&](const auto& difference) {
      const auto found = now.find(difference.first);
      return found == now.end() || found->second != difference.second;
    });
  }
  for (const auto& [key, held] : stable) differing.insert(key);
  return tables;
}

int diff(const DiffOptions& options, bool json) {
  const FieldNames names = fieldNames(options.shadow.config, options.chip);
  std::set<ShadowFieldKey> differing;
  const auto [wanted, written] = stableTables(options, differing);
  std::set<ShadowFieldKey> keys;
  for (const auto& [key, value] : wanted) keys.insert(key);
  for (const auto& [key, value] : written) keys.insert(key);
  Table table({{"FIELD"},
               {"ADDRESS", Table::Align::right},
               {"BITS", Table::Align::right},
               {"WANTED", Table::Align::right},
               {"WRITTEN", Table::Align::right},
               {"NEXT"}});
  ordered_json document = ordered_json::array();
  for (const ShadowFieldKey& key : keys) {
    const bool isNext = differing.contains(key);
    const std::string name = nameOf(key, names);
    ordered_json entry = fieldJson(key);
    entry["name"] = name;
    entry["wanted"] = valueJson(key, wanted);
    entry["written"] = valueJson(key, written);
    entry["next"] = isNext;
    document.push_back(entry);
    table.add({name, hex(key.address()), fieldBits(key), valueText(key, wanted),
               valueText(key, written), isNext ? "to be written" : ""});
  }
  if (json) {
    printJson(document);
  } else {
    table.print();
  }
  return differing.empty() ? done : failed;
}

}  // namespace

FieldNames fieldNames(const std::string& config, const std::string& chip) {
  FieldNames names;
  if (config.empty()) return names;
  const Board::Description board = Board::readFile(config);
  for (const Board::Chip& described : board.chips) {
    if (described.name != chip) continue;
    for (const Board::Field& field : described.fields) {
      names[field.key()] = fmt::format("{}.{}", field.logicalRegister, field.logicalField);
    }
    return names;
  }
  throw UsageError(fmt::format("{} describes no chip '{}' that can be used", config, chip));
}

FieldNames fieldNamesAt(const std::string& config, const std::string& mountPath) {
  return fieldNames(config, mountPath.substr(mountPath.rfind('/') + 1));
}

std::string nameOf(const ShadowFieldKey& key, const FieldNames& names) {
  const auto named = names.find(key);
  return named == names.end() ? "" : named->second;
}

void addConfigOption(Command command, std::string& config) {
  command.option("--config", "FILE", config, "the system file, for the names of the fields");
}

void addShadowDiffCommand(Command family, Options& options) {
  family.command("diff", "Compare what a chip's fields are to hold with what was written.",
                 "korureg shadow diff power0 --config /etc/koru/korud.toml", [&](Command command) {
                   auto chosen = std::make_shared<DiffOptions>();
                   command.operand("CHIP", chosen->chip, "the chip's name");
                   addConfigOption(command, chosen->shadow.config);
                   command.option("--state-dir", "DIR", chosen->shadow.stateDirectory,
                                  "where the tables lie");
                   command.runs([chosen, &options] { return diff(*chosen, options.json); });
                 });
}

}  // namespace korureg
