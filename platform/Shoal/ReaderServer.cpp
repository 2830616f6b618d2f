#include "Shoal/ReaderServer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "Orb/Trace.h"

namespace Shoal {

namespace {

Orb::TraceHandle trace("Shoal");

bool isEventfd(int fd) {
  constexpr std::string_view expected = "anon_inode:[eventfd]";
  char target[64];
  const std::string link = fmt::format("/proc/self/fd/{}", fd);
  const ssize_t size = ::readlink(link.c_str(), target, sizeof target);
  return size > 0 && std::string_view(target, static_cast<size_t>(size)) == expected;
}

}  // namespace

ReaderServer::ReaderServer(TableWriter& writer, const std::string& socketPath)
    : writer_(writer), socketPath_(socketPath), listener_(listenAt(socketPath)) {
  watch_ = Orb::eventLoop().readable(listener_.get(), [this] { acceptAll(); });
  writer_.announceIs([this](bool grown) { wake(grown); });
}

ReaderServer::~ReaderServer() {
  ::unlink(socketPath_.c_str());
  writer_.hasReadersIs(false);
  writer_.announceIs({});
}

void ReaderServer::acceptAll() {
  while (true) {
    Orb::Descriptor socket(
        ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) return;
    if (readers_.size() >= mostReaders) {
      ORB_TRACE(trace, 0, "{}: no room for a reader beside {} others", socketPath_, mostReaders);
      continue;
    }
    const Place place = readers_.emplace(readers_.end());
    place->socket = std::move(socket);
    place->watch = Orb::eventLoop().readable(place->socket.get(), [this, place] { heard(place); });
  }
}

// Either the greeting, or the end of the connection; anything else ends it.
void ReaderServer::heard(Place reader) {
  if (reader->memory.state() || !welcome(*reader)) drop(reader);
}

bool ReaderServer::welcome(Reader& reader) {
  Orb::Descriptor memory;
  if (!receiveGreeting(reader.socket.get(), memory, reader.event)) return false;
  // The writer must never wait for a reader, nor be killed by one: writing to a pipe might be the
  // end.
  if (!isEventfd(reader.event.get())) return false;
  const int flags = ::fcntl(reader.event.get(), F_GETFL);
  if (flags < 0 || ::fcntl(reader.event.get(), F_SETFL, flags | O_NONBLOCK) != 0) return false;
  reader.memory = ReaderMemory::map(std::move(memory));
  if (!reader.memory.state()) return false;
  writer_.hasReadersIs(true);
  return ::send(reader.socket.get(), &writerAnswer, sizeof writerAnswer, MSG_NOSIGNAL) ==
         sizeof writerAnswer;
}

void ReaderServer::drop(Place reader) {
  readers_.erase(reader);
  writer_.hasReadersIs(std::any_of(readers_.begin(), readers_.end(),
                                   [](const Reader& r) { return r.memory.state() != nullptr; }));
}

void ReaderServer::wake(bool all) {
  constexpr uint64_t one = 1;
  for (const Reader& reader : readers_) {
    ReaderState* state = reader.memory.state();
    if (!state) continue;
    const bool sleeps = state->armed.load(std::memory_order_seq_cst) != 0 &&
                        state->armed.exchange(0, std::memory_order_seq_cst) != 0;
    if (!sleeps && !all) continue;
    // Fails only when the reader has been woken more often than it can count.
    [[maybe_unused]] const ssize_t count = ::write(reader.event.get(), &one, sizeof one);
  }
}

}  // namespace Shoal
