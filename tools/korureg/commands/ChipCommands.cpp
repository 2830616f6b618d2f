// korureg chip and stats: the chips of the agent, and what it counts.

#include <fmt/format.h>

#include <sstream>
#include <string>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/FieldChanges.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

constexpr auto right = Table::Align::right;

struct ChipColumn {
  const char* heading;
  const char* key;
  Table::Align align = Table::Align::left;
};
constexpr ChipColumn chipColumns[] = {
    {"CHIP", "name"},
    {"STATE", "state"},
    {"FIELDS", "fields", right},
    {"REGISTERS", "registers", right},
    {"REWRITES", "rewrites", right},
    {"DRIFTED", "drifted", right},
    {"RESETS", "resets", right},
    {"IN FLIGHT", "in_flight", right},
    {"TRANSPORT", "transport"},
    {"REASON", "reason"},
};

int listChips(const AgentArguments& arguments, const Options& options) {
  const ordered_json chips =
      listIn(AgentClient(arguments.agent).ask(request("chip.list", arguments)));
  if (options.json) return printJson(chips), done;
  std::vector<Table::Column> columns;
  for (const ChipColumn& column : chipColumns) columns.push_back({column.heading, column.align});
  Table table(columns);
  for (const auto& chip : chips) {
    std::vector<std::string> row;
    for (const ChipColumn& column : chipColumns) row.push_back(cellAt(chip, column.key));
    table.add(row);
  }
  table.print();
  return done;
}

int showChip(const AgentArguments& arguments, const Options& options) {
  const ordered_json chip = AgentClient(arguments.agent).ask(request("chip.show", arguments));
  if (options.json) return printJson(chip), done;
  Table table({{"KEY"}, {"VALUE"}});
  for (const auto& [key, value] : chip.items()) table.add({key, cellAt(chip, key.c_str())});
  table.print();
  return done;
}

int rewriteChip(const AgentArguments& arguments, const Options& options) {
  ordered_json asking = request("chip.rewrite", arguments);
  if (!arguments.names.empty()) asking["registers"] = arguments.names;
  return change(asking, arguments, options);
}

int writeDefaults(const AgentArguments& arguments, const Options& options) {
  AgentClient client(arguments.agent);
  const ordered_json result = client.ask(request("chip.defaults", arguments));
  if (options.json) return printJson(result), done;
  printChanges({{arguments.chip, result}}, arguments.raw);
  return done;
}

// In lines, since the agent passes on what it was given.
int showMetrics(const AgentArguments& arguments) {
  std::istringstream text(
      textAt(AgentClient(arguments.agent).ask(request("metrics", arguments)), "text"));
  for (std::string line; std::getline(text, line);) printLine(printable(line));
  return done;
}

int showStats(const AgentArguments& arguments, const Options& options) {
  if (!arguments.format.empty()) return showMetrics(arguments);
  const ordered_json counters =
      listIn(AgentClient(arguments.agent).ask(request("stats", arguments)));
  if (options.json) return printJson(counters), done;
  Table table({{"OWNER"}, {"COUNTER"}, {"VALUE", right}});
  for (const auto& counter : counters) {
    table.add({cellAt(counter, "owner"), cellAt(counter, "name"), cellAt(counter, "value")});
  }
  table.print();
  return done;
}

constexpr AgentCommand commands[] = {
    {"list", "List the chips and how they do.", "korureg chip list", Take::nothing, Take::nothing,
     listChips},
    {"show", "Show what the agent says about a chip.", "korureg chip show power0", Take::chip,
     Take::nothing, showChip},
    {"rewrite", "Write the hardware registers again, all of those with fields or some.",
     "korureg chip rewrite power0 CONFIGURATION", Take::chip, Take::registers, rewriteChip},
    {"defaults", "Write the system file's values to all fields; shows what changes.",
     "korureg chip defaults power0", Take::chip, Take::raw, writeDefaults},
};

}  // namespace

void addChipCommands(Command app, Options& options) {
  app.family("chip", "Look at the chips of the agent, and write them again.", "korureg chip list",
             [&](Command family) {
               for (const AgentCommand& command : commands)
                 addAgentCommand(family, command, options);
             });
  addAgentCommand(app,
                  {"stats", "Show the agent's counters.", "korureg stats", Take::nothing,
                   Take::format, showStats},
                  options);
}

}  // namespace korureg
