#pragma once

// The commands of `korureg map` that are in files of their own.

#include "korureg/Command.h"

namespace korureg {

void addImportCommand(Command map, Options& options);
void addExportCommands(Command map, Options& options);

}  // namespace korureg
