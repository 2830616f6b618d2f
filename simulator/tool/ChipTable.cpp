#include "simulator/tool/ChipTable.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>

namespace Simulator {

namespace {

constexpr uint32_t anyNumber = std::numeric_limits<uint32_t>::max();
constexpr uint32_t highestAddress = 0x7f;
constexpr uint32_t anyMode = 4;
constexpr uint32_t mostRegisters = 1 << 16;  // of a board

}  // namespace

const char* whyNoNode(std::string_view path) {
  if (!path.starts_with('/') || path.size() < 2 || path.ends_with('/')) {
    return "a device file needs its whole path";
  }
  return path.size() < sizeof(NodeRow::path) ? nullptr : "the path is too long";
}

uint32_t ChipTable::number(std::string_view key, uint32_t fallback, uint32_t most) {
  return static_cast<uint32_t>(reading_.number(table_, key, 0, most).value_or(fallback));
}

uint32_t ChipTable::flag(std::string_view key, bool fallback) {
  const toml::node* node = table_.get(key);
  if (!node) return fallback;
  if (const auto* value = node->as_boolean()) return value->get();
  reading_.problem(*node, "{} has to be true or false", key);
  return fallback;
}

uint32_t ChipTable::choice(std::string_view key, std::initializer_list<std::string_view> names) {
  const auto text = reading_.text(table_, key);
  if (!text) return 0;
  const auto found = std::find(names.begin(), names.end(), *text);
  if (found != names.end()) return static_cast<uint32_t>(found - names.begin());
  reading_.problem(*table_.get(key), "{} has to be {}", key, fmt::join(names, " or "));
  return 0;
}

// A number of bits that makes whole bytes.
uint32_t ChipTable::bytes(std::string_view key, uint32_t fallback, uint32_t least) {
  const uint32_t bits = number(key, fallback, 32);
  if (bits % 8 != 0 || bits < least) {
    reading_.problem(*table_.get(key), "{} has to be one of {}8, 16, 24, 32", key,
                     least == 0 ? "0, " : "");
  }
  return bits / 8;
}

void ChipTable::read(const std::string& name) {
  ChipRow chip = {};
  copyText(chip.name, name);
  readPlace(chip);
  readAddresses(chip);
  readSpi(chip);
  chip.pec = flag("pec", false);
  chip.driver = flag("driver", false);
  chip.firstRegister = static_cast<uint32_t>(board_.registers.size());
  chip.firstFault = static_cast<uint32_t>(board_.faults.size());
  const bool hasMemory = table_.contains("size");
  if (hasMemory == table_.contains("registers")) {
    reading_.problem(table_, "a chip needs either registers or a size");
  } else if (hasMemory) {
    readMemory(chip);
  } else {
    readRegisters(chip);
  }
  readFaults(chip);
  board_.chips.push_back(chip);
}

void ChipTable::readPlace(ChipRow& chip) {
  const bool isSpi = table_.contains("spi");
  if (isSpi == table_.contains("i2c")) {
    return reading_.problem(table_, "a chip needs either i2c or spi, which says where it is");
  }
  const char* const key = isSpi ? "spi" : "i2c";
  const auto text = reading_.text(table_, key);
  if (!text) return;
  const toml::node& node = *table_.get(key);
  if (!isSpi) {
    readI2cPlace(chip, node, *text);
  } else if (const char* why = whyNoNode(*text)) {
    return reading_.problem(node, "spi: {}", why);
  } else {
    chip.node = nodeFor(node, *text, NodeKind::spi);
  }
  if (reading_.hasProblem()) return;
  for (const ChipRow& other : board_.chips) {
    if (other.node == chip.node && other.address == chip.address) {
      reading_.problem(node, "the chip '{}' is there already", other.name);
    }
  }
}

void ChipTable::readI2cPlace(ChipRow& chip, const toml::node& node, std::string_view text) {
  const size_t colon = text.rfind(":0x");
  const char* const end = text.data() + text.size();
  uint32_t address = 0;
  const auto [stop, error] = colon == std::string_view::npos
                                 ? std::from_chars_result{end, std::errc::invalid_argument}
                                 : std::from_chars(text.data() + colon + 3, end, address, 16);
  if (error != std::errc() || stop != end || address > highestAddress) {
    return reading_.problem(node, "i2c has to be as in /dev/i2c-1:0x48, up to 0x7f");
  }
  if (const char* why = whyNoNode(text.substr(0, colon))) {
    return reading_.problem(node, "i2c: {}", why);
  }
  chip.node = nodeFor(node, text.substr(0, colon), NodeKind::i2c);
  chip.address = address;
}

uint32_t ChipTable::nodeFor(const toml::node& node, std::string_view path, NodeKind kind) {
  for (size_t i = 0; i < board_.nodes.size(); ++i) {
    if (path != board_.nodes[i].path) continue;
    if (board_.nodes[i].kind != kind) reading_.problem(node, "{} is a bus of another kind", path);
    return static_cast<uint32_t>(i);
  }
  NodeRow& row = board_.nodes.emplace_back();
  copyText(row.path, path);
  row.kind = kind;
  row.takesMessages = 1;
  return static_cast<uint32_t>(board_.nodes.size() - 1);
}

void ChipTable::readAddresses(ChipRow& chip) {
  chip.addressBytes = bytes("address_bits", 8, 0);
  chip.addressLowFirst = choice("address_order", {"high-first", "low-first"});
  const uint32_t all = chip.addressBytes == 0 ? anyNumber : onesOf(8 * chip.addressBytes);
  chip.addressMask = number("address_mask", all, all);
  chip.addressStep = number("address_step", 1, all);
  valueBits_ = number("value_bits", 8, 32);
  if (valueBits_ == 0) reading_.problem(*table_.get("value_bits"), "value_bits has to be 1 to 32");
  chip.valueBytes = std::max<uint32_t>(1, (valueBits_ + 7) / 8);
  chip.valueLowFirst = choice("value_order", {"high-first", "low-first"});
  readIncrement(chip);
}

void ChipTable::readIncrement(ChipRow& chip) {
  chip.increment = Increment::always;
  const toml::node* node = table_.get("auto_increment");
  if (!node) return;
  if (const auto* value = node->as_boolean()) {
    chip.increment = value->get() ? Increment::always : Increment::never;
    return;
  }
  const auto* flags = node->as_integer();
  const int64_t most = onesOf(8 * chip.addressBytes);
  if (!flags || flags->get() <= 0 || flags->get() > most ||
      (flags->get() & chip.addressMask) != 0) {
    return reading_.problem(
        *node, "auto_increment has to be true, false, or bits of the address outside address_mask");
  }
  chip.increment = Increment::flagged;
  chip.incrementFlags = static_cast<uint32_t>(flags->get());
}

void ChipTable::readSpi(ChipRow& chip) {
  chip.mode = number("mode", anyMode, 3);
  chip.commandBytes = table_.contains("command_bits") ? bytes("command_bits", 0, 0) : 0;
  chip.dummyBytes = number("dummy_bits", 0, 256);
  if (chip.dummyBytes % 8 != 0) {
    reading_.problem(*table_.get("dummy_bits"), "dummy_bits has to make whole bytes");
  }
  chip.dummyBytes /= 8;
  readCommand(chip, "read_command", chip.hasRead, chip.readCommand);
  readCommand(chip, "write_command", chip.hasWrite, chip.writeCommand);
  chip.answer = static_cast<Answer>(choice("answer", {"same", "next"}));
}

void ChipTable::readCommand(ChipRow& chip, std::string_view key, uint32_t& has, uint32_t& command) {
  has = table_.contains(key);
  if (!has) return;
  const uint32_t bits = 8 * (chip.commandBytes > 0 ? chip.commandBytes : chip.addressBytes);
  command = number(key, 0, onesOf(bits));
  if (chip.commandBytes == 0 && (command & chip.addressMask) != 0) {
    reading_.problem(*table_.get(key),
                     "without command_bits, {} has to be bits of the address outside address_mask",
                     key);
  }
}

void ChipTable::readMemory(ChipRow& chip) {
  const auto size = reading_.number(table_, "size", 1, mostMemory - board_.memory);
  chip.memoryAt = board_.memory;
  chip.memory = static_cast<uint32_t>(size.value_or(1));
  chip.valueBytes = 1;
  chip.isVolatile = flag("volatile", false);
  board_.memory += chip.memory;
}

void ChipTable::readRegisters(ChipRow& chip) {
  const toml::node& node = *table_.get("registers");
  const auto* rows = node.as_array();
  if (!rows || rows->empty()) return reading_.problem(node, "registers has to be a list of tables");
  for (const toml::node& each : *rows) {
    if (const auto* row = each.as_table()) {
      readRegister(chip, *row);
    } else {
      reading_.problem(each, "a register has to be a table, as in {{ at = 0x00 }}");
    }
  }
  chip.registers = static_cast<uint32_t>(board_.registers.size()) - chip.firstRegister;
  sortRegisters(chip);
}

void ChipTable::readRegister(const ChipRow& chip, const toml::table& row) {
  ChipTable one(reading_, row, board_);
  reading_.onlyKeys(row, {"at", "count", "bits", "reset", "access", "clears", "write_1_to_clear",
                          "read_to_clear"});
  if (!row.contains("at")) return reading_.problem(row, "a register needs its address, at");
  const uint32_t first = one.number("at", 0, anyNumber);
  const uint32_t count = one.number("count", 1, mostRegisters);
  const uint32_t bits = one.number("bits", valueBits_, 32);
  if (count == 0) reading_.problem(*row.get("count"), "count has to be at least 1");
  if (bits == 0) reading_.problem(*row.get("bits"), "bits has to be 1 to 32");
  RegisterRow reg = {};
  reg.bytes = std::max<uint32_t>(1, (bits + 7) / 8);
  reg.mask = onesOf(bits);
  reg.reset = one.number("reset", 0, reg.mask);
  reg.access = static_cast<Access>(one.choice("access", {"read-write", "read-only", "write-only"}));
  reg.clears = one.number("clears", 0, reg.mask);
  reg.writeOneToClear = one.number("write_1_to_clear", 0, reg.mask);
  reg.readToClear = one.number("read_to_clear", 0, reg.mask);
  if (board_.registers.size() + count > mostRegisters) {
    return reading_.problem(row, "a board has {} registers at most", mostRegisters);
  }
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t at = first + uint64_t{i} * chip.addressStep;
    if ((at & ~uint64_t{chip.addressMask}) != 0) {
      return reading_.problem(row, "the chip cannot be asked for a register at {:#x}", at);
    }
    reg.at = static_cast<uint32_t>(at);
    board_.registers.push_back(reg);
  }
}

