#pragma once

#include "korureg/AgentCommand.h"

namespace korureg {

// korureg field watch: until a signal, or until nobody reads the output.
int watchFields(const AgentArguments& arguments, const Options& options);

}  // namespace korureg
