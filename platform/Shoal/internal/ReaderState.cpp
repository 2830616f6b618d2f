#include "Shoal/internal/ReaderState.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Shoal {

namespace {

constexpr int sizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr int backlog = SOMAXCONN;

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

ReaderMemory ReaderMemory::map(const Orb::Descriptor& file) {
  ReaderMemory memory;
  struct stat status;
  // A reader that could still cut its memory could kill the writer with it.
  const int seals = ::fcntl(file.get(), F_GET_SEALS);
  if (seals < 0 || (seals & sizeSeals) != sizeSeals) return memory;
  if (::fstat(file.get(), &status) != 0 || status.st_size < off_t{readerStateSize}) return memory;
  memory.state_.reset(mapState(file.get()));
  if (!memory.state_) return memory;
  // There may be no more memory behind it in the end.
  memory.guard_ = std::make_unique<Keel::MappedRegion>(memory.state(), readerStateSize);
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

Bell Bell::make(Orb::Descriptor& readersEnd) {
  Bell bell;
  Orb::Descriptor event(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  readersEnd = Orb::Descriptor(::epoll_create1(EPOLL_CLOEXEC));
  epoll_event each = {};
  // What has been taken is over, though nobody reads the eventfd.
  each.events = EPOLLIN | EPOLLET;
  if (event && readersEnd &&
      ::epoll_ctl(readersEnd.get(), EPOLL_CTL_ADD, event.get(), &each) == 0) {
    bell.event_ = std::move(event);
  }
  return bell;
}

void Bell::ring() const {
  constexpr uint64_t one = 1;
  [[maybe_unused]] const ssize_t count = ::write(event_.get(), &one, sizeof one);
}

bool Bell::take(int readersEnd) {
  epoll_event event;
  return ::epoll_wait(readersEnd, &event, 1, 0) >= 0 || errno == EINTR;
}

bool sendWith(int socket, std::string_view text, int descriptor) {
  iovec part = {const_cast<char*>(text.data()), text.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* attached = CMSG_FIRSTHDR(&message);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(attached), &descriptor, sizeof descriptor);
  return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(text.size());
}

Received receiveWith(int socket, std::string_view expected, Orb::Descriptor& descriptor) {
  char text[16];  // a longer message is another one
  iovec part = {text, sizeof text};
  // Room for one descriptor: the kernel closes what more there is.
  int one;
  alignas(cmsghdr) char control[CMSG_LEN(sizeof one)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? Received::nothing : Received::other;
  const cmsghdr* attached = CMSG_FIRSTHDR(&message);
  if (!attached || attached->cmsg_type != SCM_RIGHTS) return Received::other;
  std::memcpy(&one, CMSG_DATA(attached), sizeof one);
  descriptor = Orb::Descriptor(one);
  const bool isWhole = (message.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) == 0;
  const std::string_view found(text, static_cast<size_t>(count));
  return isWhole && found == expected ? Received::expected : Received::other;
}

}  // namespace Shoal