void ChipTable::sortRegisters(const ChipRow& chip) {
  const auto begin = board_.registers.begin() + chip.firstRegister;
  const auto end = board_.registers.end();
  std::sort(begin, end, [](const auto& one, const auto& other) { return one.at < other.at; });
  const auto twice = std::adjacent_find(
      begin, end, [](const auto& one, const auto& other) { return one.at == other.at; });
  if (twice != end) {
    reading_.problem(*table_.get("registers"), "there are two registers at {:#x}", twice->at);
  }
}

void ChipTable::readFaults(ChipRow& chip) {
  const toml::node* node = table_.get("fault");
  if (!node) return;
  const auto* rows = node->as_array();
  if (!rows) return reading_.problem(*node, "faults are written as [[chip.fault]]");
  for (const toml::node& each : *rows) {
    if (const auto* row = each.as_table()) {
      readFault(chip, *row);
    } else {
      reading_.problem(each, "faults are written as [[chip.fault]]");
    }
  }
  chip.faults = static_cast<uint32_t>(board_.faults.size()) - chip.firstFault;
}

void ChipTable::readFault(const ChipRow& chip, const toml::table& row) {
  ChipTable one(reading_, row, board_);
  reading_.onlyKeys(row, {"error", "register", "on", "transaction", "count"});
  FaultRow fault = {};
  fault.hasRegister = row.contains("register");
  fault.reg = one.number("register", 0, chip.addressMask);
  fault.direction = static_cast<Direction>(one.choice("on", {"any", "read", "write"}));
  fault.from = one.number("transaction", 1, anyNumber);
  fault.count = one.number("count", 0, anyNumber);
  const auto error = reading_.text(row, "error");
  if (!error) {
    if (!row.contains("error")) reading_.problem(row, "a fault needs an error, as in \"EIO\"");
    return;
  }
  fault.error = static_cast<uint32_t>(errnoNamed(*error));
  if (fault.error == 0 && *error != "short") {
    reading_.problem(*row.get("error"), "error has to be an errno as in \"EIO\", or \"short\"");
  }
  board_.faults.push_back(fault);
}

}  // namespace Simulator
