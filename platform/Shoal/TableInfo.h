#pragma once

// A table as somebody finds it who only looks: opened by whatever type it says it is, read once,
// and verified in full. For tools; neither a writer nor a connection to one is needed. Used on the
// framework's thread, by processes that do not write the table themselves: looking for the writer
// closes the lock file, and the kernel releases a process's own locks with that.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Orb/Export.h"
#include "Shoal/StatePath.h"

namespace Shoal {

struct TableInfo {
  struct Entry {
    uint64_t key;
    uint32_t value;
  };

  std::string typeName;
  uint32_t slotCount = 0;
  uint64_t generation = 0;
  std::vector<Entry> entries;          // those that can be trusted
  std::vector<uint32_t> damagedSlots;  // hold what was never stored there
  std::vector<uint32_t> strayedSlots;  // hold an entry that a search for its key does not find
  bool isWronglySuperseded = false;    // says that another file has its place, which it has itself
  bool isCutShort = false;             // a part of the file vanished while it was read

  bool isDamaged() const {
    return !damagedSlots.empty() || !strayedSlots.empty() || isWronglySuperseded || isCutShort;
  }
};

// The type that the table says it is of; nothing when there is no table. What it says is as good as
// its header: mounting it by that type verifies it. Throws std::system_error when it cannot be
// opened.
ORB_EXPORT std::optional<std::string> tableTypeName(const TablePaths& paths);

// All about a table; nothing when there is none. Throws what TableFile::open() throws.
ORB_EXPORT std::optional<TableInfo> tableInfo(const TablePaths& paths);

// The process that has the role of the table's writer; 0 when it cannot be seen from here. Throws
// std::system_error.
ORB_EXPORT std::optional<pid_t> tableWriter(const TablePaths& paths);

}  // namespace Shoal
