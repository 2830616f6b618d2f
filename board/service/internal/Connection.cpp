#include "board/service/internal/Connection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

#include "Orb/Trace.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

// Its name as long as it is there; a process may have made the socket for another one.
Actor peerOf(int socket) {
  ucred credentials = {};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return {};
  Actor peer{credentials.uid, credentials.pid, {}};
  const Orb::Descriptor file(
      ::open(fmt::format("/proc/{}/comm", peer.pid).c_str(), O_RDONLY | O_CLOEXEC));
  char name[32];
  const ssize_t count = file ? ::read(file.get(), name, sizeof name) : 0;
  if (count > 0) peer.process.assign(name, static_cast<size_t>(count));
  if (peer.process.ends_with('\n')) peer.process.pop_back();
  return peer;
}

}  // namespace

Connection::Connection(Orb::Descriptor socket, Turns& turns, Callbacks callbacks)
    : socket_(std::move(socket)),
      peer_(peerOf(socket_.get())),
      turns_(turns),
      callbacks_(std::move(callbacks)) {}

void Connection::start() { waitForMore(false); }

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
  work();
}

void Connection::turn() {
  hasTurn_ = false;
  if (socket_) work();
}

// Takes lines and makes lists for as long as a turn may last. What that brings is sent together.
void Connection::work() {
  const auto keep = shared_from_this();
  isWorking_ = true;
  if (callbacks_.begins) callbacks_.begins();
  const bool isLeft = workOn();
  isWorking_ = false;
  if (callbacks_.ends) callbacks_.ends();
  if (!socket_) return;
  in_.erase(0, std::exchange(taken_, 0));
  if (!list_ && !isLeft) takenAll();
  if (!writeWatch_) flush();
  if (socket_) waitForMore(isLeft);
}

// Whether there may be more to do.
bool Connection::workOn() {
  const auto end = std::chrono::steady_clock::now() + longestTurn;
  do {
    if (list_ ? !makeMore() : !takeLine()) return false;
  } while (socket_ && std::chrono::steady_clock::now() < end);
  return true;
}

// False when there is no whole line.
bool Connection::takeLine() {
  const size_t end = in_.find('\n', taken_);
  if (end == std::string::npos) return false;
  const auto line = std::string_view(in_).substr(taken_, end - taken_);
  taken_ = end + 1;
  if (std::exchange(skipping_, false)) return true;
  if (!take(line)) close();
  return true;
}

// What is left is the begin of a line.
void Connection::takenAll() {
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

// False when the client has to read first.
bool Connection::makeMore() {
  if (unsent() >= mostAhead) return false;
  try {
    if (list_->next(out_)) return true;
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "a list for a client came to no end: {}; hung up", e.what());
    close();
    return true;
  }
  list_.reset();
  out_ += '\n';
  out_ += std::exchange(behind_, {});
  return true;
}

// A line may be as long as it has to be, when the client has read those before it.
void Connection::send(std::string_view line) {
  if (!socket_) return;
  if ((list_ ? behind_.size() : unsent()) > mostUnread) return close();
  std::string& end = list_ ? behind_ : out_;
  end += line;
  end += '\n';
  if (!list_ && !isWorking_ && !writeWatch_) flush();
}

void Connection::offer(std::string_view line) {
  if (unsent() + behind_.size() < mostOffered) send(line);
}

void Connection::send(std::unique_ptr<Pieces> list) {
  if (socket_) list_ = std::move(list);
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
  writeWatch_ = Orb::eventLoop().writable(writeSocket_.get(), [this] {
    const auto self = shared_from_this();
    flush();
    if (socket_ && list_) waitForMore(false);
  });
}

// A list goes on when the client has read enough of it, and lines are read when none is left.
void Connection::waitForMore(bool isLeft) {
  const bool isNext = list_ ? unsent() < mostAhead : isLeft;
  if (isNext && !std::exchange(hasTurn_, true)) turns_.add(weak_from_this());
  if (list_ || isLeft || hasEnded_) return readWatch_.reset();
  if (readWatch_) return;
  readWatch_ = Orb::eventLoop().readable(socket_.get(), [this] { readSome(); });
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
  list_.reset();
  callbacks_.closed(*this);
}

}  // namespace Board
