#include "korureg/web/Address.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <system_error>

#include "korureg/Command.h"

namespace korureg::web {

namespace {

constexpr int backlog = 64;

struct Parts {
  std::string host;
  uint16_t port = 0;
};

// "HOST:PORT", where a host with colons stands in brackets; nothing for what is something else.
std::optional<Parts> partsOf(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  Parts parts;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, parts.port);
  if (error != std::errc() || stop != end) return std::nullopt;
  parts.host = text.substr(0, colon);
  if (parts.host.size() > 2 && parts.host.front() == '[' && parts.host.back() == ']') {
    parts.host = parts.host.substr(1, parts.host.size() - 2);
    if (parts.host.find(':') == std::string::npos) return std::nullopt;
  } else if (parts.host.find(':') != std::string::npos) {
    return std::nullopt;
  }
  return parts;
}

// The same address and port, whatever else the structures hold.
bool isNumber(const std::string& host, sockaddr_storage& place) {
  auto& four = reinterpret_cast<sockaddr_in&>(place);
  auto& six = reinterpret_cast<sockaddr_in6&>(place);
  if (::inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
    place.ss_family = AF_INET;
    return true;
  }
  if (::inet_pton(AF_INET6, host.c_str(), &six.sin6_addr) != 1) return false;
  place.ss_family = AF_INET6;
  return true;
}

}  // namespace

Address::Address(const std::string& text) {
  const auto parts = partsOf(text);
  if (!parts || !isNumber(parts->host == "localhost" ? "127.0.0.1" : parts->host, place_)) {
    throw UsageError(fmt::format(
        "'{}' is no address to listen on; '127.0.0.1:8017' and '[::1]:8017' are", text));
  }
  const in_port_t port = htons(parts->port);
  if (place_.ss_family == AF_INET) {
    reinterpret_cast<sockaddr_in&>(place_).sin_port = port;
  } else {
    reinterpret_cast<sockaddr_in6&>(place_).sin6_port = port;
  }
}

socklen_t Address::size() const {
  return place_.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

uint16_t Address::port() const {
  return ntohs(place_.ss_family == AF_INET
                   ? reinterpret_cast<const sockaddr_in&>(place_).sin_port
                   : reinterpret_cast<const sockaddr_in6&>(place_).sin6_port);
}

bool Address::isWild() const {
  if (place_.ss_family == AF_INET) {
    return reinterpret_cast<const sockaddr_in&>(place_).sin_addr.s_addr == htonl(INADDR_ANY);
  }
  return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6&>(place_).sin6_addr);
}

bool Address::isLoopback() const {
  if (place_.ss_family == AF_INET) {
    return ntohl(reinterpret_cast<const sockaddr_in&>(place_).sin_addr.s_addr) >> 24 == 127;
  }
  return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(place_).sin6_addr);
}

std::string Address::text() const {
  char host[INET6_ADDRSTRLEN] = {};
  if (place_.ss_family == AF_INET) {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(place_).sin_addr, host, sizeof host);
    return fmt::format("{}:{}", host, port());
  }
  ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(place_).sin6_addr, host,
              sizeof host);
  return fmt::format("[{}]:{}", host, port());
}

bool Address::isCalled(const std::string& host) const {
  auto parts = partsOf(host);
  // (Browsers leave the usual port out.)
  if (!parts && port() == 80) parts = partsOf(host + ":80");
  if (!parts || parts->port != port()) return false;
  if (parts->host == "localhost") return isLoopback() || isWild();
  sockaddr_storage called = {};
  if (!isNumber(parts->host, called)) return false;
  if (isWild()) return true;
  if (called.ss_family != place_.ss_family) return false;
  if (called.ss_family == AF_INET) {
    return reinterpret_cast<const sockaddr_in&>(called).sin_addr.s_addr ==
           reinterpret_cast<const sockaddr_in&>(place_).sin_addr.s_addr;
  }
  return IN6_ARE_ADDR_EQUAL(&reinterpret_cast<const sockaddr_in6&>(called).sin6_addr,
                            &reinterpret_cast<const sockaddr_in6&>(place_).sin6_addr);
}

Orb::Descriptor Address::listen() {
  const auto fail = [this](int error) {
    const std::string hint = error == EADDRINUSE      ? "; something else listens there"
                             : error == EADDRNOTAVAIL ? "; this machine has no such address"
                             : error == EACCES ? "; ports below 1024 are for the administrator"
                                               : "";
    throw Failure(fmt::format("cannot listen on {}: {}{}", text(),
                              std::generic_category().message(error), hint));
  };
  Orb::Descriptor listener(
      ::socket(place_.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener) fail(errno);
  const int yes = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(listener.get(), generic(), size()) != 0) fail(errno);
  if (::listen(listener.get(), backlog) != 0) fail(errno);
  socklen_t length = sizeof place_;
  ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&place_), &length);
  return listener;
}

}  // namespace korureg::web
