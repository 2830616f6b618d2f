#include "board/service/internal/Connection.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "Orb/Trace.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

}  // namespace

Connection::Connection(Orb::Descriptor socket, Callbacks callbacks)
    : socket_(std::move(socket)), callbacks_(std::move(callbacks)) {}

void Connection::start() {
  readWatch_ = Orb::eventLoop().readable(socket_.get(), [this] { readSome(); });
}

// One piece a turn, so that a client that never stops sending gets no more than its share.
void Connection::readSome() {
  const auto keep = shared_from_this();
  char piece[longestLine];
  const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count < 0) return close();
  if (count == 0) {
    hasEnded_ = true;
    readWatch_.reset();
    return closeIfDone();
  }
  in_.append(piece, static_cast<size_t>(count));
  takeLines();
}

void Connection::takeLines() {
  size_t begin = 0;
  while (socket_) {
    const size_t end = in_.find('\n', begin);
    if (end == std::string::npos) break;
    const auto line = std::string_view(in_).substr(begin, end - begin);
    begin = end + 1;
    if (std::exchange(skipping_, false)) continue;
    if (!take(line)) return close();
  }
  in_.erase(0, begin);
  if (in_.size() <= longestLine) return;
  in_.clear();
  if (!std::exchange(skipping_, true)) callbacks_.lineTooLong(*this);
}

// Nobody knows how far a line came that ended in an exception, and its answer is missing: false,
// for those behind it must not be carried out then.
bool Connection::take(std::string_view line) {
  try {
    if (line.size() > longestLine) {
      callbacks_.lineTooLong(*this);
    } else if (!line.empty()) {
      callbacks_.line(*this, line);
    }
    return true;
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "a client's request came to no answer: {}; hung up", e.what());
    return false;
  }
}

void Connection::send(std::string_view line) {
  if (!socket_) return;
  if (out_.size() - sent_ + line.size() > mostUnread) return close();
  out_ += line;
  out_ += '\n';
  if (!writeWatch_) flush();
}

void Connection::flush() {
  const auto keep = shared_from_this();
  writeWatch_.reset();
  while (sent_ < out_.size()) {
    const ssize_t count = ::send(socket_.get(), out_.data() + sent_, out_.size() - sent_,
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno != EAGAIN) return close();
    if (count < 0) break;
    sent_ += static_cast<size_t>(count);
  }
  dropSent();
  if (out_.empty()) return closeIfDone();
  if (!writeSocket_) {
    writeSocket_ = Orb::Descriptor(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
    if (!writeSocket_) return close();
  }
  writeWatch_ = Orb::eventLoop().writable(writeSocket_.get(), [this] { flush(); });
}

// Half of the text at once, so that each byte is moved once at most on the average.
void Connection::dropSent() {
  if (sent_ < out_.size() - sent_) return;
  out_.erase(0, sent_);
  sent_ = 0;
  // A long answer leaves no memory behind.
  if (out_.empty() && out_.capacity() > longestLine) out_ = std::string();
}

struct Connection::Awaited {
  explicit Awaited(Connection& from) : connection(from.weak_from_this()) { ++from.awaited_; }
  ~Awaited() {
    const auto from = connection.lock();
    if (from && --from->awaited_ == 0) from->closeIfDone();
  }
  Awaited(const Awaited&) = delete;
  Awaited& operator=(const Awaited&) = delete;

  const std::weak_ptr<Connection> connection;
};

std::shared_ptr<void> Connection::awaited() { return std::make_shared<Awaited>(*this); }

void Connection::closeIfDone() {
  if (hasEnded_ && awaited_ == 0 && out_.empty()) close();
}

void Connection::close() {
  if (!socket_) return;
  const auto keep = shared_from_this();
  readWatch_.reset();
  writeWatch_.reset();
  writeSocket_.reset();
  socket_.reset();
  callbacks_.closed(*this);
}

}  // namespace Board
