// korureg write

#include <fmt/format.h>

#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/Reading.h"

namespace korureg {

namespace {

struct Assignment {
  Target target;
  uint32_t value;
};

// Everything that can be wrong with an assignment is found here, before the first register is
// touched.
Assignment parseAssignment(const Chip& chip, const std::string& text, bool force) {
  const size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageError(fmt::format("'{}' is no assignment (write NAME=VALUE)", text));
  }
  const Target target = chip.target(text.substr(0, equals));
  uint64_t value = 0;
  try {
    value = KoruRegFile::parseNumber(text.substr(equals + 1), UINT32_MAX);
  } catch (const std::invalid_argument& e) {
    throw UsageError(fmt::format("{}: {}", target.name(), e.what()));
  }
  if (!target.reg->writeable && !force) {
    throw UsageError(
        fmt::format("{} is read only (--force writes it all the same)", target.name()));
  }
  const bool mayBeForced = !target.hasRange;
  if (!KoruRegFile::fitsWidth(value, target.width()) && !(force && mayBeForced)) {
    throw UsageError(fmt::format(
        "{} does not fit the {} bits of {}{}", hex(value), target.width(), target.name(),
        mayBeForced && chip.carriesTooWide() ? " (--force writes it all the same)" : ""));
  }
  return {target, static_cast<uint32_t>(value)};
}

// A range is read, changed and written.
void carryOut(const Chip& chip, const Assignment& assignment) {
  const auto& [target, value] = assignment;
  chip.write(*target.reg,
             target.hasRange ? target.range.insert(chip.read(*target.reg), value) : value);
}

// Stops at the first failure: later writes may depend on earlier ones.
int writeAll(const Chip& chip, const std::vector<Assignment>& assignments, bool json) {
  std::vector<Reading> written;
  for (const Assignment& assignment : assignments) {
    Reading result{assignment.target, assignment.value, ""};
    try {
      carryOut(chip, assignment);
    } catch (const Failure& e) {
      result.failure = e.what();
    }
    written.push_back(result);
    if (!result.failure.empty()) break;
  }
  const int exitCode = report(written, json);
  if (written.size() < assignments.size()) {
    printError(fmt::format("not written after this: {} of {} assignments",
                           assignments.size() - written.size(), assignments.size()));
  }
  return exitCode;
}

// As given on the command line.
struct Writing {
  std::vector<std::string> texts;
  bool force = false;
};

int write(const Options& options, const Writing& writing) {
  const Chip chip(options, Chip::Use::registers);
  std::vector<Assignment> assignments;
  for (const std::string& text : writing.texts) {
    assignments.push_back(parseAssignment(chip, text, writing.force));
  }
  return writeAll(chip, assignments, options.json);
}

}  // namespace

void addWriteCommand(Command app, Options& options) {
  app.command("write", "Write registers, or ranges of their bits; shows what was written.",
              "korureg --map chip.csv --mock write control=0x2a 'mode[7:4]=0b11'",
              [&](Command command) {
                auto writing = std::make_shared<Writing>();
                command.operands("ASSIGNMENT", writing->texts,
                                 "what to write: NAME=VALUE, decimal, 0x or 0b");
                command.flag("--force", writing->force,
                             "write read-only registers and values that are too wide");
                command.runs([writing, &options] { return write(options, *writing); });
              });
}

}  // namespace korureg
