// korureg field list, read, write, reset.

#include <fmt/format.h>

#include <algorithm>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/AgentFields.h"
#include "korureg/Assignment.h"
#include "korureg/FieldWatch.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

constexpr auto right = Table::Align::right;

// Whether a register stands there alone, and not REGISTER.FIELD.
bool isRegister(const AgentArguments& arguments) {
  return arguments.field.empty() && arguments.reg.find('.') == std::string::npos;
}

// With REGISTER.FIELD in one word or in two.
AgentArguments withField(AgentArguments arguments) {
  if (!arguments.field.empty()) return arguments;
  const FieldName name = parseFieldName(arguments.reg);
  arguments.reg = name.reg;
  arguments.field = name.field;
  return arguments;
}

int listFields(const AgentArguments& arguments, const Options& options) {
  AgentClient client(arguments.agent);
  if (options.json) return printJson(client.ask(request("field.list", arguments))), done;
  Table table({{"FIELD"}, {"BITS", right}, {"KIND"}, {"WANTED"}, {"WRITTEN"}, {"DESCRIPTION"}});
  for (const AgentField& field : fieldsOf(client, arguments.chip, arguments.reg)) {
    table.add({field.name(), bitsText(field.bits.value_or(field.hardwareBits)), field.kind,
               field.shown(field.wanted, arguments.raw), field.shown(field.written, arguments.raw),
               field.meaning.description});
  }
  table.print();
  return done;
}

// Whether the field is told by itself only: it is read live, and reading it changes the chip.
bool isLeftOut(const AgentField& field, const AgentArguments& arguments) {
  return field.isStatus() && field.readChanges && !arguments.all;
}

int readFields(const AgentArguments& arguments, const Options& options) {
  AgentClient client(arguments.agent);
  LiveFields live(client, arguments.chip);
  auto document = ordered_json::array();
  Table table({{"FIELD"}, {"RAW", right}, {"VALUE"}});
  for (const AgentField& field : fieldsOf(client, arguments.chip, arguments.reg)) {
    if (isLeftOut(field, arguments)) {
      table.add({field.name(), "-", "left out: reading it changes the chip"});
      continue;
    }
    const auto value = field.isStatus() ? live.value(field) : field.wanted;
    ordered_json entry = {{"register", field.reg}, {"field", field.field}};
    entry["value"] = value ? ordered_json(*value) : ordered_json();
    if (value && field.meaning.isSpoken()) entry["text"] = field.shown(*value, false);
    document.push_back(entry);
    table.add({field.name(), field.shown(value, true), field.shown(value, arguments.raw)});
  }
  options.json ? printJson(document) : table.print();
  return live.anyFailed() ? failed : done;
}

int readField(const AgentArguments& arguments, const Options& options) {
  if (isRegister(arguments)) {
    if (arguments.alone) throw UsageError("--value is of one field: name it");
    return readFields(arguments, options);
  }
  ordered_json asking = request("field.read", withField(arguments));
  if (arguments.live) asking["live"] = true;
  const ordered_json answer = AgentClient(arguments.agent).ask(asking);
  if (options.json) {
    printJson(answer);
  } else {
    printLine(printable(valueText(answer, {.raw = arguments.raw, .alone = arguments.alone})));
  }
  return done;
}

std::vector<Assignment> assignmentsIn(const std::vector<std::string>& words) {
  const auto isAssignment = [](const std::string& word) {
    return word.find('=') != std::string::npos;
  };
  if (words.size() == 3 && std::none_of(words.begin(), words.end(), isAssignment)) {
    return {{{words[0], words[1]}, words[2]}};
  }
  std::vector<Assignment> assignments;
  for (const std::string& word : words) assignments.push_back(parseAssignment(word));
  return assignments;
}

int writeFields(const AgentArguments& arguments, const Options& options) {
  const std::vector<Assignment> assignments = assignmentsIn(arguments.names);
  if (assignments.size() == 1) {
    ordered_json asking = request("field.write", arguments);
    asking.update(toJson(assignments.front(), arguments.raw));
    return change(asking, arguments, options);
  }
  ordered_json asking = request("fields.write", arguments);
  asking["fields"] = ordered_json::array();
  for (const Assignment& assignment : assignments) {
    asking["fields"].push_back(toJson(assignment, arguments.raw));
  }
  return change(asking, arguments, options);
}

int resetField(const AgentArguments& arguments, const Options& options) {
  return change(request("field.reset", withField(arguments)), arguments, options);
}

constexpr AgentCommand commands[] = {
    {"list", "List fields: what they are, what they are to hold, and what was written.",
     "korureg field list power0", Take::chip, Take::reg | Take::raw, listFields},
    {"read", "Print what was last written, or what a status field holds.",
     "korureg field read power0 config.gain", Take::chip,
     Take::reg | Take::field | Take::raw | Take::alone | Take::live | Take::all, readField},
    {"write", "Write fields, all of them in one step.",
     "korureg field write power0 config.gain=160mV config.mode=shunt",
     Take::chip | Take::assignments, Take::raw, writeFields},
    {"reset", "Write the system file's value.", "korureg field reset power0 config.gain",
     Take::chip | Take::reg, Take::field, resetField},
    {"watch", "Show fields, and then each change, until stopped.",
     "korureg field watch power0 config.gain", Take::chip, Take::fields | Take::raw | Take::every,
     watchFields},
};

}  // namespace

void addFieldCommands(Command app, Options& options) {
  app.family("field", "Read and write logical fields, through the agent.",
             "korureg field write power0 config.gain=160mV", [&](Command family) {
               for (const AgentCommand& command : commands)
                 addAgentCommand(family, command, options);
             });
}

}  // namespace korureg
