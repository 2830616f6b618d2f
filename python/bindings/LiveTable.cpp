#include "python/bindings/LiveTable.h"

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Brio/CorruptionDetectedException.h"
#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EntityType.h"
#include "Orb/EventLoop.h"
#include "Shoal/StatePath.h"
#include "Shoal/TableInfo.h"
#include "python/bindings/Errors.h"

namespace Bindings {

using Shoal::MountStatus;

namespace {

// A state directory for the time in which a table is looked for.
class StateDirectory {
 public:
  explicit StateDirectory(const std::string& path) { Shoal::stateDirectoryIs(path); }
  ~StateDirectory() { Shoal::stateDirectoryIs(""); }
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;
};

[[noreturn]] void raiseDamage(const std::string& path, const std::string& reason) {
  raise("DamagedTableError", fmt::format("{}: {}", path, reason),
        py::dict(py::arg("path") = path, py::arg("reason") = reason));
}

[[noreturn]] void raiseNoTable(const std::string& path, const std::string& reason) {
  raise("TableError", fmt::format("{}: {}", path, reason),
        py::dict(py::arg("path") = path, py::arg("reason") = reason));
}

// Damage in one way, whatever tells it.
template <class Look>
auto soundly(const std::string& path, Look look) {
  try {
    return look();
  } catch (const Brio::CorruptionDetectedException& e) {
    raiseDamage(path, e.what());
  } catch (const Keel::GenericSigbusHandler::SigbusException&) {
    raiseDamage(path, "a part of the file has vanished");
  }
}

bool holdsShadowFields(const std::string& type) {
  return type == KoruRegFile::ShadowFieldsConfig::entityType().name() ||
         type == KoruRegFile::ShadowFieldsStatus::entityType().name();
}

}  // namespace

LiveTable::LiveTable(const std::string& path, const std::string& stateDirectory)
    : path_(path), map_({[this](uint64_t key) { changed_.insert(key); }, {}, {}}) {
  const StateDirectory directory(stateDirectory);
  soundly(path_, [&] {
    try {
      mount();
    } catch (const Shoal::MountException& e) {
      raiseNoTable(path_, e.what());
    } catch (const std::system_error& e) {
      raiseOsError(e.code().value(), path_);
    }
  });
  for (const auto& entry : entries()) told_[entry.key] = entry.value;
}

void LiveTable::mount() {
  const Shoal::TablePaths paths(path_);
  const auto type = Shoal::tableTypeName(paths);
  if (!type) raiseOsError(ENOENT, paths.table);
  // Verifies the header, and with it the type's name.
  map_.mountAsReader(path_, *type);
  if (!holdsShadowFields(*type)) {
    raiseNoTable(path_, fmt::format("it is a table of type '{}', not of shadow fields", *type));
  }
  type_ = *type;
  // A writer that is there soon says so.
  if (Shoal::tableWriter(paths)) {
    serveUntil([this] { return map_.mountStatus() != MountStatus::detached; },
               Clock::now() + std::chrono::seconds(1));
  }
}

std::optional<uint32_t> LiveTable::get(uint64_t key) const {
  return soundly(path_, [&] { return map_.get(key); });
}

std::vector<Shoal::ShoalMap::Entry> LiveTable::entries() const {
  return soundly(path_, [&] { return map_.entries(); });
}

std::vector<TableChange> LiveTable::changes() {
  std::vector<TableChange> all;
  for (const uint64_t key : std::exchange(changed_, {})) {
    const auto now = get(key);
    const auto known = told_.find(key);
    const auto before = known == told_.end() ? std::nullopt : std::optional(known->second);
    if (now == before) continue;
    if (now) {
      told_[key] = *now;
    } else {
      told_.erase(known);
    }
    all.push_back({key, before, now});
  }
  return all;
}

std::vector<TableChange> LiveTable::wait(Deadline deadline) {
  const auto isDamaged = [&] { return !isClosed_ && map_.mountStatus() == MountStatus::damaged; };
  const auto isWoken = [&] { return isClosed_ || isDamaged() || !changed_.empty(); };
  // A change that is taken back at once is none.
  while (serveUntil(isWoken, deadline)) {
    if (isDamaged()) raiseDamaged("a part of the table cannot be trusted");
    auto found = isClosed_ ? std::vector<TableChange>() : changes();
    if (isClosed_ || !found.empty()) return found;
  }
  return {};
}

MountStatus LiveTable::status() const {
  Orb::eventLoop().runPending();
  return map_.mountStatus();
}

void LiveTable::raiseDamaged(const std::string& reason) const { raiseDamage(path_, reason); }

void LiveTable::close() {
  isClosed_ = true;
  map_.unmount();
}

}  // namespace Bindings
