#pragma once

// A table of shadow fields that is followed: what it holds, and what has changed since somebody
// asked last. With the GIL and the turn held.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Shoal/ShoalMap.h"
#include "python/bindings/Framework.h"

namespace Bindings {

// The key is as the table has it.
struct TableChange {
  uint64_t key;
  std::optional<uint32_t> before;
  std::optional<uint32_t> now;
};

class LiveTable {
 public:
  // Raises FileNotFoundError when there is no such table, TableError for what is no table of shadow
  // fields, DamagedTableError. Throws std::invalid_argument for a path that no table can have.
  LiveTable(const std::string& path, const std::string& stateDirectory);
  LiveTable(const LiveTable&) = delete;
  LiveTable& operator=(const LiveTable&) = delete;

  const std::string& path() const { return path_; }
  const std::string& type() const { return type_; }
  // As it is now, with what has come in meanwhile.
  Shoal::MountStatus status() const;
  uint64_t generation() const { return map_.generation(); }

  // Raise DamagedTableError for what cannot be trusted.
  std::optional<uint32_t> get(uint64_t key) const;
  std::vector<Shoal::ShoalMap::Entry> entries() const;

  // Waits for a change, for damage, for close() or for the deadline; returns the changes.
  std::vector<TableChange> wait(Deadline deadline);

  // Raises DamagedTableError.
  [[noreturn]] void raiseDamaged(const std::string& reason) const;

  void close();
  bool isClosed() const { return isClosed_; }

 private:
  void mount();
  std::vector<TableChange> changes();

  const std::string path_;
  std::string type_;
  bool isClosed_ = false;
  std::map<uint64_t, uint32_t> told_;  // what the table held when changes were asked for last
  std::set<uint64_t> changed_;
  Shoal::ShoalMap map_;
};

}  // namespace Bindings
