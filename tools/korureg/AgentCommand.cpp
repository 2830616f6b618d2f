#include "korureg/AgentCommand.h"

#include <memory>

#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

struct Operand {
  unsigned what;
  const char* name;
  std::string AgentArguments::*place;
  const char* text;
};
constexpr Operand operands[] = {
    {Take::chip, "CHIP", &AgentArguments::chip, "the chip's name"},
    {Take::reg, "REGISTER", &AgentArguments::reg, "the register's name"},
    {Take::field, "FIELD", &AgentArguments::field, "the field's name"},
    {Take::value, "VALUE", &AgentArguments::value, "a number, as in 12, 0xc or 0b1100"},
    {Take::file, "FILE", &AgentArguments::file, "the plan"},
};

struct List {
  unsigned what;
  const char* name;
  const char* text;
};
constexpr List lists[] = {
    {Take::registers, "REGISTER", "registers of the chip's map"},
    {Take::fields, "FIELD", "fields, as REGISTER.FIELD"},
    {Take::assignments, "ASSIGNMENT", "REGISTER.FIELD=VALUE; or REGISTER FIELD VALUE"},
};

struct Flag {
  unsigned what;
  const char* name;
  bool AgentArguments::*place;
  const char* text;
};
constexpr Flag flags[] = {
    {Take::force, "--force", &AgentArguments::force,
     "also a register that is configured or read-only"},
    {Take::raw, "--raw", &AgentArguments::raw, "the numbers that the bits hold"},
    {Take::alone, "--value", &AgentArguments::alone, "print one value alone, for scripts"},
    {Take::live, "--live", &AgentArguments::live, "read it from the hardware"},
    {Take::all, "--all", &AgentArguments::all, "also registers whose reading changes the chip"},
    {Take::bits, "--bits", &AgentArguments::bits, "draw the register's bits"},
    {Take::yes, "--yes", &AgentArguments::yes, "do it without asking"},
    {Take::fix, "--fix", &AgentArguments::fix, "write the registers that differ again"},
};

void addTo(Command command, const AgentCommand& described, AgentArguments& arguments) {
  const unsigned takes = described.needs | described.may;
  const auto need = [&](unsigned what) {
    return (described.needs & what) != 0 ? Command::Operand::required : Command::Operand::optional;
  };
  for (const auto& row : operands) {
    if (takes & row.what) command.operand(row.name, arguments.*row.place, row.text, need(row.what));
  }
  for (const auto& row : lists) {
    if (takes & row.what) command.operands(row.name, arguments.names, row.text, need(row.what));
  }
  for (const auto& row : flags) {
    if (takes & row.what) command.flag(row.name, arguments.*row.place, row.text);
  }
  if (takes & Take::match) {
    command.option("--match", "GLOB", arguments.glob, "only names that match this shell pattern");
  }
  if (takes & Take::format) {
    command.option("--format", "FORMAT", arguments.format,
                   "openmetrics: how the board does, for a program that gathers such figures",
                   [](const std::string& format) {
                     return format == "openmetrics" ? "" : "there is the format openmetrics";
                   });
  }
  if (takes & Take::every) {
    command.seconds("--every", arguments.every, "how often status fields are read");
  }
}

}  // namespace

void addAgentCommand(Command family, const AgentCommand& described, Options& options) {
  family.command(described.name, described.text, described.example, [&](Command command) {
    auto arguments = std::make_shared<AgentArguments>();
    addTo(command, described, *arguments);
    addAgentOptions(command, arguments->agent);
    command.runs([arguments, run = described.run, &options] {
      try {
        return run(*arguments, options);
      } catch (const nlohmann::json::exception&) {
        throw Failure(AgentClient::senseless);
      }
    });
  });
}

ordered_json request(const char* op, const AgentArguments& arguments) {
  ordered_json json = {{"op", op}};
  const std::pair<const char*, const std::string&> texts[] = {{"chip", arguments.chip},
                                                              {"register", arguments.reg},
                                                              {"field", arguments.field},
                                                              {"value", arguments.value}};
  for (const auto& [key, text] : texts) {
    if (!text.empty()) json[key] = text;
  }
  if (arguments.force) json["force"] = true;
  return json;
}

int change(const ordered_json& request, const AgentArguments& arguments, const Options& options) {
  const ordered_json result = AgentClient(arguments.agent).ask(request);
  if (options.json) printJson(result);
  return done;
}

}  // namespace korureg
