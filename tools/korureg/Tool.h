#pragma once

// korureg as a whole. It is several programs: what draws on a whole screen, and what serves a page,
// load what the others do not need.

#include "korureg/top/TopCommand.h"
#include "korureg/web/WebCommand.h"

namespace korureg {

// What commands do that have a program of their own.
struct Programs {
  RunTop top;
  RunWeb web;
};

// What main() does.
int runTool(int argc, char** argv, const Programs& programs);

}  // namespace korureg
