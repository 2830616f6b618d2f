#include "Shoal/StatePath.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

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

// Gives away the group, if one is configured.
void setGroup(const std::string& path, int fd) {
  const char* name = environment("KORU_STATE_GROUP");
  if (!name) return;
  const group* found = ::getgrnam(name);
  if (!found) throw std::runtime_error(fmt::format("KORU_STATE_GROUP: no group '{}'", name));
  const int result = fd >= 0 ? ::fchown(fd, static_cast<uid_t>(-1), found->gr_gid)
                             : ::chown(path.c_str(), static_cast<uid_t>(-1), found->gr_gid);
  if (result != 0) Orb::throwErrno("cannot give {} to group {}", path, name);
}

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), directoryMode) != 0) {
    if (errno == EEXIST) return;
    Orb::throwErrno("cannot make directory {}", path);
  }
  if (::chmod(path.c_str(), directoryMode) != 0) Orb::throwErrno("cannot chmod {}", path);
  setGroup(path, -1);
}

}  // namespace

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

void makeDirectories(const TablePaths& paths) {
  for (size_t end = paths.table.find('/', 1); end != std::string::npos;
       end = paths.table.find('/', end + 1)) {
    makeDirectory(paths.table.substr(0, end));
  }
}

void setFileAccess(int fd, const std::string& path) {
  if (::fchmod(fd, fileMode) != 0) Orb::throwErrno("cannot chmod {}", path);
  setGroup(path, fd);
}

void setFileGroup(const std::string& path) { setGroup(path, -1); }

}  // namespace Shoal
