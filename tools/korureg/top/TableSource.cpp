#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <system_error>

#include "KoruRegFile/SystemStatus.h"
#include "Orb/DirectoryWatch.h"
#include "Orb/EventLoop.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/StatePath.h"
#include "Shoal/TableInfo.h"
#include "korureg/Output.h"
#include "korureg/ShadowDiff.h"
#include "korureg/ShadowField.h"
#include "korureg/top/Source.h"

namespace korureg::top {

namespace {

using KoruRegFile::ShadowFieldKey;
using Fields = std::map<ShadowFieldKey, uint32_t>;

const std::string wantedTables = KoruRegFile::MountConstants::shadowFieldsConfigPathPrefix;
const std::string writtenTables = "KoruRegFile/shadowFieldsStatus";

[[noreturn]] void throwNobody() {
  throw UsageError("there is no agent to be asked; the tables can only be looked at");
}

Shoal::TablePaths pathsOf(const std::string& tables, const std::string& chip) {
  return Shoal::TablePaths(tables + '/' + chip);
}

// What can be read of the table, if it is there.
Fields contentsOf(const Shoal::TablePaths& paths) {
  const auto info = Shoal::tableInfo(paths);
  std::vector<std::string> problems;
  return info ? fieldsOf(*info, problems) : Fields();
}

// One of the two tables of the open chip, listened to.
class Listener {
 public:
  Listener(const Shoal::TablePaths& paths, std::function<void()> changed)
      : map_({[changed](uint64_t) { changed(); }, changed, [](bool) {}}) {
    const auto type = Shoal::tableTypeName(paths);
    if (type) map_.mountAsReader(paths.mountPath, *type);
    isThere_ = type.has_value();
  }
  ~Listener() { map_.unmount(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  bool isThere() const { return isThere_; }

 private:
  Shoal::ShoalMap map_;
  bool isThere_ = false;
};

class TableSource : public Source {
 public:
  TableSource(const std::string& stateDirectory, std::string config);

  std::vector<Chip> chips() override;
  Detail detail(const std::string& chip) override;
  int descriptor() const override { return Orb::eventLoop().fd(); }
  std::optional<Event> event() override;

  uint32_t read(const std::string&, const Register&) override { throwNobody(); }
  std::vector<std::string> plan(const std::string&, const AgentField&,
                                const std::string&) override {
    throwNobody();
  }
  void write(const std::string&, const AgentField&, const std::string&) override { throwNobody(); }

 private:
  void listenTo(const std::string& chip);

  const std::string config_;
  const std::string directory_;
  std::unique_ptr<Orb::DirectoryWatch> watch_;
  std::string chip_;
  std::vector<std::unique_ptr<Listener>> listeners_;  // of that chip
  std::deque<Event> events_;
};

TableSource::TableSource(const std::string& stateDirectory, std::string config)
    : config_(std::move(config)),
      directory_((Shoal::stateDirectoryIs(stateDirectory), Shoal::stateDirectory()) + '/' +
                 wantedTables) {
  watch_ = std::make_unique<Orb::DirectoryWatch>(directory_, [this] {
    events_.push_back({Event::What::chip, chip_});
  });
}

std::vector<Chip> TableSource::chips() {
  namespace fs = std::filesystem;
  std::vector<Chip> chips;
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(directory_, failed)) {
    const std::string name = entry.path().filename();
    try {
      const Shoal::TablePaths paths = pathsOf(wantedTables, name);
      if (paths.table != entry.path()) continue;
      const bool hasWriter = Shoal::tableWriter(paths).has_value();
      const uint64_t count = contentsOf(paths).size();
      chips.push_back({.name = name,
                       .state = hasWriter ? "up" : "detached",
                       .reason = hasWriter ? "" : "the writer is gone; these are its last contents",
                       .transport = "tables",
                       .fields = count});
    } catch (const std::exception& e) {
      chips.push_back({.name = name, .state = "damaged", .reason = e.what()});
    }
  }
  std::sort(chips.begin(), chips.end(),
            [](const Chip& a, const Chip& b) { return a.name < b.name; });
  return chips;
}

void TableSource::listenTo(const std::string& chip) {
  const bool areThere = std::all_of(listeners_.begin(), listeners_.end(),
                                    [](const auto& each) { return each->isThere(); });
  if (chip == chip_ && !listeners_.empty() && areThere) return;
  chip_ = chip;
  listeners_.clear();
  for (const std::string& tables : {wantedTables, writtenTables}) {
    listeners_.push_back(std::make_unique<Listener>(pathsOf(tables, chip), [this, chip] {
      if (events_.empty()) events_.push_back({Event::What::field, chip});
    }));
  }
}

Detail TableSource::detail(const std::string& chip) {
  listenTo(chip);
  const FieldNames names = fieldNames(config_, chip);
  const Fields wanted = contentsOf(pathsOf(wantedTables, chip));
  const Fields written = contentsOf(pathsOf(writtenTables, chip));
  Detail detail;
  for (const auto& [key, value] : wanted) {
    if (detail.registers.empty() || detail.registers.back().address != key.address()) {
      Register& reg = detail.registers.emplace_back();
      reg.name = hex(key.address());
      reg.address = key.address();
      reg.readable = false;
      reg.wanted = reg.written = 0;
    }
    Register& reg = detail.registers.back();
    AgentField field;
    field.hardwareRegister = field.reg = reg.name;
    field.hardwareField = field.field = fieldBits(key);
    field.kind = "stored";
    field.hardwareBits = {static_cast<uint8_t>(key.start() + key.size() - 1), key.start()};
    const std::string name = nameOf(key, names);
    if (const size_t dot = name.rfind('.'); dot != std::string::npos) {
      field.reg = name.substr(0, dot);
      field.field = field.hardwareField = name.substr(dot + 1);
    }
    field.wanted = value;
    reg.wanted = *reg.wanted | value << key.start();
    if (const auto sent = written.find(key); sent != written.end()) {
      field.written = sent->second;
      reg.written = *reg.written | sent->second << key.start();
    }
    reg.fields.push_back(detail.fields.size());
    detail.fields.push_back(std::move(field));
  }
  return detail;
}

std::optional<Event> TableSource::event() {
  Orb::eventLoop().runPending();
  if (events_.empty()) return std::nullopt;
  Event event = std::move(events_.front());
  events_.pop_front();
  return event;
}

}  // namespace

std::unique_ptr<Source> tableSource(const std::string& stateDirectory, const std::string& config) {
  return std::make_unique<TableSource>(stateDirectory, config);
}

}  // namespace korureg::top
