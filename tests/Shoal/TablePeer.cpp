// The other process of a test of shared tables: `ShoalPeer STATE-DIRECTORY ROLE PATH TYPE`. It
// mounts the table and does what it is told over the socket that is its standard input. Roles:
// writer; lazy, a reader that serves its event loop only when asked; echo, a reader that passes on
// what it is told.

#include "tests/Shoal/TablePeer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string_view>

#include "Orb/EventLoop.h"
#include "Shoal/StatePath.h"
#include "tests/Shoal/Table.h"

namespace {

using namespace Peer;

Tables::Table table;

void answer(const Message& message) {
  if (::send(STDIN_FILENO, &message, sizeof message, MSG_NOSIGNAL) != sizeof message) ::_exit(1);
}

void change(uint32_t number) {
  if (isRemoval(number)) {
    table.map.del(keyOf(number));
  } else {
    table.map.put(keyOf(number), number);
  }
}

void obey(const Message& message) {
  if (message.op == Op::put) table.map.put(message.key, message.value);
  if (message.op == Op::del) table.map.del(message.key);
  if (message.op == Op::change) change(message.value);
  if (message.op == Op::traced) {
    ::raise(SIGSTOP);
    change(message.value);
    ::raise(SIGSTOP);
  }
  if (message.op == Op::burst) {
    for (uint32_t i = 0; i < message.key; ++i) {
      change(message.value + i);
      answer({Op::entry, message.value + i, 0});
    }
  }
  if (message.op == Op::fork) {
    const pid_t child = ::fork();
    if (child == 0) {
      while (true) ::pause();
    }
    return answer({Op::done, 0, static_cast<uint64_t>(child)});
  }
  if (message.op == Op::told) {
    table.catchUp();
    for (const auto& [key, value] : table.mirror) answer({Op::entry, value, key});
  }
  answer({});
}

// Obeys until there is nobody left to obey.
void serve(std::string_view role) {
  const auto next = [] {
    Message message;
    if (::recv(STDIN_FILENO, &message, sizeof message, 0) != sizeof message) ::_exit(0);
    obey(message);
  };
  while (role == "lazy") next();
  if (role == "echo") {
    table.reaction = [](uint64_t key) { answer({Op::entry, table.map.get(key).value_or(0), key}); };
  }
  const auto watch = Orb::eventLoop().readable(STDIN_FILENO, next);
  Orb::eventLoop().run();
}

}  // namespace

int main(int, char** argv) {
  Shoal::stateDirectoryIs(argv[1]);
  const std::string_view role = argv[2];
  if (role == "writer") {
    table.map.mountAsWriter(argv[3], argv[4], 8);
  } else {
    table.read();
  }
  answer({});
  serve(role);
}
