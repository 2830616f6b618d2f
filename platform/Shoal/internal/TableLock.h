#pragma once

// The role of a table's only writer: a record lock on a lock file of its own, which the kernel
// releases when the process dies, however it dies, and which a forked child does not inherit.
// Internal to Shoal; used on the framework's thread.

#include <sys/types.h>

#include <string>
#include <utility>

#include "Orb/Descriptor.h"
#include "Orb/Export.h"

namespace Shoal {

class ORB_EXPORT TableLock {
 public:
  using FileId = std::pair<dev_t, ino_t>;

  // Throws std::runtime_error that names the holder when the role is taken, by another process or
  // by this one, MountException for a lock file that is not this user's own, and
  // std::system_error when it cannot be used.
  TableLock(const std::string& lockPath, const std::string& tableName);
  ~TableLock();
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

  // Whether the lock file's name still leads to the file that is locked.
  bool isInPlace() const;

 private:
  std::string path_;
  Orb::Descriptor file_;
  FileId held_;
};

}  // namespace Shoal
