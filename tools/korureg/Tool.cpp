// korureg as a whole: its commands, and what it says when one fails.

#include "korureg/Tool.h"

#include <algorithm>

#include "Orb/StandardStreams.h"
#include "Orb/Trace.h"
#include "korureg/Command.h"
#include "korureg/CommandLine.h"
#include "korureg/Completion.h"
#include "korureg/Output.h"
#include "korureg/Transport.h"

namespace korureg {

namespace {

// Library traces are for whoever debugs the library: none without -v. What ORB_TRACE sets, stays.
void setTraces(int verbosity) {
  static constexpr int levels[] = {-1, 1, 9};
  Orb::traceLevelIs("*", levels[std::min(verbosity, 2)]);
}

void describeTool(Command tool, Options& options, const Programs& programs) {
  tool.option("--map", "FILE", options.map, "the chip's register map, in CSV form");
  addTransportOptions(tool, options);
  tool.flag("--json", options.json, "print JSON instead of tables");
  tool.count("-v,--verbose", "show the library's traces; -vv shows all of them", setTraces);
  addMapCommands(tool, options);
  addListCommand(tool, options);
  addReadCommand(tool, options);
  addWriteCommand(tool, options);
  addWaitCommand(tool, options);
  addDumpCommand(tool, options);
  addWatchCommand(tool, options);
  addChipCommands(tool, options);
  addFieldCommands(tool, options);
  addRegisterCommands(tool, options);
  addHardwareCommands(tool, options);
  addApplyCommand(tool, options);
  addVerifyCommand(tool, options);
  addLogCommand(tool, options);
  addRecordCommand(tool, options);
  addShadowCommands(tool, options);
  addPeekCommands(tool, options);
  addProbeCommand(tool, options);
  addTopCommand(tool, programs.top);
  addWebCommand(tool, programs.web);
  addCompletionCommand(tool);
}

int run(int argc, char** argv, const Programs& programs) {
  setTraces(0);
  Options options;
  return runCommandLine(argc, argv, [&](Command tool) { describeTool(tool, options, programs); });
}

}  // namespace

int runTool(int argc, char** argv, const Programs& programs) {
  Orb::reserveStandardStreams();
  try {
    const int exitCode = run(argc, argv, programs);
    if (outputIsComplete()) return exitCode;
    throw Failure("cannot write to standard output");
  } catch (const UsageError& e) {
    printError(e.what());
    return usage;
  } catch (const std::exception& e) {
    printError(e.what());
    return failed;
  }
}

}  // namespace korureg
