#pragma once

// Where shared tables lie: mount paths, such as "KoruRegFile/shadowFieldsConfig/chip0", below the
// state directory, which is $KORU_STATE_DIR, else /run/koru for root, else $XDG_RUNTIME_DIR/koru.
// Beside a table's file lie its lock, its socket and, for a moment, its next generation.

#include <stdexcept>
#include <string>
#include <string_view>

#include "Orb/Export.h"

namespace Shoal {

// Something in the place of a table that is none, or not the one that was asked for, or that cannot
// be trusted since others may have put it there. It is left as it is.
class ORB_EXPORT MountException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~MountException() override;
};

// A table of a layout that this library does not know: of a newer one, or of an older one that is
// read no more.
class ORB_EXPORT OtherLayoutException : public MountException {
 public:
  using MountException::MountException;
  ~OtherLayoutException() override;
};

// Throws std::runtime_error when there is none to be had.
ORB_EXPORT std::string stateDirectory();

// Replaces the environment's choice for this process; an empty path brings it back.
ORB_EXPORT void stateDirectoryIs(std::string_view path);

// Throws std::invalid_argument for a mount path that is empty or absolute, has an empty part, "."
// or "..", is too long, holds a control character, or ends like a table's companion files.
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

// For whoever writes: make the state directory, or all directories of a table, as far as they are
// missing, with mode 0750 whatever the umask and the group of $KORU_STATE_GROUP, if it is set.
// Those that exist stay as they are. Throw MountException for one that belongs to neither this user
// nor root, that others may write, or that a symbolic link stands for (the state directory itself
// may be one), and std::system_error.
ORB_EXPORT void makeStateDirectory();
ORB_EXPORT void makeDirectories(const TablePaths& paths);
// For whoever reads, perhaps what another user writes: throws likewise, whoever owns them. Those
// that are missing are none.
ORB_EXPORT void checkDirectories(const TablePaths& paths);

// Throw MountException unless what was opened is a regular file with one name only; the second,
// also unless it belongs to this user.
ORB_EXPORT void checkFile(int fd, const std::string& path);
ORB_EXPORT void checkOwnFile(int fd, const std::string& path);

// Gives an open file of the state directory its mode, 0640, and its group: that of
// $KORU_STATE_GROUP, if it is set. Throws std::system_error.
ORB_EXPORT void setFileAccess(int fd, const std::string& path);
// Gives a path that is no open file the configured group.
ORB_EXPORT void setFileGroup(const std::string& path);

}  // namespace Shoal
