#include "korureg/Completion.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "KoruRegFile/RegisterFile.h"
#include "Shoal/StatePath.h"
#include "board/chips/History.h"
#include "korureg/AgentAnswer.h"
#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/CompletionScripts.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using Names = std::vector<std::string>;

constexpr double patience = 1;  // seconds

const std::string* given(const OperandPlace& place, const char* option) {
  const auto found = place.options.find(option);
  return found == place.options.end() ? nullptr : &found->second;
}

AgentOptions agentOf(const OperandPlace& place) {
  AgentOptions options;
  if (const auto* socket = given(place, "--socket")) options.socket = *socket;
  if (const auto* directory = given(place, "--state-dir")) options.stateDirectory = *directory;
  options.timeout = patience;
  return options;
}

// The entries of one of the agent's lists about the chip that was named.
nlohmann::ordered_json listOf(const OperandPlace& place, const char* op) {
  nlohmann::ordered_json request = {{"op", op}};
  if (!place.operands.empty()) request["chip"] = place.operands.front();
  return listIn(AgentClient(agentOf(place)).askPlainly(request));
}

Names namesIn(const nlohmann::ordered_json& list) {
  Names names;
  for (const auto& entry : list) names.push_back(textAt(entry, "name"));
  return names;
}

Names chips(const OperandPlace& place) { return namesIn(listOf(place, "chip.list")); }

Names chipsOfHistory(const OperandPlace& place) {
  if (const auto* directory = given(place, "--state-dir")) Shoal::stateDirectoryIs(*directory);
  return Board::chipsWithHistory(Shoal::stateDirectory());
}

Names hardwareRegisters(const OperandPlace& place) { return namesIn(listOf(place, "hw.list")); }

Names logicalRegisters(const OperandPlace& place) {
  return namesIn(listOf(place, "register.list"));
}

Names fields(const OperandPlace& place) {
  Names names;
  for (const auto& entry : listOf(place, "field.list")) {
    names.push_back(textAt(entry, "register") + '.' + textAt(entry, "field"));
  }
  return names;
}

Names fieldsWithValues(const OperandPlace& place) {
  Names names = fields(place);
  for (std::string& name : names) name += '=';
  return names;
}

Names registersOfMap(const OperandPlace& place) {
  Names names;
  const auto* map = given(place, "--map");
  if (!map) return names;
  const KoruRegFile::RegisterFile file(map->c_str(), 1);
  for (const auto& reg : file.registers()) names.emplace_back(reg.name);
  return names;
}

Names registersWithValues(const OperandPlace& place) {
  Names names = registersOfMap(place);
  for (std::string& name : names) name += '=';
  return names;
}

// An empty text stands for any family or command.
struct Row {
  const char* family;
  const char* command;
  const char* operand;
  Names (*names)(const OperandPlace& place);
};
constexpr Row rows[] = {
    {"", "log", "CHIP", chipsOfHistory},
    {"", "", "CHIP", chips},
    {"hw", "", "REGISTER", hardwareRegisters},
    {"chip", "rewrite", "REGISTER", hardwareRegisters},
    {"field", "", "REGISTER", fields},
    {"field", "", "FIELD", fields},
    {"field", "", "ASSIGNMENT", fieldsWithValues},
    {"register", "", "REGISTER", logicalRegisters},
    {"", "write", "ASSIGNMENT", registersWithValues},
    {"", "", "NAME", registersOfMap},
};

bool stands(const char* wanted, const std::string& name) { return !*wanted || wanted == name; }

}  // namespace

std::vector<std::string> namesFor(const OperandPlace& place) {
  for (const Row& row : rows) {
    if (!stands(row.family, place.family) || !stands(row.command, place.command) ||
        place.operand != row.operand) {
      continue;
    }
    try {
      return row.names(place);
    } catch (const std::exception&) {
      return {};  // there is nobody to tell
    }
  }
  return {};
}

void addCompletionCommand(Command app) {
  app.command("completion",
              "Print what makes a shell complete the words: source <(korureg completion bash)",
              "korureg completion bash", [](Command command) {
                auto shell = std::make_shared<std::string>();
                command.operand("SHELL", *shell, "bash or zsh");
                command.runs([shell] {
                  if (*shell != "bash" && *shell != "zsh") {
                    throw UsageError("there is a completion for bash and for zsh");
                  }
                  printLine(*shell == "bash" ? bashCompletion : zshCompletion);
                  return done;
                });
              });
}

}  // namespace korureg
