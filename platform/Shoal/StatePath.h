#pragma once

// Where shared tables lie: mount paths, such as "KoruRegFile/shadowFieldsConfig/chip0", below the
// state directory, which is $KORU_STATE_DIR, else /run/koru for root, else $XDG_RUNTIME_DIR/koru.
// Beside a table's file lie its lock, its socket and, for a moment, its next generation.

#include <string>
#include <string_view>

#include "Orb/Export.h"

namespace Shoal {

// Throws std::runtime_error when there is none to be had.
ORB_EXPORT std::string stateDirectory();

// Replaces the environment's choice for this process; an empty path brings it back.
ORB_EXPORT void stateDirectoryIs(std::string_view path);

// Throws std::invalid_argument for a mount path that is empty or absolute, has an empty part, "."
// or
// "..", is too long, holds a control character, or ends like a table's companion files.
ORB_EXPORT void checkMountPath(std::string_view mountPath);

// The files of one table.
struct ORB_EXPORT TablePaths {
  // Checks the mount path.
  explicit TablePaths(std::string_view mountPath);

  std::string mountPath;
  std::string directory;
  std::string table;
  std::string lock;
  std::string socket;
  std::string next;
};

// Makes the directories of a table, as far as they are missing, with mode 0750 whatever the umask.
// Throws std::system_error.
ORB_EXPORT void makeDirectories(const TablePaths& paths);

// Gives an open file of the state directory its mode, 0640, and its group: that of
// $KORU_STATE_GROUP, if it is set. Throws std::system_error.
ORB_EXPORT void setFileAccess(int fd, const std::string& path);
// Gives a path that is no open file the configured group.
ORB_EXPORT void setFileGroup(const std::string& path);

}  // namespace Shoal
