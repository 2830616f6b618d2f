// korureg: a chip's registers from the command line.

#include <algorithm>

#include "Orb/StandardStreams.h"
#include "Orb/Trace.h"
#include "korureg/Command.h"
#include "korureg/CommandLine.h"
#include "korureg/Output.h"
#include "korureg/Transport.h"

namespace korureg {

CLI::App& addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& example) {
  CLI::App* command = app.add_subcommand(name, description);
  command->group("Commands");
  command->footer("Example:\n  " + example +
                  "\n\nHow to name the map and the way to the chip is told in korureg --help.");
  command->fallthrough();
  return *command;
}

namespace {

// Library traces are for whoever debugs the library: none without -v. What ORB_TRACE sets, stays.
void setTraces(int verbosity) {
  static constexpr int levels[] = {-1, 1, 9};
  Orb::traceLevelIs("*", levels[std::min(verbosity, 2)]);
}

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--map", options.map, "the chip's register map, in CSV form")->type_name("FILE");
  addTransportOptions(app, options);
  app.add_flag("--json", options.json, "print JSON instead of tables");
  app.add_flag_function(
      "-v,--verbose", [](int64_t count) { setTraces(static_cast<int>(count)); },
      "show the library's traces; -vv shows all of them");
  app.set_version_flag("--version", "korureg " KORU_VERSION, "show the version");
}

int run(int argc, char** argv) {
  CLI::App app("Read and write the registers of a chip by name.", "korureg");
  app.footer(
      "Example:\n  korureg --map examples/maps/ina219.csv --mock read CONFIGURATION\n\n"
      "Exit status: 0 done, 1 an access failed, 2 the command line cannot be used.");
  app.formatter(helpFormatter());
  app.set_help_flag("-h,--help", "show this help");
  app.require_subcommand(1);
  Options options;
  int exitCode = done;
  setTraces(0);
  addOptions(app, options);
  addMapCommands(app, options, exitCode);
  addListCommand(app, options, exitCode);
  addReadCommand(app, options, exitCode);
  addWriteCommand(app, options, exitCode);
  addWaitCommand(app, options, exitCode);
  addDumpCommand(app, options, exitCode);
  addWatchCommand(app, options, exitCode);
  addChipCommands(app, options, exitCode);
  addFieldCommands(app, options, exitCode);
  addRegisterCommands(app, options, exitCode);
  addHardwareCommands(app, options, exitCode);
  addApplyCommand(app, options, exitCode);
  addVerifyCommand(app, options, exitCode);
  addShadowCommands(app, options, exitCode);
  addPeekCommands(app, options, exitCode);
  addProbeCommand(app, options, exitCode);
  try {
    parseArguments(app, argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    printError(complaint(app, e));
    return usage;
  }
  return exitCode;
}

int guardedRun(int argc, char** argv) {
  try {
    const int exitCode = run(argc, argv);
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

}  // namespace

}  // namespace korureg

int main(int argc, char** argv) {
  Orb::reserveStandardStreams();
  return korureg::guardedRun(argc, argv);
}
