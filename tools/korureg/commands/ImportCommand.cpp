// korureg map import

#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "KoruRegFile/RegisterFileCheck.h"
#include "board/description/SystemFile.h"
#include "korureg/MapPlace.h"
#include "korureg/Output.h"
#include "korureg/Transport.h"
#include "korureg/commands/MapFiles.h"
#include "korureg/import/Held.h"
#include "korureg/import/NewFiles.h"
#include "korureg/import/Readers.h"
#include "korureg/import/Texts.h"

namespace korureg {

namespace {

namespace fs = std::filesystem;

struct Importing {
  std::string source;
  std::string map;
  std::string system;
  std::string chip;
  std::string block;
  uint64_t base = 0;
  bool force = false;
};

void readSource(const Importing& importing, Import& import) {
  const XmlDocument document(import.fileNamed(importing.source));
  const XmlElement& root = document.root();
  switch (formatOf(root)) {
    case ImportFormat::svd:
      return readSvd(root, import);
    case ImportFormat::ipxact:
      return readIpXact(root, import);
    case ImportFormat::uhal:
      return readUhal(root, import);
  }
}

// Those of a peripheral, an address block or a node alone, without its name in front.
void keepBlock(const Importing& importing, ImportedMap& map) {
  if (importing.block.empty()) return;
  const std::string prefix = importing.block + "_";
  std::erase_if(map.registers, [&](const auto& reg) { return !reg.name.starts_with(prefix); });
  for (ImportedRegister& reg : map.registers) reg.name.erase(0, prefix.size());
  if (map.registers.empty()) {
    throw UsageError(fmt::format("no register's name begins with '{}'", printable(prefix)));
  }
}

Holding holdingOf(const Options& options, const Importing& importing) {
  Holding holding;
  holding.base = importing.base;
  const auto chosen = chosenTransport(options);
  if (chosen) holding.transport = *chosen;
  holding.step = holding.transport.addrBlockSize();
  if (!chosen) holding.step = options.addrBlockSize.value_or(holding.step);
  return holding;
}

std::string chipName(const Importing& importing, const ImportedMap& map) {
  if (!importing.chip.empty()) {
    const std::string why = Board::whyNoChipName(importing.chip);
    if (!why.empty()) throw UsageError(why);
    return importing.chip;
  }
  for (const std::string& name : {map.name, fs::path(importing.source).stem().string()}) {
    if (!name.empty() && Board::whyNoChipName(name).empty()) return name;
  }
  return "chip";
}

// What the checks of maps and of system files find in the new files, which are not in place yet.
void requireSound(const std::string& map, const std::string& system, unsigned step) {
  std::string problems;
  for (const auto& each : KoruRegFile::checkRegisterFile(map.c_str(), static_cast<uint8_t>(step))) {
    problems += fmt::format("\nmap, line {}: {}", each.line, each.text);
  }
  try {
    const auto board = system.empty() ? Board::Description() : Board::readFile(system);
    for (const auto& each : board.problems) {
      problems += fmt::format("\nsystem file, line {}: {}", each.line, each.text);
    }
  } catch (const Board::FileError& e) {
    problems += fmt::format("\nsystem file: {}; --block takes a part of the chip", e.what());
  }
  if (!problems.empty()) {
    throw Failure("nothing is written, since it would not be sound:" + problems.substr(0, 4000));
  }
}

// The map as the system file has it: relative to its folder.
std::string mapBeside(const Importing& importing) {
  const fs::path folder = fs::absolute(importing.system).parent_path();
  return fs::absolute(importing.map).lexically_proximate(folder).string();
}

void writeFiles(const Importing& importing, const Import& import, const Holding& holding) {
  const auto existing =
      importing.force ? NewFiles::Existing::isReplaced : NewFiles::Existing::stays;
  NewFiles files(existing);
  NewFiles tried(NewFiles::Existing::isReplaced);  // is never put in place
  const std::string map = files.write(importing.map, csvText(import.map));
  std::string system;
  if (!importing.system.empty()) {
    StubChip chip{chipName(importing, import.map), mapBeside(importing), holding.transport};
    files.write(importing.system, stubText(import.map, chip));
    chip.registerMap = fs::absolute(map).string();
    system = tried.write(importing.system + ".tried", stubText(import.map, chip));
  }
  requireSound(map, system, holding.step);
  files.place();
}

size_t fieldCount(const ImportedMap& map) {
  size_t count = 0;
  for (const ImportedRegister& reg : map.registers) count += reg.fields.size();
  return count;
}

void tell(const Options& options, const Importing& importing, const Import& import) {
  const size_t registers = import.map.registers.size();
  const size_t fields = fieldCount(import.map);
  const size_t left = import.remarks().size() + import.omitted();
  if (options.json) {
    auto remarks = nlohmann::ordered_json::array();
    for (const auto& each : import.remarks()) {
      remarks.push_back({{"file", printable(*each.place.file)},
                         {"line", each.place.line},
                         {"text", printable(each.text)}});
    }
    printJson({{"registers", registers}, {"fields", fields}, {"remarks", remarks}});
  } else {
    printLine(fmt::format("{}: {} registers", mapPlace(importing.map, 0, 0), registers));
    if (!importing.system.empty()) {
      printLine(fmt::format("{}: {} fields", mapPlace(importing.system, 0, 0), fields));
    }
  }
  for (const auto& each : import.remarks()) printError(each.message());
  if (left != 0) printError(fmt::format("{} could not be held", left));
}

int importMap(const Options& options, const Importing& importing) {
  if (importing.map == importing.system) throw UsageError("map and system file are one file");
  Import import;
  import.namesBlocks = !importing.block.empty();
  readSource(importing, import);
  keepBlock(importing, import.map);
  const Holding holding = holdingOf(options, importing);
  keepWhatFits(import, holding);
  if (import.map.registers.empty()) {
    for (const auto& each : import.remarks()) printError(each.message());
    throw Failure(
        fmt::format("{} has no register that a map could hold", mapPlace(importing.source, 0, 0)));
  }
  writeFiles(importing, import, holding);
  tell(options, importing, import);
  return import.remarks().empty() ? done : partly;
}

}  // namespace

void addImportCommand(Command map, Options& options) {
  map.command(
      "import",
      "Make a register map, and a system file to begin with, of a description in CMSIS-SVD, "
      "IP-XACT or as an address table of uHAL. What could not be held is told, and ends with 3.",
      "korureg map import examples/import/timer.svd timer.csv --system timer.toml --force",
      [&](Command command) {
        auto importing = std::make_shared<Importing>();
        command.operand("FILE", importing->source, "what is read");
        command.operand("MAP", importing->map, "the register map to be written");
        command.option("--system", "FILE", importing->system,
                       "also write a system file with the fields");
        command.option("--name", "CHIP", importing->chip, "what the system file calls the chip");
        command.option("--block", "NAME", importing->block,
                       "only this peripheral, address block or node, without its name in front");
        command.number("--base", "ADDRESS", importing->base, "is taken off each address, in bytes");
        command.flag("--force", importing->force, "replace files that are there");
        addBlockSize(command, options);
        command.runs([importing, &options] { return importMap(options, *importing); });
      });
}

}  // namespace korureg
