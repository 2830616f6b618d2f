#include "board/service/internal/Scrape.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Orb/DescriptorReserve.h"
#include "Orb/Errno.h"
#include "board/service/internal/UnixListener.h"

namespace Board {

namespace {

constexpr std::chrono::seconds patience{10};
constexpr std::chrono::milliseconds pauseLength{500};
constexpr std::chrono::microseconds longestTurn{500};
constexpr int backlog = 16;
constexpr const char* figuresType = "application/openmetrics-text; version=1.0.0; charset=utf-8";

uint16_t portIn(const std::string& place, size_t begin) {
  uint16_t port = 0;
  const char* const end = place.data() + place.size();
  const auto [stop, error] = std::from_chars(place.data() + begin, end, port);
  if (error != std::errc() || stop != end || port == 0) {
    throw std::invalid_argument(fmt::format("'{}' has no port from 1 to 65535", place));
  }
  return port;
}

template <class Address>
Orb::Descriptor listening(const Address& address, int family, const std::string& place) {
  Orb::Descriptor socket(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int yes = 1;
  // (Connections of an agent before this one may still be known.)
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), backlog) != 0) {
    Orb::throwErrno("cannot listen at {}", place);
  }
  return socket;
}

// Nobody outside of the machine is served.
Orb::Descriptor listenerAt(const std::string& place) {
  constexpr std::string_view four = "127.0.0.1:";
  constexpr std::string_view six = "[::1]:";
  if (place.find('/') != std::string::npos) return listenAt(place);
  if (place.starts_with(four)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(portIn(place, four.size()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return listening(address, AF_INET, place);
  }
  if (place.starts_with(six)) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(portIn(place, six.size()));
    address.sin6_addr = in6addr_loopback;
    return listening(address, AF_INET6, place);
  }
  throw std::invalid_argument(fmt::format(
      "'{}' is no place for figures: the path of a socket with a '/', 127.0.0.1:PORT or [::1]:PORT",
      place));
}

std::string reply(const char* status, const char* type, const std::string& body) {
  return fmt::format(
      "HTTP/1.1 {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nConnection: close\r\n\r\n{}",
      status, type, body.size(), body);
}

}  // namespace

struct Scrape::Connection {
  Orb::Descriptor socket;
  std::string text = {};                 // what has come, and then what is left to be sent
  std::unique_ptr<Pieces> figures = {};  // that are still to be made
  std::unique_ptr<Orb::EventWatch> watch = {};
  std::unique_ptr<Orb::EventWatch> timer = {};
};

Scrape::Scrape(const std::string& place, std::function<std::unique_ptr<Pieces>()> figures)
    : figures_(std::move(figures)),
      path_(place.find('/') == std::string::npos ? std::string() : place),
      listener_(listenerAt(place)),
      node_(path_.empty() ? 0 : nodeOf(path_)),
      task_(Orb::eventLoop(), [this] { make(); }) {
  listen();
}

Scrape::~Scrape() {
  if (node_ != 0 && nodeOf(path_) == node_) ::unlink(path_.c_str());
}

void Scrape::listen() {
  watch_ = Orb::eventLoop().readable(listener_.get(), [this] { accept(); });
}

// There is no descriptor for whoever waits, and would have the loop spin.
void Scrape::pause() {
  watch_ = Orb::eventLoop().after(pauseLength, [this] {
    const auto timer = std::move(watch_);
    listen();
  });
}

void Scrape::accept() {
  Orb::Descriptor socket(
      ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) return pause();
  if (!socket || Orb::DescriptorReserve::now().isReachedBy(socket.get())) return;
  if (connections_.size() >= mostConnections) connections_.pop_front();
  const auto at = connections_.insert(connections_.end(), Connection{std::move(socket)});
  at->timer = Orb::eventLoop().after(patience, [this, at] { connections_.erase(at); });
  at->watch = Orb::eventLoop().readable(at->socket.get(), [this, at] { read(at); });
}

void Scrape::read(Connections::iterator at) {
  char piece[longestRequest];
  const ssize_t count = ::recv(at->socket.get(), piece, sizeof piece, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return void(connections_.erase(at));
  at->text.append(piece, static_cast<size_t>(count));
  if (at->text.find("\r\n\r\n") != std::string::npos) return answer(at);
  if (at->text.size() > longestRequest) connections_.erase(at);
}

void Scrape::answer(Connections::iterator at) {
  const std::string_view line = std::string_view(at->text).substr(0, at->text.find("\r\n"));
  const bool isGet = line.starts_with("GET ");
  const std::string_view target = isGet ? line.substr(4, line.find(' ', 4) - 4) : line;
  if (!isGet) {
    at->text = reply("405 Method Not Allowed", "text/plain", "only GET is served\n");
  } else if (target.substr(0, target.find('?')) != "/metrics") {
    at->text = reply("404 Not Found", "text/plain", "there is /metrics\n");
  } else {
    at->watch.reset();
    at->text.clear();
    at->figures = figures_();
    return make();
  }
  write(at);
}

// So long a turn, for whoever has waited longest.
void Scrape::make() {
  const auto end = std::chrono::steady_clock::now() + longestTurn;
  const auto isWaiting = [](const Connection& each) { return each.figures != nullptr; };
  const auto at = std::find_if(connections_.begin(), connections_.end(), isWaiting);
  if (at == connections_.end()) return;
  bool isMore = true;
  while (isMore && std::chrono::steady_clock::now() < end) isMore = at->figures->next(at->text);
  if (!isMore) {
    at->figures.reset();
    at->text = reply("200 OK", figuresType, at->text);
    write(at);
  }
  if (std::any_of(connections_.begin(), connections_.end(), isWaiting)) task_.schedule();
}

void Scrape::write(Connections::iterator at) {
  const ssize_t count =
      ::send(at->socket.get(), at->text.data(), at->text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN && errno != EINTR) return void(connections_.erase(at));
  if (count > 0) at->text.erase(0, static_cast<size_t>(count));
  if (at->text.empty()) return void(connections_.erase(at));
  at->watch.reset();
  at->watch = Orb::eventLoop().writable(at->socket.get(), [this, at] { write(at); });
}

}  // namespace Board
