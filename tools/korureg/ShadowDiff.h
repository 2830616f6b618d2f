#pragma once

// Names for what lies in a chip's shadow tables, from its system file.

#include <CLI/CLI.hpp>
#include <map>
#include <string>

#include "KoruRegFile/ShadowFieldTypes.h"
#include "korureg/Command.h"

namespace korureg {

using FieldNames = std::map<KoruRegFile::ShadowFieldKey, std::string>;

// "register.field" of each of the chip's fields; none without a system file. Throws UsageError when
// the file has no such chip, and System::FileError.
FieldNames fieldNames(const std::string& config, const std::string& chip);

// Adds "diff" to the shadow commands.
void addShadowDiffCommand(CLI::App& family, Options& options, int& exitCode);

}  // namespace korureg
