// korureg hw: registers of the hardware, through the agent.

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "KoruRegFile/RegisterBits.h"
#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/AgentFields.h"
#include "korureg/Output.h"
#include "korureg/RegisterRuler.h"

namespace korureg {

namespace {

using KoruRegFile::BitRange;
using nlohmann::ordered_json;
using Fields = std::vector<AgentField>;

constexpr auto right = Table::Align::right;
constexpr uint64_t widest = 32;

// A register of the chip's map.
struct Listed {
  std::string name;
  uint64_t address;
  unsigned width;
  std::string whyNot;  // it is not read; empty when it is
};

std::vector<Listed> registersOf(AgentClient& client, const AgentArguments& arguments) {
  std::vector<Listed> registers;
  for (const auto& entry : listIn(client.ask({{"op", "hw.list"}, {"chip", arguments.chip}}))) {
    Listed reg = {
        textAt(entry, "name"), numberAt(entry, "address").value_or(0),
        static_cast<unsigned>(std::min(numberAt(entry, "width").value_or(widest), widest)), ""};
    if (!flagAt(entry, "readable")) {
      reg.whyNot = "left out: " + textAt(entry, "why");
    } else if (flagAt(entry, "read_changes") && !arguments.all) {
      reg.whyNot = "left out: reading it changes the chip (--all)";
    }
    registers.push_back(std::move(reg));
  }
  return registers;
}

uint64_t readHardware(AgentClient& client, const std::string& chip, const std::string& reg) {
  return valueIn(client.ask({{"op", "hw.read"}, {"chip", chip}, {"register", reg}}));
}

// Of one hardware register, from the highest bit on.
Fields fieldsIn(const Fields& all, const std::string& reg) {
  Fields fields;
  std::copy_if(all.begin(), all.end(), std::back_inserter(fields),
               [&](const AgentField& field) { return field.hardwareRegister == reg; });
  std::stable_sort(fields.begin(), fields.end(), [](const auto& a, const auto& b) {
    return a.hardwareBits.high > b.hardwareBits.high;
  });
  return fields;
}

ordered_json fieldJson(const AgentField& field, uint64_t value) {
  const uint32_t raw = field.in(value);
  ordered_json json = {{"register", field.reg},
                       {"field", field.field},
                       {"hw_bits", {field.hardwareBits.high, field.hardwareBits.low}},
                       {"value", raw}};
  if (field.meaning.isSpoken()) json["text"] = field.shown(raw, false);
  return json;
}

void addFields(Table& table, const Fields& fields, uint64_t value, bool raw) {
  for (const AgentField& field : fields) {
    const uint32_t held = field.in(value);
    table.add({"  " + field.name(), bitsText(field.hardwareBits), field.shown(held, true),
               raw || !field.meaning.isSpoken() ? std::to_string(held) : field.shown(held, false)});
  }
}

Table newTable() { return Table({{"REGISTER"}, {"PLACE", right}, {"HEX", right}, {"VALUE"}}); }

// All registers, with their fields below them if they are wanted.
int dump(const AgentArguments& arguments, const Options& options, bool withFields) {
  AgentClient client(arguments.agent);
  const std::vector<Listed> registers = registersOf(client, arguments);
  const Fields all = withFields ? fieldsOf(client, arguments.chip) : Fields();
  auto document = ordered_json::array();
  Table table = newTable();
  int exitCode = done;
  for (const auto& [name, address, width, whyNot] : registers) {
    if (!arguments.glob.empty() && ::fnmatch(arguments.glob.c_str(), name.c_str(), 0) != 0)
      continue;
    ordered_json json = {
        {"name", name}, {"address", address}, {"width", width}, {"value", nullptr}};
    std::string failure = whyNot;
    uint64_t value = 0;
    try {
      if (failure.empty()) value = readHardware(client, arguments.chip, name);
    } catch (const Refusal& e) {
      printError(e.what());
      failure = "failed";
      exitCode = failed;
    }
    const Fields fields = failure.empty() ? fieldsIn(all, name) : Fields();
    table.add({name, hex(address, 8), failure.empty() ? hex(value, width) : "-",
               failure.empty() ? std::to_string(value) : failure});
    addFields(table, fields, value, arguments.raw);
    if (failure.empty()) json["value"] = value;
    if (!failure.empty()) json["why"] = failure;
    if (withFields) json["fields"] = ordered_json::array();
    for (const AgentField& field : fields) json["fields"].push_back(fieldJson(field, value));
    document.push_back(std::move(json));
  }
  options.json ? printJson(document) : table.print();
  return exitCode;
}

int dumpHardware(const AgentArguments& arguments, const Options& options) {
  return dump(arguments, options, true);
}

// What "CONFIGURATION[7:4]" names: a name may itself look like a range.
struct Part {
  std::string reg;
  std::optional<BitRange> bits;
};

Part partOf(AgentClient& client, const AgentArguments& arguments) {
  if (!arguments.reg.ends_with(']')) return {arguments.reg, std::nullopt};
  const std::vector<Listed> registers = registersOf(client, arguments);
  const auto find = [&](const std::string& name) {
    return std::find_if(registers.begin(), registers.end(),
                        [&](const Listed& reg) { return reg.name == name; });
  };
  if (find(arguments.reg) != registers.end()) return {arguments.reg, std::nullopt};
  try {
    const auto parsed = KoruRegFile::RegisterBits::parse(arguments.reg);
    const auto found = find(parsed.name);
    if (found != registers.end() && parsed.range.high >= found->width) {
      throw UsageError(
          fmt::format("{}: the register has {} bits only", arguments.reg, found->width));
    }
    return {parsed.name, parsed.hasRange ? std::optional(parsed.range) : std::nullopt};
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

int drawRegister(AgentClient& client, const AgentArguments& arguments, const Options& options) {
  const uint64_t value = readHardware(client, arguments.chip, arguments.reg);
  unsigned width = widest;
  for (const Listed& reg : registersOf(client, arguments)) {
    if (reg.name == arguments.reg) width = reg.width;
  }
  const Fields fields = fieldsIn(fieldsOf(client, arguments.chip), arguments.reg);
  if (options.json) {
    ordered_json json = {{"value", value}, {"width", width}, {"fields", ordered_json::array()}};
    for (const AgentField& field : fields) json["fields"].push_back(fieldJson(field, value));
    return printJson(json), done;
  }
  std::vector<RulerField> drawn;
  for (const AgentField& field : fields) {
    drawn.push_back(
        {printable(field.hardwareField), field.hardwareBits.high, field.hardwareBits.low});
  }
  for (const auto& line : registerRuler(width, drawn, static_cast<uint32_t>(value)))
    printLine(line);
  Table table = newTable();
  table.add({arguments.reg, "", hex(value, width), std::to_string(value)});
  addFields(table, fields, value, arguments.raw);
  table.print();
  return done;
}

int readHardware(const AgentArguments& arguments, const Options& options) {
  if (arguments.reg.empty()) {
    if (arguments.alone || arguments.bits) throw UsageError("name a register to be shown");
    return dump(arguments, options, false);
  }
  AgentClient client(arguments.agent);
  if (arguments.bits) return drawRegister(client, arguments, options);
  const auto [reg, bits] = partOf(client, arguments);
  ordered_json answer =
      client.ask({{"op", "hw.read"}, {"chip", arguments.chip}, {"register", reg}});
  const uint64_t value = valueIn(answer);
  const uint64_t shown = bits ? bits->extract(static_cast<uint32_t>(value)) : value;
  if (bits) answer["value"] = shown;
  options.json ? printJson(answer) : printLine(hex(shown));
  return done;
}

int writeHardware(const AgentArguments& arguments, const Options& options) {
  return change(request("hw.write", arguments), arguments, options);
}

constexpr AgentCommand commands[] = {
    {"read", "Read a register of the chip's map, bits of it, or all registers.",
     "korureg hw read power0 CONFIGURATION", Take::chip,
     Take::reg | Take::bits | Take::alone | Take::all | Take::raw, readHardware},
    {"dump", "Read all registers of the chip's map, and show their fields.",
     "korureg hw dump power0", Take::chip, Take::all | Take::match | Take::raw, dumpHardware},
    {"write", "Write a register of the chip's map.", "korureg hw write imu0 INT_ENABLE 0x01",
     Take::chip | Take::reg | Take::value, Take::force, writeHardware},
};

}  // namespace

void addHardwareCommands(Command app, Options& options) {
  app.family("hw", "Read and write hardware registers, through the agent.",
             "korureg hw read power0 CONFIGURATION", [&](Command family) {
               for (const AgentCommand& command : commands)
                 addAgentCommand(family, command, options);
             });
}

}  // namespace korureg
