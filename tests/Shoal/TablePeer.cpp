// The other process of a test of shared tables: `ShoalPeer STATE-DIRECTORY ROLE`. It mounts the
// table and does what it is told over the socket that is its standard input. Roles: writer; lazy, a
// reader that serves its event loop only when asked; echo, a reader that passes on what it is told.

#include "tests/Shoal/TablePeer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <map>
#include <string>
#include <string_view>

#include "Orb/EventLoop.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/StatePath.h"

namespace {

using namespace Peer;

void answer(const Message& message) {
  if (::send(STDIN_FILENO, &message, sizeof message, MSG_NOSIGNAL) != sizeof message) ::_exit(1);
}

std::map<uint64_t, uint32_t> mirror;
bool quiet = false;
bool echoes = false;

void changed(uint64_t key);
Shoal::ShoalMap table({changed, {}, [](bool quiesced) { quiet = quiesced; }});

void changed(uint64_t key) {
  const auto value = table.get(key);
  if (value) {
    mirror[key] = *value;
  } else {
    mirror.erase(key);
  }
  if (echoes) answer({Op::entry, value.value_or(0), key});
}

void change(uint32_t number) {
  makeChange(
      number, [](uint64_t key, uint32_t value) { table.put(key, value); },
      [](uint64_t key) { table.del(key); });
}

void tell() {
  while (Orb::eventLoop().runPending() > 0) {
  }
  while (!quiet) Orb::eventLoop().runFor(std::chrono::hours(1));
  for (const auto& [key, value] : mirror) answer({Op::entry, value, key});
}

void obey(const Message& message) {
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
  if (message.op == Op::told) tell();
  answer({});
}

void mount(std::string_view role) {
  if (role == "writer") return table.mountAsWriter(tablePath, tableType, tableEntries);
  table.mountAsReader(tablePath, tableType);
  for (const auto& [key, value] : table.entries()) mirror[key] = value;
}

// Obeys until there is nobody left to obey.
void serve(bool lazy) {
  const auto next = [] {
    Message message;
    if (::recv(STDIN_FILENO, &message, sizeof message, 0) != sizeof message) ::_exit(0);
    obey(message);
  };
  if (lazy) {
    while (true) next();
  }
  const auto watch = Orb::eventLoop().readable(STDIN_FILENO, next);
  Orb::eventLoop().run();
}

}  // namespace

int main(int, char** argv) {
  Shoal::stateDirectoryIs(argv[1]);
  const std::string_view role = argv[2];
  try {
    mount(role);
  } catch (const std::exception& e) {
    answer({Op::refused});
    const std::string_view reason = e.what();
    ::send(STDIN_FILENO, reason.data(), reason.size(), MSG_NOSIGNAL);
    return 1;
  }
  answer({});
  echoes = role == "echo";
  serve(role == "lazy");
}
