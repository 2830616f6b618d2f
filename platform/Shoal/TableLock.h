#pragma once

// The role of a table's only writer: a record lock on a lock file of its own, which the kernel
// releases when the process dies, however it dies, and which a forked child does not inherit.
// Internal to Shoal; used on the framework's thread.

#include <string>

#include "Orb/Descriptor.h"
#include "Orb/Export.h"

namespace Shoal {

class ORB_EXPORT TableLock {
 public:
  // Throws std::runtime_error that names the holder when the role is taken, by another process or
  // by this one, and std::system_error when the lock file cannot be used.
  TableLock(const std::string& lockPath, const std::string& tableName);
  ~TableLock();
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

  // Whether the lock file's name still leads to the file that is locked.
  bool isInPlace() const;

 private:
  std::string path_;
  Orb::Descriptor file_;
};

}  // namespace Shoal
