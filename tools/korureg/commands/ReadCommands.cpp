// korureg list, korureg read, korureg dump

#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/Reading.h"

namespace korureg {

void addListCommand(Command app, Options& options) {
  app.command("list", "List the chip's registers.", "korureg --map chip.csv list --match 'fifo_*'",
              [&](Command command) {
                auto glob = std::make_shared<std::string>();
                command.option("--match", "GLOB", *glob,
                               "only names that match this shell pattern");
                addBlockSize(command, options);
                command.runs([glob, &options] {
                  const Chip chip(options, Chip::Use::map);
                  printRegisters(chip.matching(*glob), chip.hasAddresses(), options.json);
                  return done;
                });
              });
}

void addReadCommand(Command app, Options& options) {
  app.command("read", "Read registers, or ranges of their bits.",
              "korureg --map chip.csv --mock read status 'control[7:4]'", [&](Command command) {
                auto names = std::make_shared<std::vector<std::string>>();
                command.operands("NAME", *names,
                                 "register, as in control, or bits, as in control[7:4]");
                command.runs([names, &options] {
                  const Chip chip(options, Chip::Use::registers);
                  return report(readTargets(chip, chip.targets(*names)), options.json);
                });
              });
}

void addDumpCommand(Command app, Options& options) {
  app.command("dump", "Read every register of the chip.",
              "korureg --map chip.csv --mock dump --match '*_hi'", [&](Command command) {
                auto glob = std::make_shared<std::string>();
                command.option("--match", "GLOB", *glob,
                               "only names that match this shell pattern");
                command.runs([glob, &options] {
                  const Chip chip(options, Chip::Use::registers);
                  return report(readTargets(chip, chip.matching(*glob)), options.json);
                });
              });
}

}  // namespace korureg
