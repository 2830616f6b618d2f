#pragma once

// Names for what lies in a chip's shadow tables, from its system file.

#include <map>
#include <string>

#include "KoruRegFile/ShadowFieldTypes.h"
#include "korureg/Command.h"

namespace korureg {

using FieldNames = std::map<KoruRegFile::ShadowFieldKey, std::string>;

// "register.field" of each of the chip's fields; none without a system file. Throws UsageError when
// the file has no such chip, and Board::FileError.
FieldNames fieldNames(const std::string& config, const std::string& chip);

// Those of the chip whose table lies at the path, which ends with the chip's name.
FieldNames fieldNamesAt(const std::string& config, const std::string& mountPath);

// The field's name; empty when it has none.
std::string nameOf(const KoruRegFile::ShadowFieldKey& key, const FieldNames& names);

// The option --config, for the names of fields.
void addConfigOption(Command command, std::string& config);

// Adds "diff" to the shadow commands.
void addShadowDiffCommand(Command family, Options& options);

}  // namespace korureg
