// korureg list, korureg read, korureg dump

#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/Reading.h"

namespace korureg {

void addListCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& command = addCommand(app, "list", "List the chip's registers.",
                                 "korureg --map chip.csv list --match 'fifo_*'");
  auto glob = std::make_shared<std::string>();
  command.add_option("--match", *glob, "only names that match this shell pattern")
      ->type_name("GLOB");
  addBlockSize(command, options);
  command.callback([glob, &options, &exitCode] {
    const Chip chip(options, Chip::Use::map);
    printRegisters(chip.matching(*glob), chip.hasAddresses(), options.json);
    exitCode = done;
  });
}

void addReadCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& command = addCommand(app, "read", "Read registers, or ranges of their bits.",
                                 "korureg --map chip.csv --mock read status 'control[7:4]'");
  auto names = std::make_shared<std::vector<std::string>>();
  command.add_option("NAME", *names, "register, as in control, or bits, as in control[7:4]")
      ->required();
  command.callback([names, &options, &exitCode] {
    const Chip chip(options, Chip::Use::registers);
    exitCode = report(readTargets(chip, chip.targets(*names)), options.json);
  });
}

void addDumpCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& command = addCommand(app, "dump", "Read every register of the chip.",
                                 "korureg --map chip.csv --mock dump --match '*_hi'");
  auto glob = std::make_shared<std::string>();
  command.add_option("--match", *glob, "only names that match this shell pattern")
      ->type_name("GLOB");
  command.callback([glob, &options, &exitCode] {
    const Chip chip(options, Chip::Use::registers);
    exitCode = report(readTargets(chip, chip.matching(*glob)), options.json);
  });
}

}  // namespace korureg
