#include "board/service/internal/UnixListener.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Board {

namespace {

constexpr int backlog = 64;
constexpr mode_t socketMode = 0660;

Orb::Descriptor newSocket(const std::string& path) {
  Orb::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) Orb::throwErrno("cannot listen at {}", path);
  return socket;
}

}  // namespace

Orb::Descriptor listenAt(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error(fmt::format("cannot listen at {}: the path has more than {} bytes",
                                         path, sizeof address.sun_path - 1));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const Orb::Descriptor probe = newSocket(path);
  // (Somebody who is busy has us wait: EAGAIN.)
  if (::connect(probe.get(), generic, sizeof address) == 0 || errno == EAGAIN) {
    throw std::runtime_error(fmt::format("cannot listen at {}: somebody does already", path));
  }
  if (errno != ECONNREFUSED && errno != ENOENT) Orb::throwErrno("cannot listen at {}", path);
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) {
      throw std::runtime_error(fmt::format("cannot listen at {}: it is no socket", path));
    }
    ::unlink(path.c_str());
  }
  Orb::Descriptor socket = newSocket(path);
  // Nobody can connect before listen(), so nobody gets in between with another mode.
  if (::bind(socket.get(), generic, sizeof address) != 0)
    Orb::throwErrno("cannot listen at {}", path);
  Shoal::setFileGroup(path);
  if (::chmod(path.c_str(), socketMode) != 0 || ::listen(socket.get(), backlog) != 0) {
    Orb::throwErrno("cannot listen at {}", path);
  }
  return socket;
}

uint64_t nodeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace Board
