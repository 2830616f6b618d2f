#include "Shoal/internal/TableLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <stdexcept>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Shoal {

namespace {

constexpr mode_t lockMode = 0600;

// Closing any descriptor of the lock file would release the lock of the whole process, so a file
// that is locked is never opened a second time, by whatever path.
std::set<TableLock::FileId>& heldFiles() {
  static std::set<TableLock::FileId> files;
  return files;
}

[[noreturn]] void throwTaken(const std::string& tableName, pid_t holder) {
  throw std::runtime_error(
      fmt::format("table {} has a writer already: process {}", tableName, holder));
}

struct flock wholeFile() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Its owner's alone: whoever could open it could lock it, too.
Orb::Descriptor openLock(const std::string& path) {
  Orb::Descriptor file(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, lockMode));
  if (!file) Orb::throwErrno("cannot open {}", path);
  checkOwnFile(file.get(), path);
  if (::fchmod(file.get(), lockMode) != 0) Orb::throwErrno("cannot chmod {}", path);
  return file;
}

// Nothing when there is no such file.
std::optional<TableLock::FileId> fileAt(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return TableLock::FileId(status.st_dev, status.st_ino);
}

}  // namespace

TableLock::TableLock(const std::string& lockPath, const std::string& tableName) : path_(lockPath) {
  const auto present = fileAt(path_);
  if (present && heldFiles().contains(*present)) throwTaken(tableName, ::getpid());
  file_ = openLock(path_);
  struct flock lock = wholeFile();
  while (::fcntl(file_.get(), F_SETLK, &lock) != 0) {
    if (errno != EACCES && errno != EAGAIN) Orb::throwErrno("cannot lock {}", path_);
    ::fcntl(file_.get(), F_GETLK, &lock);
    if (lock.l_type != F_UNLCK) throwTaken(tableName, lock.l_pid);
    lock = wholeFile();  // the holder has gone in between
  }
  struct stat status;
  if (::fstat(file_.get(), &status) != 0) Orb::throwErrno("cannot look at {}", path_);
  held_ = {status.st_dev, status.st_ino};
  heldFiles().insert(held_);
}

TableLock::~TableLock() { heldFiles().erase(held_); }

bool TableLock::isInPlace() const { return fileAt(path_) == held_; }

}  // namespace Shoal
