#pragma once

// What the shadow commands share: an entry of a shadow field table, and the table that is named on
// the command line.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "KoruRegFile/ShadowFieldTypes.h"
#include "Shoal/StatePath.h"
#include "Shoal/TableInfo.h"
#include "korureg/Command.h"

namespace korureg {

// Where and what, as given on the command line.
struct ShadowOptions {
  std::string path;
  std::string stateDirectory;  // empty for the environment's choice
  std::string config;          // the system file that names the fields; empty for no names
};

// The files of the table. Throws UsageError for a path that no table can have.
Shoal::TablePaths tablePaths(const ShadowOptions& shadow);

// Throws Failure for a type that is no table of shadow fields.
void requireShadowFields(const Shoal::TablePaths& paths, const std::string& typeName);

// The field that a key of such a table stands for. Throws Failure when it stands for none.
KoruRegFile::ShadowFieldKey unpackField(uint64_t key);

// The value as wide as the field, and the field's bits as "[7:4]".
std::string fieldHex(const KoruRegFile::ShadowFieldKey& field, uint32_t value);
std::string fieldBits(const KoruRegFile::ShadowFieldKey& field);
nlohmann::ordered_json fieldJson(const KoruRegFile::ShadowFieldKey& field);

// All about the table. Throws Failure when there is none.
Shoal::TableInfo requireTable(const Shoal::TablePaths& paths);

// What is wrong with it, one thing a text.
std::vector<std::string> problemsOf(const Shoal::TableInfo& info);

// What can be shown, in order; what cannot is added to the problems.
std::map<KoruRegFile::ShadowFieldKey, uint32_t> fieldsOf(const Shoal::TableInfo& info,
                                                         std::vector<std::string>& problems);

// korureg shadow watch
int watchShadow(const ShadowOptions& shadow, bool json);

// Adds the options of a command about one table: the path and the state directory.
void addTableOptions(Command command, ShadowOptions& shadow);

// Adds "export" and "import" to the shadow commands.
void addShadowBackupCommands(Command family);

}  // namespace korureg
