#include "simulator/tool/BoardFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "board/description/SystemFile.h"
#include "board/description/internal/TomlText.h"
#include "simulator/tool/ChipTable.h"

namespace Simulator {

namespace {

using Board::ChipReading;

bool isChipName(std::string_view name) {
  const auto isPlain = [](char c) { return c > ' ' && c != ':' && c != '=' && c != '\x7f'; };
  return !name.empty() && name.size() < sizeof(ChipRow::name) &&
         std::all_of(name.begin(), name.end(), isPlain);
}

// Goes through the tables of an array of tables.
template <class Function>
void forEach(ChipReading& reading, const toml::table& root, std::string_view key, Function take) {
  const toml::node* node = root.get(key);
  if (!node) return;
  const auto* rows = node->as_array();
  if (!rows) return reading.problem(*node, "it is written as [[{}]]", key);
  for (const toml::node& each : *rows) {
    if (const auto* table = each.as_table()) {
      take(*table);
    } else {
      reading.problem(each, "it is written as [[{}]]", key);
    }
  }
}

class FileReading {
 public:
  explicit FileReading(const std::string& path) : path_(path) {}

  BoardFile read(const toml::table& root) {
    ChipReading reading(path_, "", board_.problems);
    reading.onlyKeys(root, {"bus", "chip"});
    forEach(reading, root, "bus", [&](const toml::table& table) { readBus(reading, table); });
    forEach(reading, root, "chip", [&](const toml::table& table) { readChip(reading, table); });
    if (board_.nodes.empty() && board_.problems.empty()) {
      board_.problems.push_back({"", 1, path_, "there is no [[bus]] and no [[chip]]"});
    }
    return std::move(board_);
  }

 private:
  void readBus(ChipReading& reading, const toml::table& table) {
    reading.onlyKeys(table, {"node", "functions"});
    const auto path = reading.text(table, "node");
    if (!path) {
      if (!table.contains("node")) reading.problem(table, "a bus needs a node, as in /dev/i2c-1");
      return;
    }
    const toml::node& node = *table.get("node");
    if (const char* why = whyNoNode(*path)) return reading.problem(node, "node: {}", why);
    for (const NodeRow& other : board_.nodes) {
      if (*path == other.path) return reading.problem(node, "that bus has been described already");
    }
    const std::string functions = reading.text(table, "functions").value_or("i2c");
    if (functions != "i2c" && functions != "smbus") {
      return reading.problem(*table.get("functions"), "functions has to be i2c or smbus");
    }
    NodeRow& row = board_.nodes.emplace_back();
    copyText(row.path, *path);
    row.kind = NodeKind::i2c;
    row.takesMessages = functions == "i2c";
  }

  void readChip(ChipReading& reading, const toml::table& table) {
    const auto* named = table.get_as<std::string>("name");
    if (!named) return reading.problem(table, "a chip needs a name, which is a string");
    const std::string& name = named->get();
    if (!isChipName(name)) {
      return reading.problem(*named,
                             "a chip's name has neither blanks nor ':' and '=', and {} letters at "
                             "most",
                             sizeof(ChipRow::name) - 1);
    }
    const auto [first, isNew] = lines_.emplace(name, table.source().begin.line);
    if (!isNew) return reading.problem(*named, "the chip in line {} has that name", first->second);
    ChipReading own(path_, name, board_.problems);
    if (table.contains("spi")) {
      own.onlyKeys(table, {"name", "spi", "address_bits", "address_order", "address_mask",
                           "address_step", "auto_increment", "value_bits", "value_order",
                           "registers", "size", "volatile", "mode", "command_bits", "read_command",
                           "write_command", "dummy_bits", "answer", "fault"});
    } else {
      own.onlyKeys(table, {"name", "i2c", "address_bits", "address_order", "address_mask",
                           "address_step", "auto_increment", "value_bits", "value_order",
                           "registers", "size", "volatile", "pec", "driver", "fault"});
    }
    ChipTable(own, table, board_).read(name);
  }

  const std::string& path_;
  BoardFile board_;
  std::map<std::string, size_t> lines_;  // of the chips' names
};

template <class Row>
void fill(std::span<Row> to, const std::vector<Row>& from) {
  std::copy(from.begin(), from.end(), to.begin());
}

}  // namespace

std::string BoardFile::placeOf(const ChipRow& chip) const {
  const NodeRow& node = nodes.at(chip.node);
  return node.kind == NodeKind::spi ? std::string(node.path)
                                    : fmt::format("{}:{:#04x}", node.path, chip.address);
}

int errnoNamed(const std::string& name) {
  constexpr int last = 133;
  for (int error = 1; error <= last; ++error) {
    const char* const known = ::strerrorname_np(error);
    if (known && name == known) return error;
  }
  return 0;
}

BoardFile readBoardText(const std::string& path, const std::string& text) {
  Board::checkTomlText(path, text);
  toml::table root;
  try {
    root = toml::parse(std::string_view(text), std::string_view(path));
  } catch (const toml::parse_error& e) {
    throw Board::FileError(fmt::format(
        "{}:{}: {}", path, std::max<size_t>(1, e.source().begin.line), e.description()));
  } catch (const Board::TomlAssertion& e) {
    throw Board::FileError(fmt::format("{}: cannot be taken apart: {}", path, e.what()));
  }
  return FileReading(path).read(root);
}

BoardFile readBoardFile(const std::string& path) {
  return readBoardText(path, Board::readTomlText(path));
}

std::vector<uint8_t> imageOf(const BoardFile& board) {
  Header header = {};
  std::memcpy(header.magic, imageMagic, sizeof imageMagic);
  header.nodes = static_cast<uint32_t>(board.nodes.size());
  header.chips = static_cast<uint32_t>(board.chips.size());
  header.registers = static_cast<uint32_t>(board.registers.size());
  header.faults = static_cast<uint32_t>(board.faults.size());
  header.memory = board.memory;
  header.size = static_cast<uint32_t>(sizeOf(header));
  std::vector<uint8_t> bytes(header.size);
  std::memcpy(bytes.data(), &header, sizeof header);
  Image image = partsOf(bytes);
  fill(image.nodes, board.nodes);
  fill(image.chips, board.chips);
  fill(image.registers, board.registers);
  fill(image.faults, board.faults);
  image.header->check = checkOf(image);
  powerOn(image);
  return bytes;
}

}  // namespace Simulator
