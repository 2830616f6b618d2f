#pragma once

// Starts and asks the other process of a test of shared tables. Waiting for it has an end: it fails
// with a std::system_error.

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Orb/Descriptor.h"
#include "testing/StateDirectory.h"
#include "tests/Shoal/Table.h"
#include "tests/Shoal/TablePeer.h"

namespace Peer {

// Where the program of the other process is; the test program says so.
extern const char* const peerProgram;

// Another process that has mounted the table, killed at the end of the scope.
class Process {
 public:
  Process(const Testing::StateDirectory& state, const char* role, const char* path = Tables::path,
          const char* type = Tables::type) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
    socket_ = Orb::Descriptor(ends[0]);
    const timeval patience = {30, 0};
    ::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ends[1], STDIN_FILENO);
      ::execl(peerProgram, peerProgram, state.path().c_str(), role, path, type, nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    if (pid_ < 0) fail("fork");
    receive();
  }
  ~Process() { kill(); }

  pid_t pid() const { return pid_; }
  void send(const Message& message) {
    if (::send(socket_.get(), &message, sizeof message, MSG_NOSIGNAL) < 0) fail("send");
  }
  Message receive() {
    Message message;
    if (::recv(socket_.get(), &message, sizeof message, 0) != sizeof message) fail("no answer");
    return message;
  }
  Message ask(const Message& message) {
    send(message);
    return receive();
  }
  // What it has been told.
  Tables::Contents told() {
    Tables::Contents all;
    send({Op::told});
    for (Message message; (message = receive()).op == Op::entry;) all[message.key] = message.value;
    return all;
  }
  void kill() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, __WALL) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }
  // After kill(): the number of the last change that was acknowledged, or what it is now.
  uint32_t lastAcknowledged(uint32_t number) {
    for (Message message; ::recv(socket_.get(), &message, sizeof message, MSG_DONTWAIT) > 0;) {
      if (message.op == Op::entry) number = message.value;
    }
    return number;
  }

 private:
  [[noreturn]] static void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
  }

  Orb::Descriptor socket_;
  pid_t pid_ = -1;
};

}  // namespace Peer
