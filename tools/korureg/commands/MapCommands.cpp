// korureg map check, korureg map show

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "KoruRegFile/RegisterFileCheck.h"
#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/MapPlace.h"
#include "korureg/Output.h"
#include "korureg/Reading.h"
#include "korureg/RegisterRuler.h"
#include "korureg/ShadowDiff.h"
#include "korureg/commands/MapFiles.h"
#include "korureg/import/MapReader.h"

namespace korureg {

using KoruRegFile::RegisterFileProblem;
using Problems = std::vector<RegisterFileProblem>;

namespace {

bool isError(const RegisterFileProblem& problem) {
  return problem.severity == RegisterFileProblem::Severity::error;
}

const char* severityName(const RegisterFileProblem& problem) {
  return isError(problem) ? "error" : "warning";
}

void printProblems(const std::string& file, const Problems& problems) {
  size_t errors = 0;
  size_t warnings = 0;
  for (const auto& problem : problems) {
    if (problem.omitted != 0) {
      errors += problem.omittedErrors;
      warnings += problem.omitted - problem.omittedErrors;
    } else {
      ++(isError(problem) ? errors : warnings);
    }
    const std::string severity = severityName(problem);
    printLine(fmt::format("{}: {}: {}", mapPlace(file, problem.line, problem.column),
                          isError(problem) ? red(severity) : severity, problem.text));
  }
  const std::string name = mapPlace(file, 0, 0);
  printLine(problems.empty()
                ? fmt::format("{}: ok", name)
                : fmt::format("{}: {} error{}, {} warning{}", name, errors, errors == 1 ? "" : "s",
                              warnings, warnings == 1 ? "" : "s"));
}

nlohmann::ordered_json problemsJson(const std::string& file, const Problems& problems) {
  auto list = nlohmann::ordered_json::array();
  for (const auto& problem : problems) {
    list.push_back({{"line", problem.line},
                    {"column", problem.column},
                    {"severity", severityName(problem)},
                    {"text", problem.text}});
  }
  return {{"file", file}, {"problems", list}};
}

Problems problemsOf(const std::string& file, const Options& options) {
  Problems problems = KoruRegFile::checkRegisterFile(
      file.c_str(), static_cast<uint8_t>(options.addrBlockSize.value_or(largestBlockSize)));
  for (auto& problem : problems) {
    const std::string reason = problem.line == 0 ? whyUnreadable(file) : "";
    if (!reason.empty()) problem.text = reason;
  }
  return problems;
}

int checkMaps(const Options& options, const std::vector<std::string>& files) {
  auto document = nlohmann::ordered_json::array();
  bool anyError = false;
  for (const std::string& file : files) {
    const Problems problems = problemsOf(file, options);
    anyError = anyError || std::any_of(problems.begin(), problems.end(), isError);
    if (options.json) {
      document.push_back(problemsJson(file, problems));
    } else {
      printProblems(file, problems);
    }
  }
  if (options.json) printJson(document);
  return anyError ? failed : done;
}

struct Showing {
  std::string file;
  std::string bits;    // a register to be drawn; empty for a list of all
  std::string config;  // names its fields
};

// The fields of the register as the first chip with the map has them; none without a system file.
std::vector<RulerField> fieldsOf(const Showing& showing, const KoruRegFile::Register& reg) {
  std::vector<RulerField> fields;
  if (showing.config.empty()) return fields;
  const auto add = [&](const auto& name, const Board::Bits& bits) {
    fields.push_back({printable(name), bits.start + bits.size - 1u, bits.start});
  };
  const Board::Chip chip = chipWithMap(showing.config, showing.file);
  for (const Board::Field& field : chip.fields) {
    if (field.physicalRegister == reg.name) add(field.physicalField, field.physical);
  }
  for (const Board::StatusField& field : chip.statusFields) {
    if (field.reg == reg.name) add(field.field, field.bits);
  }
  return fields;
}

void showBits(const Chip& chip, const Showing& showing, bool json) {
  const Target target = chip.target(showing.bits);
  if (target.hasRange) throw UsageError("--bits takes the name of a whole register");
  const std::vector<RulerField> fields = fieldsOf(showing, *target.reg);
  if (!json) {
    for (const auto& line : registerRuler(target.width(), fields)) printLine(line);
    return;
  }
  auto list = nlohmann::ordered_json::array();
  for (const auto& [name, high, low] : fields)
    list.push_back({{"name", name}, {"bits", {high, low}}});
  printJson({{"name", target.name()}, {"width", target.width()}, {"fields", list}});
}

void showMap(const Options& options, const Showing& showing) {
  Options ofThisMap = options;
  ofThisMap.map = showing.file;
  std::erase_if(ofThisMap.places,
                [](const auto& place) { return place.first == &Board::mockKind; });
  const Chip chip(ofThisMap, Chip::Use::map);
  if (!showing.bits.empty()) return showBits(chip, showing, options.json);
  if (!showing.config.empty()) throw UsageError("--config names the fields that --bits shows");
  printRegisters(chip.matching(""), chip.hasAddresses(), options.json);
}

}  // namespace

void addBlockSize(Command command, Options& options) {
  command.number("--block-size", "N", options.addrBlockSize, 1, 255,
                 "addresses that one register number stands for");
}

void addMapCommands(Command app, Options& options) {
  app.family("map", "Work on register map files.", "korureg map check chip.csv", [&](Command map) {
    map.command("check",
                "List every problem of register maps, each with file, line, column and reason.",
                "korureg map check chip.csv", [&](Command command) {
                  auto files = std::make_shared<std::vector<std::string>>();
                  command.operands("FILE", *files, "register map in CSV form");
                  addBlockSize(command, options);
                  command.runs([files, &options] { return checkMaps(options, *files); });
                });
    map.command("show", "Show the registers of a map.", "korureg map show examples/maps/ina219.csv",
                [&](Command command) {
                  auto showing = std::make_shared<Showing>();
                  command.operand("FILE", showing->file, "register map in CSV form");
                  command.option("--bits", "REGISTER", showing->bits,
                                 "draw the bits of this register");
                  addConfigOption(command, showing->config);
                  addBlockSize(command, options);
                  command.runs([showing, &options] {
                    showMap(options, *showing);
                    return done;
                  });
                });
    addImportCommand(map, options);
    addExportCommands(map, options);
  });
}

}  // namespace korureg
