#include "Shoal/internal/ReaderServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "Orb/DescriptorReserve.h"
#include "Orb/Trace.h"

namespace Shoal {

namespace {

Orb::TraceHandle trace("Shoal");

using std::chrono::milliseconds;

constexpr int mostAtOnce = 64;

}  // namespace

ReaderServer::ReaderServer(TableWriter& writer, const std::string& socketPath)
    : writer_(writer),
      socketPath_(socketPath),
      listener_(listenAt(socketPath)),
      backoff_(milliseconds(20), milliseconds(2000)) {
  listen();
  writer_.announceIs([this](bool grown) { wake(grown); });
}

ReaderServer::~ReaderServer() {
  ::unlink(socketPath_.c_str());
  writer_.hasReadersIs(false);
  writer_.announceIs({});
}

void ReaderServer::listen() {
  watch_ = Orb::eventLoop().readable(listener_.get(), [this] { acceptAll(); });
}

void ReaderServer::acceptAll() {
  // So many a turn, so that a flood of readers holds up nobody.
  for (int count = 0; count < mostAtOnce; ++count) {
    Orb::Descriptor socket(
        ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!socket && errno != EAGAIN) return pause(errno);
    if (!socket) return;
    // A reader takes a second one, for its bell, and has its writer wait no less than this.
    if (Orb::DescriptorReserve::now().isReachedBy(socket.get(), 1)) return pause(EMFILE);
    backoff_.reset();
    const Place place = readers_.emplace(readers_.end());
    place->socket = std::move(socket);
    place->watch = Orb::eventLoop().readable(place->socket.get(), [this, place] { heard(place); });
    // A reader greets at once.
    heard(place);
    if (readers_.size() - welcomed_ <= mostStrangers) continue;
    drop(std::find_if(readers_.begin(), readers_.end(),
                      [](const Reader& reader) { return !reader.memory.state(); }));
  }
}

// Without descriptors or memory the listener would stay readable, and be served without an end.
void ReaderServer::pause(int error) {
  if (backoff_.isFresh()) {
    ORB_TRACE(trace, 0, "{}: cannot accept a reader: {}", socketPath_,
              std::generic_category().message(error));
  }
  watch_ = Orb::eventLoop().after(backoff_.next(), [this] { listen(); });
}

// Either the greeting, or the end of the connection; anything else ends it.
void ReaderServer::heard(Place reader) {
  Orb::Descriptor memory;
  const Received received = receiveWith(reader->socket.get(), readerGreeting, memory);
  if (received == Received::nothing) return;
  const bool isNew = !reader->memory.state();
  if (!isNew || received != Received::expected || !welcome(*reader, memory)) drop(reader);
}

bool ReaderServer::welcome(Reader& reader, const Orb::Descriptor& memory) {
  if (welcomed_ >= mostReaders) {
    if (refusal_.isDue()) {
      ORB_TRACE(trace, 0, "{}: no room for a reader beside {} others", socketPath_, mostReaders);
    }
    return false;
  }
  Orb::Descriptor readersEnd;
  reader.bell = Bell::make(readersEnd);
  reader.memory = ReaderMemory::map(memory);
  if (!reader.memory.state()) return false;
  ++welcomed_;
  writer_.hasReadersIs(true);
  return reader.bell && sendWith(reader.socket.get(), writerAnswer, readersEnd.get());
}

void ReaderServer::drop(Place reader) {
  if (reader->memory.state()) --welcomed_;
  readers_.erase(reader);
  writer_.hasReadersIs(welcomed_ != 0);
}

void ReaderServer::wake(bool all) {
  for (const Reader& reader : readers_) {
    ReaderState* state = reader.memory.state();
    if (!state) continue;
    const bool sleeps = state->armed.load(std::memory_order_seq_cst) != 0 &&
                        state->armed.exchange(0, std::memory_order_seq_cst) != 0;
    if (sleeps || all) reader.bell.ring();
  }
}

}  // namespace Shoal
