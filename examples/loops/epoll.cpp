// The library in a program with a loop of its own over epoll(7): it waits for the descriptor of the
// library's event loop beside its own descriptors, and has it serve what is pending.
//
//     echo hello | loops-epoll

#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "Orb/EventLoop.h"

namespace {

bool add(int epoll, int fd) {
  epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

int main() {
  Orb::EventLoop& loop = Orb::eventLoop();
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (!add(epoll, loop.fd()) || !add(epoll, STDIN_FILENO)) {
    std::perror("loops-epoll");
    return 1;
  }
  int left = 2;  // the timer, and the end of standard input
  const auto timer = loop.after(std::chrono::milliseconds(20), [&] {
    std::printf("the library's timer\n");
    --left;
  });
  while (left != 0) {
    epoll_event event = {};
    if (::epoll_wait(epoll, &event, 1, -1) != 1) continue;
    if (event.data.fd == loop.fd()) {
      loop.runPending();
      continue;
    }
    char text[64];
    const ssize_t count = ::read(STDIN_FILENO, text, sizeof text);
    if (count > 0) std::printf("from standard input: %.*s", static_cast<int>(count), text);
    if (count > 0) continue;
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, STDIN_FILENO, nullptr);
    --left;
  }
  ::close(epoll);
}
