#include "board/chips/InstanceLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "Orb/Errno.h"
#include "board/chips/StateFiles.h"

namespace Board {

InstanceLock::InstanceLock(const std::string& stateDirectory) {
  const std::string path = stateDirectory + "/korud.lock";
  file_ = openOwn(path, O_RDWR | O_CREAT);
  // Whoever may open it can lock it, and keep the agent out.
  if (::fchmod(file_.get(), S_IRUSR | S_IWUSR) != 0) {
    Orb::throwErrno("cannot chmod {}", path);
  }
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(file_.get(), F_SETLK, &lock) == 0) return;
  ::fcntl(file_.get(), F_GETLK, &lock);
  throw std::runtime_error(
      fmt::format("another agent uses {}: process {}", stateDirectory, lock.l_pid));
}

}  // namespace Board
