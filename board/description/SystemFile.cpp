#include "board/description/SystemFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <system_error>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/SystemStatus.h"
#include "Orb/Descriptor.h"
#include "Orb/Hash.h"
#include "Shoal/StatePath.h"
#include "board/description/internal/Reading.h"
#include "board/description/internal/TomlText.h"
#include "board/devices/TransportKind.h"

namespace Board {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view onStartNames[] = {"trust", "rewrite", "defaults"};

std::string besideFile(const std::string& file, const std::string& path) {
  return (fs::path(file).parent_path() / path).lexically_normal().string();
}

// "1957:0c20" or "1957:0c20:2": vendor, device and revision, hexadecimal.
std::optional<Ore::Central::DeviceId> deviceId(std::string_view text) {
  uint16_t parts[3] = {};
  size_t count = 0;
  for (size_t begin = 0; begin <= text.size(); ++count) {
    const size_t end = std::min(text.find(':', begin), text.size());
    if (count == 3) return std::nullopt;
    const auto [stop, error] =
        std::from_chars(text.data() + begin, text.data() + end, parts[count], 16);
    if (error != std::errc() || stop != text.data() + end) return std::nullopt;
    begin = end + 1;
  }
  if (count < 2) return std::nullopt;
  return Ore::Central::DeviceId(parts[0], parts[1], parts[2]);
}

void readDeviceId(ChipReading& reading, const toml::table& table, Chip& chip) {
  const auto text = reading.text(table, "device_id");
  if (!text) return;
  if (const auto id = deviceId(*text)) {
    chip.devId = *id;
  } else {
    reading.problem(*table.get("device_id"),
                    "device_id has to be vendor:device or vendor:device:revision, hexadecimal");
  }
}

void readOnStart(ChipReading& reading, const toml::table& table, Chip& chip) {
  const auto text = reading.text(table, "on_start");
  if (!text) return;
  const auto found = std::find(std::begin(onStartNames), std::end(onStartNames), *text);
  if (found == std::end(onStartNames)) {
    return reading.problem(*table.get("on_start"), "on_start has to be one of {}",
                           fmt::join(onStartNames, ", "));
  }
  chip.onStart = static_cast<OnStart>(found - std::begin(onStartNames));
}

// A setting of a format, as it stands in a place.
std::optional<std::string> settingText(const toml::node& node) {
  if (const auto* number = node.as_integer()) return std::to_string(number->get());
  if (const auto* flag = node.as_boolean()) return flag->get() ? "true" : "false";
  if (const auto* text = node.as_string()) return text->get();
  return std::nullopt;
}

// { at = "/dev/i2c-1:0x48", address_bits = 16 } as it stands in a place: the place and its
// settings.
std::optional<std::string> placeOf(ChipReading& reading, const toml::table& table,
                                   const KindRow& kind) {
  const auto at = reading.text(table, "at");
  if (!at) {
    if (!table.contains("at") && kind.needsPlace) {
      reading.problem(table, "{} has to say where, with the key 'at'", kind.name);
    }
    if (table.contains("at") || kind.needsPlace) return std::nullopt;
  }
  std::string place = at.value_or("");
  for (const auto& [key, node] : table) {
    if (key == "at") continue;
    const auto text = settingText(node);
    if (key.str().find_first_of(",=") != std::string_view::npos) {
      reading.problem(node, "{}: '{}' is no setting", kind.name, key.str());
      return std::nullopt;
    }
    if (!text || text->find(',') != std::string::npos) {
      reading.problem(node, "{}.{} has to be a number, true or false, or a word", kind.name,
                      key.str());
      return std::nullopt;
    }
    place += fmt::format(",{}={}", key.str(), *text);
  }
  return place;
}

// Where the fault is: the line of the setting, when it is one's.
const toml::node& faultyNode(const toml::node& node, const std::string& key) {
  const auto* table = node.as_table();
  const toml::node* found = table ? table->get(key) : nullptr;
  return found ? *found : node;
}

// Paths of devices and recordings are relative to the file's directory, as those of maps are.
void readPlace(ChipReading& reading, const toml::node& node, const std::string& file,
               const KindRow& kind, Transport& transport) {
  transport.kind = &kind;
  const bool isTrue = node.as_boolean() && node.as_boolean()->get();
  if (isTrue && !kind.needsPlace) return;
  std::optional<std::string> place;
  if (const auto* table = node.as_table()) {
    place = placeOf(reading, *table, kind);
    if (!place) return;
  } else if (const auto* text = node.as_string()) {
    place = text->get();
  } else {
    return reading.problem(node, "{} has to be {}a string that says where", kind.name,
                           kind.needsPlace ? "" : "true, or ");
  }
  try {
    transport = Transport::at(kind, *place);
  } catch (const FormatError& e) {
    return reading.problem(faultyNode(node, e.key()), "{}: {}", kind.name, e.what());
  } catch (const std::invalid_argument& e) {
    return reading.problem(node, "{}: {}", kind.name, e.what());
  }
  if (!transport.device.empty()) transport.device = besideFile(file, transport.device);
  if (kind.isBesideFile) transport.file = besideFile(file, transport.file);
}

// The transport is the one key that has a transport's name; `true` stands for no place.
void readTransport(ChipReading& reading, const toml::table& table, const std::string& file,
                   Chip& chip) {
  int count = 0;
  for (const auto& [key, node] : table) {
    const KindRow* const kind = transportKind(key.str());
    if (!kind) continue;
    if (++count > 1) return reading.problem(node, "there is more than one transport");
    readPlace(reading, node, file, *kind, chip.transport);
  }
  if (count == 0) {
    reading.problem(table, "there is no transport; one of the keys {} is needed", transportKinds());
  }
}

// (The opening of a pipe would wait for a writer.)
void requireRegular(const std::string& map) {
  struct stat status;
  if (::stat(map.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw KoruRegFile::RegisterFileError("is no regular file");
  }
}

// Says whether the map could be read.
bool readMapAndFields(ChipReading& reading, const toml::table& table, const std::string& file,
                      Chip& chip) {
  const auto map = reading.text(table, "register_map");
  if (!map) {
    if (!table.contains("register_map")) reading.problem(table, "there is no register_map");
    return true;
  }
  chip.registerMap = besideFile(file, *map);
  try {
    requireRegular(chip.registerMap);
    chip.mapStamp = contentStamp(chip.registerMap);  // before it is read: a change makes it another
    const KoruRegFile::RegisterFile registers(chip.registerMap.c_str(),
                                              chip.transport.addrBlockSize());
    if (chip.transport.format) {
      requireNoWraps(chip.registerMap.c_str(), chip.transport.addrBlockSize());
    }
    const ChipSource source{table, chip.transport, registers};
    chip.fields = readFields(reading, source);
    chip.statusFields = readStatusFields(reading, source, chip.fields);
    chip.readChanges = readReadChanges(reading, source);
    chip.order = readOrder(reading, source);
    chip.upkeep = readUpkeep(reading, source, chip.readChanges);
  } catch (const KoruRegFile::RegisterFileError& e) {
    const std::string place = e.line() == 0 ? std::string() : fmt::format(":{}", e.line());
    reading.problem(*table.get("register_map"), "{}{}: {}", chip.registerMap, place, e.what());
    return e.line() != 0;
  }
  return true;
}

// Where a window lies: within the state directory as seen from there, otherwise from the root.
fs::path placeOfWindow(const std::string& place) {
  const fs::path state = fs::path(Shoal::stateDirectory()).lexically_normal();
  const fs::path window = (state / place).lexically_normal();
  const fs::path within = window.lexically_relative(state);
  return within.empty() || *within.begin() == ".." ? window : within;
}

// Files of the state directory that are somebody else's.
bool isTaken(const fs::path& window) {
  const fs::path first = *window.begin();
  return first == "korud" || first == "KoruRegFile" || window.filename() == "korud.lock" ||
         window.filename() == "korud.sock";
}

class FileReading {
 public:
  explicit FileReading(const std::string& file) : file_(file) {}

  Description read(const toml::table& root) {
    if (!file_.empty()) board_.files.push_back(file_);
    ChipReading reading(file_, "", board_.problems);
    reading.onlyKeys(root, {"chip", "profile"});
    readProfiles(reading, root);
    const toml::node* chips = root.get("chip");
    const toml::array* array = chips ? chips->as_array() : nullptr;
    board_.namesChips = array && array->empty();
    if (chips && !array) reading.problem(*chips, "chips are written as [[chip]]");
    for (size_t i = 0; array && i < array->size(); ++i) {
      const toml::node& node = *array->get(i);
      if (const auto* table = node.as_table()) {
        readChip(*table);
      } else {
        reading.problem(node, "chips are written as [[chip]]");
      }
    }
    return std::move(board_);
  }

 private:
  void readProfiles(ChipReading& reading, const toml::table& root) {
    const toml::table* profiles = reading.table(root, "profile");
    if (!profiles) return;
    for (const auto& [name, node] : *profiles) {
      const toml::table* profile = reading.table(*profiles, name.str());
      if (!profile) continue;
      reading.onlyKeys(*profile, {"major", "minor"});
      constexpr int64_t most = std::numeric_limits<uint32_t>::max();
      const auto major = reading.number(*profile, "major", 0, most).value_or(0);
      const auto minor = reading.number(*profile, "minor", 0, most).value_or(0);
      board_.profiles.push_back(
          {std::string(name.str()), static_cast<uint32_t>(major), static_cast<uint32_t>(minor)});
    }
  }

  void readChip(const toml::table& table) {
    Chip chip;
    const auto* named = table.get_as<std::string>("name");
    chip.name = named ? named->get() : std::string();
    ChipReading reading(file_, chip.name, board_.problems);
    const std::string why = named ? whyNoChipName(chip.name) : std::string();
    if (!named || !why.empty()) board_.hasNameless = true;
    if (!named) return reading.problem(table, "a chip needs a name, which is a string");
    if (!why.empty()) return reading.problem(*named, "{}", why);
    board_.namesChips = true;
    const auto [first, isNew] = lines_.emplace(chip.name, table.source().begin.line);
    if (!isNew) return reading.problem(*named, "the chip in line {} has that name", first->second);
    std::vector<std::string_view> ways;
    for (const KindRow* kind : kindRows()) ways.emplace_back(kind->name);
    reading.onlyKeys(
        table,
        {"name", "device_id", "profile", "register_map", "on_start", "logical", "physical",
         "status", "first", "last", "read_changes", "verify_every", "canary"},
        ways);
    readDeviceId(reading, table, chip);
    chip.profile = reading.text(table, "profile").value_or("");
    readOnStart(reading, table, chip);
    readTransport(reading, table, file_, chip);
    checkWindow(reading, table, chip);
    if (!readMapAndFields(reading, table, file_, chip)) board_.isUnread = true;
    if (!chip.registerMap.empty()) board_.files.push_back(chip.registerMap);
    if (!reading.hasProblem()) board_.chips.push_back(std::move(chip));
  }

  // A window is of one chip alone.
  void checkWindow(ChipReading& reading, const toml::table& table, const Chip& chip) {
    const std::string& place = chip.transport.file;
    if (chip.transport.kind != &memoryKind || place.empty()) return;
    const toml::node& node = *table.get("memory");
    const fs::path window = placeOfWindow(place);
    if (isTaken(window)) return reading.problem(node, "memory: '{}' is the agent's own", place);
    const auto [first, isNew] = windows_.emplace(window.string(), node.source().begin.line);
    if (!isNew) reading.problem(node, "the chip with line {} has that window", first->second);
  }

  const std::string& file_;
  Description board_;
  std::map<std::string, size_t> lines_;    // of the chips' names
  std::map<std::string, size_t> windows_;  // and of their files
};

}  // namespace

FileError::~FileError() = default;

Description readFile(const std::string& path) { return readText(textOfFile(path), path); }

std::string textOfFile(const std::string& path) { return readTomlText(path); }

Description readText(const std::string& text, const std::string& path) {
  checkTomlText(path, text);
  toml::table root;
  try {
    root = toml::parse(std::string_view(text), std::string_view(path));
  } catch (const toml::parse_error& e) {
    const size_t line = e.source().begin.line;
    throw FileError(line == 0 ? fmt::format("{}: {}", path, e.description())
                              : fmt::format("{}:{}: {}", path, line, e.description()));
  } catch (const TomlAssertion& e) {
    throw FileError(fmt::format("{}: cannot be taken apart: {}", path, e.what()));
  }
  return readTables(root, path);
}

Description readTables(const toml::table& root, const std::string& path) {
  return FileReading(path).read(root);
}

std::string fileStamp(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return {};
  return fmt::format("{}:{}:{}:{}.{}", status.st_dev, status.st_ino, status.st_size,
                     status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
}

std::string contentStamp(const std::string& path) {
  const Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  size_t size = 0;
  size_t hash = 0;
  std::vector<char> piece(1 << 16);
  for (ssize_t count; (count = ::read(file.get(), piece.data(), piece.size())) > 0;) {
    const std::string_view text(piece.data(), static_cast<size_t>(count));
    size += text.size();
    hash = Orb::hashMix(hash, std::hash<std::string_view>()(text));
  }
  return fmt::format("{}:{:x}", size, hash);
}

std::string whyNoChipName(const std::string& name) {
  if (name.find('/') != std::string::npos) return "a chip's name must not have a '/'";
  if (name.ends_with(".damaged")) {
    return "a chip's name must not end in '.damaged', as tables do that were set aside";
  }
  try {
    Shoal::checkMountPath(
        fmt::format("{}/{}", KoruRegFile::MountConstants::shadowFieldsConfigPathPrefix, name));
  } catch (const std::invalid_argument& e) {
    return fmt::format("a chip cannot have that name: {}", e.what());
  }
  return {};
}

}  // namespace Board
