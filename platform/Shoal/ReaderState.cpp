#include "Shoal/ReaderState.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Shoal {

namespace {

constexpr int sizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr int backlog = 16;

ReaderState* mapState(int fd) {
  void* begin = ::mmap(nullptr, readerStateSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return begin == MAP_FAILED ? nullptr : static_cast<ReaderState*>(begin);
}

// A socket's address has room for 108 characters, a state directory may need more: the directory is
// opened, and the address leads through that descriptor.
struct SocketAddress {
  explicit SocketAddress(const std::string& path) {
    const size_t slash = path.rfind('/');
    directory =
        Orb::Descriptor(::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string through =
        fmt::format("/proc/self/fd/{}/{}", directory.get(), path.substr(slash + 1));
    address.sun_family = AF_UNIX;
    if (through.size() >= sizeof address.sun_path) {
      directory.reset();
      errno = ENAMETOOLONG;
      return;
    }
    std::memcpy(address.sun_path, through.c_str(), through.size() + 1);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }

  Orb::Descriptor directory;
  sockaddr_un address = {};
};

Orb::Descriptor newSocket() {
  return Orb::Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

}  // namespace

void ReaderMemory::Unmap::operator()(ReaderState* state) const { ::munmap(state, readerStateSize); }

ReaderMemory ReaderMemory::make() {
  ReaderMemory memory;
  memory.file_ =
      Orb::Descriptor(::memfd_create("koru-table-reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!memory.file_ || ::ftruncate(memory.fd(), readerStateSize) != 0 ||
      ::fcntl(memory.fd(), F_ADD_SEALS, sizeSeals | F_SEAL_SEAL) != 0) {
    Orb::throwErrno("cannot make a reader's memory");
  }
  memory.state_.reset(mapState(memory.fd()));
  if (!memory.state_) Orb::throwErrno("cannot map memory");
  return memory;
}

ReaderMemory ReaderMemory::map(Orb::Descriptor file) {
  ReaderMemory memory;
  struct stat status;
  // A reader that could still cut its memory could kill the writer with it.
  const int seals = ::fcntl(file.get(), F_GET_SEALS);
  if (seals < 0 || (seals & sizeSeals) != sizeSeals) return memory;
  if (::fstat(file.get(), &status) != 0 || status.st_size < off_t{readerStateSize}) return memory;
  memory.state_.reset(mapState(file.get()));
  memory.file_ = std::move(file);
  return memory;
}

Orb::Descriptor connectTo(const std::string& path) {
  const SocketAddress address(path);
  if (!address.directory) return {};
  Orb::Descriptor socket = newSocket();
  if (socket && ::connect(socket.get(), address.get(), sizeof address.address) == 0) return socket;
  return {};
}

// The socket gets its name when it can be connected to: a reader tries once when the name appears.
Orb::Descriptor listenAt(const std::string& path) {
  const std::string next = path + ".next";
  const SocketAddress address(next);
  ::unlink(next.c_str());
  Orb::Descriptor socket = newSocket();
  const auto check = [&path](bool worked) {
    if (worked) return;
    Orb::throwErrno("cannot listen at {}", path);
  };
  check(address.directory && socket);
  check(::bind(socket.get(), address.get(), sizeof address.address) == 0);
  check(::chmod(next.c_str(), 0660) == 0);
  setFileGroup(next);
  check(::listen(socket.get(), backlog) == 0);
  check(::rename(next.c_str(), path.c_str()) == 0);
  return socket;
}

SocketId socketAt(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

bool sendGreeting(int socket, int memory, int event) {
  char greeting[sizeof readerGreeting];
  std::memcpy(greeting, readerGreeting, sizeof greeting);
  iovec part = {greeting, sizeof greeting};
  const int descriptors[2] = {memory, event};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* attached = CMSG_FIRSTHDR(&message);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(sizeof descriptors);
  std::memcpy(CMSG_DATA(attached), descriptors, sizeof descriptors);
  return ::sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof greeting);
}

bool receiveGreeting(int socket, Orb::Descriptor& memory, Orb::Descriptor& event) {
  char greeting[sizeof readerGreeting];
  iovec part = {greeting, sizeof greeting};
  int descriptors[2];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  const cmsghdr* attached = count < 0 ? nullptr : CMSG_FIRSTHDR(&message);
  if (!attached || attached->cmsg_type != SCM_RIGHTS) return false;
  if (attached->cmsg_len != CMSG_LEN(sizeof descriptors)) {
    // A single descriptor; more than two do not fit and were closed by the kernel.
    int one;
    std::memcpy(&one, CMSG_DATA(attached), sizeof one);
    ::close(one);
    return false;
  }
  std::memcpy(descriptors, CMSG_DATA(attached), sizeof descriptors);
  memory = Orb::Descriptor(descriptors[0]);
  event = Orb::Descriptor(descriptors[1]);
  return count == static_cast<ssize_t>(sizeof greeting) &&
         std::memcmp(greeting, readerGreeting, sizeof greeting) == 0;
}

}  // namespace Shoal
