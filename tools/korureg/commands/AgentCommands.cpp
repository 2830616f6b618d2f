// korureg chip, field, register, hw and stats: what the agent does for a client.

#include <fmt/format.h>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;
using Run = int (*)(const AgentOptions& agent, const Options& options);

ordered_json request(const char* op, const AgentOptions& agent) {
  ordered_json json = {{"op", op}};
  if (!agent.chip.empty()) json["chip"] = agent.chip;
  if (!agent.reg.empty()) json["register"] = agent.reg;
  if (!agent.field.empty()) json["field"] = agent.field;
  if (!agent.value.empty()) json["value"] = agent.value;
  if (agent.force) json["force"] = true;
  return json;
}

uint64_t valueOf(const ordered_json& result) { return result.value("value", uint64_t{0}); }

std::string cell(const ordered_json& entry, const char* key) {
  const auto found = entry.find(key);
  if (found == entry.end()) return "";
  return found->is_string() ? found->get<std::string>() : found->dump();
}

int listChips(const AgentOptions& agent, const Options& options) {
  const ordered_json chips = AgentClient(agent).ask(request("chip.list", agent));
  if (options.json) return printJson(chips), done;
  Table table({{"CHIP"},
               {"STATE"},
               {"FIELDS", Table::Align::right},
               {"REGISTERS", Table::Align::right},
               {"REWRITES", Table::Align::right},
               {"IN FLIGHT", Table::Align::right},
               {"TRANSPORT"},
               {"REASON"}});
  for (const auto& chip : chips) {
    table.add({cell(chip, "name"), cell(chip, "state"), cell(chip, "fields"),
               cell(chip, "registers"), cell(chip, "rewrites"), cell(chip, "in_flight"),
               cell(chip, "transport"), cell(chip, "reason")});
  }
  table.print();
  return done;
}

int showStats(const AgentOptions& agent, const Options& options) {
  const ordered_json counters = AgentClient(agent).ask(request("stats", agent));
  if (options.json) return printJson(counters), done;
  Table table({{"OWNER"}, {"COUNTER"}, {"VALUE", Table::Align::right}});
  for (const auto& counter : counters) {
    table.add({cell(counter, "owner"), cell(counter, "name"), cell(counter, "value")});
  }
  table.print();
  return done;
}

// Asks for one value and prints it.
int printValue(const char* op, const AgentOptions& agent, const Options& options) {
  const ordered_json result = AgentClient(agent).ask(request(op, agent));
  if (options.json) {
    printJson(result);
  } else {
    printLine(hex(valueOf(result)));
  }
  return done;
}

// Asks for a change, which is silent when it works.
int change(const char* op, const AgentOptions& agent, const Options& options) {
  const ordered_json result = AgentClient(agent).ask(request(op, agent));
  if (options.json) printJson(result);
  return done;
}

int readRegister(const AgentOptions& agent, const Options& options) {
  const ordered_json result = AgentClient(agent).ask(request("register.read", agent));
  if (options.json) return printJson(result), done;
  printLine(hex(valueOf(result)));
  Table table({{"FIELD"}, {"HEX", Table::Align::right}, {"DECIMAL", Table::Align::right}});
  const ordered_json fields = result.value("fields", ordered_json::object());
  for (const auto& [name, value] : fields.items()) {
    table.add({name, hex(value.get<uint64_t>()), value.dump()});
  }
  table.print();
  return done;
}

// What a command takes, besides the agent.
enum Takes : unsigned { nothing = 0, chip = 1, reg = 2, field = 4, value = 8, force = 16 };

struct Description {
  const char* name;
  const char* text;
  const char* example;
  unsigned takes;
  Run run;
};

void add(CLI::App& family, const Description& description, Options& options, int& exitCode) {
  CLI::App& command = addCommand(family, description.name, description.text, description.example);
  auto agent = std::make_shared<AgentOptions>();
  const auto takes = [&](Takes what) { return (description.takes & what) != 0; };
  if (takes(chip)) command.add_option("CHIP", agent->chip, "the chip's name")->required();
  if (takes(reg)) command.add_option("REGISTER", agent->reg, "the register's name")->required();
  if (takes(field)) command.add_option("FIELD", agent->field, "the field's name")->required();
  if (takes(value)) {
    command.add_option("VALUE", agent->value, "a number, as in 12 or 0xc")->required();
  }
  if (takes(force)) {
    command.add_flag("--force", agent->force, "also a register that is configured or read-only");
  }
  addAgentOptions(command, *agent);
  command.callback(
      [agent, run = description.run, &options, &exitCode] { exitCode = run(*agent, options); });
}

CLI::App& addFamily(CLI::App& app, const char* name, const char* text, const char* example) {
  CLI::App& family = addCommand(app, name, text, example);
  family.require_subcommand(1);
  return family;
}

void addFields(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& family = addFamily(app, "field", "Read and write logical fields, through the agent.",
                               "korureg field write power0 config gain 2");
  const Description commands[] = {
      {"read", "Print the value that was last written.", "korureg field read power0 config gain",
       chip | reg | field,
       [](const AgentOptions& a, const Options& o) { return printValue("field.read", a, o); }},
      {"write", "Write a value.", "korureg field write power0 config gain 2",
       chip | reg | field | value,
       [](const AgentOptions& a, const Options& o) { return change("field.write", a, o); }},
      {"reset", "Write the system file's value.", "korureg field reset power0 config gain",
       chip | reg | field,
       [](const AgentOptions& a, const Options& o) { return change("field.reset", a, o); }},
  };
  for (const Description& command : commands) add(family, command, options, exitCode);
}

void addRegisters(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& family =
      addFamily(app, "register", "Read and write logical registers, through the agent.",
                "korureg register read power0 config");
  const Description commands[] = {
      {"read", "Print the value that was last written, and the fields.",
       "korureg register read power0 config", chip | reg, readRegister},
      {"write", "Write all fields of a register.", "korureg register write power0 config 0x37",
       chip | reg | value,
       [](const AgentOptions& a, const Options& o) { return change("register.write", a, o); }},
  };
  for (const Description& command : commands) add(family, command, options, exitCode);
}

void addHardware(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& family = addFamily(app, "hw", "Read and write hardware registers, through the agent.",
                               "korureg hw read power0 CONFIGURATION");
  const Description commands[] = {
      {"read", "Read a register of the chip's map.", "korureg hw read power0 CONFIGURATION",
       chip | reg,
       [](const AgentOptions& a, const Options& o) { return printValue("hw.read", a, o); }},
      {"write", "Write a register of the chip's map.", "korureg hw write imu0 INT_ENABLE 0x01",
       chip | reg | value | force,
       [](const AgentOptions& a, const Options& o) { return change("hw.write", a, o); }},
  };
  for (const Description& command : commands) add(family, command, options, exitCode);
}

}  // namespace

void addAgentCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& chips = addFamily(app, "chip", "Look at the chips of the agent.", "korureg chip list");
  add(chips, {"list", "List the chips and how they do.", "korureg chip list", nothing, listChips},
      options, exitCode);
  addFields(app, options, exitCode);
  addRegisters(app, options, exitCode);
  addHardware(app, options, exitCode);
  add(app, {"stats", "Show the agent's counters.", "korureg stats", nothing, showStats}, options,
      exitCode);
}

}  // namespace korureg
