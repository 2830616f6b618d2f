#include "Shoal/StatePath.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"

namespace Shoal {

namespace {

constexpr mode_t directoryMode = 0750;
constexpr mode_t fileMode = 0640;
constexpr size_t longestPart = 200;  // leaves room for the endings below
constexpr std::string_view endings[] = {".lock", ".sock", ".next"};

std::string chosenDirectory;

const char* environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

void checkPart(std::string_view part, std::string_view whole) {
  const auto refuse = [&](const char* why) {
    throw std::invalid_argument(fmt::format("mount path '{}' {}", whole, why));
  };
  if (part.empty()) refuse("has an empty part");
  if (part == "." || part == "..") refuse("has a part that leads elsewhere");
  if (part.size() > longestPart) refuse("has a part that is too long");
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  if (std::any_of(part.begin(), part.end(), isControl)) refuse("has a control character");
  for (const std::string_view ending : endings) {
    if (part.ends_with(ending)) refuse("ends like a companion file of a table");
  }
}

// Gives away the group of the file, or of what `path` names from there, if a group is configured.
void setGroup(int fd, const char* name, const std::string& path) {
  const char* group = environment("KORU_STATE_GROUP");
  if (!group) return;
  const struct group* found = ::getgrnam(group);
  if (!found) throw std::runtime_error(fmt::format("KORU_STATE_GROUP: no group '{}'", group));
  constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH;
  if (::fchownat(fd, name, static_cast<uid_t>(-1), found->gr_gid, flags) != 0) {
    Orb::throwErrno("cannot give {} to group {}", path, group);
  }
}

// Makes directory `name` in another one unless it is there; `path` is its whole path.
void makeDirectory(int parent, const char* name, const std::string& path) {
  if (::mkdirat(parent, name, directoryMode) != 0) {
    if (errno == EEXIST) return;
    Orb::throwErrno("cannot make directory {}", path);
  }
  if (::fchmodat(parent, name, directoryMode, 0) != 0) Orb::throwErrno("cannot chmod {}", path);
  setGroup(parent, name, path);
}

enum class Role { reader, writer };

struct stat statusOf(int fd, const std::string& path) {
  struct stat status;
  if (::fstat(fd, &status) != 0) Orb::throwErrno("cannot look at {}", path);
  return status;
}

// Whoever else may put something into a directory could put anything there.
void checkDirectory(int fd, const std::string& path, Role role) {
  const struct stat status = statusOf(fd, path);
  if (role == Role::writer && status.st_uid != 0 && status.st_uid != ::geteuid()) {
    throw MountException(fmt::format("{} belongs to user {}", path, status.st_uid));
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw MountException(fmt::format("{} may be written by others: its mode is {:04o}", path,
                                     status.st_mode & 07777));
  }
}

// Opens directory `name` in another one and looks at it; none when it is missing.
Orb::Descriptor openDirectory(int parent, const char* name, const std::string& path, Role role,
                              int flags) {
  Orb::Descriptor found(::openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
  if (found) {
    checkDirectory(found.get(), path, role);
  } else if (errno == ENOTDIR) {
    throw MountException(fmt::format("{} is no directory", path));
  } else if (errno != ENOENT || role == Role::writer) {
    Orb::throwErrno("cannot open {}", path);
  }
  return found;
}

Orb::Descriptor openStateDirectory(const std::string& path, Role role) {
  if (role == Role::writer) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
      const std::string part = path.substr(0, end);
      makeDirectory(AT_FDCWD, part.c_str(), part);
    }
    makeDirectory(AT_FDCWD, path.c_str(), path);
  }
  return openDirectory(AT_FDCWD, path.c_str(), path, role, 0);
}

// Goes down to a table's directory, one step after the other.
void visitDirectories(const TablePaths& paths, Role role) {
  const size_t begin = paths.table.size() - paths.mountPath.size();
  Orb::Descriptor at = openStateDirectory(paths.table.substr(0, begin - 1), role);
  size_t part = begin;
  for (size_t end; at && (end = paths.table.find('/', part)) != std::string::npos; part = end + 1) {
    const std::string path = paths.table.substr(0, end);
    const std::string name = path.substr(part);
    if (role == Role::writer) makeDirectory(at.get(), name.c_str(), path);
    at = openDirectory(at.get(), name.c_str(), path, role, O_NOFOLLOW);
  }
}

}  // namespace

MountException::~MountException() = default;
OtherLayoutException::~OtherLayoutException() = default;

std::string stateDirectory() {
  if (!chosenDirectory.empty()) return chosenDirectory;
  if (const char* directory = environment("KORU_STATE_DIR")) return directory;
  if (::geteuid() == 0) return "/run/koru";
  if (const char* directory = environment("XDG_RUNTIME_DIR")) {
    return fmt::format("{}/koru", directory);
  }
  throw std::runtime_error(
      "there is no state directory: set KORU_STATE_DIR (or XDG_RUNTIME_DIR, or be root)");
}

void stateDirectoryIs(std::string_view path) { chosenDirectory = path; }

void checkMountPath(std::string_view mountPath) {
  if (mountPath.empty()) throw std::invalid_argument("the mount path is empty");
  size_t begin = 0;
  while (begin <= mountPath.size()) {
    const size_t end = std::min(mountPath.find('/', begin), mountPath.size());
    checkPart(mountPath.substr(begin, end - begin), mountPath);
    begin = end + 1;
  }
}

TablePaths::TablePaths(std::string_view path) : mountPath(path) {
  checkMountPath(path);
  table = fmt::format("{}/{}", stateDirectory(), path);
  directory = table.substr(0, table.rfind('/'));
  lock = table + ".lock";
  socket = table + ".sock";
  next = table + ".next";
}

void makeStateDirectory() { openStateDirectory(stateDirectory(), Role::writer); }

void makeDirectories(const TablePaths& paths) { visitDirectories(paths, Role::writer); }

void checkDirectories(const TablePaths& paths) { visitDirectories(paths, Role::reader); }

void checkFile(int fd, const std::string& path) {
  const struct stat status = statusOf(fd, path);
  if (!S_ISREG(status.st_mode)) throw MountException(fmt::format("{} is no file", path));
  // (None at all when it was replaced just now.)
  if (status.st_nlink > 1) {
    throw MountException(fmt::format("{} has {} names (hard links)", path, status.st_nlink));
  }
}

void checkOwnFile(int fd, const std::string& path) {
  checkFile(fd, path);
  const struct stat status = statusOf(fd, path);
  if (status.st_uid != ::geteuid()) {
    throw MountException(fmt::format("{} belongs to user {}", path, status.st_uid));
  }
}

void setFileAccess(int fd, const std::string& path) {
  if (::fchmod(fd, fileMode) != 0) Orb::throwErrno("cannot chmod {}", path);
  setGroup(fd, "", path);
}

void setFileGroup(const std::string& path) { setGroup(AT_FDCWD, path.c_str(), path); }

}  // namespace Shoal
