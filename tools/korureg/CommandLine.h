#pragma once

// How korureg's command line looks and complains: the form of its help, checks of option values,
// and what is said about a command line that cannot be parsed.

#include "korureg/Command.h"

namespace korureg {

// Parses the command line that `describe` describes, runs the command that it names, and returns
// the exit code; says on standard error what is wrong with it. Takes every argument as it is.
// Throws what the command throws.
int runCommandLine(int argc, char** argv, const Command::Describe& describe);

}  // namespace korureg
