// korureg register: logical registers, and status registers as the agent has them.

#include <fmt/format.h>

#include <set>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/AgentFields.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

constexpr auto right = Table::Align::right;

ordered_json objectAt(const ordered_json& answer, const char* key) {
  ordered_json object = answer.value(key, ordered_json::object());
  if (!object.is_object()) throw Failure(AgentClient::senseless);
  return object;
}

int listRegisters(const AgentArguments& arguments, const Options& options) {
  const ordered_json list =
      listIn(AgentClient(arguments.agent).ask(request("register.list", arguments)));
  if (options.json) return printJson(list), done;
  Table table({{"REGISTER"}, {"KIND"}, {"FIELDS", right}, {"VALUE", right}});
  for (const auto& reg : list) {
    const auto value = numberAt(reg, "value");
    table.add({textAt(reg, "name"), textAt(reg, "kind"), cellAt(reg, "fields"),
               value ? hex(*value) : "-"});
  }
  table.print();
  return done;
}

// "gain=x2 mode=0x7"
std::string fieldsText(const ordered_json& answer, bool raw) {
  const ordered_json texts = objectAt(answer, "texts");
  const ordered_json fields = objectAt(answer, "fields");
  std::string all;
  for (const auto& field : fields.items()) {
    const std::string text = raw ? "" : textAt(texts, field.key().c_str());
    all += fmt::format("{}{}={}", all.empty() ? "" : "  ", field.key(),
                       text.empty() ? hex(field.value().get<uint64_t>()) : text);
  }
  return all;
}

int readRegisters(const AgentArguments& arguments, const Options& options) {
  if (arguments.alone) throw UsageError("--value is of one register: name it");
  AgentClient client(arguments.agent);
  std::set<std::string> leftOut;
  for (const AgentField& field : fieldsOf(client, arguments.chip)) {
    if (field.isStatus() && field.readChanges && !arguments.all) leftOut.insert(field.reg);
  }
  auto document = ordered_json::array();
  int exitCode = done;
  Table table({{"REGISTER"}, {"VALUE", right}, {"FIELDS"}});
  for (const auto& entry : listIn(client.ask(request("register.list", arguments)))) {
    AgentArguments one = arguments;
    one.reg = textAt(entry, "name");
    if (textAt(entry, "kind") == "status" && leftOut.contains(one.reg)) {
      table.add({one.reg, "-", "left out: reading it changes the chip"});
      continue;
    }
    ordered_json json = {{"name", one.reg}};
    try {
      const ordered_json answer = client.ask(request("register.read", one));
      table.add({one.reg, hex(valueIn(answer)), fieldsText(answer, arguments.raw)});
      json.update(answer);
    } catch (const Refusal& e) {
      printError(e.what());
      table.add({one.reg, "failed", ""});
      json["value"] = nullptr;
      json["error"] = e.what();
      exitCode = failed;
    }
    document.push_back(json);
  }
  options.json ? printJson(document) : table.print();
  return exitCode;
}

int readRegister(const AgentArguments& arguments, const Options& options) {
  if (arguments.reg.empty()) return readRegisters(arguments, options);
  const ordered_json answer = AgentClient(arguments.agent).ask(request("register.read", arguments));
  if (options.json) return printJson(answer), done;
  printLine(hex(valueIn(answer)));
  if (arguments.alone) return done;
  const ordered_json texts = arguments.raw ? ordered_json::object() : objectAt(answer, "texts");
  std::vector<Table::Column> columns = {{"FIELD"}, {"HEX", right}, {"DECIMAL", right}};
  if (!texts.empty()) columns.push_back({"VALUE"});
  Table table(columns);
  const ordered_json fields = objectAt(answer, "fields");
  for (const auto& field : fields.items()) {
    const auto value = field.value().get<uint64_t>();
    std::vector<std::string> row = {field.key(), hex(value), std::to_string(value)};
    if (!texts.empty()) row.push_back(textAt(texts, field.key().c_str()));
    table.add(row);
  }
  table.print();
  return done;
}

int writeRegister(const AgentArguments& arguments, const Options& options) {
  return change(request("register.write", arguments), arguments, options);
}

constexpr AgentCommand commands[] = {
    {"list", "List the logical registers, and those that are read live.",
     "korureg register list power0", Take::chip, Take::nothing, listRegisters},
    {"read", "Print the value that was last written, and the fields.",
     "korureg register read power0 config", Take::chip,
     Take::reg | Take::raw | Take::alone | Take::all, readRegister},
    {"write", "Write all fields of a register.", "korureg register write power0 config 0x37",
     Take::chip | Take::reg | Take::value, Take::nothing, writeRegister},
};

}  // namespace

void addRegisterCommands(Command app, Options& options) {
  app.family("register", "Read and write logical registers, through the agent.",
             "korureg register read power0 config", [&](Command family) {
               for (const AgentCommand& command : commands)
                 addAgentCommand(family, command, options);
             });
}

}  // namespace korureg
