// korureg map check, korureg map show

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "KoruRegFile/RegisterFileCheck.h"
#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/CommandLine.h"
#include "korureg/MapPlace.h"
#include "korureg/Output.h"
#include "korureg/Reading.h"

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

}  // namespace

void addBlockSize(CLI::App& command, Options& options) {
  command
      .add_option("--block-size", options.addrBlockSize,
                  "addresses that one register number stands for")
      ->type_name("N")
      ->check(wholeNumber(1, 255));
}

void addMapCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& map =
      addCommand(app, "map", "Work on register map files.", "korureg map check chip.csv");
  map.require_subcommand(1);

  CLI::App& check = addCommand(
      map, "check", "List every problem of register maps, each with file, line, column and reason.",
      "korureg map check chip.csv");
  auto files = std::make_shared<std::vector<std::string>>();
  check.add_option("FILE", *files, "register map in CSV form")->required();
  addBlockSize(check, options);
  check.callback([files, &options, &exitCode] { exitCode = checkMaps(options, *files); });

  CLI::App& show = addCommand(map, "show", "Show the registers of a map.",
                              "korureg map show examples/maps/ina219.csv");
  auto file = std::make_shared<std::string>();
  show.add_option("FILE", *file, "register map in CSV form")->required();
  addBlockSize(show, options);
  show.callback([file, &options, &exitCode] {
    Options ofThisMap = options;
    ofThisMap.map = *file;
    std::erase_if(ofThisMap.places,
                  [](const auto& place) { return place.first == &Board::mockKind; });
    const Chip chip(ofThisMap, Chip::Use::map);
    printRegisters(chip.matching(""), chip.hasAddresses(), options.json);
    exitCode = done;
  });
}

}  // namespace korureg
