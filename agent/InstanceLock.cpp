#include "agent/InstanceLock.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace Agent {

InstanceLock::InstanceLock(const std::string& stateDirectory) {
  namespace fs = std::filesystem;
  if (fs::create_directories(stateDirectory)) {
    fs::permissions(stateDirectory,
                    fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  }
  const std::string path = stateDirectory + "/korud.lock";
  file_ = Orb::Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!file_) {
    throw std::system_error(errno, std::generic_category(), fmt::format("cannot open {}", path));
  }
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(file_.get(), F_SETLK, &lock) == 0) return;
  ::fcntl(file_.get(), F_GETLK, &lock);
  throw std::runtime_error(
      fmt::format("another korud uses {}: process {}", stateDirectory, lock.l_pid));
}

}  // namespace Agent
