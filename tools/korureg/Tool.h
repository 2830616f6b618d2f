#pragma once

// korureg as a whole. It is two programs: what draws on a whole screen is loaded only by the one
// that does.

#include "korureg/top/TopCommand.h"

namespace korureg {

// What main() does; `runTop` is what "top" does.
int runTool(int argc, char** argv, const RunTop& runTop);

}  // namespace korureg
