// What a system file says of a chip's registers as a whole: in which order they are written, what
// reading does to them, and what is read of the chip without anybody's asking.

#include <algorithm>
#include <map>

#include "board/description/internal/FieldTables.h"
#include "board/devices/Bytes.h"

namespace Board {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds leastEvery = 100ms;
constexpr std::chrono::milliseconds mostEvery = 24h;
constexpr std::chrono::milliseconds mostSettle = 1min;

bool isWritten(const ChipSource& source, const std::string& reg) {
  const auto* physical = source.table.get_as<toml::table>("physical");
  const auto* fields = physical ? physical->get_as<toml::table>(reg) : nullptr;
  return fields && std::any_of(fields->begin(), fields->end(),
                               [](const auto& field) { return field.second.is_table(); });
}

// Says whether the map has the register, and a physical field is in it.
bool checkWritten(ChipReading& reading, const ChipSource& source, const std::string& reg,
                  const toml::node& node) {
  if (!source.registers.hasRegName(reg)) {
    reading.problem(node, "there is no register '{}' in the map", reg);
    return false;
  }
  if (isWritten(source, reg)) return true;
  reading.problem(node, "register '{}' has no physical fields, so it is never written", reg);
  return false;
}

// The keys `settle` of the tables of physical fields.
void readSettle(ChipReading& reading, const ChipSource& source, WriteOrder& order) {
  const auto* physical = source.table.get_as<toml::table>("physical");
  if (!physical) return;
  for (const auto& [name, node] : *physical) {
    const auto* fields = node.as_table();
    const toml::node* settle = fields ? fields->get("settle") : nullptr;
    if (!settle || !isSettle("settle", *settle)) continue;
    const auto duration = reading.duration(*fields, "settle", 0ms, mostSettle);
    const std::string reg(name.str());
    if (checkWritten(reading, source, reg, *settle) && duration) order.settle[reg] = *duration;
  }
}

std::optional<Canary> canaryOf(ChipReading& reading, const ChipSource& source,
                               const toml::table& table, const std::set<std::string>& readChanges) {
  reading.onlyKeys(table, {"register", "reset", "every"});
  for (const char* key : {"register", "reset"}) {
    if (!table.contains(key)) reading.problem(table, "canary needs the key '{}'", key);
  }
  Canary canary;
  canary.every = reading.duration(table, "every", leastEvery, mostEvery).value_or(canary.every);
  canary.reg = reading.text(table, "register").value_or("");
  if (!table.get_as<std::string>("register")) return std::nullopt;
  const toml::node& node = *table.get("register");
  if (!checkWritten(reading, source, canary.reg, node)) return std::nullopt;
  const KoruRegFile::Register& reg = source.registers.findRegisterByName(canary.reg);
  canary.address = reg.address;
  if (readChanges.contains(canary.reg)) {
    reading.problem(node, "canary: reading register '{}' changes the chip", canary.reg);
  } else if (const auto why = source.transport.whyNotRead(reg)) {
    reading.problem(node, "register '{}' cannot be read: {}", canary.reg, *why);
  }
  const auto reset = reading.number(table, "reset", 0, maskOf(reg.width));
  if (!reset) return std::nullopt;
  canary.reset = static_cast<uint32_t>(*reset);
  return canary;
}

}  // namespace

WriteOrder readOrder(ChipReading& reading, const ChipSource& source) {
  WriteOrder order;
  std::map<std::string, const char*> listed;  // and in which of the two
  const auto read = [&](const char* key, std::vector<std::string>& registers) {
    for (const auto& [reg, node] : reading.texts(source.table, key)) {
      if (!checkWritten(reading, source, reg, *node)) continue;
      const auto found = listed.emplace(reg, key);
      if (found.second) {
        registers.push_back(reg);
      } else {
        reading.problem(*node, "register '{}' stands in {} already", reg, found.first->second);
      }
    }
  };
  read("first", order.first);
  read("last", order.last);
  readSettle(reading, source, order);
  return order;
}

std::set<std::string> readReadChanges(ChipReading& reading, const ChipSource& source) {
  std::set<std::string> registers;
  for (const auto& [reg, node] : reading.texts(source.table, "read_changes")) {
    if (!source.registers.hasRegName(reg)) {
      reading.problem(*node, "there is no register '{}' in the map", reg);
    } else if (!registers.insert(reg).second) {
      reading.problem(*node, "register '{}' stands in read_changes already", reg);
    }
  }
  // Whatever else the map calls the same address is the same register.
  std::set<uint32_t> addresses;
  for (const std::string& reg : registers) {
    addresses.insert(source.registers.findRegisterByName(reg).address);
  }
  for (const KoruRegFile::Register& reg : source.registers.registers()) {
    if (addresses.contains(reg.address)) registers.insert(reg.name.c_str());
  }
  return registers;
}

Upkeep readUpkeep(ChipReading& reading, const ChipSource& source,
                  const std::set<std::string>& readChanges) {
  Upkeep upkeep;
  upkeep.verifyEvery =
      reading.duration(source.table, "verify_every", leastEvery, mostEvery).value_or(0ms);
  if (const auto* canary = reading.table(source.table, "canary")) {
    upkeep.canary = canaryOf(reading, source, *canary, readChanges);
  }
  return upkeep;
}

}  // namespace Board
