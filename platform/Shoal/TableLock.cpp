#include "Shoal/TableLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <stdexcept>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Shoal {

namespace {

// Closing any descriptor of the lock file would release the lock of the whole process, so a file
// that is locked is never opened a second time.
std::set<std::string>& heldPaths() {
  static std::set<std::string> paths;
  return paths;
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

}  // namespace

TableLock::TableLock(const std::string& lockPath, const std::string& tableName) : path_(lockPath) {
  if (heldPaths().contains(path_)) throwTaken(tableName, ::getpid());
  file_ = Orb::Descriptor(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file_) {
    Orb::throwErrno("cannot open {}", path_);
  }
  struct flock lock = wholeFile();
  while (::fcntl(file_.get(), F_SETLK, &lock) != 0) {
    if (errno != EACCES && errno != EAGAIN) {
      Orb::throwErrno("cannot lock {}", path_);
    }
    ::fcntl(file_.get(), F_GETLK, &lock);
    if (lock.l_type != F_UNLCK) throwTaken(tableName, lock.l_pid);
    lock = wholeFile();  // the holder has gone in between
  }
  setFileAccess(file_.get(), path_);
  heldPaths().insert(path_);
}

TableLock::~TableLock() {
  if (file_) heldPaths().erase(path_);
}

bool TableLock::isInPlace() const {
  struct stat held;
  struct stat present;
  return ::fstat(file_.get(), &held) == 0 && ::stat(path_.c_str(), &present) == 0 &&
         held.st_dev == present.st_dev && held.st_ino == present.st_ino;
}

}  // namespace Shoal
