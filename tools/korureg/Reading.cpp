#include "korureg/Reading.h"

#include <algorithm>
#include <bit>
#include <nlohmann/json.hpp>

#include "korureg/Output.h"

namespace korureg {

using KoruRegFile::Register;

namespace {

// Addresses of one table get the same number of digits.
uint32_t addressBits(const std::vector<const Register*>& registers) {
  uint32_t highest = 0xff;
  for (const Register* reg : registers) highest = std::max(highest, reg->address);
  return static_cast<uint32_t>(std::bit_width(highest));
}

template <class Items, class RegisterOf>
uint32_t addressBitsOf(const Items& items, RegisterOf registerOf) {
  std::vector<const Register*> registers;
  for (const auto& item : items) registers.push_back(registerOf(item));
  return addressBits(registers);
}

}  // namespace

Reading readTarget(const Chip& chip, const Target& target) {
  try {
    return {target, target.valueIn(chip.read(*target.reg)), ""};
  } catch (const Failure& e) {
    return {target, 0, e.what()};
  }
}

std::vector<Reading> readTargets(const Chip& chip, const std::vector<Target>& targets) {
  std::vector<Reading> readings;
  for (const Target& target : targets) readings.push_back(readTarget(chip, target));
  return readings;
}

nlohmann::ordered_json toJson(const Reading& reading) {
  nlohmann::ordered_json json = {{"name", reading.target.name()},
                                 {"address", reading.target.reg->address},
                                 {"width", reading.target.width()}};
  if (reading.failure.empty()) {
    json["value"] = reading.value;
    json["hex"] = hex(reading.value, reading.target.width());
  } else {
    json["value"] = nullptr;
    json["error"] = reading.failure;
  }
  return json;
}

int report(const std::vector<Reading>& readings, bool json) {
  const bool anyFailed = std::any_of(readings.begin(), readings.end(),
                                     [](const Reading& r) { return !r.failure.empty(); });
  if (json) {
    auto document = nlohmann::ordered_json::array();
    for (const Reading& reading : readings) document.push_back(toJson(reading));
    printJson(document);
  } else {
    const uint32_t digits = addressBitsOf(readings, [](const Reading& r) { return r.target.reg; });
    Table table({{"REGISTER"},
                 {"ADDRESS", Table::Align::right},
                 {"HEX", Table::Align::right},
                 {"DECIMAL", Table::Align::right},
                 {"BITS", Table::Align::right}});
    for (const Reading& r : readings) {
      const uint32_t width = r.target.width();
      const std::string address = hex(r.target.reg->address, digits);
      if (r.failure.empty()) {
        table.add({r.target.name(), address, hex(r.value, width), std::to_string(r.value),
                   bits(r.value, width)});
      } else {
        table.add({r.target.name(), address, "failed", "", ""});
      }
    }
    table.print();
  }
  for (const Reading& reading : readings) {
    if (!reading.failure.empty()) printError(reading.failure);
  }
  return anyFailed ? failed : done;
}

namespace {

nlohmann::ordered_json registerJson(const Register& reg, bool hasAddress) {
  return {{"name", reg.name.view()},
          {hasAddress ? "address" : "number", reg.address},
          {"type", Register::regTypeToString(reg.type)},
          {"writeable", reg.writeable},
          {"width", reg.width}};
}

}  // namespace

void printRegisters(const std::vector<Target>& registers, bool haveAddresses, bool json) {
  if (json) {
    auto document = nlohmann::ordered_json::array();
    for (const Target& target : registers)
      document.push_back(registerJson(*target.reg, haveAddresses));
    printJson(document);
    return;
  }
  const uint32_t digits = addressBitsOf(registers, [](const Target& t) { return t.reg; });
  Table table({{haveAddresses ? "ADDRESS" : "NUMBER", Table::Align::right},
               {"REGISTER"},
               {"TYPE"},
               {"ACCESS"},
               {"WIDTH", Table::Align::right}});
  for (const Target& target : registers) {
    const Register& reg = *target.reg;
    table.add({haveAddresses ? hex(reg.address, digits) : std::to_string(reg.address),
               target.name(), Register::regTypeToString(reg.type),
               reg.writeable ? "read/write" : "read only", std::to_string(reg.width)});
  }
  table.print();
}

}  // namespace korureg
